// Invariant checks shared by the fuzz targets. A failed check aborts, which
// libFuzzer reports as a crash and saves the input.
#ifndef ZRK_FUZZ_FUZZCHECK_H
#define ZRK_FUZZ_FUZZCHECK_H

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "zrk/ZRKJson.h"

#define ZRK_FUZZ_CHECK(condition)                                                                  \
  do {                                                                                             \
    if (!(condition)) {                                                                            \
      std::fprintf(stderr, "%s:%d: invariant failed: %s\n", __FILE__, __LINE__, #condition);      \
      std::abort();                                                                                \
    }                                                                                              \
  } while (0)

namespace zrk::fuzz {

// The JSON writer's own UTF-8 validation, independent of the library's.
inline bool isUTF8(std::string_view text) {
  try {
    (void)ZRKJson(std::string(text)).dump();
    return true;
  } catch (const ZRKJson::exception&) {
    return false;
  }
}

inline bool isUTF8(const std::string& text) { return isUTF8(std::string_view(text)); }
inline bool isUTF8(const std::optional<std::string>& text) { return !text || isUTF8(*text); }

inline bool containsNull(const ZRKJson& value) {
  if (value.is_null()) return true;
  if (value.is_structured()) {
    for (const auto& element : value) {
      if (containsNull(element)) return true;
    }
  }
  return false;
}

inline bool hasLineBreak(std::string_view text) { return text.find_first_of("\r\n") != std::string_view::npos; }

}  // namespace zrk::fuzz

#endif  // ZRK_FUZZ_FUZZCHECK_H
