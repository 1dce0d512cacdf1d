#include "zrk/ZRKURLRequest.h"

#include <algorithm>
#include <unordered_map>

#include "platform/ZRKText.h"

namespace zrk {
using detail::equalsIgnoringCase;

std::optional<std::string> ZRKHTTPHeaderFields::valueForHTTPHeaderField(std::string_view name) const {
  for (const auto& [key, value] : fields_) {
    if (equalsIgnoringCase(key, name)) return value;
  }
  return std::nullopt;
}

void ZRKHTTPHeaderFields::setValue(std::optional<std::string> value, std::string_view name) {
  const auto it = std::find_if(fields_.begin(), fields_.end(),
                               [&](const Field& f) { return equalsIgnoringCase(f.first, name); });
  if (!value) {
    if (it != fields_.end()) fields_.erase(it);
  } else if (it != fields_.end()) {
    it->second = std::move(*value);
  } else {
    fields_.emplace_back(std::string(name), std::move(*value));
  }
}

ZRKHTTPHeaderFields::ZRKHTTPHeaderFields(std::vector<Field> fields) {
  std::unordered_map<std::string, std::size_t> seen;  // lower-cased name -> index in fields_
  seen.reserve(fields.size());
  for (auto& [name, value] : fields) {
    std::string key = name;
    std::transform(key.begin(), key.end(), key.begin(), detail::asciiLower);
    const auto [it, added] = seen.try_emplace(std::move(key), fields_.size());
    if (added) {
      fields_.emplace_back(std::move(name), std::move(value));
    } else {
      auto& combined = fields_[it->second].second;
      combined += ", ";
      combined += value;
    }
  }
}

void ZRKHTTPHeaderFields::addValue(std::string value, std::string_view name) {
  const auto it = std::find_if(fields_.begin(), fields_.end(),
                               [&](const Field& f) { return equalsIgnoringCase(f.first, name); });
  if (it == fields_.end()) {
    fields_.emplace_back(std::string(name), std::move(value));
  } else {
    it->second += ", ";
    it->second += value;
  }
}

}  // namespace zrk
