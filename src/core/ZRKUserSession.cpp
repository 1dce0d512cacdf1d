#include "zrk/ZRKUserSession.h"

#include <mutex>

namespace zrk {

struct ZRKUserSession::Fields {
  mutable std::mutex mutex;
  std::optional<std::string> userToken = std::string();  // guarded by mutex
};

ZRKUserSession::ZRKUserSession() : fields_(std::make_unique<Fields>()) {}
ZRKUserSession::~ZRKUserSession() = default;

std::shared_ptr<ZRKUserSession> ZRKUserSession::currentSession() {
  static const auto session = std::make_shared<ZRKUserSession>();
  return session;
}

void ZRKUserSession::clearSession() { currentSession()->setUserToken(std::string()); }

void ZRKUserSession::setCurrentUserToken(std::optional<std::string> userToken) {
  currentSession()->setUserToken(std::move(userToken));
}

bool ZRKUserSession::valid() const {
  std::lock_guard lock(fields_->mutex);
  return fields_->userToken != std::string();
}

std::optional<std::string> ZRKUserSession::userToken() const {
  std::lock_guard lock(fields_->mutex);
  return fields_->userToken;
}

void ZRKUserSession::setUserToken(std::optional<std::string> userToken) {
  std::lock_guard lock(fields_->mutex);
  fields_->userToken = std::move(userToken);
}

}  // namespace zrk
