#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "support/MainQueueWait.h"
#include "support/ServiceTest.h"
#include "zrk/ZRKAwait.h"
#include "zrk/ZRKMainQueue.h"
#include "zrk/ZRKUser.h"
#include "zrk/ZRKUserAPIResponse.h"

namespace zrk {
namespace {

using namespace std::chrono_literals;

std::shared_ptr<ZRKUser> ann() {
  return ZRKUser::initFromDictionary({{"email", "ann@example.com"}, {"name", "Ann"}, {"password", "pw1"}});
}

// Where each step of a coroutine ran.
struct Trace {
  std::vector<bool> onMainThread;
  void mark() { onMainThread.push_back(ZRKMainQueue::isMainThread()); }
};

// Sets a flag when the coroutine frame holding it is destroyed.
struct FrameGuard {
  bool* destroyed;
  bool* onMainThread;
  ~FrameGuard() {
    *destroyed = true;
    *onMainThread = ZRKMainQueue::isMainThread();
  }
};

ZRKFuture<std::string> loginThenFetchName(ZRKFutureClient api, std::shared_ptr<const ZRKUser> user, Trace& trace) {
  trace.mark();
  const auto login = co_await api.loginUser(user);
  trace.mark();
  if (!login.ok() || !login.value || !login.value->token()) co_return "login failed";
  const auto account = co_await api.retrieveUser(login.value->token());
  trace.mark();
  co_return account.ok() && account.value ? account.value->name().value_or("?") : "fetch failed";
}

class AwaitTest : public test::ServiceTest {
 protected:
  void SetUp() override {
    ServiceTest::SetUp();
    setAnswers(authAnswer, {.body = R"({"email":"ann@example.com","name":"Ann","token":"ut1"})"});
  }
  ZRKFutureClient api{client};
};

// Started on another thread, the chain continues on the main thread after
// each answer; its own future is waited for on the main thread.
TEST_F(AwaitTest, ChainResumesOnTheMainThreadAfterEachAnswer) {
  Trace trace;
  ZRKFuture<std::string> chain;
  std::thread([&] { chain = loginThenFetchName(api, ann(), trace); }).join();
  EXPECT_EQ(chain.status(), ZRKFutureStatus::pending);
  EXPECT_EQ(chain.getFor(10s), "Ann");
  EXPECT_EQ(trace.onMainThread, (std::vector<bool>{false, true, true}));
  const auto requests = endpointRequests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].method + " " + requests[0].path, "POST /app/v1/user/auth");
  EXPECT_EQ(requests[1].method + " " + requests[1].path, "GET /app/v1/user");
}

// An answer already in does not suspend: the coroutine goes straight on, on
// the thread it runs on.
TEST_F(AwaitTest, AnswerAlreadyInDoesNotSuspend) {
  Trace trace;
  auto immediate = [&]() -> ZRKFuture<long> {
    const auto refused = co_await api.logoutUser(nullptr);  // "Invalid user", at once
    trace.mark();
    co_return refused.error ? refused.error->code : 0;
  };
  std::optional<long> code;
  std::thread([&] { code = immediate().getFor(0ms); }).join();
  EXPECT_EQ(code, 10001);
  EXPECT_EQ(trace.onMainThread, std::vector<bool>{false});
}

ZRKFuture<int> awaitSilence(ZRKFutureClient api, bool& destroyed, bool& onMainThread, bool& resumed) {
  FrameGuard guard{&destroyed, &onMainThread};
  co_await api.registerUser(ann());
  resumed = true;
  co_return 1;
}

ZRKFuture<int> awaitAwaiter(ZRKFutureClient api, bool& destroyed, bool& onMainThread, bool& resumed) {
  co_return co_await awaitSilence(api, destroyed, onMainThread, resumed) + 1;
}

// A silence ends the awaiting coroutines: never resumed, frames destroyed on
// the main thread, and their own futures silent.
TEST_F(AwaitTest, SilenceDestroysTheAwaitingFramesAndPropagates) {
  setAnswers({.status = 500, .body = R"({"code":500,"message":"down"})"}, {});
  bool destroyed = false, onMainThread = false, resumed = false;
  const auto outer = awaitAwaiter(api, destroyed, onMainThread, resumed);
  EXPECT_EQ(outer.wait(), ZRKFutureStatus::silent);
  EXPECT_EQ(outer.get(), std::nullopt);
  EXPECT_TRUE(destroyed);
  EXPECT_TRUE(onMainThread);
  EXPECT_FALSE(resumed);
}

std::shared_ptr<ZRKUser> nameless() { return ZRKUser::initFromDictionary({{"email", "e"}, {"password", "p"}}); }

ZRKFuture<int> registerNameless(ZRKFutureClient api) {
  co_await api.retrieveCollections();
  co_await api.registerUser(nameless());  // throws: no name
  co_return 0;
}

ZRKFuture<int> catchFromAwaited(ZRKFutureClient api) {
  try {
    co_return co_await registerNameless(api);
  } catch (const std::invalid_argument&) {
    co_return -1;
  }
}

// An exception leaving a coroutine after it was resumed from the main queue
// does not escape into the queue: the future keeps it for get() and for
// whoever awaits it.
TEST_F(AwaitTest, ExceptionsReachGetAndAwaitersInsteadOfTheQueue) {
  setAnswers(authAnswer, {.body = R"({"result":[]})"});
  const auto failing = registerNameless(api);
  EXPECT_THROW(failing.get(), std::invalid_argument);
  EXPECT_EQ(catchFromAwaited(api).get(), -1);
}

// A frame suspended on an answer that nobody waits for any more still
// finishes when the answer comes, and is freed then.
TEST_F(AwaitTest, DroppedCoroutineFutureStillRunsToItsEnd) {
  ZRKApiAuthToken::setToken(test::validToken());
  setAnswers(authAnswer, {.body = R"({"email":"ann@example.com","name":"Ann","token":"ut1"})", .stall = 10s});
  bool destroyed = false, onMainThread = false, resumed = false;
  awaitSilence(api, destroyed, onMainThread, resumed);
  ASSERT_TRUE(server.waitForRequests(1));
  EXPECT_FALSE(destroyed);
  server.release();
  EXPECT_TRUE(test::runMainQueueUntil([&] { return destroyed; }));
  EXPECT_TRUE(resumed);
}

}  // namespace
}  // namespace zrk
