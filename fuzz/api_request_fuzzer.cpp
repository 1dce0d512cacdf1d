// The whole request road: a request layer call whose answer is the fuzz
// input, sent verbatim as the raw HTTP reply of a server on 127.0.0.1.
//
// Input: the bytes of an HTTP answer (status line, headers, body). Its size
// modulo 5 picks the call: scan (POST), user (GET), collections (GET),
// history (GET with a query) or app authentication (POST).
//
// The completion must run exactly once, on the main thread, with exactly
// one of object and error. The process's proxy settings point at the same
// server, so a redirect in the answer, whatever host it names, comes back
// here and never leaves the machine.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "FuzzCheck.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKScanAPIResponse.h"
#include "zrk/ZRKScanHistory.h"
#include "zrk/ZRKUserAPIResponse.h"

namespace zrk::fuzz {
namespace {

// Answers every connection with the current reply, then closes it. Runs for
// the life of the process.
class RawServer {
 public:
  RawServer() {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 64) != 0 || ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      std::perror("loopback server");
      std::abort();
    }
    port_ = ntohs(address.sin_port);
    std::thread([this] { serve(); }).detach();
  }

  int port() const { return port_; }

  void setReply(std::string reply) {
    std::lock_guard lock(mutex_);
    reply_ = std::move(reply);
  }

 private:
  void serve() {
    while (true) {
      const int connection = ::accept(listener_, nullptr, nullptr);
      if (connection < 0) continue;
      readRequest(connection);
      std::string reply;
      {
        std::lock_guard lock(mutex_);
        reply = reply_;
      }
      for (std::size_t sent = 0; sent < reply.size();) {
        const ssize_t n = ::send(connection, reply.data() + sent, reply.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<std::size_t>(n);
      }
      ::shutdown(connection, SHUT_WR);
      ::close(connection);
    }
  }

  // Reads the head and a declared body, so that closing does not reset the
  // connection under a reply the client has not read yet.
  static void readRequest(int connection) {
    std::string request;
    std::size_t wanted = std::string::npos;
    char buffer[4096];
    while (request.size() < wanted) {
      pollfd p{connection, POLLIN, 0};
      if (::poll(&p, 1, 1000) <= 0) return;
      const ssize_t n = ::recv(connection, buffer, sizeof buffer, 0);
      if (n <= 0) return;
      request.append(buffer, static_cast<std::size_t>(n));
      const std::size_t head = request.find("\r\n\r\n");
      if (wanted == std::string::npos && head != std::string::npos) {
        std::size_t body = 0;
        const std::size_t field = request.find("Content-Length: ");
        if (field != std::string::npos && field < head) body = std::strtoul(request.c_str() + field + 16, nullptr, 10);
        wanted = head + 4 + body;
      }
    }
  }

  int listener_ = -1;
  int port_ = 0;
  std::mutex mutex_;
  std::string reply_;  // guarded by mutex_
};

// Both live until the process ends: nothing may tear the client down while
// the session's thread still runs at exit.
RawServer* server = nullptr;
std::shared_ptr<ZRKApiClient>* client = nullptr;

template <typename Model>
const Model* decodedAs(const std::shared_ptr<ZRKApiResponseDecodable>& object) {
  return dynamic_cast<const Model*>(object.get());
}

}  // namespace
}  // namespace zrk::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  using namespace zrk;
  fuzz::server = new fuzz::RawServer;
  const std::string proxy = "http://127.0.0.1:" + std::to_string(fuzz::server->port());
  for (const char* name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
    ::setenv(name, proxy.c_str(), 1);
  }
  ::unsetenv("no_proxy");
  ::unsetenv("NO_PROXY");

  // A reply that stalls must not hold the fuzzer for long.
  const auto configuration = ZRKApiClient::sharedUrlSessionConfiguration();
  configuration->timeoutIntervalForRequest = 2;
  configuration->connectTimeout = 2;
  configuration->timeoutIntervalForResource = 5;
  fuzz::client = new std::shared_ptr<ZRKApiClient>(ZRKApiClient::initWithConfiguration(ZRKAppConfiguration::init()));
  (*fuzz::client)->setApiURL(ZRKURL::URLWithString(proxy));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zrk;
  fuzz::server->setReply(std::string(reinterpret_cast<const char*>(data), size));

  int calls = 0;
  std::shared_ptr<ZRKApiResponseDecodable> object;
  const auto completion = [&](std::shared_ptr<ZRKApiResponseDecodable> decoded,
                              std::shared_ptr<const ZRKHTTPURLResponse>, std::optional<ZRKError> error) {
    ++calls;
    ZRK_FUZZ_CHECK(ZRKMainQueue::isMainThread());
    ZRK_FUZZ_CHECK((decoded == nullptr) == error.has_value());
    if (error) ZRK_FUZZ_CHECK(fuzz::isUTF8(error->localizedDescription()));
    object = std::move(decoded);
  };

  const int call = static_cast<int>(size % 5);
  switch (call) {
    case 0:
      ZRKApiRequest::postWithAPIClient(*fuzz::client, "app/v1/scan", {{"fileUrl", "http://127.0.0.1/a.jpg"}},
                                       std::make_shared<ZRKScanAPIResponse>(), completion);
      break;
    case 1:
      ZRKApiRequest::getWithAPIClient(*fuzz::client, "app/v1/user", {{"ZRK-User-Token", "t"}},
                                      std::make_shared<ZRKUserAPIResponse>(), completion);
      break;
    case 2:
      ZRKApiRequest::getWithAPIClient(*fuzz::client, "app/v1/collection", nullptr,
                                      std::make_shared<ZRKCollectionsAPIResponse>(), completion);
      break;
    case 3:
      ZRKApiRequest::getWithAPIClient(*fuzz::client, "app/v1/history", {{"count", 20}, {"offset", 0}},
                                      std::make_shared<ZRKScanHistoryAPIResponse>(), completion);
      break;
    default:
      ZRKApiRequest::postWithAPIClient(*fuzz::client, "app/v1/auth", {{"key", "k"}, {"secret", "s"}},
                                       std::make_shared<ZRKApiAuthToken>(), completion);
      break;
  }

  auto& queue = ZRKMainQueue::mainQueue();
  ZRK_FUZZ_CHECK(queue.runUntil([&] { return calls > 0; }, std::chrono::seconds(20)));
  // A second call would have been posted with or right after the first.
  queue.drain();
  ZRK_FUZZ_CHECK(calls == 1);

  if (object) {
    switch (call) {
      case 0:
        ZRK_FUZZ_CHECK(fuzz::decodedAs<ZRKScanAPIResponse>(object));
        break;
      case 1:
        ZRK_FUZZ_CHECK(fuzz::decodedAs<ZRKUserAPIResponse>(object));
        break;
      case 2:
        ZRK_FUZZ_CHECK(fuzz::decodedAs<ZRKCollectionsAPIResponse>(object));
        break;
      case 3:
        ZRK_FUZZ_CHECK(fuzz::decodedAs<ZRKScanHistoryAPIResponse>(object));
        break;
      default:
        ZRK_FUZZ_CHECK(fuzz::decodedAs<ZRKApiAuthToken>(object));
        break;
    }
  }
  return 0;
}
