// Sends requests through the library to a stand-in service on loopback:
// authenticates the app, then lists the collections, and prints what went
// over the wire and what came back decoded.
#include <httplib.h>

#include <chrono>
#include <iostream>
#include <thread>

#include "zrk/ZRKApi.h"
#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKDictionaryAccessors.h"
#include "zrk/ZRKMainQueue.h"

namespace {

// The smallest useful model: keeps the whole answer when it has a "result".
class CollectionsAnswer : public zrk::ZRKApiResponseDecodable {
 public:
  std::shared_ptr<zrk::ZRKApiResponseDecodable> decodedObjectFromAPIResponse(const zrk::ZRKJson* response) const override {
    if (!response || !zrk::zrk_arrayForKey(*response, "result")) return nullptr;
    auto answer = std::make_shared<CollectionsAnswer>();
    answer->fields_ = zrk::zrk_dictionaryByRemovingNulls(*response);
    return answer;
  }
  std::optional<zrk::ZRKJson> allResponseFields() const override { return fields_; }

 private:
  std::optional<zrk::ZRKJson> fields_;
};

}  // namespace

int main() {
  httplib::Server service;
  service.Post("/app/v1/auth", [](const httplib::Request& request, httplib::Response& response) {
    std::cout << "service: POST /app/v1/auth " << request.body << "\n";
    const auto expire = std::chrono::duration_cast<std::chrono::seconds>(
                            std::chrono::system_clock::now().time_since_epoch()).count() + 3600;
    response.set_content(R"({"token":"demo-token","expire":)" + std::to_string(expire) + R"(,"expireIn":3600})",
                         "application/json");
  });
  service.Get("/app/v1/collection", [](const httplib::Request& request, httplib::Response& response) {
    std::cout << "service: GET " << request.target << " with " << request.get_header_value("Authorization") << "\n";
    response.set_content(R"({"result":[{"id":"c1","name":"Posters"},{"id":"c2","name":"Books"}]})",
                         "application/json");
  });
  const int port = service.bind_to_any_port("127.0.0.1");
  std::thread serving([&] { service.listen_after_bind(); });

  zrk::ZRKApi::initializeWithAppKey("demo-key", "demo-secret");
  zrk::ZRKApiClient::setBaseUrl("http://127.0.0.1:" + std::to_string(port));
  const auto client = zrk::ZRKApi::sharedApiClient();

  int status = 1;
  bool done = false;
  client->authWithCompletion([&](bool success, std::optional<zrk::ZRKError> error) {
    if (!success) {
      std::cerr << "authentication failed: " << *error << "\n";
      done = true;
      return;
    }
    zrk::ZRKApiRequest::getWithAPIClient(
        client, "app/v1/collection", {{"count", 20}}, std::make_shared<CollectionsAnswer>(),
        [&](auto object, auto response, auto error) {
          if (error) {
            std::cerr << "request failed: " << *error << "\n";
          } else {
            std::cout << "client: HTTP " << response->statusCode() << ", decoded on the main thread: "
                      << (zrk::ZRKMainQueue::isMainThread() ? "yes" : "no") << "\n"
                      << object->allResponseFields()->dump(2) << "\n";
            status = 0;
          }
          done = true;
        });
  });
  zrk::ZRKMainQueue::mainQueue().runUntil([&] { return done; }, std::chrono::seconds(30));

  service.stop();
  serving.join();
  return status;
}
