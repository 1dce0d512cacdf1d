#include "zrk/ZRKStringAccessors.h"

#include <utf8proc.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zrk {
namespace detail {
namespace {

// One character of the text, or one byte that is not valid UTF-8.
struct Unit {
  std::size_t size;     // bytes
  char32_t code_point;  // meaningful only when valid
  bool valid;
  std::size_t Utf16Length() const { return valid && code_point > 0xFFFF ? 2 : 1; }
};

// Strict UTF-8 (no overlong forms, surrogates or values past U+10FFFF).
Unit DecodeAt(std::string_view text, std::size_t pos) {
  const auto byte = [&](std::size_t i) -> unsigned {
    return pos + i < text.size() ? static_cast<unsigned char>(text[pos + i]) : 0;
  };
  const auto continuation = [&](std::size_t i) { return (byte(i) & 0xC0) == 0x80; };
  const unsigned b0 = byte(0);
  if (b0 < 0x80) return {1, b0, true};
  std::size_t size;
  unsigned low = 0x80, high = 0xBF;  // allowed range of the second byte
  char32_t code_point;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    size = 2;
    code_point = b0 & 0x1F;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    size = 3;
    code_point = b0 & 0x0F;
    if (b0 == 0xE0) low = 0xA0;
    if (b0 == 0xED) high = 0x9F;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    size = 4;
    code_point = b0 & 0x07;
    if (b0 == 0xF0) low = 0x90;
    if (b0 == 0xF4) high = 0x8F;
  } else {
    return {1, 0, false};
  }
  if (byte(1) < low || byte(1) > high) return {1, 0, false};
  for (std::size_t i = 1; i < size; ++i) {
    if (!continuation(i)) return {1, 0, false};
    code_point = (code_point << 6) | (byte(i) & 0x3F);
  }
  return {size, code_point, true};
}

}  // namespace
}  // namespace detail

std::string zrk_safeSubstringToIndex(std::string_view string, ZRKUInteger index) {
  std::size_t units = 0;
  std::size_t end = 0;
  while (end < string.size()) {
    const detail::Unit unit = detail::DecodeAt(string, end);
    if (unit.Utf16Length() > index - units) break;
    units += unit.Utf16Length();
    end += unit.size;
  }
  return std::string(string.substr(0, end));
}

std::string zrk_safeSubstringFromIndex(std::string_view string, ZRKUInteger index) {
  std::size_t units = 0;
  std::size_t start = 0;
  // A pair cut in half pushes units past index, so its character is skipped.
  while (start < string.size() && units < index) {
    const detail::Unit unit = detail::DecodeAt(string, start);
    units += unit.Utf16Length();
    start += unit.size;
  }
  return std::string(string.substr(start));
}

std::string zrk_reversedString(std::string_view string) {
  std::vector<std::size_t> starts;
  // Unicode's extended grapheme cluster rules, from utf8proc; the state
  // carries what a pair alone cannot tell (flags, ZWJ emoji sequences).
  utf8proc_int32_t state = 0;
  std::optional<char32_t> previous;  // absent at the start and after a byte that is not UTF-8
  for (std::size_t pos = 0; pos < string.size();) {
    const detail::Unit unit = detail::DecodeAt(string, pos);
    const bool joins = previous && unit.valid &&
                       !utf8proc_grapheme_break_stateful(static_cast<utf8proc_int32_t>(*previous),
                                                         static_cast<utf8proc_int32_t>(unit.code_point), &state);
    if (!joins) starts.push_back(pos);
    if (unit.valid) {
      previous = unit.code_point;
    } else {
      previous.reset();
      state = 0;
    }
    pos += unit.size;
  }
  std::string reversed;
  reversed.reserve(string.size());
  std::size_t end = string.size();
  for (auto it = starts.rbegin(); it != starts.rend(); ++it) {
    reversed.append(string.substr(*it, end - *it));
    end = *it;
  }
  return reversed;
}

std::string zrk_stringByRemovingSuffix(std::string_view string,
                                       std::optional<std::string_view> suffix) {
  if (!suffix || !string.ends_with(*suffix)) return std::string(string);
  // Matching bytes are only a match of characters when the cut falls on a
  // character boundary (it may not, around bytes that are not UTF-8).
  const std::size_t cut = string.size() - suffix->size();
  std::size_t pos = 0;
  while (pos < cut) pos += detail::DecodeAt(string, pos).size;
  return pos == cut ? std::string(string.substr(0, cut)) : std::string(string);
}

void linkNSStringCategory() {}

}  // namespace zrk
