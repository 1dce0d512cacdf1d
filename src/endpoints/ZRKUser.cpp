#include "zrk/ZRKUser.h"

#include <stdexcept>

#include "zrk/ZRKDictionaryAccessors.h"

namespace zrk {
namespace {

// Mandatory fields have no gentler check: an absent one stops the call
// before any request exists.
void require(ZRKJson& parameters, const char* key, const std::optional<std::string>& value) {
  if (!value) throw std::invalid_argument(std::string("ZRKUser: no value for \"") + key + "\"");
  parameters[key] = *value;
}

void optional(ZRKJson& parameters, const char* key, const std::optional<std::string>& value) {
  if (value) parameters[key] = *value;
}

}  // namespace

ZRKUser::ZRKUser(const ZRKJson& dictionary)
    : email_(zrk_stringForKey(dictionary, "email")),
      password_(zrk_stringForKey(dictionary, "password")),
      name_(zrk_stringForKey(dictionary, "name")),
      birthdate_(zrk_stringForKey(dictionary, "birthdate")),
      avatar_(zrk_stringForKey(dictionary, "avatar")),
      gender_(zrk_stringForKey(dictionary, "gender")) {}

std::shared_ptr<ZRKUser> ZRKUser::initFromDictionary(const ZRKJson& dictionary) {
  return std::make_shared<ZRKUser>(dictionary);
}

ZRKJson ZRKUser::loginParameters() const {
  ZRKJson parameters = ZRKJson::object();
  require(parameters, "email", email_);
  require(parameters, "password", password_);
  return parameters;
}

ZRKJson ZRKUser::requiredParameters() const {
  ZRKJson parameters = ZRKJson::object();
  require(parameters, "email", email_);
  require(parameters, "name", name_);
  require(parameters, "password", password_);
  return parameters;
}

ZRKJson ZRKUser::optionalParameters() const {
  ZRKJson parameters = ZRKJson::object();
  optional(parameters, "birthdate", birthdate_);
  optional(parameters, "gender", gender_);
  optional(parameters, "avatar", avatar_);
  return parameters;
}

ZRKJson ZRKUser::allParameters() const {
  ZRKJson parameters = optionalParameters();
  parameters.update(requiredParameters());
  return parameters;
}

}  // namespace zrk
