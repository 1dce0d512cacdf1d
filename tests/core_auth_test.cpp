#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <future>

#include "support/LoopbackServer.h"
#include "support/MainQueueWait.h"
#include "support/ServiceTest.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKUserSession.h"

namespace zrk {
namespace {

using test::LoopbackServer;
using test::RecordedRequest;
using test::ScriptedResponse;

double now() { return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(); }

std::shared_ptr<ZRKApiAuthToken> decode(const ZRKJson& body) {
  return std::static_pointer_cast<ZRKApiAuthToken>(ZRKApiAuthToken().decodedObjectFromAPIResponse(&body));
}

TEST(AuthToken, ValidUpToTheLastInstantBeforeExpire) {
  ZRKApiAuthToken token;
  EXPECT_EQ(token.tokenString(), "");
  EXPECT_FALSE(token.isValid());
  EXPECT_TRUE(token.expired());
  token.setExpire(now() + 5);
  EXPECT_TRUE(token.isValid());
  token.setExpire(std::floor(now()));
  EXPECT_FALSE(token.isValid());
  token.setExpire(0);
  EXPECT_FALSE(token.isValid());
  token.setExpire(now() + 5);
  token.setTokenString(std::nullopt);
  EXPECT_TRUE(token.expired());
  EXPECT_FALSE(token.isValid());
}

TEST(AuthToken, DecodesWholeSecondsAndCopiesWithoutTheFields) {
  const auto token = decode({{"token", "t1"}, {"expire", "1700000000"}, {"expireIn", 59.9}, {"x", nullptr}});
  ASSERT_TRUE(token);
  EXPECT_EQ(token->tokenString(), "t1");
  EXPECT_EQ(token->expire(), 1700000000.0);
  EXPECT_EQ(token->expireIn(), 59.0);
  EXPECT_EQ(token->allResponseFields(), (ZRKJson{{"token", "t1"}, {"expire", "1700000000"}, {"expireIn", 59.9}}));
  EXPECT_EQ(token->description(), "token: t1");
  const auto copy = token->copy();
  EXPECT_EQ(copy->tokenString(), "t1");
  EXPECT_EQ(copy->expire(), 1700000000.0);
  EXPECT_EQ(copy->expireIn(), 59.0);
  EXPECT_FALSE(copy->allResponseFields());

  const auto bare = decode({{"token", "t"}});
  ASSERT_TRUE(bare);
  EXPECT_EQ(bare->expire(), 0.0);
  EXPECT_FALSE(decode({{"token", 5}}));
  EXPECT_FALSE(decode({{"expire", 5}}));
  EXPECT_FALSE(ZRKApiAuthToken().decodedObjectFromAPIResponse(nullptr));
}

TEST(UserSession, AnUnsetTokenIsValidAnEmptyOneIsNot) {
  ZRKUserSession session;
  EXPECT_EQ(session.userToken(), "");
  EXPECT_FALSE(session.valid());
  session.setUserToken(std::nullopt);
  EXPECT_TRUE(session.valid());
  ZRKUserSession::setCurrentUserToken("u");
  EXPECT_TRUE(ZRKUserSession::currentSession()->valid());
  ZRKUserSession::clearSession();
  EXPECT_FALSE(ZRKUserSession::currentSession()->valid());
  EXPECT_EQ(ZRKUserSession::currentSession()->userToken(), "");
}

// The token step answers with what each test picks; every other path
// answers {"value": "ok"}.
class AuthFlowTest : public test::ServiceTest {
 protected:
  void SetUp() override {
    ServiceTest::SetUp();
    authAnswer = {};
    endpointAnswer = {.body = R"({"value":"ok"})"};
  }

  // What an endpoint does: refresh, then its own request from the completion.
  void endpointCall() {
    std::atomic<bool> done{false};
    ZRKApiAuthToken::refresh([&done](bool, std::optional<ZRKError>) {
      ZRKApiRequest::getWithAPIClient(ZRKApiClient::sharedClient(), "app/v1/collection", {}, nullptr,
                                      [&done](auto, auto, auto) { done = true; });
    });
    ASSERT_TRUE(test::runMainQueueUntil([&] { return done.load(); }));
  }

  std::vector<std::string> paths() const {
    std::vector<std::string> out;
    for (const auto& request : server.requests()) out.push_back(request.method + " " + request.path);
    return out;
  }

};

using Paths = std::vector<std::string>;

TEST_F(AuthFlowTest, TheFirstCallAuthenticatesOnceAndTheTokenIsReused) {
  authAnswer.body = ZRKJson{{"token", "t1"}, {"expire", static_cast<long>(now()) + 3600}, {"expireIn", 3600}}.dump();
  endpointCall();
  endpointCall();
  EXPECT_EQ(paths(), (Paths{"POST /app/v1/auth", "GET /app/v1/collection", "GET /app/v1/collection"}));
  const auto requests = server.requests();
  EXPECT_EQ(requests[0].body, R"({"key":"","secret":""})");
  EXPECT_EQ(requests[0].header("Content-Type"), "application/json");
  EXPECT_EQ(requests[1].header("Authorization"), "Bearer dDE=");
  EXPECT_EQ(requests[2].header("Authorization"), "Bearer dDE=");
  EXPECT_TRUE(ZRKApiAuthToken::token()->isValid());
}

TEST_F(AuthFlowTest, ATokenWithoutExpireMakesEveryCallAuthenticate) {
  authAnswer.body = R"({"token":"t1"})";
  endpointCall();
  endpointCall();
  EXPECT_EQ(paths(), (Paths{"POST /app/v1/auth", "GET /app/v1/collection", "POST /app/v1/auth",
                            "GET /app/v1/collection"}));
  EXPECT_EQ(ZRKApiAuthToken::token()->tokenString(), "t1");
  EXPECT_FALSE(ZRKApiAuthToken::token()->isValid());
  // The second authentication carried the stale token.
  EXPECT_EQ(server.requests()[2].header("Authorization"), "Bearer dDE=");
}

TEST_F(AuthFlowTest, ATokenExpiringThisSecondIsRenewed) {
  auto current = std::make_shared<ZRKApiAuthToken>();
  current->setTokenString("old");
  current->setExpire(std::floor(now()));
  ZRKApiAuthToken::setToken(current);
  authAnswer.body = ZRKJson{{"token", "new"}, {"expire", static_cast<long>(now()) + 3600}}.dump();
  endpointCall();
  EXPECT_EQ(paths(), (Paths{"POST /app/v1/auth", "GET /app/v1/collection"}));
  EXPECT_EQ(server.requests()[1].header("Authorization"), "Bearer bmV3");
}

TEST_F(AuthFlowTest, AFailedAuthenticationLeavesTheCacheAndIsNotRetried) {
  authAnswer = {.status = 401, .body = R"({"code":401,"message":"bad key"})"};
  bool called = false;
  ZRKApiAuthToken::refresh([&](bool success, std::optional<ZRKError> error) {
    called = true;
    EXPECT_TRUE(ZRKMainQueue::isMainThread());
    EXPECT_FALSE(success);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain, ZRKDomain);
    EXPECT_EQ(error->code, 401);
  });
  ASSERT_TRUE(test::runMainQueueUntil([&] { return called; }));
  EXPECT_EQ(server.count(), 1u);
  EXPECT_EQ(ZRKApiAuthToken::token()->tokenString(), "");
}

TEST_F(AuthFlowTest, ConcurrentRefreshesAreNotMerged) {
  authAnswer.body = ZRKJson{{"token", "t"}, {"expire", static_cast<long>(now()) + 3600}}.dump();
  authAnswer.stall = std::chrono::milliseconds(2000);
  std::atomic<int> completions{0};
  for (int i = 0; i < 3; ++i) ZRKApiAuthToken::refresh([&](bool success, auto) { completions += success ? 1 : 100; });
  ASSERT_TRUE(server.waitForRequests(3));
  server.release();
  ASSERT_TRUE(test::runMainQueueUntil([&] { return completions.load() == 3; }));
  EXPECT_EQ(paths(), Paths(3, "POST /app/v1/auth"));
  // With a valid token a refresh completes at once, off the main thread.
  std::promise<bool> offMain;
  ZRKApiAuthToken::refresh([&](bool success, auto) { offMain.set_value(success && !ZRKMainQueue::isMainThread()); });
  auto result = offMain.get_future();
  ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(result.get());
  EXPECT_EQ(server.count(), 3u);
}

}  // namespace
}  // namespace zrk
