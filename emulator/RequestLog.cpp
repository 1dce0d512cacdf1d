#include "RequestLog.h"

#include <algorithm>
#include <cctype>

namespace zrk::emulator {

namespace {

std::string lower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
  return out;
}

}  // namespace

bool isSecretName(std::string_view name) {
  const std::string folded = lower(name);
  return folded == "authorization" || folded.find("password") != std::string::npos ||
         folded.find("secret") != std::string::npos || folded.find("token") != std::string::npos;
}

std::string maskedValue(std::string_view name, std::string_view value) {
  if (lower(name) != "authorization") return "****";
  const auto space = value.find(' ');
  const std::string_view scheme = space == std::string_view::npos ? "" : value.substr(0, space + 1);
  const std::string_view credential = value.substr(scheme.size());
  return std::string(scheme) + "****" + std::string(credential.size() >= 16 ? credential.substr(credential.size() - 4) : "");
}

std::string maskedQuery(std::string_view query) {
  std::string out;
  while (!query.empty()) {
    const auto amp = query.find('&');
    const std::string_view pair = query.substr(0, amp);
    const auto equals = pair.find('=');
    if (!out.empty()) out += '&';
    if (equals != std::string_view::npos && isSecretName(pair.substr(0, equals))) {
      out += std::string(pair.substr(0, equals + 1)) + "****";
    } else {
      out += pair;
    }
    query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
  }
  return out;
}

nlohmann::json maskedJson(nlohmann::json json) {
  if (json.is_object()) {
    for (auto& [key, value] : json.items()) value = isSecretName(key) ? nlohmann::json("****") : maskedJson(value);
  } else if (json.is_array()) {
    for (auto& value : json) value = maskedJson(std::move(value));
  }
  return json;
}

void RequestLog::add(LoggedRequest request) {
  std::lock_guard lock(mutex_);
  request.sequence = next_++;
  entries_.push_back(std::move(request));
  while (entries_.size() > capacity_) entries_.pop_front();
}

nlohmann::json RequestLog::toJson(std::uint64_t after) const {
  std::lock_guard lock(mutex_);
  nlohmann::json list = nlohmann::json::array();
  for (const LoggedRequest& entry : entries_) {
    if (entry.sequence <= after) continue;
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
                           {"body", entry.body},
                           {"status", entry.status},
                           {"latencyMs", entry.latencyMs ? nlohmann::json(*entry.latencyMs) : nlohmann::json()}};
    if (entry.durationMs >= 0) item["durationMs"] = entry.durationMs;
    list.push_back(std::move(item));
  }
  const std::uint64_t total = next_ - 1;
  return {{"requests", std::move(list)},
          {"last", total},
          {"capacity", capacity_},
          {"dropped", total - entries_.size()}};
}

}  // namespace zrk::emulator
