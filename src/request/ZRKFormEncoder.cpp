#include "zrk/ZRKFormEncoder.h"
#include "platform/ZRKText.h"


namespace zrk {
namespace {

bool staysUnescaped(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~' || c == '/' || c == '?';
}

// A number's text where it is rendered unescaped: a boolean is the number 1 or 0.
std::string numberDescription(const ZRKJson& number) {
  if (number.is_boolean()) return number.get<bool>() ? "1" : "0";
  return detail::shortestDecimal(number);
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
  } else if (value.is_binary()) {
    out.emplace_back(std::string(key), value.dump());
  } else {
    // Unescaped, as a value that did not go through ZRKPercentEscapedObject
    // renders; a boolean is then a number, "1" or "0".
    out.emplace_back(std::string(key), numberDescription(value));
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

ZRKFormValue ZRKFormValue::array(std::vector<ZRKFormValue> elements) {
  ZRKFormValue value;
  value.kind_ = Kind::array;
  value.elements_ = std::move(elements);
  return value;
}

ZRKFormValue ZRKFormValue::dictionary(std::vector<std::pair<std::string, ZRKFormValue>> entries) {
  ZRKFormValue value;
  value.kind_ = Kind::dictionary;
  value.entries_ = std::move(entries);
  return value;
}

std::optional<ZRKJson> ZRKFormEncoder::formEncodableValueForObject(const ZRKFormValue& value) {
  switch (value.kind()) {
    case ZRKFormValue::Kind::nothing:
      return std::nullopt;
    case ZRKFormValue::Kind::json:
      return value.json();
    case ZRKFormValue::Kind::object:
      if (!value.object()) return std::nullopt;
      return keyPairDictionaryForObject(*value.object());
    case ZRKFormValue::Kind::array: {
      // A container cannot hold nothing, so such elements are dropped.
      ZRKJson out = ZRKJson::array();
      for (const auto& element : value.elements()) {
        if (auto converted = formEncodableValueForObject(element)) out.push_back(std::move(*converted));
      }
      return out;
    }
    case ZRKFormValue::Kind::dictionary: {
      ZRKJson out = ZRKJson::object();
      for (const auto& [key, element] : value.entries()) {
        if (auto converted = formEncodableValueForObject(element)) out[key] = std::move(*converted);
      }
      return out;
    }
  }
  return std::nullopt;
}

ZRKJson ZRKFormEncoder::keyPairDictionaryForObject(const ZRKFormEncodable& object) {
  ZRKJson out = ZRKJson::object();
  for (const auto& [property, field] : object.propertyNamesToFormFieldNamesMapping()) {
    if (auto value = formEncodableValueForObject(object.valueForKey(property))) out[field] = std::move(*value);
  }
  const ZRKJson& additional = object.additionalAPIParameters();
  if (additional.is_object()) {
    for (const auto& [key, value] : additional.items()) out[key] = value;
  }
  return out;
}

ZRKJson ZRKFormEncoder::dictionaryForObject(const ZRKFormEncodable& object) {
  ZRKJson fields = keyPairDictionaryForObject(object);
  if (auto root = object.rootObjectName()) return ZRKJson{{*root, std::move(fields)}};
  return fields;
}

std::string ZRKFormEncoder::stringByReplacingSnakeCaseWithCamelCase(std::string_view string) {
  std::string out;
  out.reserve(string.size());
  std::size_t start = 0;
  for (bool first = true;; first = false) {
    const std::size_t end = std::min(string.find('_', start), string.size());
    const std::string_view piece = string.substr(start, end - start);
    if (first) {
      out += piece;
    } else {
      out += detail::capitalized(piece);
    }
    if (end == string.size()) break;
    start = end + 1;
  }
  return out;
}

}  // namespace zrk
