// An error value: a domain, a code and a dictionary of user info.
//
// Errors reach completions as std::optional<ZRKError>; the library throws
// nothing except where a header says so. Errors made by the library are in
// the domain ZRKDomain (see ZRKApiError.h); errors of the transport keep the
// transport's own domain, ZRKURLErrorDomain, and libcurl's numeric codes.
// ZRKError is a plain value: copies are independent, const members may be
// called from any thread.
#ifndef ZRK_ZRKERROR_H
#define ZRK_ZRKERROR_H

#include "zrk/ZRKExport.h"

#include <ostream>
#include <string>
#include <utility>

#include "zrk/ZRKJson.h"

namespace zrk {

// User-info key of the text fit to show to a user.
inline constexpr const char* ZRKLocalizedDescriptionKey = "NSLocalizedDescription";
// User-info key of the URL that a transport error concerns (a string).
inline constexpr const char* ZRKURLErrorFailingURLStringKey = "NSErrorFailingURLStringKey";

// Domain of the errors of the URL session. The codes are libcurl's CURLcode
// values; the ones an application usually tells apart have names here so that
// nobody needs curl's headers.
inline constexpr const char* ZRKURLErrorDomain = "se.haxx.curl";
inline constexpr long ZRKURLErrorUnsupportedURL = 1;     // scheme other than http/https
inline constexpr long ZRKURLErrorBadURL = 3;             // no URL, or one libcurl cannot parse
inline constexpr long ZRKURLErrorCannotFindHost = 6;
inline constexpr long ZRKURLErrorCannotConnect = 7;
inline constexpr long ZRKURLErrorTimedOut = 28;          // connect time-out or no progress
inline constexpr long ZRKURLErrorCancelled = 42;         // ZRKURLSessionDataTask::cancel()
inline constexpr long ZRKURLErrorTooManyRedirects = 47;
inline constexpr long ZRKURLErrorBadServerResponse = 8;  // a reply the transport could not read
inline constexpr long ZRKURLErrorResponseTooLarge = 63;  // body over the session's limit

struct ZRK_API ZRKError {
  std::string domain;
  long code = 0;
  ZRKJson userInfo = ZRKJson::object();

  ZRKError() = default;
  ZRKError(std::string domain, long code, ZRKJson userInfo = ZRKJson::object())
      : domain(std::move(domain)), code(code), userInfo(std::move(userInfo)) {}

  // The ZRKLocalizedDescriptionKey entry when it is a string, otherwise a
  // generic sentence naming the domain and code.
  std::string localizedDescription() const;

  friend bool operator==(const ZRKError&, const ZRKError&) = default;
};

ZRK_API std::ostream& operator<<(std::ostream& os, const ZRKError& error);

}  // namespace zrk

#endif  // ZRK_ZRKERROR_H
