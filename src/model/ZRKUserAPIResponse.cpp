#include "zrk/ZRKUserAPIResponse.h"

#include "zrk/ZRKDictionaryAccessors.h"
#include "model/ZRKNullRemoval.h"

namespace zrk {
namespace {

std::string orNull(const std::optional<std::string>& value) { return value ? *value : "(null)"; }

}  // namespace

std::shared_ptr<ZRKApiResponseDecodable> ZRKUserAPIResponse::decodedObjectFromAPIResponse(
    const ZRKJson* response) const {
  if (!response || !response->is_object()) return nullptr;
  detail::WithoutNulls without(*response);
  // Any value under "code", even 0 or "", marks an error body.
  if ((*without).contains("code")) return nullptr;

  auto user = newInstance();
  user->email_ = without.takeString("email");
  user->name_ = without.takeString("name");
  user->gender_ = without.takeString("gender");
  user->birthdate_ = without.takeString("birthdate");
  user->avatar_ = without.takeString("avatar");
  user->token_ = without.takeString("token");
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
