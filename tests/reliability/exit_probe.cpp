// Starts requests against a server that never answers, then leaves while
// they are in flight: "return" returns from main, "exit" calls std::exit.
// Either way the process must end at once with status 0.
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKScanAPIResponse.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  zrk::ZRKApiClient::initializeWithAppKey("key", "secret");
  zrk::ZRKApiClient::setBaseUrl(argv[2]);
  auto token = std::make_shared<zrk::ZRKApiAuthToken>();
  token->setTokenString("t");
  token->setExpire(4102444800);
  zrk::ZRKApiAuthToken::setToken(token);
  const auto client = zrk::ZRKApiClient::sharedClient();
  for (int i = 0; i < 8; ++i) client->retrieveCollectionsWithCompletion([](auto, auto) { std::abort(); });
  const auto photo = zrk::ZRKImage::imageWithRGBAPixels(std::vector<std::uint8_t>(64 * 64 * 4, 200), 64, 64);
  client->scanWithImage(photo, [](auto, auto) { std::abort(); });
  // The test ends our input once the requests have reached its server.
  for (char byte; ::read(0, &byte, 1) > 0;) {
  }
  if (std::string(argv[1]) == "exit") std::exit(0);
}
