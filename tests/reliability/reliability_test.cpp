// The library against a misbehaving server in each phase a call goes through
// (the token step, an image scan's upload, a JSON answer); many requests at
// once; cancellations racing each stage of a transfer; a process that ends
// with requests in flight; identifiers that try to reach another path. Every
// completion comes exactly once, on the main thread; descriptors and memory
// come back.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <thread>

#include "zrk/testing/ZRKProcess.h"
#include "support/Recorder.h"
#include "support/ScriptedServer.h"
#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKScanAPIResponse.h"
#include "zrk/ZRKScanHistory.h"
#include "zrk/ZRKUserSession.h"

namespace zrk {
namespace {

using namespace test;
using testing::ZRKProcess;
using namespace std::chrono_literals;
using Completion =
    Recorder<std::optional<std::string>, std::shared_ptr<const ZRKHTTPURLResponse>, std::optional<ZRKError>>;
constexpr bool kSanitized = ZRK_SANITIZED;  // sanitized runs are slower: smaller loops, longer time-outs

std::size_t openDescriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

// Polls, bounded: sockets close and processes end on threads of their own.
bool eventually(const std::function<bool()>& condition) {
  for (const auto end = std::chrono::steady_clock::now() + 20s; std::chrono::steady_clock::now() < end;) {
    if (condition()) return true;
    std::this_thread::sleep_for(10ms);
  }
  return false;
}

// The shared client against a scripted server, with a short idle time-out and a small body cap.
class ReliabilityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Before the first transfer: transfers read the configuration as they start.
    [[maybe_unused]] static const bool configured = [] {
      const auto configuration = ZRKApiClient::sharedUrlSessionConfiguration();
      configuration->timeoutIntervalForRequest = configuration->connectTimeout = kSanitized ? 4 : 2;
      configuration->maximumResponseBytes = 1u << 20;
      return true;
    }();
    ZRKApiClient::setBaseUrl(server->url());
  }
  void TearDown() override {
    ZRKMainQueue::mainQueue().runFor(50ms);
    ZRKApiAuthToken::clear();
    ZRKUserSession::clearSession();
    // Never the real service: a late request must stay on this machine.
    ZRKApiClient::setBaseUrl("http://127.0.0.1:" + std::to_string(closedPort()));
  }
  static void setValidToken() {
    const ZRKJson answer = {{"token", "t"}, {"expire", 4102444800}};
    ZRKApiAuthToken::setToken(
        std::dynamic_pointer_cast<ZRKApiAuthToken>(ZRKApiAuthToken().decodedObjectFromAPIResponse(&answer)));
  }
  static std::shared_ptr<const ZRKImage> photo() {
    return ZRKImage::imageWithRGBAPixels(std::vector<std::uint8_t>(64 * 48 * 4, 200), 64, 48);
  }

  std::unique_ptr<ScriptedServer> server = std::make_unique<ScriptedServer>();
  std::shared_ptr<ZRKApiClient> client = ZRKApiClient::sharedClient();
};

enum Phase { kToken, kUpload, kJson };
const char* const kPhases[] = {"Token", "Upload", "Json"};
const char* const kPaths[] = {"/app/v1/auth", "/app/v1/scan", "/app/v1/collection"};
const char* const kGood[] = {R"({"token":"t1","expire":4102444800})", R"({"id":"s1","score":90,"triggerId":"tr"})",
                             R"({"result":[{"id":"c1","name":"posters"}],"total":1})"};

// What the caller is told, for all phases or for each: "result", "neither",
// "url:<code>" (the transport's domain) or "zrk:<code>"; "|" separates codes
// that libcurl's versions differ on. The script follows reading the request.
struct Fault {
  const char* name;
  const char* told;
  std::function<Script(const std::string& good)> script;  // empty: nothing listens
};
using Good = const std::string&;
const Fault kFaults[] = {
    {"ConnectionRefused", "url:7", nullptr},
    {"ClosedBeforeHeaders", "url:52", [](Good) { return Script{closeConnection()}; }},
    {"ClosedMidBody", "url:18", [](Good g) { return Script{send(httpAnswer(g).substr(0, 100)), closeConnection()}; }},
    {"StallMidBody", "url:28", [](Good g) { return Script{send(httpAnswer(g).substr(0, 100)), holdOpen()}; }},
    // Bytes keep moving, for longer than the idle time-out in all.
    {"Trickle", "result", [](Good g) { return Script{trickle(httpAnswer(g), httpAnswer(g).size() / 12 + 1, 400ms)}; }},
    {"BadStatusLine", "url:1|url:8", [](Good g) { return Script{send("HTTQ/1.1 200 OK\r\n\r\n" + g)}; }},
    // Twice the session's cap, in many pieces.
    {"Oversized", "url:63", [](Good g) { return Script{send(httpAnswer(std::string(2u << 20, ' ') + g))}; }},
    {"InvalidJson", "zrk:32 neither zrk:32", [](Good) { return Script{send(httpAnswer("{\"token\": \"t1\", oops"))}; }},
    // The status is never judged: a good body is a good answer.
    {"ServerErrorWithGoodBody", "result", [](Good g) { return Script{send(httpAnswer(g, 500))}; }},
    {"ErrorBody", "zrk:403", [](Good) { return Script{send(httpAnswer(R"({"code":"403","message":"no"})"))}; }},
};

class FaultMatrix : public ReliabilityTest, public ::testing::WithParamInterface<std::tuple<int, Phase>> {};

TEST_P(FaultMatrix, TheCallerIsToldOnce) {
  const Fault& fault = kFaults[std::get<0>(GetParam())];
  const Phase phase = std::get<1>(GetParam());
  if (fault.script) {
    Script script = fault.script(kGood[phase]);
    script.insert(script.begin(), readBody());
    server->choose([script, phase](const RawRequest& request) {
      return request.path() == kPaths[phase] ? script : Script{readBody(), send(httpAnswer(kGood[kToken]))};
    });
  } else {
    ZRKApiClient::setBaseUrl("http://127.0.0.1:" + std::to_string(closedPort()));
  }
  Recorder<bool, std::optional<ZRKError>> outcome;
  const auto done = outcome.completion();
  if (phase != kToken) setValidToken();
  if (phase == kToken) client->authWithCompletion([done](bool ok, auto error) { done(ok, error); });
  if (phase == kUpload) client->scanWithImage(photo(), [done](auto scan, auto error) { done(scan != nullptr, error); });
  if (phase == kJson) client->retrieveCollectionsWithCompletion([done](auto list, auto e) { done(!!list, e); });
  ASSERT_TRUE(outcome.once(60s));

  std::istringstream words(fault.told);
  const std::vector<std::string> told{std::istream_iterator<std::string>(words), {}};
  const auto [result, error] = outcome.last();
  const std::string domain = !error                                ? ""
                             : error->domain == ZRKURLErrorDomain ? "url:"
                             : error->domain == ZRKDomain         ? "zrk:"
                                                                  : "?:";
  const std::string got = error ? domain + std::to_string(error->code) : result ? "result" : "neither";
  EXPECT_NE(("|" + told[phase % told.size()] + "|").find("|" + got + "|"), std::string::npos)
      << got << (error ? " " + error->localizedDescription() : "");
  std::size_t sent = 0;
  for (const auto& request : server->requests()) sent += request.path() == kPaths[phase];
  EXPECT_EQ(sent, fault.script ? 1u : 0u);  // nothing is tried again
}

INSTANTIATE_TEST_SUITE_P(Wire, FaultMatrix,
                         ::testing::Combine(::testing::Range(0, static_cast<int>(std::size(kFaults))),
                                            ::testing::Values(kToken, kUpload, kJson)),
                         [](const auto& info) {
                           return std::string(kFaults[std::get<0>(info.param)].name) + "In" +
                                  kPhases[std::get<1>(info.param)];
                         });

TEST_F(ReliabilityTest, AnIdentifierStaysOneSegmentOfTheScanPath) {
  server->always({readBody(), send(httpAnswer(R"({"id":"s1"})"))});
  setValidToken();
  const std::pair<std::string, std::string> cases[] = {
      {"a/b", "a%2Fb"}, {"a?admin=1", "a%3Fadmin=1"}, {"a#top", "a%23top"}, {"../../admin", "..%2F..%2Fadmin"},
      {"..", "%2E%2E"}, {".", "%2E"}, {"a b\r\n", "a%20b%0D%0A"}, {"%2F", "%252F"}, {"\xC3\xBC", "%C3%BC"},
      {"x.y~z!$&'()*+,;=:@", "x.y~z!$&'()*+,;=:@"}};
  for (const auto& [collection, segment] : cases) {
    Recorder<std::shared_ptr<ZRKScanAPIResponse>, std::optional<ZRKError>> byUrl, byImage;
    client->scanWithUrl(ZRKJson("https://example.com/i.jpg"), collection, byUrl);
    client->scanWithImage(photo(), collection, byImage);
    ASSERT_TRUE(byUrl.wait() && byImage.wait()) << collection;
  }
  const auto sent = server->requests();
  ASSERT_EQ(sent.size(), 2 * std::size(cases));
  for (std::size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(sent[i].target(), "/app/v1/scan/" + cases[i / 2].second);
}

TEST_F(ReliabilityTest, StressEveryCompletionOnceAndNothingLeaks) {
  // Request i (its offset) is faulty when i % 10 == 0, the fault picked by i / 10.
  server->choose([](const RawRequest& request) -> Script {
    const std::string history = httpAnswer(R"({"result":[{"id":"h1","triggerId":"t"}],"total":1})");
    const auto at = request.target().find("offset=");
    const int i = at == std::string::npos ? 1 : std::atoi(request.target().c_str() + at + 7);
    if (i % 10 != 0) return {send(history)};
    switch (i / 10 % 6) {
      case 0: return {resetConnection()};
      case 1: return {send(history.substr(0, 100)), closeConnection()};
      case 2: return {send(httpAnswer("{\"result\": [oops"))};
      case 3: return {send(httpAnswer(R"({"code":"500","message":"busy"})", 500))};
      case 4: return {send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n")};
      default: return {pause(50ms), send(history)};  // late, but good
    }
  });
  server->setRecording(false);
  setValidToken();
  std::vector<int> calls;
  std::vector<bool> failed;
  // Runs n history requests from `offset` on, at most 64 at a time.
  const auto run = [&](int n, int offset) {
    calls.assign(n, 0);
    failed.assign(n, false);
    auto done = std::make_shared<int>(0);
    for (int started = 0; *done < n;) {
      for (; started < n && started - *done < 64; ++started) {
        client->retrieveScanHistoryWithCount(1, offset + started, [&, done, i = started](auto list, auto error) {
          *done += ++calls[i] == 1;
          failed[i] = failed[i] || error || !list || !ZRKMainQueue::isMainThread();
        });
      }
      const auto room = [&] { return started < n ? started - *done < 64 : *done == n; };
      ASSERT_TRUE(ZRKMainQueue::mainQueue().runUntil(room, 30s));
    }
    ZRKMainQueue::mainQueue().runFor(100ms);  // a second completion would show
    EXPECT_TRUE(eventually([this] { return server->finished() == server->connections(); }));
  };
  const auto resident = [] {
    std::size_t size = 0, pages = 0;
    std::ifstream("/proc/self/statm") >> size >> pages;
    return pages * ::sysconf(_SC_PAGESIZE);
  };
  // ZRK_STRESS_REQUESTS sets the count, for longer soaks by hand.
  const char* const requested = std::getenv("ZRK_STRESS_REQUESTS");
  const int requests = requested ? std::max(100, std::atoi(requested)) : kSanitized ? 1000 : 10000;
  run(200, 1);  // a warm-up: threads, pools and caches exist before the baseline
  const std::size_t descriptors = openDescriptors(), before = resident();

  run(requests, 0);
  for (int i = 0; i < requests; ++i) {
    ASSERT_EQ(calls[i], 1) << "request " << i;
    EXPECT_EQ(failed[i], i % 10 == 0 && i / 10 % 6 != 5) << "request " << i;
  }
  EXPECT_TRUE(eventually([&] { return openDescriptors() <= descriptors; }));
  // Allocator caches keep some pages; a kilobyte lost per request would show as 10 MiB.
  EXPECT_LT(resident(), before + (kSanitized ? 1u << 30 : 6u << 20));
}

// Cancel before resume, racing the start, mid-upload, mid-download, and after the completion.
TEST_F(ReliabilityTest, CancelRacesCompleteEachTaskOnce) {
  server->choose([](const RawRequest& request) {
    // The upload and the download go on until cancelled.
    if (request.path() == "/upload") return Script{pause(300ms), holdOpen()};
    const std::string partial = httpAnswer(std::string(9999, ' ')).substr(0, 2000);
    if (request.path() == "/download") return Script{send(partial), holdOpen()};
    return Script{readBody(), send(httpAnswer("{}"))};
  });
  const auto session = client->urlSession();
  const auto request = [this, upload = std::string(4u << 20, 'u')](const std::string& path) {
    ZRKURLRequest r(ZRKURL::URLWithString(server->url() + path));
    r.setHTTPMethod(path == "/upload" ? "POST" : "GET");
    r.setHTTPBody(path == "/upload" ? std::optional(upload) : std::nullopt);
    return r;
  };
  Completion warm;
  session->dataTaskWithRequest(request("/fast"), warm)->resume();
  ASSERT_TRUE(warm.wait());
  const std::size_t descriptors = openDescriptors();
  std::mt19937 random(7);
  for (int round = 0; round < (kSanitized ? 25 : 100); ++round) {
    std::vector<Completion> done(5);
    std::vector<std::shared_ptr<ZRKURLSessionDataTask>> tasks;
    for (const char* path : {"/fast", "/fast", "/upload", "/download", "/fast"}) {
      tasks.push_back(session->dataTaskWithRequest(request(path), done[tasks.size()]));
    }
    tasks[0]->cancel();
    for (auto& task : tasks) task->resume();
    tasks[1]->cancel();
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
    tasks[2]->cancel();
    tasks[3]->cancel();
    ASSERT_TRUE(done[4].wait());
    tasks[4]->cancel();
    for (const auto& d : done) ASSERT_TRUE(d.wait(10s));
    ZRKMainQueue::mainQueue().runFor(10ms);  // a second completion would show
    for (std::size_t k = 0; k < done.size(); ++k) {
      ASSERT_EQ(done[k].calls(), 1u) << "round " << round << " task " << k;
      EXPECT_FALSE(done[k].offMainThread());
      const auto error = done[k].arg<2>();
      if (k != 1) {  // the start may win that race
        EXPECT_EQ(error ? error->code : 0, k == 4 ? 0 : ZRKURLErrorCancelled) << "task " << k;
      }
    }
  }
  server.reset();
  EXPECT_TRUE(eventually([&] { return openDescriptors() <= descriptors; }));
}

// A host that returns from main, or calls exit, while requests are under way ends at once, with status 0.
TEST_F(ReliabilityTest, ExitingWithRequestsInFlight) {
  server->always({readBody(), holdOpen()});
  for (const char* mode : {"return", "exit"}) {
    const std::size_t before = server->requests().size();
    ZRKProcess probe(ZRK_EXIT_PROBE, {mode, server->url()});
    EXPECT_TRUE(server->waitForRequests(before + 9, 30s)) << mode;  // all nine under way
    EXPECT_EQ(probe.stop(SIGUSR1), 0) << mode << " (128 + a signal: it crashed or hung)";
  }
}

}  // namespace
}  // namespace zrk
