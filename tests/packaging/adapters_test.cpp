// The future and coroutine adapters over the client, against the in-memory
// transport: the completion's arguments carried, silences seen as silent,
// logout resolved by its answer, coroutines resumed on the main thread.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <thread>

#include "support/MainQueueWait.h"
#include "support/MemoryServiceTest.h"
#include "zrk/ZRKAwait.h"
#include "zrk/ZRKUser.h"
#include "zrk/ZRKUserAPIResponse.h"

namespace zrk::test {
namespace {

using namespace std::chrono_literals;

const auto kAccount = ZRKScriptedResponse::json({{"email", "a@x"}, {"name", "Ann"}, {"token", "ut1"}});
const auto kRefused = ZRKScriptedResponse::json({{"code", 404}, {"message", "none"}}, 404);

auto ann() { return ZRKUser::initFromDictionary({{"email", "e"}, {"name", "A"}, {"password", "p"}}); }
auto nameless() { return ZRKUser::initFromDictionary({{"email", "e"}, {"password", "p"}}); }

// How a future ended, waited for on the main thread: "value", "error CODE" or "silent".
template <class T>
std::string outcomeOf(const ZRKFuture<ZRKResult<T>>& future) {
  if (future.wait() == ZRKFutureStatus::silent) return "silent";
  const auto result = future.get();
  return result->error ? "error " + std::to_string(result->error->code) : result->value ? "value" : "empty";
}

class AdapterTest : public MemoryServiceTest {
 protected:
  // Every request but the token step's gets this answer.
  void answer(ZRKScriptedResponse response) {
    transport->respondOtherwise([response](const ZRKURLRequest&) { return response; });
  }
  ZRKFutureClient api{client};
};

TEST_F(AdapterTest, EachOperationResolvesWithItsCompletionsArgumentsOrSilence) {
  using Start = std::function<std::string(const ZRKFutureClient&)>;
  const std::tuple<bool, ZRKScriptedResponse, Start, std::string, std::size_t> rows[] = {
      // token refused, endpoint's answer, operation, outcome, requests that reached the endpoint
      {false, ZRKScriptedResponse::json({{"result", ZRKJson::array()}}),
       [](auto& api) { return outcomeOf(api.retrieveCollections()); }, "value", 1},
      {false, kRefused, [](auto& api) { return outcomeOf(api.retrieveScanHistoryWithCount(5, 0)); }, "error 404", 1},
      {true, kRefused, [](auto& api) { return outcomeOf(api.scanWithUrl(ZRKJson("https://x.test/a.jpg"))); },
       "error 404", 1},
      {false, kAccount, [](auto& api) { return outcomeOf(api.scanWithImage(nullptr)); }, "error 1000", 0},
      {false, kAccount, [](auto& api) { return outcomeOf(api.registerUser(ann())); }, "value", 1},
      {false, kAccount, [](auto& api) { return outcomeOf(api.retrieveUser("ut1")); }, "value", 1},
      // The client's silences: no completion, which only the future can tell.
      {true, kAccount, [](auto& api) { return outcomeOf(api.registerUser(ann())); }, "silent", 0},
      {false, kAccount, [](auto& api) { return outcomeOf(api.retrieveUser("")); }, "silent", 0},
      {false, kAccount, [](auto& api) { return outcomeOf(api.loginUser(nullptr)); }, "silent", 0},
  };
  for (const auto& [tokenRefused, reply, start, outcome, requests] : rows) {
    SetUp();  // a fresh transport and no token
    if (tokenRefused) transport->respond("POST", "/app/v1/auth", kRefused);
    answer(reply);
    EXPECT_EQ(start(api), outcome);
    EXPECT_EQ(endpointRequests().size(), requests) << outcome;
  }
}

// The completion keeps the future's state alive, not the other way round: a
// login whose future is dropped at once still keeps its token.
TEST_F(AdapterTest, LogoutResolvesOnTheServicesAnswerNotItsFirstCall) {
  answer(kAccount);
  api.loginUser(ann());
  ASSERT_TRUE(runMainQueueUntil([] { return ZRKUserSession::currentSession()->userToken() == "ut1"; }));
  answer(ZRKScriptedResponse::json({{"name", "Bye"}}));
  const auto logout = api.logoutUser(ann());
  EXPECT_EQ(logout.status(), ZRKFutureStatus::pending);  // the first call has come and gone
  const auto reply = logout.get();
  ASSERT_TRUE(reply && reply->value);
  EXPECT_EQ(reply->value->name(), "Bye");

  // Refused before anything is sent: ready at once with the error, or thrown.
  const auto invalid = api.logoutUser(ZRKUser::initFromDictionary({{"email", "e"}}));
  ASSERT_EQ(invalid.status(), ZRKFutureStatus::ready);
  EXPECT_EQ(invalid.get()->error.value_or(ZRKError()).code, 10001);
  EXPECT_THROW(api.registerUser(nameless()), std::invalid_argument);
  EXPECT_EQ(endpointRequests().size(), 2u);
}

TEST_F(AdapterTest, WaitsGiveUpOnTimeAndBlockOffTheMainThreadWhileItRunsItsQueue) {
  answer(ZRKScriptedResponse::silence());
  const auto never = api.retrieveCollections();
  EXPECT_EQ(never.getFor(50ms), std::nullopt);
  EXPECT_EQ(never.waitFor(20ms), ZRKFutureStatus::pending);

  answer(ZRKScriptedResponse::json({{"result", {{{"id", "c1"}}, {{"id", "c2"}}}}}));
  std::optional<ZRKCollectionsResult> page;
  bool finished = false;  // main thread only
  std::thread waiter([&] {
    page = api.retrieveCollections().get();
    ZRKMainQueue::mainQueue().async([&] { finished = true; });
  });
  EXPECT_TRUE(runMainQueueUntil([&] { return finished; }));
  waiter.join();
  EXPECT_EQ(page->value->size(), 2u);
}

// Where each step of a coroutine ran.
struct Trace {
  std::vector<bool> onMainThread;
  bool resumed = false;
  void mark() { onMainThread.push_back(ZRKMainQueue::isMainThread()); }
};
// Marks the trace when the frame that holds it is destroyed.
struct FrameGuard {
  Trace& trace;
  ~FrameGuard() { trace.mark(); }
};

ZRKFuture<std::string> loginThenFetchName(ZRKFutureClient api, Trace& trace) {
  trace.mark();
  const auto login = co_await api.loginUser(ann());
  trace.mark();
  if (!login.value) co_return "login failed";
  const auto account = co_await api.retrieveUser(login.value->token());
  trace.mark();
  co_return account.value ? account.value->name().value_or("?") : "failed";
}

ZRKFuture<int> registerAnn(ZRKFutureClient api, Trace& trace) {
  FrameGuard guard{trace};
  co_await api.registerUser(ann());
  trace.resumed = true;
  co_return 1;
}

// Started on another thread, a coroutine goes on on the main thread after each answer.
TEST_F(AdapterTest, ACoroutineResumesOnTheMainThreadAfterEachAnswer) {
  answer(kAccount);
  Trace trace;
  ZRKFuture<std::string> chain;
  std::thread([&] { chain = loginThenFetchName(api, trace); }).join();
  EXPECT_EQ(chain.get(), "Ann");
  EXPECT_EQ(trace.onMainThread, (std::vector<bool>{false, true, true}));

  // An answer already in does not suspend: the coroutine goes straight on.
  Trace immediate;
  auto refused = [&]() -> ZRKFuture<long> {
    const auto result = co_await api.logoutUser(nullptr);  // "Invalid user", at once
    immediate.mark();
    co_return result.error ? result.error->code : 0;
  };
  std::optional<long> code;
  std::thread([&] { code = refused().getFor(0ms); }).join();
  EXPECT_EQ(code, 10001);
  EXPECT_EQ(immediate.onMainThread, std::vector<bool>{false});
}

// A frame whose future nobody holds still finishes when its answer comes; a
// silence ends it instead: never resumed, destroyed on the main thread, and
// its own future silent.
TEST_F(AdapterTest, AnAwaitingFrameEndsWithItsAnswerOrWithASilence) {
  answer(kAccount);
  Trace answered;
  registerAnn(api, answered);
  EXPECT_TRUE(answered.onMainThread.empty());
  EXPECT_TRUE(runMainQueueUntil([&] { return !answered.onMainThread.empty(); }));
  EXPECT_TRUE(answered.resumed);

  ZRKApiAuthToken::clear();
  transport->respond("POST", "/app/v1/auth", kRefused);
  Trace silenced;
  const auto future = registerAnn(api, silenced);
  EXPECT_EQ(future.get(), std::nullopt);
  EXPECT_EQ(future.status(), ZRKFutureStatus::silent);
  EXPECT_FALSE(silenced.resumed);
  EXPECT_EQ(silenced.onMainThread, std::vector<bool>{true});
}

ZRKFuture<int> registerNameless(ZRKFutureClient api) {
  co_await api.retrieveCollections();
  co_await api.registerUser(nameless());  // throws: no name
  co_return 0;
}

// An exception leaving a coroutine resumed from the main queue does not
// escape into the queue: get() has it.
TEST_F(AdapterTest, AnExceptionReachesGetInsteadOfTheQueue) {
  answer(ZRKScriptedResponse::json({{"result", ZRKJson::array()}}));
  EXPECT_THROW(registerNameless(api).get(), std::invalid_argument);
}

}  // namespace
}  // namespace zrk::test
