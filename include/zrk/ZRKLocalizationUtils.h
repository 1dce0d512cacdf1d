// Localized texts of the library, looked up by their English text.
//
// The library's catalogs are found once per process, trying in order:
//   1. the directory "ZRKResource.bundle" in the working directory;
//   2. the directory "ZRKApi.bundle" beside the binary that holds the
//      library's code (the shared library, or the program it is linked into);
//   3. the locale directory the library was installed with
//      (<prefix>/share/locale);
//   4. the main bundle, the application's own text domain.
// Also once per process, the library decides whose catalogs to use: when
// the first language its catalogs offer the user differs from the user's
// first language (see ZRKBundle.h), every text comes from the main bundle
// instead, so that the library never speaks another language than the
// application. Safe from any thread.
#ifndef ZRK_ZRKLOCALIZATIONUTILS_H
#define ZRK_ZRKLOCALIZATIONUTILS_H

#include "zrk/ZRKExport.h"

#include <memory>
#include <string>
#include <string_view>

#include "zrk/ZRKBundle.h"

namespace zrk {

class ZRK_API ZRKLocalizationUtils {
 public:
  // The translation of the key into the process's language, or the key
  // itself when there is none.
  static std::string localizedStringForKey(std::string_view key);
};

class ZRK_API ZRKBundleLocator {
 public:
  // The library's catalogs; never null (the main bundle is the last resort).
  static std::shared_ptr<const ZRKBundle> ZRKResourcesBundle();
};

// Exists as a name only.
class ZRKBundleLocatorInternal {};

}  // namespace zrk

#endif  // ZRK_ZRKLOCALIZATIONUTILS_H
