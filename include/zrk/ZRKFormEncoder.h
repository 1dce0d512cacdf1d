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
//
// Model objects take part through ZRKFormEncodable: they name the properties
// to send and the field names to send them under, and hand out each value by
// its property name.
// Pure functions, safe from any thread.
#ifndef ZRK_ZRKFORMENCODER_H
#define ZRK_ZRKFORMENCODER_H

#include "zrk/ZRKExport.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "zrk/ZRKJson.h"

namespace zrk {

// One "field=value" of a query; both sides already escaped.
class ZRK_API ZRKQueryStringPair {
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

ZRK_API std::string ZRKPercentEscapedStringFromString(std::string_view string);
// The value with every string in it escaped, keys included; null becomes "",
// booleans "true"/"false", numbers their escaped decimal text.
ZRK_API ZRKJson ZRKPercentEscapedObject(const ZRKJson& value);
// "" for null or anything that is no object.
ZRK_API std::string ZRKQueryStringFromParameters(const ZRKJson& parameters);
ZRK_API std::vector<ZRKQueryStringPair> ZRKQueryStringPairsFromKeyAndValue(std::string_view key, const ZRKJson& value);

class ZRKFormEncodable;

// A property value as a form-encodable object hands it out: nothing, a JSON
// value (null included, which is something), another form-encodable object,
// or an array or dictionary of such values.
class ZRK_API ZRKFormValue {
 public:
  enum class Kind { nothing, json, object, array, dictionary };

  ZRKFormValue() = default;
  template <typename T>
    requires(!std::is_same_v<std::remove_cvref_t<T>, ZRKFormValue> && std::is_constructible_v<ZRKJson, T>)
  ZRKFormValue(T&& value) : kind_(Kind::json), json_(std::forward<T>(value)) {}  // NOLINT: implicit by design
  template <typename T>
    requires std::is_base_of_v<ZRKFormEncodable, T>
  ZRKFormValue(std::shared_ptr<T> object)  // NOLINT: implicit by design
      : kind_(Kind::object), object_(std::move(object)) {}
  static ZRKFormValue array(std::vector<ZRKFormValue> elements);
  static ZRKFormValue dictionary(std::vector<std::pair<std::string, ZRKFormValue>> entries);

  Kind kind() const { return kind_; }
  const ZRKJson& json() const { return json_; }
  const std::shared_ptr<const ZRKFormEncodable>& object() const { return object_; }
  const std::vector<ZRKFormValue>& elements() const { return elements_; }
  const std::vector<std::pair<std::string, ZRKFormValue>>& entries() const { return entries_; }

 private:
  Kind kind_ = Kind::nothing;
  ZRKJson json_;
  std::shared_ptr<const ZRKFormEncodable> object_;  // null unless an object, or an object that was null
  std::vector<ZRKFormValue> elements_;
  std::vector<std::pair<std::string, ZRKFormValue>> entries_;
};

// A model object that can be sent as form or query parameters.
class ZRK_API ZRKFormEncodable {
 public:
  virtual ~ZRKFormEncodable() = default;

  // Extra field name to value entries sent with the mapped properties; they
  // win over a mapped property of the same field name. The setter keeps a
  // copy; anything but an object counts as none.
  const ZRKJson& additionalAPIParameters() const { return additionalAPIParameters_; }
  void setAdditionalAPIParameters(ZRKJson parameters) { additionalAPIParameters_ = std::move(parameters); }

  // When present, the name under which dictionaryForObject nests all fields.
  virtual std::optional<std::string> rootObjectName() const { return std::nullopt; }
  // Property name to form field name; only these properties are sent.
  virtual std::map<std::string, std::string> propertyNamesToFormFieldNamesMapping() const = 0;
  // The value of a property named in the mapping; nothing leaves it out.
  virtual ZRKFormValue valueForKey(std::string_view propertyName) const = 0;

 protected:
  ZRKFormEncodable() = default;
  ZRKFormEncodable(const ZRKFormEncodable&) = default;
  ZRKFormEncodable& operator=(const ZRKFormEncodable&) = default;

 private:
  ZRKJson additionalAPIParameters_ = ZRKJson::object();
};

class ZRK_API ZRKFormEncoder {
 public:
  // "user_first_name" gives "userFirstName": the first piece as it is, each
  // later piece with its first letter upper case and the rest lower case
  // ("api_URL" gives "apiUrl"). Letters outside Latin, Greek and Cyrillic
  // keep their case.
  static std::string stringByReplacingSnakeCaseWithCamelCase(std::string_view string);
  // keyPairDictionaryForObject, nested under the object's rootObjectName
  // when it has one.
  static ZRKJson dictionaryForObject(const ZRKFormEncodable& object);
  // The mapped properties under their field names, then the additional
  // parameters; values that are nothing are left out.
  static ZRKJson keyPairDictionaryForObject(const ZRKFormEncodable& object);
  // Objects become their key-pair dictionaries, arrays and dictionaries are
  // converted element by element, JSON values stay as they are; nullopt for
  // nothing (and for a null object).
  static std::optional<ZRKJson> formEncodableValueForObject(const ZRKFormValue& value);

  static std::string stringByURLEncoding(std::string_view string) { return ZRKPercentEscapedStringFromString(string); }
  static std::string queryStringFromParameters(const ZRKJson& parameters) {
    return ZRKQueryStringFromParameters(parameters);
  }
};

}  // namespace zrk

#endif  // ZRK_ZRKFORMENCODER_H
