#ifndef ZRK_CORE_ZRKBASE64_H
#define ZRK_CORE_ZRKBASE64_H

#include <string>
#include <string_view>

namespace zrk::detail {

// Standard alphabet, "=" padding, no line breaks.
std::string base64Encode(std::string_view bytes);

}  // namespace zrk::detail

#endif  // ZRK_CORE_ZRKBASE64_H
