// The session's own rules, above the transport: redirects and the delegate,
// time-outs, the body cap, cancel, and what may reach the transport.
#include <gtest/gtest.h>

#include "platform/ZRKTimer.h"
#include "support/Recorder.h"
#include "zrk/ZRKURLSession.h"
#include "zrk/testing/ZRKMemoryTransport.h"

namespace zrk {
namespace {

using testing::ZRKMemoryTransport;
using testing::ZRKScriptedResponse;
using Completion =
    test::Recorder<std::optional<std::string>, std::shared_ptr<const ZRKHTTPURLResponse>, std::optional<ZRKError>>;

ZRKURLRequest request(const std::string& path, const std::string& method = "GET",
                      std::optional<std::string> body = std::nullopt, const std::string& origin = "http://h.test") {
  ZRKURLRequest r(ZRKURL::URLWithString(origin + path));
  r.setHTTPMethod(method);
  r.setHTTPBody(std::move(body));
  return r;
}

// "<status> <body>" for an answer, "error <code>" for an error of the
// transport's domain that comes alone.
std::string told(const Completion& done) {
  const auto [data, response, error] = done.last();
  const bool alone = error && error->domain == ZRKURLErrorDomain && !data && !response;
  if (error) return (alone ? "error " : "odd ") + std::to_string(error->code);
  return response ? std::to_string(response->statusCode()) + " " + data.value_or("<no body>") : "nothing";
}

class SessionTest : public ::testing::Test {
 protected:
  void SetUp() override { configuration->transport = transport; }
  std::shared_ptr<ZRKURLSessionDataTask> task(ZRKURLRequest r, const Completion& done,
                                              std::weak_ptr<ZRKURLSessionDelegate> delegate = {}) {
    return ZRKURLSession::sessionWithConfiguration(configuration, std::move(delegate), &ZRKMainQueue::mainQueue())
        ->dataTaskWithRequest(std::move(r), done);
  }
  // Sends the request; its completion must come once, on the main thread.
  Completion send(ZRKURLRequest r, std::weak_ptr<ZRKURLSessionDelegate> delegate = {}) {
    Completion done;
    task(std::move(r), done, std::move(delegate))->resume();
    EXPECT_TRUE(done.once());
    return done;
  }
  ZRKURLRequest last() const { return transport->requests().back(); }

  std::shared_ptr<ZRKMemoryTransport> transport = ZRKMemoryTransport::create();
  std::shared_ptr<ZRKURLSessionConfiguration> configuration = ZRKURLSessionConfiguration::defaultSessionConfiguration();
};

TEST_F(SessionTest, RedirectProposalsFollowTheMethodRules) {
  const std::tuple<long, std::string, std::string> cases[] = {
      {301, "POST", "GET"}, {302, "POST", "GET"},    {303, "POST", "GET"},  {303, "PUT", "GET"}, {303, "HEAD", "HEAD"},
      {301, "PUT", "PUT"},  {302, "PATCH", "PATCH"}, {307, "POST", "POST"}, {308, "PATCH", "PATCH"}};
  for (const auto& [status, method, sent] : cases) {
    SCOPED_TRACE(std::to_string(status) + " " + method);
    transport->respond("", "/from", ZRKScriptedResponse::redirect(status, "/to"));
    transport->respond("", "/to", {.body = "arrived"});
    auto r = request("/from", method, "payload");
    r.setValue("text/plain", "Content-Type");
    r.setValue("kept", "X-Kept");
    const auto done = send(r);
    EXPECT_EQ(told(done), "200 arrived");
    EXPECT_EQ(done.arg<1>()->URL()->path(), "/to");
    EXPECT_EQ(last().HTTPMethod(), sent);
    // The body and its type go only with the method they came with, and no body on HEAD.
    EXPECT_EQ(last().HTTPBody(), method == sent && method != "HEAD" ? r.HTTPBody() : std::nullopt);
    EXPECT_EQ(last().valueForHTTPHeaderField("Content-Type").has_value(), method == sent);
    EXPECT_EQ(last().valueForHTTPHeaderField("X-Kept"), "kept");
  }
}

TEST_F(SessionTest, CredentialsStayWithinTheOrigin) {
  const std::tuple<std::string, std::string, bool> cases[] = {
      {"http://a.test", "/y", true},          {"http://a.test", "http://A.TEST:80/y", true},
      {"https://a.test", "https://a.test:443/y", true}, {"http://a.test:8443", "https://a.test:8443/y", false},
      {"http://a.test", "http://b.test/y", false},      {"http://a.test", "http://a.test:8080/y", false}};
  for (const auto& [origin, location, kept] : cases) {
    SCOPED_TRACE(origin + " -> " + location);
    transport->respond("", "/x", ZRKScriptedResponse::redirect(307, location));
    auto r = request("/x", "GET", std::nullopt, origin);
    r.setValue("Bearer t", "Authorization");
    r.setValue("c=1", "Cookie");
    r.setValue("kept", "X-Kept");
    send(r);
    EXPECT_EQ(last().URL()->path(), "/y");
    EXPECT_EQ(last().valueForHTTPHeaderField("Authorization").has_value(), kept);
    EXPECT_EQ(last().valueForHTTPHeaderField("Cookie").has_value(), kept);
    EXPECT_EQ(last().valueForHTTPHeaderField("X-Kept"), "kept");
  }
}

class Delegate : public ZRKURLSessionDelegate {
 public:
  void willPerformHTTPRedirection(ZRKURLSession&, ZRKURLSessionDataTask& task, const ZRKHTTPURLResponse& response,
                                  ZRKURLRequest proposal,
                                  std::function<void(std::optional<ZRKURLRequest>)> handler) override {
    // Original, current and proposed paths; each hop starts from the last one as rewritten.
    seen.push_back(std::to_string(response.statusCode()) + " " + task.originalRequest().URL()->path() + " " +
                   task.currentRequest().URL()->path() + " " + proposal.URL()->path() +
                   (proposal.valueForHTTPHeaderField("X-Hop") ? " rewritten" : "") +
                   (ZRKMainQueue::isMainThread() ? "" : " off the main thread"));
    if (refuse) return handler(std::nullopt);
    proposal.setValue("rewritten", "X-Hop");
    handler(std::move(proposal));
    handler(std::nullopt);  // a second answer is ignored
  }
  bool refuse = false;
  std::vector<std::string> seen;
};

TEST_F(SessionTest, TheDelegateRewritesOrRefusesEachHopOnItsQueue) {
  transport->respond("", "/a", ZRKScriptedResponse::redirect(302, "/b"));
  transport->respond("", "/b", ZRKScriptedResponse::redirect(308, "/c"));
  transport->respond("", "/c", {.body = "end"});
  auto delegate = std::make_shared<Delegate>();
  EXPECT_EQ(told(send(request("/a"), delegate)), "200 end");
  EXPECT_EQ(delegate->seen, (std::vector<std::string>{"302 /a /a /b", "308 /a /b /c rewritten"}));
  EXPECT_EQ(last().valueForHTTPHeaderField("X-Hop"), "rewritten");

  // Refused: the 3xx answer itself completes the task.
  delegate->refuse = true;
  auto moved = ZRKScriptedResponse::redirect(302, "/b");
  moved.body = "moved";
  transport->respond("", "/a", moved);
  EXPECT_EQ(told(send(request("/a"), delegate)), "302 moved");
  EXPECT_EQ(transport->requests().size(), 4u);
}

TEST_F(SessionTest, SixteenHopsAtMost) {
  transport->respondOtherwise(
      [](const ZRKURLRequest& r) { return ZRKScriptedResponse::redirect(302, r.URL()->path() + "x"); });
  EXPECT_EQ(told(send(request("/loop"))), "error 47");
  EXPECT_EQ(transport->requests().size(), 17u);
}

TEST_F(SessionTest, CompletesWithTheAnswerWhateverItsStatusOrWithAnError) {
  ZRKScriptedResponse unavailable{.statusCode = 503, .body = "down"};
  unavailable.headerFields.setValue("1", "X-One");
  transport->respond("GET", "/down", unavailable);
  const auto done = send(request("/down"));
  EXPECT_EQ(told(done), "503 down");
  EXPECT_EQ(done.arg<1>()->valueForHTTPHeaderField("x-one"), "1");

  transport->respond("GET", "/refused", ZRKScriptedResponse::failure(ZRKURLErrorCannotConnect));
  EXPECT_EQ(told(send(request("/refused"))), "error 7");
  EXPECT_EQ(told(send(ZRKURLRequest(std::nullopt))), "error 3");
  const auto ftp = send(request("/file", "GET", std::nullopt, "ftp://h.test"));
  EXPECT_EQ(told(ftp), "error 1");
  EXPECT_EQ(ftp.arg<2>()->userInfo[ZRKURLErrorFailingURLStringKey], "ftp://h.test/file");
  EXPECT_EQ(transport->requests().size(), 2u);
}

TEST_F(SessionTest, TimeOuts) {
  transport->respond("", "/silent", ZRKScriptedResponse::silence());
  transport->respond("", "/late", {.body = "late", .delay = 0.3});
  // Idle: the request's own interval wins over the configuration's, both ways.
  auto own = request("/silent");
  own.setTimeoutInterval(0.1);
  EXPECT_EQ(told(send(own)), "error 28");
  configuration->timeoutIntervalForRequest = 0.1;
  EXPECT_EQ(told(send(request("/silent"))), "error 28");
  own = request("/late");
  own.setTimeoutInterval(30);
  EXPECT_EQ(told(send(own)), "200 late");
  // The whole task.
  configuration->timeoutIntervalForRequest = 60;
  configuration->timeoutIntervalForResource = 0.1;
  EXPECT_EQ(told(send(request("/silent"))), "error 28");
  // A task that ends takes its time-outs with it, however far off they were.
  configuration->timeoutIntervalForResource = 86400;
  const std::size_t pending = detail::pendingTimers();
  for (const char* path : {"/answered", "/late"}) EXPECT_NE(told(send(request(path))), "error 28");
  const auto cancelled = task(request("/silent"), Completion());
  cancelled->resume();
  cancelled->cancel();
  EXPECT_EQ(detail::pendingTimers(), pending);
}

TEST_F(SessionTest, TheBodyCapIsInclusive) {
  for (const auto& [cap, size, result] : {std::tuple<std::size_t, std::size_t, std::string>{10, 10, "200 xxxxxxxxxx"},
                                          {10, 11, "error 63"}, {0, 11, "200 xxxxxxxxxxx"}}) {
    configuration->maximumResponseBytes = cap;
    transport->respond("", "/body", {.body = std::string(size, 'x')});
    EXPECT_EQ(told(send(request("/body"))), result) << cap << " " << size;
  }
}

TEST_F(SessionTest, CancelCompletesTheTaskExactlyOnce) {
  transport->respond("", "/silent", ZRKScriptedResponse::silence());
  Completion before, inFlight, after;
  const auto idle = task(request("/silent"), before);
  idle->cancel();
  idle->resume();
  ASSERT_TRUE(before.once());
  EXPECT_EQ(told(before), "error 42");
  EXPECT_TRUE(transport->requests().empty());

  const auto running = task(request("/silent"), inFlight);
  running->resume();
  ASSERT_TRUE(transport->waitForRequests(1));
  running->cancel();
  running->cancel();
  EXPECT_EQ(running->state(), ZRKURLSessionDataTask::State::completed);
  ASSERT_TRUE(inFlight.once());
  EXPECT_EQ(told(inFlight), "error 42");

  const auto finished = task(request("/done"), after);
  finished->resume();
  ASSERT_TRUE(after.wait());
  finished->cancel();
  ASSERT_TRUE(after.once());
  EXPECT_EQ(told(after), "404 ");
}

TEST_F(SessionTest, OnlyWhatCanGoOnTheWireReachesTheTransport) {
  const std::tuple<std::string, std::string, bool> fields[] = {
      {"X-Fine", "a\tb c", true}, {"X-Cr", "a\rb", false}, {"X-Lf", "a\nb", false}, {"X-Nul", {"a\0b", 3}, false},
      {"X Space", "v", false}, {"X:Colon", "v", false}, {"X(Paren", "v", false}, {"X\x7f", "v", false},
      {"\xC3\xBC", "v", false}, {"Content-Length", "9", false}, {"transfer-encoding", "chunked", false}};
  auto r = request("/p", "POST", "body");
  for (const auto& [name, value, kept] : fields) r.setValue(value, name);
  send(r);
  for (const auto& [name, value, kept] : fields) {
    EXPECT_EQ(last().valueForHTTPHeaderField(name).has_value(), kept) << name;
  }
  EXPECT_EQ(last().valueForHTTPHeaderField("User-Agent"), configuration->userAgent);
  EXPECT_EQ(last().HTTPBody(), "body");

  // The request's own User-Agent wins; none is added when the session has none.
  r.setValue("mine/2", "User-Agent");
  send(r);
  EXPECT_EQ(last().valueForHTTPHeaderField("User-Agent"), "mine/2");
  configuration->userAgent = "";
  for (const char* method : {"GET", "HEAD"}) {
    send(request("/p", method, "body"));
    EXPECT_FALSE(last().HTTPBody()) << method;
    EXPECT_FALSE(last().valueForHTTPHeaderField("User-Agent")) << method;
  }
}

}  // namespace
}  // namespace zrk
