// An HTTP request to send and the HTTP response that came back.
//
// Header field names are case-insensitive: setting a field replaces any
// value under the same name in any letter case, and the first spelling set is
// the one sent. A field whose name or value holds a CR, LF or NUL byte is
// never put on the wire: it could split the header block or forge another
// header, so the session leaves it out (see ZRKURLSession.h).
//
// Both types are plain values; a value may be read from several threads at
// once but must not be changed while another thread reads it.
#ifndef ZRK_ZRKURLREQUEST_H
#define ZRK_ZRKURLREQUEST_H

#include "zrk/ZRKExport.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zrk/ZRKURL.h"

namespace zrk {

// Header fields in the order they were first set, looked up by name without
// regard to letter case. A message carries a handful of fields, so a flat
// vector with a linear scan beats any map here.
class ZRK_API ZRKHTTPHeaderFields {
 public:
  using Field = std::pair<std::string, std::string>;

  ZRKHTTPHeaderFields() = default;
  // The fields in order, a repeated name (in any case) combined as
  // addValue() combines it; in time linear in their number, however many
  // distinct names an answer brings.
  explicit ZRKHTTPHeaderFields(std::vector<Field> fields);

  std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const;
  // nullopt removes the field.
  void setValue(std::optional<std::string> value, std::string_view name);
  // Appends to an existing value with ", " the way repeated headers combine.
  void addValue(std::string value, std::string_view name);

  const std::vector<Field>& fields() const { return fields_; }
  bool empty() const { return fields_.empty(); }
  std::size_t size() const { return fields_.size(); }

  friend bool operator==(const ZRKHTTPHeaderFields&, const ZRKHTTPHeaderFields&) = default;

 private:
  std::vector<Field> fields_;
};

class ZRK_API ZRKURLRequest {
 public:
  ZRKURLRequest() = default;
  // A request for the URL; nullopt makes a request that fails with
  // ZRKURLErrorBadURL when it is sent.
  explicit ZRKURLRequest(std::optional<ZRKURL> url) : url_(std::move(url)) {}
  static ZRKURLRequest requestWithURL(std::optional<ZRKURL> url) { return ZRKURLRequest(std::move(url)); }

  const std::optional<ZRKURL>& URL() const { return url_; }
  void setURL(std::optional<ZRKURL> url) { url_ = std::move(url); }

  // "GET" unless set.
  const std::string& HTTPMethod() const { return method_; }
  void setHTTPMethod(std::string method) { method_ = std::move(method); }

  // Absent means no body at all, which differs from an empty one only in
  // what the request object reports: neither sends body bytes.
  const std::optional<std::string>& HTTPBody() const { return body_; }
  void setHTTPBody(std::optional<std::string> body) { body_ = std::move(body); }

  const ZRKHTTPHeaderFields& allHTTPHeaderFields() const { return headers_; }
  std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const {
    return headers_.valueForHTTPHeaderField(name);
  }
  void setValue(std::optional<std::string> value, std::string_view field) {
    headers_.setValue(std::move(value), field);
  }
  void addValue(std::string value, std::string_view field) { headers_.addValue(std::move(value), field); }

  // Seconds without progress after which the transfer fails with
  // ZRKURLErrorTimedOut; 0 takes the session configuration's value.
  double timeoutInterval() const { return timeoutInterval_; }
  void setTimeoutInterval(double seconds) { timeoutInterval_ = seconds; }

  friend bool operator==(const ZRKURLRequest&, const ZRKURLRequest&) = default;

 private:
  std::optional<ZRKURL> url_;
  std::string method_ = "GET";
  std::optional<std::string> body_;
  ZRKHTTPHeaderFields headers_;
  double timeoutInterval_ = 0;
};

// What the server answered: the status, the header fields and the URL that
// answered (the last one when redirects were followed).
class ZRK_API ZRKHTTPURLResponse {
 public:
  ZRKHTTPURLResponse(std::optional<ZRKURL> url, long statusCode, std::string httpVersion,
                     ZRKHTTPHeaderFields headers)
      : url_(std::move(url)), statusCode_(statusCode), httpVersion_(std::move(httpVersion)),
        headers_(std::move(headers)) {}

  const std::optional<ZRKURL>& URL() const { return url_; }
  long statusCode() const { return statusCode_; }
  // "HTTP/1.1", "HTTP/2", ...
  const std::string& httpVersion() const { return httpVersion_; }
  const ZRKHTTPHeaderFields& allHeaderFields() const { return headers_; }
  std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const {
    return headers_.valueForHTTPHeaderField(name);
  }

 private:
  std::optional<ZRKURL> url_;
  long statusCode_;
  std::string httpVersion_;
  ZRKHTTPHeaderFields headers_;
};

}  // namespace zrk

#endif  // ZRK_ZRKURLREQUEST_H
