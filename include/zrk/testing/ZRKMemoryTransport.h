// A transport that answers from a script, for tests: the library's own and
// an application's. Put it in the configuration that every client's session
// is made with, before the first request:
//
//   auto transport = zrk::testing::ZRKMemoryTransport::create();
//   zrk::ZRKApiClient::sharedUrlSessionConfiguration()->transport = transport;
//   transport->respond("POST", "/app/v1/auth", ZRKScriptedResponse::json({{"token", "t"}, {"expire", 4102444800}}));
//
// It records each request as the session sends it (after the session has
// dropped header fields that cannot go on the wire and added "User-Agent";
// what only a socket adds, such as "Host" and "Content-Length", is not
// there) and answers it with the first route whose method and URL path
// match, or with 404 and an empty body. Answers arrive on a private thread,
// never inside the call that sent the request, as they would from a network.
#ifndef ZRK_TESTING_ZRKMEMORYTRANSPORT_H
#define ZRK_TESTING_ZRKMEMORYTRANSPORT_H

#include "zrk/ZRKExport.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zrk/ZRKError.h"
#include "zrk/ZRKJson.h"
#include "zrk/ZRKURLRequest.h"
#include "zrk/ZRKURLTransport.h"

namespace zrk::testing {

// One scripted answer: a response, or a transport error, after a delay.
struct ZRK_API ZRKScriptedResponse {
  long statusCode = 200;
  ZRKHTTPHeaderFields headerFields;
  std::string body;
  // Instead of an answer, the exchange fails with this error.
  std::optional<ZRKError> error;
  // Seconds during which nothing moves before the answer (or the error)
  // arrives; infinity for an answer that never comes, which only the
  // session's time-outs or a cancel end.
  double delay = 0;

  // A JSON body with "Content-Type: application/json".
  static ZRKScriptedResponse json(const ZRKJson& body, long statusCode = 200);
  // A redirect to `location`.
  static ZRKScriptedResponse redirect(long statusCode, std::string location);
  // A transport error in ZRKURLErrorDomain, for example ZRKURLErrorCannotConnect.
  static ZRKScriptedResponse failure(long code);
  // An answer that never comes.
  static ZRKScriptedResponse silence();
};

class ZRK_API ZRKMemoryTransport final : public ZRKURLTransport,
                                 public std::enable_shared_from_this<ZRKMemoryTransport> {
 public:
  static std::shared_ptr<ZRKMemoryTransport> create();

  // Answers requests with this method ("" for any) to this URL path (the
  // query is not compared) with `responses` in turn, the last one for every
  // request after. A later route for the same method and path replaces the
  // earlier one.
  void respond(std::string method, std::string path, std::vector<ZRKScriptedResponse> responses);
  void respond(std::string method, std::string path, ZRKScriptedResponse response);
  // Answers what no route matches by calling `responder` (on a private
  // thread) instead of with a 404.
  void respondOtherwise(std::function<ZRKScriptedResponse(const ZRKURLRequest&)> responder);

  // The requests sent so far, in order.
  std::vector<ZRKURLRequest> requests() const;
  // Those to one URL path.
  std::vector<ZRKURLRequest> requests(const std::string& path) const;
  // Waits until `count` requests have been sent; false after the time-out.
  bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  // Forgets the routes and the requests.
  void reset();

  std::shared_ptr<ZRKURLTransportExchange> start(const ZRKURLRequest& request,
                                                 const ZRKURLSessionConfiguration& configuration,
                                                 std::shared_ptr<ZRKURLTransportClient> client) override;

  ZRKMemoryTransport(const ZRKMemoryTransport&) = delete;
  ZRKMemoryTransport& operator=(const ZRKMemoryTransport&) = delete;
  ~ZRKMemoryTransport() override;

 private:
  struct State;
  ZRKMemoryTransport();
  std::shared_ptr<State> state_;
};

}  // namespace zrk::testing

#endif  // ZRK_TESTING_ZRKMEMORYTRANSPORT_H
