#include "zrk/ZRKFormEncoder.h"
#include "platform/ZRKText.h"

#include <charconv>

namespace zrk {
namespace {

bool staysUnescaped(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~' || c == '/' || c == '?';
}

// The shortest decimal text that reads back as the same number.
std::string numberDescription(const ZRKJson& number) {
  if (number.is_number_integer()) {
    return number.is_number_unsigned() ? std::to_string(number.get<std::uint64_t>())
                                       : std::to_string(number.get<std::int64_t>());
  }
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, number.get<double>());
  return std::string(buffer, result.ptr);
}

}  // namespace

std::string ZRKQueryStringPair::stringValue() const {
  if (value_) return field_.value_or("") + "=" + *value_;
  return field_.value_or("");
}

// Escaping works byte by byte, so the whole string at once gives the same
// text as any split into whole characters would.
std::string ZRKPercentEscapedStringFromString(std::string_view string) {
  std::string out;
  out.reserve(string.size());
  detail::appendPercentEncoded(out, string, staysUnescaped);
  return out;
}

ZRKJson ZRKPercentEscapedObject(const ZRKJson& value) {
  switch (value.type()) {
    case ZRKJson::value_t::null:
    case ZRKJson::value_t::discarded:
      return "";
    case ZRKJson::value_t::array: {
      ZRKJson out = ZRKJson::array();
      for (const auto& element : value) out.push_back(ZRKPercentEscapedObject(element));
      return out;
    }
    case ZRKJson::value_t::object: {
      ZRKJson out = ZRKJson::object();
      for (const auto& [key, element] : value.items()) {
        out[ZRKPercentEscapedStringFromString(key)] = ZRKPercentEscapedObject(element);
      }
      return out;
    }
    case ZRKJson::value_t::boolean:
      return value.get<bool>() ? "true" : "false";
    case ZRKJson::value_t::string:
      return ZRKPercentEscapedStringFromString(value.get_ref<const std::string&>());
    case ZRKJson::value_t::binary:
      return ZRKPercentEscapedStringFromString(value.dump());
    default:
      return ZRKPercentEscapedStringFromString(numberDescription(value));
  }
}

namespace {

void appendPairs(std::string_view key, const ZRKJson& value, std::vector<ZRKQueryStringPair>& out) {
  if (value.is_object()) {
    // Object keys are kept sorted by byte value, which is the order wanted.
    for (const auto& [nested, element] : value.items()) {
      appendPairs(std::string(key) + "[" + nested + "]", element, out);
    }
  } else if (value.is_array()) {
    for (std::size_t i = 0; i < value.size(); ++i) {
      appendPairs(std::string(key) + "[" + std::to_string(i) + "]", value[i], out);
    }
  } else if (value.is_string()) {
    out.emplace_back(std::string(key), value.get<std::string>());
  } else if (value.is_null()) {
    out.emplace_back(std::string(key), std::nullopt);
  } else {
    out.emplace_back(std::string(key), ZRKPercentEscapedObject(value).get<std::string>());
  }
}

}  // namespace

std::vector<ZRKQueryStringPair> ZRKQueryStringPairsFromKeyAndValue(std::string_view key, const ZRKJson& value) {
  std::vector<ZRKQueryStringPair> pairs;
  appendPairs(key, value, pairs);
  return pairs;
}

std::string ZRKQueryStringFromParameters(const ZRKJson& parameters) {
  if (!parameters.is_object()) return "";
  const ZRKJson escaped = ZRKPercentEscapedObject(parameters);
  std::string query;
  for (const auto& [key, value] : escaped.items()) {
    for (const auto& pair : ZRKQueryStringPairsFromKeyAndValue(key, value)) {
      if (!query.empty()) query += '&';
      query += pair.stringValue();
    }
  }
  return query;
}

}  // namespace zrk
