#ifndef ZRK_PLATFORM_ZRKTRANSPORTERROR_H
#define ZRK_PLATFORM_ZRKTRANSPORTERROR_H

#include <optional>
#include <string>

#include "zrk/ZRKError.h"
#include "zrk/ZRKURL.h"

namespace zrk::detail {

// An error of the transport's domain: the message given (libcurl's own text
// for the code when empty) and the failing URL.
ZRKError transportError(long code, const std::string& message, const std::optional<ZRKURL>& url);

}  // namespace zrk::detail

#endif  // ZRK_PLATFORM_ZRKTRANSPORTERROR_H
