// Starts requests against a server that never answers, then leaves while
// they are in flight, on SIGUSR1: "return" returns from main, "exit" calls
// std::exit. Either way the process must end at once with status 0.
#include <signal.h>

#include <cstdlib>
#include <string>

#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKScanAPIResponse.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  // Blocked before the library starts its threads, so only sigwait sees it.
  sigset_t leave;
  sigemptyset(&leave);
  sigaddset(&leave, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &leave, nullptr);
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
  for (int signal = 0; signal != SIGUSR1;) sigwait(&leave, &signal);
  if (std::string(argv[1]) == "exit") std::exit(0);
}
