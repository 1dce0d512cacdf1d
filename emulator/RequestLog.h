// The most recent requests the emulator answered, for tests and for people
// debugging their client: method, path, query, headers, body size, status,
// and how long the service worked on it.
// Bounded: the oldest entries fall out. Safe to use from any thread.
#ifndef ZRK_EMULATOR_REQUESTLOG_H
#define ZRK_EMULATOR_REQUESTLOG_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

namespace zrk::emulator {

struct LoggedRequest {
  std::uint64_t sequence = 0;
  double time = 0;
  std::string method;
  std::string path;
  std::string query;  // without "?"
  std::vector<std::pair<std::string, std::string>> headers;
  std::uint64_t bodySize = 0;
  int status = 0;
  double durationMs = -1;  // the handler's time, from Server-Timing; -1 for paths that do not time
};

class RequestLog {
 public:
  explicit RequestLog(std::size_t capacity = 500) : capacity_(capacity) {}

  void add(LoggedRequest request);
  // {"requests": [...oldest first...], "capacity": n, "dropped": n}
  nlohmann::json toJson() const;

 private:
  const std::size_t capacity_;
  mutable std::mutex mutex_;
  std::deque<LoggedRequest> entries_;  // guarded by mutex_
  std::uint64_t next_ = 1;             // guarded by mutex_
};

}  // namespace zrk::emulator

#endif  // ZRK_EMULATOR_REQUESTLOG_H
