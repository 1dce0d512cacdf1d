// The shared client against the in-memory transport: no socket. The token
// step ("POST /app/v1/auth") answers a token valid until 2100 unless a test
// scripts it otherwise; every other path answers 404 until scripted. The
// token cache, the user session and the base URL are reset around each test.
#ifndef ZRK_TESTS_MEMORYSERVICETEST_H
#define ZRK_TESTS_MEMORYSERVICETEST_H

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKMainQueue.h"
#include "zrk/ZRKUserSession.h"
#include "zrk/testing/ZRKMemoryTransport.h"

namespace zrk::test {

using testing::ZRKMemoryTransport;
using testing::ZRKScriptedResponse;

inline constexpr const char* kTestBaseURL = "https://api.zrk.test/";

class MemoryServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Written once: a task that an earlier test left behind may be reading it.
    const auto configuration = ZRKApiClient::sharedUrlSessionConfiguration();
    if (configuration->transport != transport) configuration->transport = transport;
    transport->reset();
    ZRKApiAuthToken::clear();
    ZRKUserSession::clearSession();
    ZRKApiClient::setBaseUrl(kTestBaseURL);
    transport->respond("POST", "/app/v1/auth", ZRKScriptedResponse::json({{"token", "t1"}, {"expire", 4102444800}}));
  }
  void TearDown() override {
    ZRKApiAuthToken::clear();
    ZRKUserSession::clearSession();
    ZRKApiClient::setBaseUrl(ZRKDefaultBaseURL);
  }

  // Every request but the token step's, in order.
  std::vector<ZRKURLRequest> endpointRequests() const {
    std::vector<ZRKURLRequest> out;
    for (auto& request : transport->requests()) {
      if (!request.URL() || request.URL()->path() != "/app/v1/auth") out.push_back(std::move(request));
    }
    return out;
  }

  // Lets the main queue run until `count` requests have been sent in all;
  // the token step's answer is handled there before the request it opens.
  bool sent(std::size_t count) const {
    return ZRKMainQueue::mainQueue().runUntil([count] { return transport->requests().size() >= count; },
                                              std::chrono::seconds(5));
  }

  // Puts a token in the cache, valid until 2100 unless `expire` says otherwise.
  static void cacheToken(std::string token, double expire = 4102444800) {
    auto cached = std::make_shared<ZRKApiAuthToken>();
    cached->setTokenString(std::move(token));
    cached->setExpire(expire);
    ZRKApiAuthToken::setToken(cached);
  }

  // "METHOD /path?query" of a recorded request.
  static std::string line(const ZRKURLRequest& request) {
    if (!request.URL()) return request.HTTPMethod() + " <no URL>";
    const auto query = request.URL()->query();
    return request.HTTPMethod() + " " + request.URL()->path() + (query ? "?" + *query : "");
  }

  static inline const std::shared_ptr<ZRKMemoryTransport> transport = ZRKMemoryTransport::create();
  std::shared_ptr<ZRKApiClient> client = ZRKApiClient::sharedClient();
};

}  // namespace zrk::test

#endif  // ZRK_TESTS_MEMORYSERVICETEST_H
