// The library's entry point for applications.
//
//   zrk::ZRKApi::initializeWithAppKey("key", "secret");
//   zrk::ZRKApi::sharedApiClient()->...;   // endpoint operations
//   zrk::ZRKMainQueue::mainQueue().run();  // completions run here
//
// Everything goes to the shared ZRKApiClient; see ZRKApiClient.h.
#ifndef ZRK_ZRKAPI_H
#define ZRK_ZRKAPI_H

#include "zrk/ZRKExport.h"

#include <memory>
#include <optional>
#include <string>

#include "zrk/ZRKApiClient.h"

namespace zrk {

class ZRK_API ZRKApi {
 public:
  ZRKApi() = delete;
  static std::string apiVersion() { return "v1"; }
  static std::string sdkVersion();
  static std::shared_ptr<ZRKApiClient> sharedApiClient() { return ZRKApiClient::sharedClient(); }
  static void initializeWithAppKey(std::optional<std::string> appKey, std::optional<std::string> appSecret) {
    ZRKApiClient::initializeWithAppKey(std::move(appKey), std::move(appSecret));
  }
  static void initializeWithAppKey(std::optional<std::string> appKey, std::optional<std::string> appSecret,
                                   std::optional<std::string> userId) {
    ZRKApiClient::initializeWithAppKey(std::move(appKey), std::move(appSecret), std::move(userId));
  }
};

}  // namespace zrk

#endif  // ZRK_ZRKAPI_H
