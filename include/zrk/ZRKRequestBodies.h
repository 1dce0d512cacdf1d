// Putting parameters onto an outgoing request: into its URL's query, a JSON
// body, a form body or a multipart body. Each function changes the request in
// place, replacing header fields of the same name; the request must not be
// used by another thread meanwhile.
#ifndef ZRK_ZRKREQUESTBODIES_H
#define ZRK_ZRKREQUESTBODIES_H

#include <string>
#include <string_view>

#include "zrk/ZRKJson.h"
#include "zrk/ZRKURLRequest.h"

namespace zrk {

// Appends "?" (or "&" when the URL has a query already) and the query string
// of the parameters, also when that is empty.
void zrk_addParametersToURL(ZRKURLRequest& request, const ZRKJson& parameters);

// "Content-Type: application/json" and the compact JSON text as the body; a
// value that cannot be written as JSON (a string that is not UTF-8) leaves
// the body absent.
void zrk_setJSONPayload(ZRKURLRequest& request, const ZRKJson& payload);

// The query string of the parameters as the body, "Content-Length" and
// "Content-Type: application/x-www-form-urlencoded".
void zrk_setFormPayload(ZRKURLRequest& request, const ZRKJson& parameters);

// The bytes as the body, "Content-Length" and
// "Content-Type: multipart/form-data; boundary=<boundary>". Pass the boundary
// the body was built with (see ZRKMultipartFormData.h).
void zrk_setMultipartFormData(ZRKURLRequest& request, std::string body, std::string_view boundary);

// Does nothing; referring to it keeps this unit in a static link.
void linkNSMutableURLRequestCategory();

}  // namespace zrk

#endif  // ZRK_ZRKREQUESTBODIES_H
