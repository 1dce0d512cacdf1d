// What the reliability tests share: short time-outs and the test CA on the
// shared client's session (set once, before the first request), a fixture
// that points the shared client at a scripted server, and a record of the
// completions a call produced.
#ifndef ZRK_TESTS_RELIABILITY_RELIABILITY_H
#define ZRK_TESTS_RELIABILITY_RELIABILITY_H

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "support/ScriptedServer.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKError.h"

namespace zrk::test {

// Seconds without progress before a request fails on the shared session.
inline constexpr double kRequestTimeout = 2;

#ifdef ZRK_SANITIZED
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#ifdef ZRK_THREAD_SANITIZED
inline constexpr bool kThreadSanitized = true;
#else
inline constexpr bool kThreadSanitized = false;
#endif

// Slack on every deadline: scheduling, and sanitizers' slowness.
inline constexpr std::chrono::milliseconds kMargin{kSanitized ? 3000 : 1500};

// What a call's completion reported; `calls` counts every invocation.
struct Outcome {
  int calls = 0;
  bool offMainThread = false;
  bool result = false;
  std::optional<ZRKError> error;
  std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
  std::chrono::steady_clock::duration firstCall{};

  void record(bool hasResult, std::optional<ZRKError> e);
  double seconds() const { return std::chrono::duration<double>(firstCall).count(); }
};

class ReliabilityTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Drains the main queue until the outcome has a call, or the deadline.
  bool waitForCall(const std::shared_ptr<Outcome>& outcome, std::chrono::milliseconds deadline);
  // Lets late, unwanted completions show up.
  void settle(std::chrono::milliseconds duration = std::chrono::milliseconds(200));

  std::unique_ptr<ScriptedServer> server = std::make_unique<ScriptedServer>();
  std::shared_ptr<ZRKApiClient> client = ZRKApiClient::sharedClient();
};

// A small opaque photo for image scans.
std::shared_ptr<const ZRKImage> testImage(int width = 64, int height = 48);

// Open descriptors and resident bytes of this process.
std::size_t openDescriptors();
std::size_t residentBytes();

}  // namespace zrk::test

#endif  // ZRK_TESTS_RELIABILITY_RELIABILITY_H
