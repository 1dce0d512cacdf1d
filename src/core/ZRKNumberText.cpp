#include "core/ZRKNumberText.h"

#include <charconv>
#include <cmath>

namespace zrk::detail {
namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Past float's range a number saturates rather than failing: to infinity
// when it is too large, to zero when too small.
bool isLarge(std::string_view number) {
  double wide = 0;
  if (std::from_chars(number.data(), number.data() + number.size(), wide).ec == std::errc()) {
    return std::fabs(wide) > 1;
  }
  const std::size_t exponent = number.find_first_of("eE");
  if (exponent != std::string_view::npos) {
    return exponent + 1 >= number.size() || number[exponent + 1] != '-';
  }
  const std::string_view whole = number.substr(0, number.find('.'));
  return whole.find_first_not_of('0') != std::string_view::npos;
}

}  // namespace

float leadingFloat(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n')) ++i;
  const std::size_t start = i;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  const std::size_t digits = i;
  while (i < text.size() && isDigit(text[i])) ++i;
  bool any = i > digits;
  if (i < text.size() && text[i] == '.') {
    const std::size_t fraction = ++i;
    while (i < text.size() && isDigit(text[i])) ++i;
    any = any || i > fraction;
  }
  if (!any) return 0;
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    std::size_t j = i + 1;
    if (j < text.size() && (text[j] == '+' || text[j] == '-')) ++j;
    if (j < text.size() && isDigit(text[j])) {
      while (j < text.size() && isDigit(text[j])) ++j;
      i = j;
    }
  }
  // from_chars takes no "+" and, unlike strtof, ignores the C locale.
  std::string_view number = text.substr(start, i - start);
  const bool negative = !number.empty() && number.front() == '-';
  if (!number.empty() && (number.front() == '+' || number.front() == '-')) number.remove_prefix(1);
  float value = 0;
  const auto result = std::from_chars(number.data(), number.data() + number.size(), value);
  if (result.ec == std::errc::result_out_of_range) value = isLarge(number) ? HUGE_VALF : 0.0f;
  return negative ? -value : value;
}

std::string formatFixed(float value) {
  if (std::isnan(value)) return std::signbit(value) ? "-nan" : "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  char buffer[64];
  const auto result =
      std::to_chars(buffer, buffer + sizeof buffer, static_cast<double>(value), std::chars_format::fixed, 6);
  return std::string(buffer, result.ptr);
}

}  // namespace zrk::detail
