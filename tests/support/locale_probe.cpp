// Prints the library's generic error text and where its catalogs were found,
// so that tests can vary the environment and working directory per process:
// the library decides both once per process.
//   zrkapi_locale_probe [--app-catalog DIR]
// With --app-catalog the program acts as a localized application whose own
// text domain "probe" lives in DIR.
#include <libintl.h>

#include <clocale>
#include <cstdio>
#include <string_view>

#include "zrk/ZRKApiError.h"
#include "zrk/ZRKLocalizationUtils.h"

int main(int argc, char** argv) {
  if (argc == 3 && std::string_view(argv[1]) == "--app-catalog") {
    std::setlocale(LC_ALL, "C.UTF-8");
    bindtextdomain("probe", argv[2]);
    textdomain("probe");
  }
  const zrk::ZRKError error = zrk::zrk_genericFailedToParseResponseError();
  std::printf("%s\n%s\n", error.localizedDescription().c_str(),
              zrk::ZRKBundleLocator::ZRKResourcesBundle()->bundlePath().c_str());
  return 0;
}
