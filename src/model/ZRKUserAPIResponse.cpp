#include "zrk/ZRKUserAPIResponse.h"

#include "zrk/ZRKDictionaryAccessors.h"

namespace zrk {
namespace {

std::string orNull(const std::optional<std::string>& value) { return value ? *value : "(null)"; }

}  // namespace

std::shared_ptr<ZRKApiResponseDecodable> ZRKUserAPIResponse::decodedObjectFromAPIResponse(
    const ZRKJson* response) const {
  if (!response || !response->is_object()) return nullptr;
  const ZRKJson fields = zrk_dictionaryByRemovingNulls(*response);
  // Any value under "code", even 0 or "", marks an error body.
  if (fields.contains("code")) return nullptr;

  auto user = newInstance();
  user->email_ = zrk_stringForKey(fields, "email");
  user->name_ = zrk_stringForKey(fields, "name");
  user->gender_ = zrk_stringForKey(fields, "gender");
  user->birthdate_ = zrk_stringForKey(fields, "birthdate");
  user->avatar_ = zrk_stringForKey(fields, "avatar");
  user->token_ = zrk_stringForKey(fields, "token");
  return user;
}

std::shared_ptr<ZRKUserAPIResponse> ZRKUserAPIResponse::copy() const {
  auto copy = newInstance();
  copy->email_ = email_;
  copy->name_ = name_;
  copy->gender_ = gender_;
  copy->birthdate_ = birthdate_;
  copy->avatar_ = avatar_;
  copy->token_ = token_;
  return copy;
}

std::string ZRKUserAPIResponse::description() const {
  return "email(" + orNull(email_) + ")\nname(" + orNull(name_) + ")\n";
}

}  // namespace zrk
