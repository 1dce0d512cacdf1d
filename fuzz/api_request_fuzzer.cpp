// The whole request road: a request layer call whose answer is the fuzz
// input, sent verbatim as the raw HTTP reply of a server on 127.0.0.1.
//
// Input: the bytes of an HTTP answer (status line, headers, body). Its size
// modulo 5 picks the call: scan (POST), user (GET), collections (GET),
// history (GET with a query) or app authentication (POST).
//
// The process's proxy settings point at the same server, so a redirect in
// the answer, whatever host it names, comes back here and never leaves the
// machine.
#include <chrono>
#include <typeinfo>

#include "FuzzCheck.h"
#include "support/ScriptedServer.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKScanAPIResponse.h"
#include "zrk/ZRKScanHistory.h"
#include "zrk/ZRKUserAPIResponse.h"

namespace zrk::fuzz {

struct Call {
  bool post;
  const char* endpoint;
  ZRKJson parameters;
  ZRKDeserializer model;
};

// Both live until the process ends: nothing may tear the client down while
// the session's thread still runs at exit.
test::ScriptedServer* server = nullptr;
std::shared_ptr<ZRKApiClient>* client = nullptr;
const Call* calls = nullptr;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  server = new test::ScriptedServer;
  server->setRecording(false);
  for (const char* name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
    ::setenv(name, server->url().c_str(), 1);
  }
  ::unsetenv("no_proxy");
  ::unsetenv("NO_PROXY");

  // A reply that stalls must not hold the fuzzer for long.
  const auto configuration = ZRKApiClient::sharedUrlSessionConfiguration();
  configuration->timeoutIntervalForRequest = 2;
  configuration->connectTimeout = 2;
  configuration->timeoutIntervalForResource = 5;
  client = new std::shared_ptr<ZRKApiClient>(ZRKApiClient::initWithConfiguration(ZRKAppConfiguration::init()));
  (*client)->setApiURL(ZRKURL::URLWithString(server->url()));
  calls = new Call[5]{
      {true, "app/v1/scan", {{"fileUrl", "http://127.0.0.1/a.jpg"}}, std::make_shared<ZRKScanAPIResponse>()},
      {false, "app/v1/user", {{"ZRK-User-Token", "t"}}, std::make_shared<ZRKUserAPIResponse>()},
      {false, "app/v1/collection", nullptr, std::make_shared<ZRKCollectionsAPIResponse>()},
      {false, "app/v1/history", {{"count", 20}, {"offset", 0}}, std::make_shared<ZRKScanHistoryAPIResponse>()},
      {true, "app/v1/auth", {{"key", "k"}, {"secret", "s"}}, std::make_shared<ZRKApiAuthToken>()}};
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  server->always({test::readBody(), test::send(asString(data, size))});
  const Call& call = calls[size % 5];
  Outcome outcome;
  if (call.post) {
    ZRKApiRequest::postWithAPIClient(*client, call.endpoint, call.parameters, call.model, outcome.completion());
  } else {
    ZRKApiRequest::getWithAPIClient(*client, call.endpoint, call.parameters, call.model, outcome.completion());
  }
  auto& queue = ZRKMainQueue::mainQueue();
  ZRK_FUZZ_CHECK(queue.runUntil([&] { return outcome.calls > 0; }, std::chrono::seconds(20)));
  // A second call would have been posted with or right after the first.
  queue.drain();
  ZRK_FUZZ_CHECK(outcome.calls == 1);
  const auto *object = outcome.object.get(), *model = call.model.get();
  if (object) ZRK_FUZZ_CHECK(typeid(*object) == typeid(*model));
  return 0;
}

}  // namespace zrk::fuzz
