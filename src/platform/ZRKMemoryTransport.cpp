#include "zrk/testing/ZRKMemoryTransport.h"

#include <cmath>
#include <condition_variable>
#include <limits>
#include <mutex>

#include "platform/ZRKTimer.h"
#include "platform/ZRKTransportError.h"

namespace zrk::testing {

ZRKScriptedResponse ZRKScriptedResponse::json(const ZRKJson& body, long statusCode) {
  ZRKScriptedResponse response;
  response.statusCode = statusCode;
  response.headerFields.setValue("application/json", "Content-Type");
  response.body = body.dump();
  return response;
}

ZRKScriptedResponse ZRKScriptedResponse::redirect(long statusCode, std::string location) {
  ZRKScriptedResponse response;
  response.statusCode = statusCode;
  response.headerFields.setValue(std::move(location), "Location");
  return response;
}

ZRKScriptedResponse ZRKScriptedResponse::failure(long code) {
  ZRKScriptedResponse response;
  response.error = detail::transportError(code, "", std::nullopt);
  return response;
}

ZRKScriptedResponse ZRKScriptedResponse::silence() {
  ZRKScriptedResponse response;
  response.delay = std::numeric_limits<double>::infinity();
  return response;
}

namespace {

// One exchange: the client until the answer is given or the exchange cancelled.
class MemoryExchange final : public ZRKURLTransportExchange {
 public:
  explicit MemoryExchange(std::shared_ptr<ZRKURLTransportClient> client) : client_(std::move(client)) {}

  void cancel() override { take(); }

  std::shared_ptr<ZRKURLTransportClient> take() {
    std::lock_guard lock(mutex_);
    return std::move(client_);
  }

 private:
  std::mutex mutex_;
  std::shared_ptr<ZRKURLTransportClient> client_;  // guarded by mutex_
};

void answer(const std::shared_ptr<MemoryExchange>& exchange, const ZRKScriptedResponse& scripted,
            const ZRKURLRequest& request) {
  const auto client = exchange->take();
  if (!client) return;
  if (scripted.error) {
    client->didComplete(nullptr, scripted.error);
    return;
  }
  client->didMoveBytes();
  if (!scripted.body.empty()) {
    client->willReceiveBytes(scripted.body.size());
    if (!client->didReceiveData(scripted.body)) return;
  }
  client->didComplete(
      std::make_shared<const ZRKHTTPURLResponse>(request.URL(), scripted.statusCode, "HTTP/1.1", scripted.headerFields),
      std::nullopt);
}

}  // namespace

struct ZRKMemoryTransport::State {
  struct Route {
    std::string method;
    std::string path;
    std::vector<ZRKScriptedResponse> responses;
    std::size_t used = 0;
  };
  mutable std::mutex mutex;
  mutable std::condition_variable arrived;
  std::vector<Route> routes;                                             // guarded by mutex
  std::function<ZRKScriptedResponse(const ZRKURLRequest&)> otherwise;    // guarded by mutex
  std::vector<ZRKURLRequest> requests;                                   // guarded by mutex
};

ZRKMemoryTransport::ZRKMemoryTransport() : state_(std::make_shared<State>()) {}
ZRKMemoryTransport::~ZRKMemoryTransport() = default;

std::shared_ptr<ZRKMemoryTransport> ZRKMemoryTransport::create() {
  return std::shared_ptr<ZRKMemoryTransport>(new ZRKMemoryTransport());
}

void ZRKMemoryTransport::respond(std::string method, std::string path, std::vector<ZRKScriptedResponse> responses) {
  std::lock_guard lock(state_->mutex);
  std::erase_if(state_->routes, [&](const State::Route& r) { return r.method == method && r.path == path; });
  if (!responses.empty()) state_->routes.push_back(State::Route{std::move(method), std::move(path), std::move(responses)});
}

void ZRKMemoryTransport::respond(std::string method, std::string path, ZRKScriptedResponse response) {
  respond(std::move(method), std::move(path), std::vector<ZRKScriptedResponse>{std::move(response)});
}

void ZRKMemoryTransport::respondOtherwise(std::function<ZRKScriptedResponse(const ZRKURLRequest&)> responder) {
  std::lock_guard lock(state_->mutex);
  state_->otherwise = std::move(responder);
}

std::vector<ZRKURLRequest> ZRKMemoryTransport::requests() const {
  std::lock_guard lock(state_->mutex);
  return state_->requests;
}

std::vector<ZRKURLRequest> ZRKMemoryTransport::requests(const std::string& path) const {
  std::vector<ZRKURLRequest> found;
  for (auto& request : requests()) {
    if (request.URL() && request.URL()->path() == path) found.push_back(std::move(request));
  }
  return found;
}

bool ZRKMemoryTransport::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  return state_->arrived.wait_for(lock, timeout, [&] { return state_->requests.size() >= count; });
}

void ZRKMemoryTransport::reset() {
  std::lock_guard lock(state_->mutex);
  state_->routes.clear();
  state_->otherwise = nullptr;
  state_->requests.clear();
}

std::shared_ptr<ZRKURLTransportExchange> ZRKMemoryTransport::start(const ZRKURLRequest& request,
                                                                   const ZRKURLSessionConfiguration&,
                                                                   std::shared_ptr<ZRKURLTransportClient> client) {
  auto exchange = std::make_shared<MemoryExchange>(std::move(client));
  const std::string path = request.URL() ? request.URL()->path() : "";
  std::optional<ZRKScriptedResponse> scripted;
  std::function<ZRKScriptedResponse(const ZRKURLRequest&)> otherwise;
  {
    std::lock_guard lock(state_->mutex);
    state_->requests.push_back(request);
    for (auto& route : state_->routes) {
      if (route.path != path || (!route.method.empty() && route.method != request.HTTPMethod())) continue;
      scripted = route.responses[std::min(route.used, route.responses.size() - 1)];
      ++route.used;
      break;
    }
    if (!scripted) otherwise = state_->otherwise;
  }
  state_->arrived.notify_all();

  const double delay = scripted ? scripted->delay : 0;
  if (std::isinf(delay)) return exchange;  // held until cancelled
  const auto at = std::chrono::steady_clock::now() +
                  std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                      std::chrono::duration<double>(std::max(0.0, delay)));
  detail::scheduleAt(at, [exchange, request, scripted = std::move(scripted), otherwise = std::move(otherwise)] {
    if (scripted) {
      answer(exchange, *scripted, request);
    } else if (otherwise) {
      const auto computed = otherwise(request);
      if (computed.delay > 0) {
        // A computed delay starts now; infinity never answers.
        if (std::isinf(computed.delay)) return;
        detail::scheduleAt(std::chrono::steady_clock::now() +
                               std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                   std::chrono::duration<double>(computed.delay)),
                           [exchange, computed, request] { answer(exchange, computed, request); });
        return;
      }
      answer(exchange, computed, request);
    } else {
      ZRKScriptedResponse missing;
      missing.statusCode = 404;
      answer(exchange, missing, request);
    }
  });
  return exchange;
}

}  // namespace zrk::testing
