// An end user's account fields, as the application fills them for the user
// operations of ZRKApiClient, and the parameter sets those operations send.
//
// Email, name and password are mandatory wherever a parameter set includes
// them: building requiredParameters, loginParameters or allParameters for a
// user that lacks one of them throws std::invalid_argument on the calling
// thread, before anything is sent. This is the one exception the library
// lets out; the user operations of ZRKApiClient that build these sets let
// it through to their caller.
//
// Only the mandatory fields, birthdate, gender and avatar are sent; the
// other fields are the application's own. A ZRKUser is a plain value: the
// library only reads it, and never after the call that was given it returns.
#ifndef ZRK_ZRKUSER_H
#define ZRK_ZRKUSER_H

#include "zrk/ZRKExport.h"

#include <memory>
#include <optional>
#include <string>

#include "zrk/ZRKJson.h"

namespace zrk {

class ZRK_API ZRKUser {
 public:
  ZRKUser() = default;
  // Reads "name", "email", "password", "birthdate", "gender" and "avatar";
  // a value that is no string, or a dictionary that is no object, leaves
  // the field absent.
  explicit ZRKUser(const ZRKJson& dictionary);
  static std::shared_ptr<ZRKUser> initFromDictionary(const ZRKJson& dictionary);

  // {"email", "password"}. Throws std::invalid_argument when either is absent.
  ZRKJson loginParameters() const;
  // {"email", "name", "password"}. Throws std::invalid_argument when any is absent.
  ZRKJson requiredParameters() const;
  // "birthdate", "gender" and "avatar", each only when set; never throws.
  ZRKJson optionalParameters() const;
  // The optional entries and the required ones; throws as requiredParameters.
  ZRKJson allParameters() const;

  const std::optional<std::string>& ZRKUserEmail() const { return email_; }
  void setZRKUserEmail(std::optional<std::string> email) { email_ = std::move(email); }
  const std::optional<std::string>& ZRKUserPassword() const { return password_; }
  void setZRKUserPassword(std::optional<std::string> password) { password_ = std::move(password); }
  const std::optional<std::string>& ZRKUserName() const { return name_; }
  void setZRKUserName(std::optional<std::string> name) { name_ = std::move(name); }
  const std::optional<std::string>& ZRKUserBirthdate() const { return birthdate_; }
  void setZRKUserBirthdate(std::optional<std::string> birthdate) { birthdate_ = std::move(birthdate); }
  // The avatar image's address; see ZRKApiClient::updateUserAvatar.
  const std::optional<std::string>& ZRKUserAvatar() const { return avatar_; }
  void setZRKUserAvatar(std::optional<std::string> avatar) { avatar_ = std::move(avatar); }
  const std::optional<std::string>& ZRKUserId() const { return userId_; }
  void setZRKUserId(std::optional<std::string> userId) { userId_ = std::move(userId); }
  // Free text, sent as it is (unlike the client's numeric gender header).
  const std::optional<std::string>& ZRKUserGender() const { return gender_; }
  void setZRKUserGender(std::optional<std::string> gender) { gender_ = std::move(gender); }
  const std::optional<std::string>& ZRKUserAge() const { return age_; }
  void setZRKUserAge(std::optional<std::string> age) { age_ = std::move(age); }
  const std::optional<std::string>& ZRKDeviceType() const { return deviceType_; }
  void setZRKDeviceType(std::optional<std::string> deviceType) { deviceType_ = std::move(deviceType); }
  const std::optional<std::string>& ZRKDeviceModel() const { return deviceModel_; }
  void setZRKDeviceModel(std::optional<std::string> deviceModel) { deviceModel_ = std::move(deviceModel); }
  const std::optional<std::string>& ZRKDeviceVersion() const { return deviceVersion_; }
  void setZRKDeviceVersion(std::optional<std::string> deviceVersion) { deviceVersion_ = std::move(deviceVersion); }
  const std::optional<std::string>& ZRKAppVersion() const { return appVersion_; }
  void setZRKAppVersion(std::optional<std::string> appVersion) { appVersion_ = std::move(appVersion); }
  float ZRKUserLat() const { return lat_; }
  void setZRKUserLat(float lat) { lat_ = lat; }
  float ZRKUserLng() const { return lng_; }
  void setZRKUserLng(float lng) { lng_ = lng; }
  const std::optional<ZRKJson>& allResponseFields() const { return allResponseFields_; }
  void setAllResponseFields(std::optional<ZRKJson> fields) { allResponseFields_ = std::move(fields); }

 private:
  std::optional<std::string> email_;
  std::optional<std::string> password_;
  std::optional<std::string> name_;
  std::optional<std::string> birthdate_;
  std::optional<std::string> avatar_;
  std::optional<std::string> userId_;
  std::optional<std::string> gender_;
  std::optional<std::string> age_;
  std::optional<std::string> deviceType_;
  std::optional<std::string> deviceModel_;
  std::optional<std::string> deviceVersion_;
  std::optional<std::string> appVersion_;
  float lat_ = 0;
  float lng_ = 0;
  std::optional<ZRKJson> allResponseFields_;
};

}  // namespace zrk

#endif  // ZRK_ZRKUSER_H
