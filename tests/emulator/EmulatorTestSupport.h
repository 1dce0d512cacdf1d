// What the emulator tests share: generated seed images, a seed folder, a
// library call that waits for its completion, and raw HTTP helpers.
#ifndef ZRK_TESTS_EMULATORTESTSUPPORT_H
#define ZRK_TESTS_EMULATORTESTSUPPORT_H

#include <gtest/gtest.h>
#include <httplib.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "emulator/EmulatorProcess.h"
#include "support/MainQueueWait.h"
#include "zrk/ZRKError.h"
#include "zrk/ZRKJson.h"

namespace zrk::test {

// A poster of coloured blocks and bars, different for every seed: plenty of
// corners for a recogniser, nothing like another seed's.
std::vector<unsigned char> posterPixels(unsigned seed, int width, int height);
std::string encodeJpeg(const std::vector<unsigned char>& rgb, int width, int height, int quality = 95);
std::string encodePng(const std::vector<unsigned char>& rgb, int width, int height);
void writeFile(const std::filesystem::path& path, const std::string& bytes);
std::string readFile(const std::filesystem::path& path);

// A fresh directory under the system's temporary one, removed with the object.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

std::string base64(const std::string& bytes);

// The value and error one completion received; ok is false when none came
// within the time-out (the failure is reported there).
template <class Value>
struct Completed {
  bool ok = false;
  Value value{};
  std::optional<ZRKError> error;
};

// Starts a library call with a completion and lets the main queue run until
// `calls` completions came.
template <class Value>
Completed<Value> await(const std::function<void(std::function<void(Value, std::optional<ZRKError>)>)>& start,
                       int calls = 1) {
  auto received = std::make_shared<std::pair<int, Completed<Value>>>();
  start([received](Value value, std::optional<ZRKError> error) {
    ++received->first;
    received->second.value = std::move(value);
    received->second.error = std::move(error);
  });
  const bool arrived = runMainQueueUntil([&] { return received->first >= calls; }, std::chrono::seconds(30));
  EXPECT_TRUE(arrived) << "no completion within the time-out";
  received->second.ok = arrived;
  return received->second;
}

// Requests made around the library, straight at the emulator.
class RawClient {
 public:
  explicit RawClient(const std::string& url) : client_(url) { client_.set_read_timeout(30, 0); }
  // "Bearer " and the base64 of a fresh app token.
  std::string bearer(const std::string& key = "demo-key", const std::string& secret = "demo-secret");
  httplib::Result get(const std::string& path, const httplib::Headers& headers = {}) {
    return client_.Get(path, headers);
  }
  httplib::Result send(const std::string& method, const std::string& path, const httplib::Headers& headers,
                       const std::string& body, const std::string& contentType);
  ZRKJson requestLog();

 private:
  httplib::Client client_;
};

}  // namespace zrk::test

#endif  // ZRK_TESTS_EMULATORTESTSUPPORT_H
