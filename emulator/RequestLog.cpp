#include "RequestLog.h"

namespace zrk::emulator {

void RequestLog::add(LoggedRequest request) {
  std::lock_guard lock(mutex_);
  request.sequence = next_++;
  entries_.push_back(std::move(request));
  while (entries_.size() > capacity_) entries_.pop_front();
}

nlohmann::json RequestLog::toJson() const {
  std::lock_guard lock(mutex_);
  nlohmann::json list = nlohmann::json::array();
  for (const LoggedRequest& entry : entries_) {
    // A list of pairs, since a name may come more than once.
    nlohmann::json headers = nlohmann::json::array();
    for (const auto& [name, value] : entry.headers) headers.push_back({name, value});
    nlohmann::json item = {{"sequence", entry.sequence},
                           {"time", entry.time},
                           {"method", entry.method},
                           {"path", entry.path},
                           {"query", entry.query},
                           {"headers", std::move(headers)},
                           {"bodySize", entry.bodySize},
                           {"status", entry.status}};
    if (entry.durationMs >= 0) item["durationMs"] = entry.durationMs;
    list.push_back(std::move(item));
  }
  const std::uint64_t total = next_ - 1;
  return {{"requests", std::move(list)}, {"capacity", capacity_}, {"dropped", total - entries_.size()}};
}

}  // namespace zrk::emulator
