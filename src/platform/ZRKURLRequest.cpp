#include "zrk/ZRKURLRequest.h"
#include "platform/ZRKText.h"

#include <algorithm>

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
