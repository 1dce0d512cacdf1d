// The app's credentials and the end user's id.
//
// One shared configuration exists per process (sharedConfiguration); the
// shared client reads it by reference, so credentials written here are used
// by the next request. Unset credentials are absent (nullopt). All members
// are safe to call from any thread.
#ifndef ZRK_ZRKAPPCONFIGURATION_H
#define ZRK_ZRKAPPCONFIGURATION_H

#include "zrk/ZRKExport.h"

#include <memory>
#include <optional>
#include <string>

namespace zrk {

class ZRK_API ZRKAppConfiguration : public std::enable_shared_from_this<ZRKAppConfiguration> {
 public:
  static void initialize() {}
  // The process's configuration, created on first use.
  static std::shared_ptr<ZRKAppConfiguration> sharedConfiguration();
  // setAppUserId on the shared configuration. (A class operation cannot share
  // its name with the instance setter in C++.)
  static void setSharedAppUserId(std::optional<std::string> appUserId);

  // A configuration without key and secret whose user id is the device's
  // default user id (ZRKDevice).
  static std::shared_ptr<ZRKAppConfiguration> init();

  std::optional<std::string> appKey() const;
  void setAppKey(std::optional<std::string> appKey);
  std::optional<std::string> appSecret() const;
  void setAppSecret(std::optional<std::string> appSecret);
  std::optional<std::string> appUserId() const;
  // nullopt restores the device's default user id and does nothing else. An
  // id equal to the current one does nothing. Any other id is stored, the
  // cached app token is cleared and a new one is fetched in the background.
  void setAppUserId(std::optional<std::string> appUserId);

  // A new configuration filled through the setters, so the user-id rule above
  // runs for the copy too.
  std::shared_ptr<ZRKAppConfiguration> copy() const;
  // "appID: <key>\nappSecret: <secret> appUserId: <id>", "(null)" for unset values.
  std::string description() const;

  ZRKAppConfiguration(const ZRKAppConfiguration&) = delete;
  ZRKAppConfiguration& operator=(const ZRKAppConfiguration&) = delete;
  ~ZRKAppConfiguration();

 private:
  ZRKAppConfiguration();
  struct Fields;
  std::unique_ptr<Fields> fields_;
};

}  // namespace zrk

#endif  // ZRK_ZRKAPPCONFIGURATION_H
