#include "zrk/ZRKStringAccessors.h"

#include <cstddef>
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

bool InRange(char32_t c, char32_t first, char32_t last) { return c >= first && c <= last; }

bool IsRegionalIndicator(char32_t c) { return InRange(c, 0x1F1E6, 0x1F1FF); }

// Characters that belong to the character before them.
bool IsExtender(char32_t c) {
  return InRange(c, 0x0300, 0x036F) ||    // combining diacritical marks
         InRange(c, 0x1AB0, 0x1AFF) ||    // ... extended
         InRange(c, 0x1DC0, 0x1DFF) ||    // ... supplement
         InRange(c, 0x20D0, 0x20FF) ||    // ... for symbols (incl. the keycap)
         InRange(c, 0xFE20, 0xFE2F) ||    // combining half marks
         InRange(c, 0xFE00, 0xFE0F) ||    // variation selectors
         InRange(c, 0xE0100, 0xE01EF) ||  // ... supplement
         InRange(c, 0x1F3FB, 0x1F3FF) ||  // emoji skin-tone modifiers
         InRange(c, 0xE0020, 0xE007F) ||  // tags (subdivision flags)
         c == 0x200D;                     // ZWJ; it also pulls in what follows
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
  bool after_zwj = false;
  bool after_line_break = false;
  bool after_cr = false;
  bool open_flag = false;  // the last character is a lone regional indicator
  for (std::size_t pos = 0; pos < string.size();) {
    const detail::Unit unit = detail::DecodeAt(string, pos);
    const char32_t c = unit.code_point;
    const bool line_break = unit.valid && (c == '\r' || c == '\n');
    bool joins = false;
    if (!starts.empty() && unit.valid) {
      if (after_line_break || line_break) {
        joins = after_cr && c == '\n';
      } else {
        joins = after_zwj || detail::IsExtender(c) ||
                (open_flag && detail::IsRegionalIndicator(c));
      }
    }
    if (!joins) starts.push_back(pos);
    const bool regional = unit.valid && detail::IsRegionalIndicator(c);
    open_flag = regional && !(open_flag && joins);
    after_zwj = unit.valid && c == 0x200D;
    after_cr = unit.valid && c == '\r';
    after_line_break = line_break;
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
