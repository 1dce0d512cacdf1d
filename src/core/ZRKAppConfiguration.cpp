#include "zrk/ZRKAppConfiguration.h"

#include <mutex>

#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKDevice.h"

namespace zrk {

struct ZRKAppConfiguration::Fields {
  mutable std::mutex mutex;
  std::optional<std::string> appKey;     // guarded by mutex
  std::optional<std::string> appSecret;  // guarded by mutex
  std::optional<std::string> appUserId;  // guarded by mutex
};

ZRKAppConfiguration::ZRKAppConfiguration() : fields_(std::make_unique<Fields>()) {
  fields_->appUserId = ZRKDevice::defaultUserId();
}
ZRKAppConfiguration::~ZRKAppConfiguration() = default;

std::shared_ptr<ZRKAppConfiguration> ZRKAppConfiguration::sharedConfiguration() {
  static const std::shared_ptr<ZRKAppConfiguration> shared = init();
  return shared;
}

void ZRKAppConfiguration::setSharedAppUserId(std::optional<std::string> appUserId) {
  sharedConfiguration()->setAppUserId(std::move(appUserId));
}

std::shared_ptr<ZRKAppConfiguration> ZRKAppConfiguration::init() {
  return std::shared_ptr<ZRKAppConfiguration>(new ZRKAppConfiguration);
}

std::optional<std::string> ZRKAppConfiguration::appKey() const {
  std::lock_guard lock(fields_->mutex);
  return fields_->appKey;
}
void ZRKAppConfiguration::setAppKey(std::optional<std::string> appKey) {
  std::lock_guard lock(fields_->mutex);
  fields_->appKey = std::move(appKey);
}
std::optional<std::string> ZRKAppConfiguration::appSecret() const {
  std::lock_guard lock(fields_->mutex);
  return fields_->appSecret;
}
void ZRKAppConfiguration::setAppSecret(std::optional<std::string> appSecret) {
  std::lock_guard lock(fields_->mutex);
  fields_->appSecret = std::move(appSecret);
}
std::optional<std::string> ZRKAppConfiguration::appUserId() const {
  std::lock_guard lock(fields_->mutex);
  return fields_->appUserId;
}

void ZRKAppConfiguration::setAppUserId(std::optional<std::string> appUserId) {
  {
    std::lock_guard lock(fields_->mutex);
    if (!appUserId) {
      fields_->appUserId = ZRKDevice::defaultUserId();
      return;
    }
    if (fields_->appUserId == appUserId) return;
    fields_->appUserId = std::move(appUserId);
  }
  // A token belongs to a user id: a new id needs a new token at once.
  ZRKApiAuthToken::clear();
  ZRKApiAuthToken::refresh(nullptr);
}

std::shared_ptr<ZRKAppConfiguration> ZRKAppConfiguration::copy() const {
  auto copy = init();
  copy->setAppKey(appKey());
  copy->setAppSecret(appSecret());
  copy->setAppUserId(appUserId());
  return copy;
}

std::string ZRKAppConfiguration::description() const {
  const auto text = [](const std::optional<std::string>& s) { return s.value_or("(null)"); };
  return "appID: " + text(appKey()) + "\nappSecret: " + text(appSecret()) + " appUserId: " + text(appUserId());
}

}  // namespace zrk
