// Parsing of response bodies, shared by the request layer and the image scan.
#ifndef ZRK_REQUEST_ZRKJSONBODY_H
#define ZRK_REQUEST_ZRKJSONBODY_H

#include <optional>
#include <string>

#include "zrk/ZRKJson.h"

namespace zrk::detail {

// The body as a JSON object; nullopt when it is absent, empty, not JSON, not
// an object (an array at the top counts as no JSON for the models), or
// nested deeper than 256 levels.
std::optional<ZRKJson> parseJSONObjectBody(const std::optional<std::string>& body);

}  // namespace zrk::detail

#endif  // ZRK_REQUEST_ZRKJSONBODY_H
