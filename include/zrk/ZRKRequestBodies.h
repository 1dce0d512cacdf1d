// Putting parameters onto an outgoing request: into its URL's query, a JSON
// body, a form body or a multipart body. Each function changes the request in
// place, replacing header fields of the same name; the request must not be
// used by another thread meanwhile.
#ifndef ZRK_ZRKREQUESTBODIES_H
#define ZRK_ZRKREQUESTBODIES_H

#include "zrk/ZRKExport.h"

#include <string>
#include <string_view>

#include "zrk/ZRKJson.h"
#include "zrk/ZRKURLRequest.h"

namespace zrk {

// Appends "?" (or "&" when the URL has a query already) and the query string
// of the parameters, also when that is empty.
ZRK_API void zrk_addParametersToURL(ZRKURLRequest& request, const ZRKJson& parameters);

// "Content-Type: application/json" and the compact JSON text as the body.
// A payload that cannot be written as JSON leaves the body absent rather
// than send other data than the caller gave: a top level that is neither
// object nor array, a number that is NaN or infinite, a string that is not
// UTF-8.
ZRK_API void zrk_setJSONPayload(ZRKURLRequest& request, const ZRKJson& payload);

// The query string of the parameters as the body, "Content-Length" and
// "Content-Type: application/x-www-form-urlencoded".
ZRK_API void zrk_setFormPayload(ZRKURLRequest& request, const ZRKJson& parameters);

// The bytes as the body, "Content-Length" and
// "Content-Type: multipart/form-data; boundary=<boundary>". Pass the boundary
// the body was built with (see ZRKMultipartFormData.h).
ZRK_API void zrk_setMultipartFormData(ZRKURLRequest& request, std::string body, std::string_view boundary);

// Does nothing; referring to it keeps this unit in a static link.
ZRK_API void linkNSMutableURLRequestCategory();

}  // namespace zrk

#endif  // ZRK_ZRKREQUESTBODIES_H
