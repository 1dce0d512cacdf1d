// One end-user account as the service describes it: the profile fields and
// the user token it issues at registration and login.
//
// Every field is optional and kept as the service's text: gender is not
// turned into a code, birthdate is not parsed into a date, avatar is the
// image's address. A field of another JSON type than string (a numeric
// birthdate, say) reads as absent. Only a body holding "code" (an error) or
// no body at all decodes to nothing. Instances are plain values, safe to read
// from any thread.
#ifndef ZRK_ZRKUSERAPIRESPONSE_H
#define ZRK_ZRKUSERAPIRESPONSE_H

#include "zrk/ZRKExport.h"

#include <memory>
#include <optional>
#include <string>

#include "zrk/ZRKApiResponseDecodable.h"
#include "zrk/ZRKJson.h"

namespace zrk {

class ZRK_API ZRKUserAPIResponse : public ZRKApiResponseDecodable {
 public:
  ZRKUserAPIResponse() = default;
  ~ZRKUserAPIResponse() override = default;

  // A new instance of the prototype's class (see newInstance) from the body.
  std::shared_ptr<ZRKApiResponseDecodable> decodedObjectFromAPIResponse(const ZRKJson* response) const override;

  // A new instance carrying the six profile fields; allResponseFields stays unset.
  std::shared_ptr<ZRKUserAPIResponse> copy() const;

  // "email(<email>)\nname(<name>)\n", an absent value printed as "(null)".
  std::string description() const;

  const std::optional<std::string>& email() const { return email_; }
  void setEmail(std::optional<std::string> email) { email_ = std::move(email); }
  const std::optional<std::string>& name() const { return name_; }
  void setName(std::optional<std::string> name) { name_ = std::move(name); }
  const std::optional<std::string>& gender() const { return gender_; }
  void setGender(std::optional<std::string> gender) { gender_ = std::move(gender); }
  const std::optional<std::string>& birthdate() const { return birthdate_; }
  void setBirthdate(std::optional<std::string> birthdate) { birthdate_ = std::move(birthdate); }
  const std::optional<std::string>& avatar() const { return avatar_; }
  void setAvatar(std::optional<std::string> avatar) { avatar_ = std::move(avatar); }
  // The user token; login stores it in the user session (ZRKUserSession.h).
  const std::optional<std::string>& token() const { return token_; }
  void setToken(std::optional<std::string> token) { token_ = std::move(token); }
  // Never filled by the decoder.
  std::optional<ZRKJson> allResponseFields() const override { return allResponseFields_; }
  void setAllResponseFields(std::optional<ZRKJson> fields) { allResponseFields_ = std::move(fields); }

 protected:
  // The plain new instance that decoding and copying fill: a subclass
  // overrides it to receive instances of itself.
  virtual std::shared_ptr<ZRKUserAPIResponse> newInstance() const { return std::make_shared<ZRKUserAPIResponse>(); }

 private:
  std::optional<std::string> email_;
  std::optional<std::string> name_;
  std::optional<std::string> gender_;
  std::optional<std::string> birthdate_;
  std::optional<std::string> avatar_;
  std::optional<std::string> token_;
  std::optional<ZRKJson> allResponseFields_;
};

}  // namespace zrk

#endif  // ZRK_ZRKUSERAPIRESPONSE_H
