// The most recent requests the emulator answered, for tests and for people
// debugging their client: method, path, query, headers, a summary of the
// body, status, latency and how long the service worked on it, with secrets
// masked before they are kept.
// Bounded: the oldest entries fall out. Safe to use from any thread.
#ifndef ZRK_EMULATOR_REQUESTLOG_H
#define ZRK_EMULATOR_REQUESTLOG_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
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
  nlohmann::json body;  // a summary; null without a body
  int status = 0;
  std::optional<double> latencyMs;
  double durationMs = -1;  // the handler's time, from Server-Timing; -1 for paths that do not time
};

// Names whose values are secrets: the Authorization header, and any header,
// query parameter, form field or JSON member whose name holds "password",
// "secret" or "token", in any case.
bool isSecretName(std::string_view name);
// A secret's value as the log keeps it: an Authorization header keeps its
// scheme and the last 4 characters of a long credential, so that a test
// can still tell which one was sent; anything else becomes "****".
std::string maskedValue(std::string_view name, std::string_view value);
// The query string and the JSON members (at any depth), secrets masked.
std::string maskedQuery(std::string_view query);
nlohmann::json maskedJson(nlohmann::json json);

class RequestLog {
 public:
  explicit RequestLog(std::size_t capacity = 500) : capacity_(capacity) {}

  void add(LoggedRequest request);
  // {"requests": [...oldest first, sequence > after...], "last": the newest
  // sequence so far, "capacity": n, "dropped": n}
  nlohmann::json toJson(std::uint64_t after = 0) const;

 private:
  const std::size_t capacity_;
  mutable std::mutex mutex_;
  std::deque<LoggedRequest> entries_;  // guarded by mutex_
  std::uint64_t next_ = 1;             // guarded by mutex_
};

}  // namespace zrk::emulator

#endif  // ZRK_EMULATOR_REQUESTLOG_H
