// What moves one request and its answer below a ZRKURLSession.
//
// The session keeps its own rules above this seam: redirects and its
// delegate, time-outs, the body cap, cancel and exactly-once completion. A
// transport only moves bytes: it sends the request it is given as it stands
// (the session has already dropped header fields that cannot go on the wire
// and added "User-Agent") and reports the answer of that one hop, never
// following a redirect itself. libcurl is the default
// (ZRKURLTransport::defaultTransport()); ZRKMemoryTransport
// (zrk/testing/ZRKMemoryTransport.h) answers from a script, for tests.
#ifndef ZRK_ZRKURLTRANSPORT_H
#define ZRK_ZRKURLTRANSPORT_H

#include "zrk/ZRKExport.h"

#include <memory>
#include <optional>
#include <string_view>

#include "zrk/ZRKError.h"
#include "zrk/ZRKURLRequest.h"

namespace zrk {

struct ZRKURLSessionConfiguration;

// The session's side of one exchange. Calls may come from any thread but
// never two at once; after didComplete, or after didReceiveData returned
// false, the transport makes no more calls.
class ZRK_API ZRKURLTransportClient {
 public:
  virtual ~ZRKURLTransportClient() = default;
  // Bytes moved in either direction (the idle time-out starts over).
  virtual void didMoveBytes() = 0;
  // The answer's body will be about this many bytes (its Content-Length,
  // before any content decoding), so that it can be held without regrowing.
  // A hint: optional, and the body may turn out larger or smaller.
  virtual void willReceiveBytes(std::size_t expected) { (void)expected; }
  // The next piece of the decoded response body. False asks the transport to
  // stop: the session has ended the task.
  virtual bool didReceiveData(std::string_view bytes) = 0;
  // The exchange is over: either the answer's status line and header fields
  // (the body came through didReceiveData), or a transport error in
  // ZRKURLErrorDomain.
  virtual void didComplete(std::shared_ptr<const ZRKHTTPURLResponse> response, std::optional<ZRKError> error) = 0;
};

// One exchange in flight.
class ZRK_API ZRKURLTransportExchange {
 public:
  virtual ~ZRKURLTransportExchange() = default;
  // Stops the exchange; the client may still get calls already under way,
  // which the session ignores.
  virtual void cancel() = 0;
};

class ZRK_API ZRKURLTransport {
 public:
  virtual ~ZRKURLTransport() = default;
  // Starts moving `request` (an http or https URL) and returns at once. The
  // configuration gives the connect time-out, the trusted certificates and
  // the like; the session enforces the rest.
  virtual std::shared_ptr<ZRKURLTransportExchange> start(const ZRKURLRequest& request,
                                                         const ZRKURLSessionConfiguration& configuration,
                                                         std::shared_ptr<ZRKURLTransportClient> client) = 0;

  // libcurl on one private I/O thread, shared by every session. A request
  // that died unanswered on a reused connection (keep-alive closed, HTTP/2
  // GOAWAY) goes out once more on a new one: the server cannot have
  // processed it. Nothing the server may have seen is sent twice.
  static std::shared_ptr<ZRKURLTransport> defaultTransport();
};

}  // namespace zrk

#endif  // ZRK_ZRKURLTRANSPORT_H
