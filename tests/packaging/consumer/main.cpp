// Prints the library's version and does a little offline work with it: a
// query string, an error's localized text and an image scan without an
// image, which ends in error 1000 after a token step against a closed
// loopback port. Exits non-zero when something is off, such as an installed
// library that disagrees with the header it was built against.
#include <cstdio>

#include "zrk/ZRKApi.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKFuture.h"
#include "zrk/ZRKFormEncoder.h"
#include "zrk/ZRKVersion.h"

int main() {
  const std::string version = zrk::ZRKApi::sdkVersion();
  std::printf("zrkapi %s (header %s)\n", version.c_str(), ZRK_VERSION_STRING);
  if (version != ZRK_VERSION_STRING) return 1;

  std::printf("query: %s\n", zrk::ZRKQueryStringFromParameters({{"count", 20}, {"q", "a b"}}).c_str());
  // Translated when LANGUAGE names a language the installed catalogs have.
  std::printf("message: %s\n", zrk::zrk_genericConnectionError().localizedDescription().c_str());

  zrk::ZRKApi::initializeWithAppKey("key", "secret");
  zrk::ZRKApiClient::setBaseUrl("http://127.0.0.1:1");
  const auto scan = zrk::ZRKFutureClient().scanWithImage(nullptr).get();
  if (!scan || !scan->error || scan->error->code != 1000) return 1;
  std::printf("scan without image: error %ld\n", scan->error->code);
  return 0;
}
