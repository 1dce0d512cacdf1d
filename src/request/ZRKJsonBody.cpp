#include "request/ZRKJsonBody.h"

#include <string_view>

namespace zrk::detail {
namespace {

// Deeper nesting than any answer of the service has; past it a body is
// treated as no JSON rather than risk the stack in recursive readers.
constexpr int kMaximumJsonDepth = 256;

bool nestsTooDeep(std::string_view text) {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaximumJsonDepth) return true;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return false;
}

}  // namespace

// The parser accepts any JSON text; what is no object is no answer here.
std::optional<ZRKJson> parseJSONObjectBody(const std::optional<std::string>& body) {
  if (!body || body->empty() || nestsTooDeep(*body)) return std::nullopt;
  ZRKJson json = ZRKJson::parse(*body, nullptr, /*allow_exceptions=*/false);
  if (!json.is_object()) return std::nullopt;
  return json;
}

}  // namespace zrk::detail
