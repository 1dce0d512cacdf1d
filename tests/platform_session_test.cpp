#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "support/LoopbackServer.h"
#include "support/MainQueueWait.h"
#include "zrk/ZRKURLSession.h"

namespace zrk {
namespace {

using test::LoopbackServer;
using test::RecordedRequest;
using test::ScriptedResponse;

struct Outcome {
  int calls = 0;
  bool onMainThread = false;
  std::optional<std::string> data;
  std::shared_ptr<const ZRKHTTPURLResponse> response;
  std::optional<ZRKError> error;
};

class SessionTest : public ::testing::Test {
 protected:
  std::shared_ptr<ZRKURLSession> session(std::weak_ptr<ZRKURLSessionDelegate> delegate = {}) {
    return ZRKURLSession::sessionWithConfiguration(configuration, std::move(delegate), &ZRKMainQueue::mainQueue());
  }

  // Sends the request and waits for its completion on the main queue.
  std::shared_ptr<Outcome> send(ZRKURLRequest request, std::weak_ptr<ZRKURLSessionDelegate> delegate = {}) {
    auto outcome = std::make_shared<Outcome>();
    auto task = session(std::move(delegate))->dataTaskWithRequest(std::move(request), [outcome](auto data, auto response, auto error) {
      ++outcome->calls;
      outcome->onMainThread = ZRKMainQueue::isMainThread();
      outcome->data = std::move(data);
      outcome->response = std::move(response);
      outcome->error = std::move(error);
    });
    task->resume();
    EXPECT_TRUE(test::runMainQueueUntil([&] { return outcome->calls > 0; }));
    // A second completion would arrive right behind the first.
    ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(20));
    return outcome;
  }

  ZRKURLRequest request(const std::string& path, const std::string& method = "GET") {
    ZRKURLRequest r(ZRKURL::URLWithString(server.url() + path));
    r.setHTTPMethod(method);
    return r;
  }

  LoopbackServer server;
  std::shared_ptr<ZRKURLSessionConfiguration> configuration = ZRKURLSessionConfiguration::defaultSessionConfiguration();
};

TEST_F(SessionTest, DeliversStatusHeadersAndBodyOnTheDelegateQueueWithoutJudgingTheStatus) {
  server.answer({.status = 503, .body = "down", .contentType = "text/plain", .headers = {{"X-One", "1"}}});
  const auto outcome = send(request("/x"));
  EXPECT_EQ(outcome->calls, 1);
  EXPECT_TRUE(outcome->onMainThread);
  ASSERT_FALSE(outcome->error) << *outcome->error;
  ASSERT_TRUE(outcome->response);
  EXPECT_EQ(outcome->response->statusCode(), 503);
  EXPECT_EQ(outcome->response->valueForHTTPHeaderField("x-one"), "1");
  EXPECT_EQ(outcome->data, "down");
}

TEST_F(SessionTest, SendsMethodBodyAndHeadersAsSet) {
  auto r = request("/p?q=1", "PATCH");
  r.setHTTPBody(std::string(70000, 'b'));
  r.setValue("application/json", "Content-Type");
  r.setValue("v", "X-Custom");
  r.setValue("999", "Content-Length");  // the transport states the length
  send(r);
  ASSERT_EQ(server.count(), 1u);
  const RecordedRequest got = server.requests().front();
  EXPECT_EQ(got.method, "PATCH");
  EXPECT_EQ(got.target, "/p?q=1");
  EXPECT_EQ(got.body.size(), 70000u);
  EXPECT_EQ(got.header("Content-Length"), "70000");
  EXPECT_EQ(got.header("Content-Type"), "application/json");
  EXPECT_EQ(got.header("X-Custom"), "v");
  EXPECT_FALSE(got.has("Expect"));
}

TEST_F(SessionTest, NeverLetsAFieldSplitTheHeaderBlock) {
  auto r = request("/h");
  r.setValue("a\r\nX-Forged: 1", "X-Injected");
  r.setValue("ok", "X-Bad\nName");
  r.setValue(std::string("nul\0byte", 8), "X-Nul");
  r.setValue("fine", "X-Fine");
  send(r);
  const RecordedRequest got = server.requests().front();
  EXPECT_FALSE(got.has("X-Forged"));
  EXPECT_FALSE(got.has("X-Injected"));
  EXPECT_FALSE(got.has("X-Nul"));
  EXPECT_EQ(got.header("X-Fine"), "fine");
}

TEST_F(SessionTest, TransportErrorsCarryTheTransportDomainAndCode) {
  auto unreachable = ZRKURLRequest(ZRKURL::URLWithString("http://127.0.0.1:1/"));
  auto outcome = send(unreachable);
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->domain, ZRKURLErrorDomain);
  EXPECT_EQ(outcome->error->code, ZRKURLErrorCannotConnect);
  EXPECT_FALSE(outcome->response);
  EXPECT_EQ(outcome->error->userInfo[ZRKURLErrorFailingURLStringKey], "http://127.0.0.1:1/");

  outcome = send(ZRKURLRequest(std::nullopt));
  EXPECT_EQ(outcome->error->code, ZRKURLErrorBadURL);
  outcome = send(ZRKURLRequest(ZRKURL::URLWithString("ftp://127.0.0.1/")));
  EXPECT_EQ(outcome->error->code, ZRKURLErrorUnsupportedURL);
}

TEST_F(SessionTest, CancelCompletesOnceWithTheCancellationError) {
  server.answer({.stall = std::chrono::seconds(5)});
  auto outcome = std::make_shared<Outcome>();
  auto task = session()->dataTaskWithRequest(request("/slow"), [outcome](auto, auto response, auto error) {
    ++outcome->calls;
    outcome->response = std::move(response);
    outcome->error = std::move(error);
  });
  task->resume();
  ASSERT_TRUE(server.waitForRequests(1));
  task->cancel();
  task->cancel();
  EXPECT_EQ(task->state(), ZRKURLSessionDataTask::State::completed);
  ASSERT_TRUE(test::runMainQueueUntil([&] { return outcome->calls > 0; }));
  server.release();
  ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(100));
  EXPECT_EQ(outcome->calls, 1);
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->code, ZRKURLErrorCancelled);

  // Before resume: completes at once and never reaches the wire.
  int calls = 0;
  auto idle = session()->dataTaskWithRequest(request("/never"), [&](auto, auto, auto error) {
    ++calls;
    EXPECT_EQ(error->code, ZRKURLErrorCancelled);
  });
  idle->cancel();
  idle->resume();
  ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(100));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(server.count(), 1u);
}

TEST_F(SessionTest, NoProgressForTheTimeOutFailsTheTransfer) {
  server.answer({.stall = std::chrono::seconds(5)});
  auto r = request("/stall");
  r.setTimeoutInterval(1);
  const auto outcome = send(r);
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->code, ZRKURLErrorTimedOut);
}

TEST_F(SessionTest, RefusesBodiesOverTheLimit) {
  configuration->maximumResponseBytes = 1000;
  server.answer({.body = std::string(5000, 'x')});
  const auto outcome = send(request("/big"));
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->code, ZRKURLErrorResponseTooLarge);
}

TEST_F(SessionTest, ReusesTheConnection) {
  LoopbackServer keepAlive("127.0.0.1", true);
  send(ZRKURLRequest(ZRKURL::URLWithString(keepAlive.url() + "/1")));
  send(ZRKURLRequest(ZRKURL::URLWithString(keepAlive.url() + "/2")));
  const auto got = keepAlive.requests();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].remotePort, got[1].remotePort);
}

struct RedirectCase {
  int status;
  std::string method;
  std::string expectedMethod;
  bool keepsBody;
};

class SessionRedirectTest : public SessionTest, public ::testing::WithParamInterface<RedirectCase> {};

TEST_P(SessionRedirectTest, FollowsWithThePlatformsMethodRules) {
  const RedirectCase c = GetParam();
  server.script([&](const RecordedRequest& r) {
    if (r.path == "/from") return ScriptedResponse{.status = c.status, .headers = {{"Location", "/to"}}};
    return ScriptedResponse{.body = "arrived"};
  });
  auto r = request("/from", c.method);
  r.setHTTPBody("payload");
  r.setValue("text/plain", "Content-Type");
  r.setValue("kept", "X-Kept");
  const auto outcome = send(r);
  EXPECT_EQ(outcome->data, "arrived");
  EXPECT_EQ(outcome->response->URL()->path(), "/to");
  const auto got = server.requests();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[1].method, c.expectedMethod);
  EXPECT_EQ(got[1].body, c.keepsBody ? "payload" : "");
  EXPECT_EQ(got[1].has("Content-Type"), c.keepsBody);
  EXPECT_EQ(got[1].header("X-Kept"), "kept");
}

INSTANTIATE_TEST_SUITE_P(Statuses, SessionRedirectTest,
                         ::testing::Values(RedirectCase{301, "POST", "GET", false}, RedirectCase{302, "POST", "GET", false},
                                           RedirectCase{303, "POST", "GET", false}, RedirectCase{303, "PUT", "GET", false},
                                           RedirectCase{301, "PUT", "PUT", true}, RedirectCase{307, "POST", "POST", true},
                                           RedirectCase{308, "PATCH", "PATCH", true}),
                         [](const auto& info) { return std::to_string(info.param.status) + info.param.method; });

TEST_F(SessionTest, StopsAfterSixteenHops) {
  server.script([](const RecordedRequest& r) {
    return ScriptedResponse{.status = 302, .headers = {{"Location", r.path + "x"}}};
  });
  const auto outcome = send(request("/loop"));
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->code, ZRKURLErrorTooManyRedirects);
  EXPECT_EQ(server.count(), 17u);
}

TEST_F(SessionTest, DropsCredentialsWhenARedirectLeavesTheOrigin) {
  LoopbackServer other("127.0.0.2");
  server.answer({.status = 307, .headers = {{"Location", other.url() + "/there"}}});
  auto r = request("/here");
  r.setValue("Bearer x", "Authorization");
  r.setValue("c=1", "Cookie");
  r.setValue("kept", "X-Kept");
  send(r);
  ASSERT_EQ(other.count(), 1u);
  const auto got = other.requests().front();
  EXPECT_FALSE(got.has("Authorization"));
  EXPECT_FALSE(got.has("Cookie"));
  EXPECT_EQ(got.header("X-Kept"), "kept");
}

class RecordingDelegate : public ZRKURLSessionDelegate {
 public:
  void willPerformHTTPRedirection(ZRKURLSession&, ZRKURLSessionDataTask& task, const ZRKHTTPURLResponse& response,
                                  ZRKURLRequest request,
                                  std::function<void(std::optional<ZRKURLRequest>)> handler) override {
    ++calls;
    onMainThread = ZRKMainQueue::isMainThread();
    statuses.push_back(response.statusCode());
    originalPath = task.originalRequest().URL()->path();
    if (refuse) return handler(std::nullopt);
    request.setValue("rewritten", "X-Hop");
    handler(std::move(request));
    handler(std::nullopt);  // a second answer is ignored
  }
  int calls = 0;
  bool onMainThread = false;
  bool refuse = false;
  std::vector<long> statuses;
  std::string originalPath;
};

TEST_F(SessionTest, DelegateRewritesOrRefusesEachHopOnItsQueue) {
  server.script([](const RecordedRequest& r) {
    if (r.path == "/a") return ScriptedResponse{.status = 302, .headers = {{"Location", "/b"}}};
    if (r.path == "/b") return ScriptedResponse{.status = 308, .headers = {{"Location", "/c"}}};
    return ScriptedResponse{.body = "end"};
  });
  auto delegate = std::make_shared<RecordingDelegate>();
  auto outcome = send(request("/a"), delegate);
  EXPECT_EQ(outcome->data, "end");
  EXPECT_EQ(delegate->calls, 2);
  EXPECT_TRUE(delegate->onMainThread);
  EXPECT_EQ(delegate->statuses, (std::vector<long>{302, 308}));
  EXPECT_EQ(delegate->originalPath, "/a");
  EXPECT_EQ(server.requests().back().header("X-Hop"), "rewritten");

  delegate->refuse = true;
  outcome = send(request("/a"), delegate);
  ASSERT_TRUE(outcome->response);
  EXPECT_EQ(outcome->response->statusCode(), 302);
  EXPECT_FALSE(outcome->error);
}

}  // namespace
}  // namespace zrk
