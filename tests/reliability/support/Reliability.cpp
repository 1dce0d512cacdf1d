#include "support/Reliability.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "support/TlsServer.h"
#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKMainQueue.h"
#include "zrk/ZRKUserSession.h"

namespace zrk::test {
namespace {

// Runs before the first test, while no transfer exists: the session reads
// its configuration on the I/O thread when each transfer starts.
class SessionSettings : public ::testing::Environment {
 public:
  void SetUp() override {
    const auto configuration = ZRKApiClient::sharedUrlSessionConfiguration();
    configuration->timeoutIntervalForRequest = kRequestTimeout;
    configuration->connectTimeout = kRequestTimeout;
    configuration->caInfoPath = TestCertificates::caFilePath();
  }
};

[[maybe_unused]] ::testing::Environment* const settings = ::testing::AddGlobalTestEnvironment(new SessionSettings);

}  // namespace

void Outcome::record(bool hasResult, std::optional<ZRKError> e) {
  if (++calls == 1) firstCall = std::chrono::steady_clock::now() - started;
  offMainThread = offMainThread || !ZRKMainQueue::isMainThread();
  result = hasResult;
  error = std::move(e);
}

void ReliabilityTest::SetUp() {
  ZRKApiAuthToken::clear();
  ZRKUserSession::clearSession();
  ZRKApiClient::setBaseUrl(server->url());
}

void ReliabilityTest::TearDown() {
  settle(std::chrono::milliseconds(50));
  ZRKApiAuthToken::clear();
  ZRKUserSession::clearSession();
  // Never the real service: a late request must stay on this machine.
  ZRKApiClient::setBaseUrl("http://127.0.0.1:" + std::to_string(closedPort()));
}

bool ReliabilityTest::waitForCall(const std::shared_ptr<Outcome>& outcome, std::chrono::milliseconds deadline) {
  return ZRKMainQueue::mainQueue().runUntil([&] { return outcome->calls > 0; }, deadline);
}

void ReliabilityTest::settle(std::chrono::milliseconds duration) { ZRKMainQueue::mainQueue().runFor(duration); }

std::shared_ptr<const ZRKImage> testImage(int width, int height) {
  std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width * height * 4));
  for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = i % 4 == 3 ? 255 : static_cast<std::uint8_t>(i * 7);
  return ZRKImage::imageWithRGBAPixels(std::move(pixels), width, height);
}

std::size_t openDescriptors() {
  std::size_t n = 0;
  if (DIR* dir = ::opendir("/proc/self/fd")) {
    while (const dirent* entry = ::readdir(dir)) {
      if (entry->d_name[0] != '.') ++n;
    }
    ::closedir(dir);
    --n;  // the directory's own descriptor
  }
  return n;
}

std::size_t residentBytes() {
  std::FILE* f = std::fopen("/proc/self/statm", "r");
  if (!f) return 0;
  unsigned long size = 0, resident = 0;
  const int read = std::fscanf(f, "%lu %lu", &size, &resident);
  std::fclose(f);
  return read == 2 ? resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) : 0;
}

}  // namespace zrk::test
