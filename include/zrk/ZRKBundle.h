// Where the library's translated texts come from.
//
// A bundle is either a directory of GNU gettext catalogs laid out as
// <directory>/<language>/LC_MESSAGES/zrkapi.mo, or the main bundle: the
// application's own gettext text domain (whatever textdomain() and
// bindtextdomain() say). Texts are looked up by their English spelling,
// which is also what comes back when a bundle has no translation.
//
// The user's languages are read as gettext reads them: the colon-separated
// list in LANGUAGE, else the first of LC_ALL, LC_MESSAGES and LANG that is
// set. A language is named by its ISO 639 code ("de" for de_AT.UTF-8); the C
// and POSIX locales, and no setting at all, mean English ("en").
// Bundles are immutable and safe to share between threads.
#ifndef ZRK_ZRKBUNDLE_H
#define ZRK_ZRKBUNDLE_H

#include "zrk/ZRKExport.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace zrk {
namespace detail {
class MessageCatalog;
}  // namespace detail

class ZRK_API ZRKBundle {
 public:
  // The application's catalogs. An application does not declare which
  // languages it speaks, so it is taken to speak the user's.
  static std::shared_ptr<const ZRKBundle> mainBundle();
  // The catalog directory at the path (relative to the working directory
  // when not absolute); nullptr when there is no directory there.
  static std::shared_ptr<const ZRKBundle> bundleWithPath(std::string_view path);

  bool isMainBundle() const { return path_.empty(); }
  // The directory; "" for the main bundle.
  const std::string& bundlePath() const { return path_; }

  // The user's languages this bundle has a catalog for, in the user's order;
  // {"en"} when it has none of them. English needs no catalog: its texts
  // are the keys. Decided when the bundle is made.
  const std::vector<std::string>& preferredLocalizations() const { return preferredLocalizations_; }

  // The translation into the first preferred localization, or the key.
  std::string localizedStringForKey(std::string_view key) const;

  ZRKBundle(std::string path, std::vector<std::string> preferredLocalizations,
            std::shared_ptr<const detail::MessageCatalog> catalog);

 private:
  std::string path_;
  std::vector<std::string> preferredLocalizations_;
  std::shared_ptr<const detail::MessageCatalog> catalog_;  // null for the main bundle and for English
};

}  // namespace zrk

#endif  // ZRK_ZRKBUNDLE_H
