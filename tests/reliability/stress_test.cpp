// Many requests at once, a tenth of them faulty, then cancellations racing
// every stage of a transfer, then a process that exits with requests in
// flight. Every completion must come exactly once, and descriptors and
// memory must come back to where they were.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <random>
#include <thread>

#include "support/Reliability.h"
#include "support/ServiceTest.h"
#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKMainQueue.h"
#include "zrk/ZRKScanHistory.h"

extern char** environ;

namespace zrk {
namespace {

using namespace test;
using namespace std::chrono_literals;

// ZRK_STRESS_REQUESTS overrides the count, for longer soaks by hand.
int stressRequests() {
  if (const char* n = std::getenv("ZRK_STRESS_REQUESTS")) return std::max(100, std::atoi(n));
  return kThreadSanitized ? 1000 : kSanitized ? 2000 : 10000;
}
const int kRequests = stressRequests();
constexpr int kInFlight = 64;
constexpr const char* kHistory = R"({"result":[{"id":"h1","triggerId":"t"}],"total":1})";

int offsetOf(const RawRequest& request) {
  const std::string target = request.target();
  const auto at = target.find("offset=");
  return at == std::string::npos ? -1 : std::atoi(target.c_str() + at + 7);
}

// Request i is faulty when i % 10 == 0, the fault picked by i / 10.
Script stressScript(const RawRequest& request) {
  const int i = offsetOf(request);
  if (i < 0 || i % 10 != 0) return {send(httpAnswer(kHistory))};
  switch (i / 10 % 6) {
    case 0: return {resetConnection()};
    case 1: return {send(httpAnswer(kHistory).substr(0, 100)), closeConnection()};
    case 2: return {send(httpAnswer("{\"result\": [oops"))};
    case 3: return {send(httpAnswer(R"({"code":"500","message":"busy"})", 500))};
    case 4: return {send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n")};
    default: return {pause(50ms), send(httpAnswer(kHistory))};
  }
}

class Stress : public ReliabilityTest {
 protected:
  // Runs n history requests, at most kInFlight at a time; calls[i] counts
  // request i's completions and failed[i] whether it got an error.
  void run(int n, std::vector<int>& calls, std::vector<bool>& failed, int offsetBase = 0) {
    calls.assign(static_cast<std::size_t>(n), 0);
    failed.assign(static_cast<std::size_t>(n), false);
    int started = 0, done = 0;
    const auto deadline = std::chrono::steady_clock::now() + 240s;
    while (done < n && std::chrono::steady_clock::now() < deadline) {
      while (started < n && started - done < kInFlight) {
        const int i = started++;
        client->retrieveScanHistoryWithCount(
            1, offsetBase + i,
            [&, i](std::optional<std::vector<std::shared_ptr<ZRKScanHistory>>> list, std::optional<ZRKError> error) {
              if (!ZRKMainQueue::isMainThread()) failed[static_cast<std::size_t>(i)] = true;
              if (++calls[static_cast<std::size_t>(i)] == 1) ++done;
              failed[static_cast<std::size_t>(i)] = failed[static_cast<std::size_t>(i)] || error.has_value() || !list;
            });
      }
      ZRKMainQueue::mainQueue().runUntil([&] { return started < n ? started - done < kInFlight : done == n; }, 30s);
    }
    settle(300ms);
    // The server's side of every connection is closed too.
    const auto quiet = std::chrono::steady_clock::now() + 10s;
    while (server->finished() < server->connections() && std::chrono::steady_clock::now() < quiet) {
      std::this_thread::sleep_for(10ms);
    }
  }
};

TEST_F(Stress, EveryCompletionOnceAndNothingLeaks) {
  server->choose(stressScript);
  server->setRecording(false);
  ZRKApiAuthToken::setToken(validToken());
  std::vector<int> calls;
  std::vector<bool> failed;
  // A warm-up, so that the I/O thread, worker pool and caches exist before
  // the baseline is taken.
  run(200, calls, failed, 1);
  const std::size_t descriptors = openDescriptors();
  const std::size_t resident = residentBytes();

  run(kRequests, calls, failed);
  int faulty = 0;
  for (int i = 0; i < kRequests; ++i) {
    ASSERT_EQ(calls[static_cast<std::size_t>(i)], 1) << "request " << i;
    // Only the delayed answer (the sixth fault) succeeds among the faulty.
    const bool shouldFail = i % 10 == 0 && i / 10 % 6 != 5;
    EXPECT_EQ(failed[static_cast<std::size_t>(i)], shouldFail) << "request " << i;
    faulty += shouldFail;
  }
  EXPECT_GT(faulty, kRequests / 15);
  RecordProperty("requests", kRequests);
  RecordProperty("resident_before", std::to_string(resident));
  RecordProperty("resident_after", std::to_string(residentBytes()));
  EXPECT_EQ(openDescriptors(), descriptors);
  if (!kSanitized) {
    // Allocator caches keep some pages (under 1 MiB here); a leak of a
    // kilobyte per request would show as 10 MiB.
    EXPECT_LT(residentBytes(), resident + (6u << 20)) << "resident bytes before: " << resident;
  }
}

// Cancellation at each stage: before resume, right after it, while the body
// is going up, while the answer comes down, and after the completion.
TEST_F(Stress, CancelRacesCompleteEachTaskOnce) {
  const int rounds = kSanitized ? 200 : 1000;
  const std::string upload(4u << 20, 'u');
  server->choose([](const RawRequest& request) {
    const std::string path = request.path();
    if (path == "/upload") return Script{pause(200ms), readBody(), send(httpAnswer("{}"))};
    if (path == "/download") {
      return Script{readBody(), send(httpAnswer(std::string(4096, ' ') + "{}").substr(0, 2000)), pause(300ms),
                    closeConnection()};
    }
    return Script{readBody(), send(httpAnswer("{}"))};
  });
  const auto session = client->urlSession();
  // One transfer first, so that the transport's own descriptors exist
  // before the baseline.
  bool warm = false;
  session
      ->dataTaskWithRequest(ZRKURLRequest(ZRKURL::URLWithString(server->url() + "/fast")),
                            [&warm](auto, auto, auto) { warm = true; })
      ->resume();
  ASSERT_TRUE(ZRKMainQueue::mainQueue().runUntil([&] { return warm; }, 5s));
  const std::size_t descriptors = openDescriptors();
  std::mt19937 random(7);

  struct Counter {
    int calls = 0;
    std::optional<ZRKError> error;
  };
  for (int round = 0; round < rounds; round += 5) {
    std::vector<std::shared_ptr<Counter>> counters;
    std::vector<std::shared_ptr<ZRKURLSessionDataTask>> tasks;
    for (const char* path : {"/fast", "/fast", "/upload", "/download", "/fast"}) {
      ZRKURLRequest request(ZRKURL::URLWithString(server->url() + path));
      if (std::string(path) == "/upload") {
        request.setHTTPMethod("POST");
        request.setHTTPBody(upload);
      }
      auto counter = std::make_shared<Counter>();
      counters.push_back(counter);
      tasks.push_back(session->dataTaskWithRequest(
          std::move(request), [counter](std::optional<std::string>, std::shared_ptr<const ZRKHTTPURLResponse>,
                                        std::optional<ZRKError> error) {
            ++counter->calls;
            counter->error = std::move(error);
          }));
    }
    tasks[0]->cancel();  // before resume
    for (auto& task : tasks) task->resume();
    tasks[1]->cancel();  // right after resume, racing the I/O thread
    // Mid-upload and mid-download: the server holds both transfers open.
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
    tasks[2]->cancel();
    tasks[3]->cancel();
    ZRKMainQueue::mainQueue().runUntil([&] { return counters[4]->calls > 0; }, 5s);
    tasks[4]->cancel();  // after completion: nothing more
    ZRKMainQueue::mainQueue().runUntil(
        [&] {
          return std::all_of(counters.begin(), counters.end(), [](const auto& c) { return c->calls > 0; });
        },
        5s);
    for (std::size_t k = 0; k < counters.size(); ++k) {
      ASSERT_EQ(counters[k]->calls, 1) << "round " << round << " task " << k;
      const bool cancelled = counters[k]->error && counters[k]->error->code == ZRKURLErrorCancelled;
      if (k == 0 || k == 2 || k == 3) {
        EXPECT_TRUE(cancelled) << "task " << k;
      }
      if (k == 4) {
        EXPECT_FALSE(counters[k]->error);
      }
      EXPECT_EQ(tasks[k]->state(), ZRKURLSessionDataTask::State::completed);
    }
  }
  server.reset();  // its held connections go, and with them the client's
  settle(300ms);
  EXPECT_LE(openDescriptors(), descriptors);
}

// A host that returns from main, or calls exit, while requests are under
// way neither hangs nor crashes.
TEST_F(ReliabilityTest, ExitingWithRequestsInFlight) {
  server->always({readBody(), holdOpen()});
  for (const char* mode : {"return", "exit"}) {
    pid_t child = 0;
    std::string base = server->url();
    char* argv[] = {const_cast<char*>(ZRK_EXIT_PROBE), const_cast<char*>(mode), base.data(), nullptr};
    ASSERT_EQ(::posix_spawn(&child, ZRK_EXIT_PROBE, nullptr, nullptr, argv, environ), 0);
    int status = 0;
    pid_t ended = 0;
    const auto deadline = std::chrono::steady_clock::now() + 5s + kMargin;
    while ((ended = ::waitpid(child, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(10ms);
    }
    if (ended == 0) {
      ::kill(child, SIGKILL);
      ::waitpid(child, &status, 0);
      FAIL() << mode << ": the process hung";
    }
    ASSERT_TRUE(WIFEXITED(status)) << mode << ": ended by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0) << mode;
  }
  EXPECT_GE(server->requests().size(), 2u);
}

}  // namespace
}  // namespace zrk
