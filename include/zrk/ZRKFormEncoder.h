// Query strings and form bodies from parameter dictionaries.
//
// Keys and values are percent-escaped as UTF-8 bytes; only ASCII letters,
// digits and "-._~/?" stay as they are. Keys are sorted by their escaped
// spelling, byte by byte (so "A" sorts before "a"); nested objects become
// "key[nested]" and arrays "key[0]", with the brackets added after escaping;
// empty objects and arrays vanish; null becomes "key="; booleans are "true"
// and "false"; numbers take their shortest decimal form.
// Example: {"n": 5, "on": true, "user": {"name": "A B", "tags": ["x", "y"]}}
// gives n=5&on=true&user[name]=A%20B&user[tags][0]=x&user[tags][1]=y
// Pure functions, safe from any thread.
#ifndef ZRK_ZRKFORMENCODER_H
#define ZRK_ZRKFORMENCODER_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zrk/ZRKJson.h"

namespace zrk {

// One "field=value" of a query; both sides already escaped.
class ZRKQueryStringPair {
 public:
  ZRKQueryStringPair() = default;
  ZRKQueryStringPair(std::optional<std::string> field, std::optional<std::string> value)
      : field_(std::move(field)), value_(std::move(value)) {}
  static ZRKQueryStringPair initWithField(std::optional<std::string> field, std::optional<std::string> value) {
    return ZRKQueryStringPair(std::move(field), std::move(value));
  }

  const std::optional<std::string>& field() const { return field_; }
  void setField(std::optional<std::string> field) { field_ = std::move(field); }
  const std::optional<std::string>& value() const { return value_; }
  void setValue(std::optional<std::string> value) { value_ = std::move(value); }

  // "field=value"; the field alone when there is no value; "" when neither.
  std::string stringValue() const;

 private:
  std::optional<std::string> field_;
  std::optional<std::string> value_;
};

std::string ZRKPercentEscapedStringFromString(std::string_view string);
// The value with every string in it escaped, keys included; null becomes "",
// booleans "true"/"false", numbers their escaped decimal text.
ZRKJson ZRKPercentEscapedObject(const ZRKJson& value);
// "" for null or anything that is no object.
std::string ZRKQueryStringFromParameters(const ZRKJson& parameters);
std::vector<ZRKQueryStringPair> ZRKQueryStringPairsFromKeyAndValue(std::string_view key, const ZRKJson& value);

class ZRKFormEncoder {
 public:
  static std::string stringByURLEncoding(std::string_view string) { return ZRKPercentEscapedStringFromString(string); }
  static std::string queryStringFromParameters(const ZRKJson& parameters) {
    return ZRKQueryStringFromParameters(parameters);
  }
};

}  // namespace zrk

#endif  // ZRK_ZRKFORMENCODER_H
