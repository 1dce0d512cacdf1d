// What one large answer costs in memory: a user answer whose "name" is a
// string of the given size, fetched over loopback through the library and
// decoded into its model, against the size of the body. The figure is the
// growth of the process's peak resident memory (VmHWM, reset just before
// the request) while the answer arrives, is parsed and decoded, and the
// model reaches the completion.
//
//   zrkapi_memory_bench [MEGABYTES...]   (default: 16 50 63)
//
// Prints one JSON object per size. The server is this process's own raw
// loopback server, which sends the prepared answer without copying it.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "support/ScriptedServer.h"
#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKUserAPIResponse.h"

namespace {

std::size_t statusField(const char* name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(name, 0) == 0) return std::strtoull(line.c_str() + std::strlen(name), nullptr, 10) * 1024;
  }
  return 0;
}

// Lets the peak start again from what is resident now.
void resetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

}  // namespace

int main(int argc, char** argv) {
  std::vector<double> sizes;
  for (int i = 1; i < argc; ++i) sizes.push_back(std::atof(argv[i]));
  if (sizes.empty()) sizes = {16, 50, 63};

  zrk::test::ScriptedServer server;
  zrk::ZRKApiClient::initializeWithAppKey("key", "secret");
  zrk::ZRKApiClient::setBaseUrl(server.url());
  auto token = std::make_shared<zrk::ZRKApiAuthToken>();
  token->setTokenString("t");
  token->setExpire(4102444800);
  zrk::ZRKApiAuthToken::setToken(token);
  const auto client = zrk::ZRKApiClient::sharedClient();

  const auto fetch = [&](std::size_t nameBytes) {
    std::shared_ptr<zrk::ZRKUserAPIResponse> user;
    bool done = false;
    client->retrieveUser("ut", [&](auto answer, auto) {
      user = std::move(answer);
      done = true;
    });
    zrk::ZRKMainQueue::mainQueue().runUntil([&] { return done; }, std::chrono::minutes(2));
    return user && user->name() && user->name()->size() == nameBytes;
  };

  // Threads, pools and connections exist before the first measurement.
  server.always({zrk::test::readBody(), zrk::test::send(zrk::test::httpAnswer(R"({"email":"a@x","name":"n"})"))});
  if (!fetch(1)) return 1;

  for (const double megabytes : sizes) {
    const auto nameBytes = static_cast<std::size_t>(megabytes * 1e6);
    const std::string body = R"({"email":"a@x","name":")" + std::string(nameBytes, 'x') + "\"}";
    server.always({zrk::test::readBody(), zrk::test::send(zrk::test::httpAnswer(body))});
    const std::size_t resident = statusField("VmRSS:");
    resetPeak();
    const bool ok = fetch(nameBytes);
    const std::size_t peak = statusField("VmHWM:");
    std::printf("{\"body_bytes\": %zu, \"decoded\": %s, \"peak_growth_bytes\": %zu, \"times_body\": %.2f}\n",
                body.size(), ok ? "true" : "false", peak - resident,
                static_cast<double>(peak - resident) / static_cast<double>(body.size()));
    std::fflush(stdout);
  }
}
