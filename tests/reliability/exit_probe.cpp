// Starts requests against a server that never answers, then leaves while
// they are in flight: "return" returns from main, "exit" calls std::exit.
// Either way the process must end at once with status 0.
#include <cstdlib>
#include <string>
#include <vector>

#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKMainQueue.h"
#include "zrk/ZRKScanAPIResponse.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::string mode = argv[1];
  zrk::ZRKApiClient::initializeWithAppKey("key", "secret");
  zrk::ZRKApiClient::setBaseUrl(argv[2]);
  auto token = std::make_shared<zrk::ZRKApiAuthToken>();
  token->setTokenString("t");
  token->setExpire(4102444800);
  zrk::ZRKApiAuthToken::setToken(token);

  const auto client = zrk::ZRKApiClient::sharedClient();
  for (int i = 0; i < 8; ++i) {
    client->retrieveCollectionsWithCompletion([](auto, auto) { std::abort(); });
  }
  std::vector<std::uint8_t> pixels(64 * 64 * 4, 200);
  client->scanWithImage(zrk::ZRKImage::imageWithRGBAPixels(std::move(pixels), 64, 64),
                        [](auto, auto) { std::abort(); });
  // Long enough for the requests to reach the server, far shorter than the
  // session's time-out.
  zrk::ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(500));
  if (mode == "exit") std::exit(0);
  return 0;
}
