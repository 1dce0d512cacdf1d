// Numbers as the headers write them, whatever LC_NUMERIC the application set.
#ifndef ZRK_CORE_ZRKNUMBERTEXT_H
#define ZRK_CORE_ZRKNUMBERTEXT_H

#include <string>
#include <string_view>

namespace zrk::detail {

// The leading decimal number of the text as a float, 0 when there is none:
// leading blanks, a sign, digits, a fraction and an exponent are read and
// the rest ignored ("10.3.1" gives 10.3, "bookworm" 0).
float leadingFloat(std::string_view text);

// Six digits after the point, as printf's "%f" writes a float widened to
// double ("-33.900002" for -33.9f); "inf" and "nan" as printf spells them.
std::string formatFixed(float value);

}  // namespace zrk::detail

#endif  // ZRK_CORE_ZRKNUMBERTEXT_H
