// Endpoint URLs that end in an identifier the caller gave (a collection id).
#ifndef ZRK_REQUEST_ZRKENDPOINTURL_H
#define ZRK_REQUEST_ZRKENDPOINTURL_H

#include <memory>
#include <optional>
#include <string_view>

#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKURL.h"

namespace zrk::detail {

// The URL with one more path segment. Every byte that could change the
// path's shape is percent-encoded ("/", "?", "#", "%", controls, and a
// segment of dots that the transport would resolve), so the identifier
// stays one segment; an ordinary identifier goes out as it is.
std::optional<ZRKURL> URLByAppendingPathSegment(const std::optional<ZRKURL>& url, std::string_view segment);

// ZRKApiRequest::postWithAPIClient to a URL that is already built.
ZRKApiRequest::Task postToURL(const std::shared_ptr<ZRKApiClient>& client, const std::optional<ZRKURL>& url,
                              const ZRKJson& parameters, ZRKDeserializer deserializer,
                              ZRKApiRequestCompletion completion);

}  // namespace zrk::detail

#endif  // ZRK_REQUEST_ZRKENDPOINTURL_H
