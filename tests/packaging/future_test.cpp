#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "support/MainQueueWait.h"
#include "support/ServiceTest.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKFuture.h"
#include "zrk/ZRKMainQueue.h"
#include "zrk/ZRKScanAPIResponse.h"
#include "zrk/ZRKUser.h"
#include "zrk/ZRKUserAPIResponse.h"
#include "zrk/ZRKUserSession.h"

namespace zrk {
namespace {

using namespace std::chrono_literals;
using test::ScriptedResponse;

std::shared_ptr<ZRKUser> ann() {
  return ZRKUser::initFromDictionary({{"email", "ann@example.com"}, {"name", "Ann"}, {"password", "pw1"}});
}

// What a future ended with, reduced to what the rows compare.
struct Outcome {
  ZRKFutureStatus status = ZRKFutureStatus::pending;
  bool hasValue = false;
  long errorCode = 0;
  std::string errorDomain;

  friend bool operator==(const Outcome&, const Outcome&) = default;
  friend std::ostream& operator<<(std::ostream& os, const Outcome& o) {
    return os << "status " << static_cast<int>(o.status) << " value " << o.hasValue << " error " << o.errorDomain
              << "/" << o.errorCode;
  }
};

template <class T>
Outcome outcomeOf(const ZRKFuture<ZRKResult<T>>& future) {
  Outcome outcome{.status = future.wait()};
  if (const auto result = future.get()) {
    outcome.hasValue = static_cast<bool>(result->value);
    if (result->error) {
      outcome.errorCode = result->error->code;
      outcome.errorDomain = result->error->domain;
    }
  }
  return outcome;
}

class FutureTest : public test::ServiceTest {
 protected:
  ZRKFutureClient api{client};
};

struct Row {
  const char* name;
  ScriptedResponse auth;
  ScriptedResponse endpoint;
  std::function<Outcome(const ZRKFutureClient&)> start;
  Outcome expected;
  std::size_t requests;  // that reached the endpoint
};

const ScriptedResponse tokenAnswer{.body = R"({"token":"t1","expire":4102444800})"};
const ScriptedResponse refusedToken{.status = 500, .body = R"({"code":500,"message":"down"})"};
const ScriptedResponse serviceError{.status = 404, .body = R"({"code":404,"message":"none"})"};
const ScriptedResponse account{.body = R"({"email":"ann@example.com","name":"Ann","token":"ut1"})"};
const Outcome value{.status = ZRKFutureStatus::ready, .hasValue = true};
const Outcome silent{.status = ZRKFutureStatus::silent};

Outcome error(long code) { return {.status = ZRKFutureStatus::ready, .errorCode = code, .errorDomain = ZRKDomain}; }

// Each operation waited for on the main thread, where its completion runs:
// a plain blocking wait would never return.
TEST_F(FutureTest, ResolvesEachOperationOnTheMainThreadWithItsCompletionsArguments) {
  const Row rows[] = {
      {"collections", tokenAnswer, {.body = R"({"result":[{"id":"c1"}]})"},
       [](auto& api) { return outcomeOf(api.retrieveCollections()); }, value, 1},
      {"history error", tokenAnswer, serviceError,
       [](auto& api) { return outcomeOf(api.retrieveScanHistoryWithCount(5, 0)); }, error(404), 1},
      {"url scan", tokenAnswer, {.body = R"({"id":"s1","score":87,"triggerId":"tr"})"},
       [](auto& api) { return outcomeOf(api.scanWithUrl(ZRKURL::URLWithString("https://x.test/a.jpg"), "c1")); },
       value, 1},
      {"url scan, token refused", refusedToken, serviceError,
       [](auto& api) { return outcomeOf(api.scanWithUrl(ZRKJson("https://x.test/a.jpg"))); }, error(404), 1},
      {"image scan without image", tokenAnswer, account,
       [](auto& api) { return outcomeOf(api.scanWithImage(nullptr)); }, error(1000), 0},
      {"register", tokenAnswer, account, [](auto& api) { return outcomeOf(api.registerUser(ann())); }, value, 1},
      {"update", tokenAnswer, serviceError, [](auto& api) { return outcomeOf(api.updateUserProfile(ann())); },
       error(404), 1},
      {"retrieve", tokenAnswer, account, [](auto& api) { return outcomeOf(api.retrieveUser("ut1")); }, value, 1},
      // The client's silences: no completion, so the future can only tell.
      {"register, token refused", refusedToken, account,
       [](auto& api) { return outcomeOf(api.registerUser(ann())); }, silent, 0},
      {"retrieve without token", tokenAnswer, account, [](auto& api) { return outcomeOf(api.retrieveUser("")); },
       silent, 0},
      {"login without user", tokenAnswer, account, [](auto& api) { return outcomeOf(api.loginUser(nullptr)); },
       silent, 0},
      {"collections answer without list", tokenAnswer, {.body = R"({"total":3})"},
       [](auto& api) { return outcomeOf(api.retrieveCollections()); }, error(32), 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ZRKApiAuthToken::clear();
    setAnswers(row.auth, row.endpoint);
    const auto before = endpointRequests().size();
    EXPECT_EQ(row.start(api), row.expected);
    EXPECT_EQ(endpointRequests().size() - before, row.requests);
  }
}

TEST_F(FutureTest, LoginAndLogoutKeepTheSessionRulesAndLogoutResolvesOnItsAnswer) {
  setAnswers(tokenAnswer, account);
  const auto login = api.loginUser(ann()).get();
  ASSERT_TRUE(login && login->ok());
  EXPECT_EQ(ZRKUserSession::currentSession()->userToken(), "ut1");

  // The early (nullptr, nullopt) call has happened when logoutUser returns;
  // it must not count as the answer.
  const auto logout = api.logoutUser(ann());
  EXPECT_EQ(logout.status(), ZRKFutureStatus::pending);
  const auto answer = logout.get();
  ASSERT_TRUE(answer);
  ASSERT_TRUE(answer->value);
  EXPECT_EQ(answer->value->name(), "Ann");
  EXPECT_EQ(ZRKUserSession::currentSession()->userToken(), "");

  // Refused before anything is sent: one call, with the error, at once.
  const auto invalid = api.logoutUser(ZRKUser::initFromDictionary({{"email", "e"}}));
  ASSERT_EQ(invalid.status(), ZRKFutureStatus::ready);
  ASSERT_TRUE(invalid.get()->error);
  EXPECT_EQ(invalid.get()->error->code, 10001);
}

TEST_F(FutureTest, ThrowsLikeTheClientForAUserWithoutMandatoryFields) {
  EXPECT_THROW(api.registerUser(ZRKUser::initFromDictionary({{"email", "e"}, {"password", "p"}})),
               std::invalid_argument);
  EXPECT_EQ(server.count(), 0u);
}

TEST_F(FutureTest, TimedWaitsGiveUpOnAStalledAnswerAndTheFutureStillResolves) {
  ZRKApiAuthToken::setToken(test::validToken());
  setAnswers(tokenAnswer, {.body = R"({"result":[]})", .stall = 10s});
  const auto future = api.retrieveCollections();
  EXPECT_EQ(future.getFor(50ms), std::nullopt);
  EXPECT_EQ(future.waitFor(20ms), ZRKFutureStatus::pending);
  ASSERT_TRUE(server.waitForRequests(1));
  server.release();
  const auto page = future.getFor(10s);
  ASSERT_TRUE(page);
  ASSERT_TRUE(page->value);
  EXPECT_TRUE(page->value->empty());
}

// Off the main thread a future blocks while the main thread runs its queue
// as usual; the completion still runs on the main thread.
TEST_F(FutureTest, WaitsOffTheMainThreadWhileTheMainThreadRunsItsQueue) {
  setAnswers(tokenAnswer, {.body = R"({"result":[{"id":"c1"},{"id":"c2"}]})"});
  std::atomic<bool> finished{false};
  std::optional<ZRKCollectionsResult> page;
  ZRKFutureStatus timedOut = ZRKFutureStatus::ready;
  std::thread waiter([&] {
    auto future = api.retrieveCollections();
    page = future.get();
    // Nothing stalls here, but a bounded wait on a stalled one must return.
    setAnswers(tokenAnswer, {.body = R"({"result":[]})", .stall = 10s});
    timedOut = api.retrieveCollections().waitFor(30ms);
    finished = true;
    ZRKMainQueue::mainQueue().async([] {});  // runUntil looks again after a callback
  });
  EXPECT_TRUE(test::runMainQueueUntil([&] { return finished.load(); }));
  waiter.join();
  server.release();
  EXPECT_EQ(timedOut, ZRKFutureStatus::pending);
  ASSERT_TRUE(page);
  ASSERT_TRUE(page->value);
  EXPECT_EQ(page->value->size(), 2u);
}

// The completion keeps the future's state alive, not the other way round:
// dropping a future before its answer leaks nothing (LeakSanitizer watches
// the ASan tree) and the answer is still handled.
TEST_F(FutureTest, DroppedUnresolvedFutureLetsTheRequestFinish) {
  ZRKApiAuthToken::setToken(test::validToken());
  setAnswers(tokenAnswer, {.body = R"({"email":"ann@example.com","token":"ut9"})", .stall = 10s});
  api.loginUser(ann());
  ASSERT_TRUE(server.waitForRequests(1));
  server.release();
  EXPECT_TRUE(test::runMainQueueUntil([] { return ZRKUserSession::currentSession()->userToken() == "ut9"; }));
}

}  // namespace
}  // namespace zrk
