#include "zrk/ZRKDictionaryAccessors.h"
#include "model/ZRKNullRemoval.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zrk {
namespace detail {
namespace {

constexpr ZRKInteger kIntegerMax = std::numeric_limits<ZRKInteger>::max();
constexpr ZRKInteger kIntegerMin = std::numeric_limits<ZRKInteger>::min();

// Length in bytes of the Unicode white space (the White_Space property) that
// starts text at pos, or 0.
std::size_t WhiteSpaceLength(std::string_view text, std::size_t pos) {
  const auto byte = [&](std::size_t i) -> unsigned char {
    return pos + i < text.size() ? static_cast<unsigned char>(text[pos + i]) : 0;
  };
  const unsigned char b0 = byte(0);
  if (b0 == ' ' || (b0 >= '\t' && b0 <= '\r')) return 1;
  if (b0 == 0xC2 && (byte(1) == 0x85 || byte(1) == 0xA0)) return 2;  // NEL, NBSP
  if (b0 == 0xE1 && byte(1) == 0x9A && byte(2) == 0x80) return 3;  // U+1680
  if (b0 == 0xE2 && byte(1) == 0x80) {
    const unsigned char b2 = byte(2);
    // U+2000..200A, U+2028, U+2029, U+202F
    if ((b2 >= 0x80 && b2 <= 0x8A) || b2 == 0xA8 || b2 == 0xA9 || b2 == 0xAF) return 3;
  }
  if (b0 == 0xE2 && byte(1) == 0x81 && byte(2) == 0x9F) return 3;  // U+205F
  if (b0 == 0xE3 && byte(1) == 0x80 && byte(2) == 0x80) return 3;  // U+3000
  return 0;
}

std::size_t SkipWhiteSpace(std::string_view text) {
  std::size_t pos = 0;
  while (std::size_t n = WhiteSpaceLength(text, pos)) pos += n;
  return pos;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

ZRKInteger IntegerFromDouble(double value) {
  if (std::isnan(value)) return 0;
  // -min is a power of two, so this bound is exact; casting a double at or
  // beyond it would be undefined.
  constexpr double kBound = -static_cast<double>(kIntegerMin);
  if (value >= kBound) return kIntegerMax;
  if (value <= -kBound) return kIntegerMin;
  return static_cast<ZRKInteger>(value);
}

// A number (or boolean) as an integer: truncated toward zero, saturated.
ZRKInteger IntegerFromNumber(const ZRKJson& number) {
  if (number.is_boolean()) return number.get<bool>() ? 1 : 0;
  if (number.is_number_unsigned()) {
    const auto value = number.get<std::uint64_t>();
    return std::in_range<ZRKInteger>(value) ? static_cast<ZRKInteger>(value) : kIntegerMax;
  }
  if (number.is_number_integer()) {
    const auto value = number.get<std::int64_t>();
    if (std::in_range<ZRKInteger>(value)) return static_cast<ZRKInteger>(value);
    return value < 0 ? kIntegerMin : kIntegerMax;
  }
  return IntegerFromDouble(number.get<double>());
}

double DoubleFromNumber(const ZRKJson& number) {
  if (number.is_boolean()) return number.get<bool>() ? 1.0 : 0.0;
  return number.get<double>();
}

// What strtod gives for decimal text that from_chars reports out of range
// (leaving its value untouched): an infinity on overflow, zero on underflow.
// Which one follows from the decimal exponent of the leading digit.
double OutOfRangeValue(std::string_view number) {
  const std::size_t e = number.find_first_of("eE");
  const std::string_view mantissa = number.substr(0, e);
  const std::size_t leading = mantissa.find_first_of("123456789");
  if (leading == std::string_view::npos) return 0.0;
  long long exponent = 0;
  if (e != std::string_view::npos) {
    std::string_view digits = number.substr(e + 1);
    const bool minus = !digits.empty() && digits.front() == '-';
    if (!digits.empty() && (digits.front() == '+' || minus)) digits.remove_prefix(1);
    for (char c : digits) exponent = std::min(exponent * 10 + (c - '0'), 1'000'000'000LL);
    if (minus) exponent = -exponent;
  }
  // The value is 0.d... times ten to the power of (exponent + shift).
  const std::size_t point = std::min(mantissa.find('.'), mantissa.size());
  const long long shift = leading < point ? static_cast<long long>(point - leading)
                                          : 1 - static_cast<long long>(leading - point);
  return exponent + shift > 0 ? std::numeric_limits<double>::infinity() : 0.0;
}

bool IsNumber(const ZRKJson& value) { return value.is_number() || value.is_boolean(); }

const ZRKJson* ValueForKey(const ZRKJson& dictionary, std::string_view key) {
  if (!dictionary.is_object()) return nullptr;
  const auto it = dictionary.find(key);
  return it == dictionary.end() ? nullptr : &*it;
}

}  // namespace

ZRKJson CopyRemovingNulls(const ZRKJson& container) {
  if (!container.is_object() && !container.is_array()) return container;

  // Depth-first with an explicit stack: a hostile body of a million nested
  // arrays parses fine and must not overflow the call stack here.
  struct Frame {
    const ZRKJson* source;
    ZRKJson::const_iterator next;
    ZRKJson* target;
  };
  ZRKJson result = container.is_object() ? ZRKJson::object() : ZRKJson::array();
  std::vector<Frame> stack;
  stack.push_back({&container, container.cbegin(), &result});
  while (!stack.empty()) {
    Frame& frame = stack.back();
    if (frame.next == frame.source->cend()) {
      stack.pop_back();
      continue;
    }
    const auto it = frame.next++;
    const ZRKJson& value = *it;
    if (value.is_null()) continue;
    const bool nested = value.is_object() || value.is_array();
    ZRKJson copy = nested ? ZRKJson(value.type()) : value;
    ZRKJson* stored;
    if (frame.target->is_object()) {
      stored = &((*frame.target)[it.key()] = std::move(copy));
    } else {
      frame.target->push_back(std::move(copy));
      stored = &frame.target->back();
    }
    // `stored` stays valid while its children are filled: its parent is not
    // touched again until this child's frame is popped.
    if (nested) stack.push_back({&value, value.cbegin(), stored});
  }
  return result;
}

bool HasNull(const ZRKJson& value) {
  // Iterative, for the same reason as the copy above.
  std::vector<const ZRKJson*> pending{&value};
  while (!pending.empty()) {
    const ZRKJson* current = pending.back();
    pending.pop_back();
    if (current->is_null()) return true;
    if (current->is_structured()) {
      for (const ZRKJson& child : *current) pending.push_back(&child);
    }
  }
  return false;
}

std::optional<std::string> WithoutNulls::takeString(std::string_view key) {
  if (!copy_) return zrk_stringForKey(*value_, key);
  const auto found = copy_->is_object() ? copy_->find(key) : copy_->end();
  if (found == copy_->end() || !found->is_string()) return std::nullopt;
  return std::move(found->get_ref<std::string&>());
}

}  // namespace detail

const ZRKJson* zrk_arrayForKey(const ZRKJson& dictionary, std::string_view key) {
  const ZRKJson* value = detail::ValueForKey(dictionary, key);
  return value != nullptr && value->is_array() ? value : nullptr;
}

const ZRKJson* zrk_dictionaryForKey(const ZRKJson& dictionary, std::string_view key) {
  const ZRKJson* value = detail::ValueForKey(dictionary, key);
  return value != nullptr && value->is_object() ? value : nullptr;
}

std::optional<ZRKJson> zrk_numberForKey(const ZRKJson& dictionary, std::string_view key) {
  const ZRKJson* value = detail::ValueForKey(dictionary, key);
  if (value == nullptr || !detail::IsNumber(*value)) return std::nullopt;
  return *value;
}

std::optional<std::string> zrk_stringForKey(const ZRKJson& dictionary, std::string_view key) {
  const ZRKJson* value = detail::ValueForKey(dictionary, key);
  if (value == nullptr || !value->is_string()) return std::nullopt;
  return value->get_ref<const std::string&>();
}

std::optional<ZRKURL> zrk_urlForKey(const ZRKJson& dictionary, std::string_view key) {
  const ZRKJson* value = detail::ValueForKey(dictionary, key);
  if (value == nullptr || !value->is_string()) return std::nullopt;
  return ZRKURL::URLWithString(value->get_ref<const std::string&>());
}

ZRKInteger zrk_intForKey(const ZRKJson& dictionary, std::string_view key,
                         ZRKInteger defaultValue) {
  const ZRKJson* value = detail::ValueForKey(dictionary, key);
  if (value == nullptr) return defaultValue;
  if (detail::IsNumber(*value)) return detail::IntegerFromNumber(*value);
  if (value->is_string()) return zrk_integerValue(value->get_ref<const std::string&>());
  return defaultValue;
}

bool zrk_boolForKey(const ZRKJson& dictionary, std::string_view key, bool defaultValue) {
  const ZRKJson* value = detail::ValueForKey(dictionary, key);
  if (value == nullptr) return defaultValue;
  if (value->is_boolean()) return value->get<bool>();
  if (value->is_number()) return value->get<double>() != 0.0;
  // Lower-casing first and testing for "true" would change nothing: the
  // string rule already accepts "t" and "y" in either case, and no other
  // character lower-cases to one of them.
  if (value->is_string()) return zrk_boolValue(value->get_ref<const std::string&>());
  return defaultValue;
}

std::optional<ZRKDate> zrk_dateForKey(const ZRKJson& dictionary, std::string_view key) {
  const ZRKJson* value = detail::ValueForKey(dictionary, key);
  if (value == nullptr) return std::nullopt;
  double seconds;
  if (detail::IsNumber(*value)) {
    seconds = detail::DoubleFromNumber(*value);
  } else if (value->is_string()) {
    seconds = zrk_doubleValue(value->get_ref<const std::string&>());
  } else {
    return std::nullopt;
  }
  return ZRKDate(std::chrono::duration<double>(seconds));
}

ZRKJson zrk_dictionaryByRemovingNulls(const ZRKJson& dictionary) {
  if (!dictionary.is_object()) return ZRKJson::object();
  return detail::CopyRemovingNulls(dictionary);
}

ZRKJson zrk_dictionaryByRemovingNonStrings(const ZRKJson& dictionary) {
  ZRKJson result = ZRKJson::object();
  if (!dictionary.is_object()) return result;
  for (const auto& [key, value] : dictionary.items()) {
    if (value.is_string()) result[key] = value;
  }
  return result;
}

ZRKInteger zrk_integerValue(std::string_view text) {
  std::size_t pos = detail::SkipWhiteSpace(text);
  bool negative = false;
  if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
    negative = text[pos] == '-';
    ++pos;
  }
  // Accumulate the magnitude; the negative side reaches one further.
  const ZRKUInteger limit =
      negative ? static_cast<ZRKUInteger>(detail::kIntegerMax) + 1
               : static_cast<ZRKUInteger>(detail::kIntegerMax);
  ZRKUInteger magnitude = 0;
  for (; pos < text.size() && detail::IsDigit(text[pos]); ++pos) {
    const auto digit = static_cast<ZRKUInteger>(text[pos] - '0');
    magnitude = magnitude > (limit - digit) / 10 ? limit : magnitude * 10 + digit;
  }
  if (!negative) return static_cast<ZRKInteger>(magnitude);
  if (magnitude == limit) return detail::kIntegerMin;
  return -static_cast<ZRKInteger>(magnitude);
}

double zrk_doubleValue(std::string_view text) {
  std::size_t pos = detail::SkipWhiteSpace(text);
  bool negative = false;
  if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
    negative = text[pos] == '-';
    ++pos;
  }
  // Delimit the decimal text ourselves so that from_chars never sees what
  // the rules refuse ("inf", "nan", hex) and no sign they reject.
  const std::size_t start = pos;
  std::size_t digits = 0;
  for (; pos < text.size() && detail::IsDigit(text[pos]); ++pos) ++digits;
  if (pos < text.size() && text[pos] == '.') {
    ++pos;
    for (; pos < text.size() && detail::IsDigit(text[pos]); ++pos) ++digits;
  }
  if (digits == 0) return 0.0;
  if (pos < text.size() && (text[pos] == 'e' || text[pos] == 'E')) {
    std::size_t exponent = pos + 1;
    if (exponent < text.size() && (text[exponent] == '+' || text[exponent] == '-')) ++exponent;
    if (exponent < text.size() && detail::IsDigit(text[exponent])) {
      pos = exponent;
      while (pos < text.size() && detail::IsDigit(text[pos])) ++pos;
    }
  }
  const std::string_view number = text.substr(start, pos - start);
  const char* last = number.data() + number.size();
  double value = 0.0;
  const auto [end, error] =
      std::from_chars(number.data(), last, value, std::chars_format::general);
  if (error == std::errc::result_out_of_range) {
    value = detail::OutOfRangeValue(number);
  } else if (error != std::errc() || end != last) {
    value = 0.0;
  }
  return negative ? -value : value;
}

bool zrk_boolValue(std::string_view text) {
  std::size_t pos = detail::SkipWhiteSpace(text);
  if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) ++pos;
  while (pos < text.size() && text[pos] == '0') ++pos;
  if (pos == text.size()) return false;
  const char c = text[pos];
  return c == 'y' || c == 'Y' || c == 't' || c == 'T' || (c >= '1' && c <= '9');
}

void linkNSDictionaryCategory() {}

}  // namespace zrk
