// Asynchronous HTTP(S) transfers.
//
// A ZRKURLSession creates data tasks; a task sends one request, follows
// redirects itself and calls its completion handler exactly once, on the
// session's delegate queue, with the body, the response and a transport
// error (exactly one of response and error is set; the body accompanies the
// response). The bytes move through the configuration's transport
// (ZRKURLTransport.h): by default libcurl on one private I/O thread shared by
// every session, on which no application code ever runs.
//
// Redirects: on a 301, 302, 303, 307 or 308 answer with a Location header,
// the session proposes the next request: 301 and 302 turn a POST into a GET
// without a body, 303 turns every method but HEAD into a GET without a body,
// 307 and 308 keep method and body. The proposal keeps the header fields of
// the request that was redirected, minus the body's own fields when the body
// is dropped, and minus "Authorization" and "Cookie" when the hop leaves the
// scheme, host and port. The delegate, if any, may rewrite the proposal or
// refuse it (the 3xx answer then completes the task). After 16 hops the task
// fails with ZRKURLErrorTooManyRedirects.
//
// On the wire: no "Expect: 100-continue"; "Content-Length" comes from the
// body; "Accept-Encoding" offers what the transport can decode and the body
// arrives decoded. The status code is not judged here: a 500 is a response.
//
// Errors are in ZRKURLErrorDomain with libcurl's codes (ZRKError.h);
// cancel() completes the task with ZRKURLErrorCancelled.
#ifndef ZRK_ZRKURLSESSION_H
#define ZRK_ZRKURLSESSION_H

#include "zrk/ZRKExport.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "zrk/ZRKError.h"
#include "zrk/ZRKMainQueue.h"
#include "zrk/ZRKURLRequest.h"
#include "zrk/ZRKURLTransport.h"

namespace zrk {

class ZRKURLSession;
class ZRKURLSessionDataTask;

// The default cap on a decoded response body: far above any answer of the
// service, low enough that a hostile or broken server (a compression bomb
// included) cannot exhaust memory.
inline constexpr std::size_t ZRKURLSessionMaximumResponseBytes = std::size_t{64} << 20;

namespace detail {
struct TaskState;
}  // namespace detail

// Settings shared by the tasks of a session. Read when a transfer starts, so
// changes affect later transfers only.
struct ZRK_API ZRKURLSessionConfiguration {
  // Seconds without any bytes moving before a transfer fails with
  // ZRKURLErrorTimedOut (a request's own timeoutInterval wins when set).
  double timeoutIntervalForRequest = 60;
  // Seconds that connecting (TCP and TLS) may take.
  double connectTimeout = 30;
  // Seconds a whole task may take, redirects included; 0 for no limit.
  double timeoutIntervalForResource = 0;
  // Largest decoded body accepted, in bytes; a larger one fails the task
  // with ZRKURLErrorResponseTooLarge. 0 for no limit.
  std::size_t maximumResponseBytes = ZRKURLSessionMaximumResponseBytes;
  // Sent as "User-Agent" unless a request sets its own; empty sends none.
  std::string userAgent = "zrkapi/1.0.0";
  // A file of PEM certificates to trust instead of the system's store. The
  // peer's certificate and name are always verified; there is no setting
  // that turns verification off.
  std::string caInfoPath;
  // What moves the bytes; nullptr takes ZRKURLTransport::defaultTransport().
  // Tests put a ZRKMemoryTransport here.
  std::shared_ptr<ZRKURLTransport> transport;

  static std::shared_ptr<ZRKURLSessionConfiguration> defaultSessionConfiguration() {
    return std::make_shared<ZRKURLSessionConfiguration>();
  }
};

// What a session asks of its owner. Calls arrive on the delegate queue.
class ZRK_API ZRKURLSessionDelegate {
 public:
  virtual ~ZRKURLSessionDelegate() = default;
  // The session is about to follow a redirect to `request`. Call the handler
  // once, from any thread, with the request to send instead, or with nullopt
  // to stop and deliver `response` as the task's answer. The default follows
  // the proposal unchanged.
  virtual void willPerformHTTPRedirection(ZRKURLSession& session, ZRKURLSessionDataTask& task,
                                          const ZRKHTTPURLResponse& response, ZRKURLRequest request,
                                          std::function<void(std::optional<ZRKURLRequest>)> completionHandler);
};

class ZRK_API ZRKURLSessionDataTask : public std::enable_shared_from_this<ZRKURLSessionDataTask> {
 public:
  using CompletionHandler = std::function<void(std::optional<std::string> data,
                                               std::shared_ptr<const ZRKHTTPURLResponse> response,
                                               std::optional<ZRKError> error)>;
  enum class State { suspended, running, completed };

  // Starts the transfer; later calls do nothing.
  void resume();
  // Stops the transfer and completes the task with ZRKURLErrorCancelled,
  // unless it has completed already. Also works before resume().
  void cancel();

  State state() const;
  std::uint64_t taskIdentifier() const;
  // The request the task was made with.
  const ZRKURLRequest& originalRequest() const;
  // The request being sent now: differs from the original after a redirect.
  ZRKURLRequest currentRequest() const;

  ZRKURLSessionDataTask(const ZRKURLSessionDataTask&) = delete;
  ZRKURLSessionDataTask& operator=(const ZRKURLSessionDataTask&) = delete;
  ~ZRKURLSessionDataTask();

 private:
  friend class ZRKURLSession;
  friend struct detail::TaskState;
  explicit ZRKURLSessionDataTask(std::shared_ptr<detail::TaskState> state);
  std::shared_ptr<detail::TaskState> state_;
};

class ZRK_API ZRKURLSession : public std::enable_shared_from_this<ZRKURLSession> {
 public:
  // A session with the configuration (nullptr takes the defaults), the
  // delegate (held weakly, may be empty; a resumed task holds it until its
  // completion has run, so an owner released meanwhile still sees its task's
  // redirects) and the queue on which delegate calls and completion handlers
  // run (nullptr takes the global worker pool).
  static std::shared_ptr<ZRKURLSession> sessionWithConfiguration(
      std::shared_ptr<ZRKURLSessionConfiguration> configuration,
      std::weak_ptr<ZRKURLSessionDelegate> delegate = {}, ZRKDispatchQueue* delegateQueue = nullptr);

  // A suspended task; call resume() to start it.
  std::shared_ptr<ZRKURLSessionDataTask> dataTaskWithRequest(ZRKURLRequest request,
                                                             ZRKURLSessionDataTask::CompletionHandler handler);

  const std::shared_ptr<ZRKURLSessionConfiguration>& configuration() const { return configuration_; }
  std::shared_ptr<ZRKURLSessionDelegate> delegate() const { return delegate_.lock(); }
  ZRKDispatchQueue& delegateQueue() const { return *delegateQueue_; }

  ZRKURLSession(const ZRKURLSession&) = delete;
  ZRKURLSession& operator=(const ZRKURLSession&) = delete;

 private:
  ZRKURLSession(std::shared_ptr<ZRKURLSessionConfiguration> configuration,
                std::weak_ptr<ZRKURLSessionDelegate> delegate, ZRKDispatchQueue* delegateQueue);

  const std::shared_ptr<ZRKURLSessionConfiguration> configuration_;
  const std::weak_ptr<ZRKURLSessionDelegate> delegate_;
  ZRKDispatchQueue* const delegateQueue_;
};

}  // namespace zrk

#endif  // ZRK_ZRKURLSESSION_H
