// The user's languages and the bundles built from them, with the environment
// passed in so that the rules can be exercised without touching it.
#ifndef ZRK_PLATFORM_ZRKLANGUAGES_H
#define ZRK_PLATFORM_ZRKLANGUAGES_H

#include <memory>
#include <string>
#include <vector>

#include "zrk/ZRKBundle.h"

namespace zrk::detail {

// The values of LANGUAGE, LC_ALL, LC_MESSAGES and LANG (null when unset).
struct LocaleEnvironment {
  const char* language = nullptr;
  const char* lcAll = nullptr;
  const char* lcMessages = nullptr;
  const char* lang = nullptr;

  static LocaleEnvironment current();
};

// The user's locale names without codeset or modifier ("de_AT", "fr"), in
// order of preference; C and POSIX read as "en". Never empty.
std::vector<std::string> userLanguages(const LocaleEnvironment& environment);

// The ISO 639 part of a locale name: "de" for "de_AT".
std::string languageCode(const std::string& locale);

// A catalog directory bundle for these languages; nullptr when the path is
// no directory.
std::shared_ptr<const ZRKBundle> directoryBundle(std::string path, const std::vector<std::string>& languages);

// The main bundle for these languages.
std::shared_ptr<const ZRKBundle> mainBundle(const std::vector<std::string>& languages);

// The catalog file name inside a language's LC_MESSAGES directory.
inline constexpr const char* kTextDomain = "zrkapi";

}  // namespace zrk::detail

#endif  // ZRK_PLATFORM_ZRKLANGUAGES_H
