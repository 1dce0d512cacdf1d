// Prints the library's generic error text and where it found its catalogs,
// for tests that vary the environment and working directory per process:
// the library decides both once per process. With PROBE_CATALOG set it acts
// as a localized application whose own text domain "probe" lives there.
#include <libintl.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>

#include "zrk/ZRKApiError.h"
#include "zrk/ZRKLocalizationUtils.h"

int main() {
  if (const char* catalogs = std::getenv("PROBE_CATALOG"))
    std::setlocale(LC_ALL, "C.UTF-8"), bindtextdomain("probe", catalogs), textdomain("probe");
  std::printf("%s\n%s\n", zrk::zrk_genericFailedToParseResponseError().localizedDescription().c_str(),
              zrk::ZRKBundleLocator::ZRKResourcesBundle()->bundlePath().c_str());
}
