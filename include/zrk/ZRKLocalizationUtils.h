// Localized texts of the library, looked up by their English text.
// Safe from any thread.
#ifndef ZRK_ZRKLOCALIZATIONUTILS_H
#define ZRK_ZRKLOCALIZATIONUTILS_H

#include <string>
#include <string_view>

namespace zrk {

class ZRKLocalizationUtils {
 public:
  // The translation of the key into the process's language, or the key
  // itself when there is none.
  static std::string localizedStringForKey(std::string_view key);
};

}  // namespace zrk

#endif  // ZRK_ZRKLOCALIZATIONUTILS_H
