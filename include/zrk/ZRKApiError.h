// The library's errors: their domain, user-info keys and factories.
//
// Every error the library makes is a ZRKError in ZRKDomain, built by
// zrk_errorFromAPIResponse from a service-shaped body so that all share one
// shape: ZRKLocalizedDescriptionKey (text for the user), ZRKErrorMessageKey
// (text for the developer), ZRKErrorCodeKey (the code in decimal) and, when
// the service sent one, ZRKErrorDetailKey. The two generic errors carry only
// the first two. Codes: 32 (an answer that could not be decoded), 300 (a
// connection error, offered to callers), 1000 (scan without an image),
// 10001 ("Invalid user"), and whatever "code" the service sent.
// All functions are safe from any thread.
#ifndef ZRK_ZRKAPIERROR_H
#define ZRK_ZRKAPIERROR_H

#include "zrk/ZRKExport.h"

#include <optional>
#include <string>

#include "zrk/ZRKError.h"
#include "zrk/ZRKJson.h"

namespace zrk {

extern ZRK_API const std::string ZRKDomain;
extern ZRK_API const std::string ZRKErrorMessageKey;  // ZRKDomain + ":ErrorMessageKey"
extern ZRK_API const std::string ZRKErrorCodeKey;     // ZRKDomain + ":ErrorCodeKey"
extern ZRK_API const std::string ZRKErrorDetailKey;   // ZRKDomain + ":ErrorDetailKey"

inline constexpr long ZRKErrorCodeFailedToParseResponse = 32;
inline constexpr long ZRKErrorCodeConnection = 300;

// Errors are never instances of this class; it exists as a name only.
class ZRKApiError {};

// The localized "There was an unexpected error -- try again in a few seconds".
ZRK_API std::string zrk_unexpectedErrorMessage();
// Code 32.
ZRK_API ZRKError zrk_genericFailedToParseResponseError();
// Code 300.
ZRK_API ZRKError zrk_genericConnectionError();
// The error a decoded response body describes: nullopt when there is no body,
// it is no object, or its "code" is missing, not a number or numeric
// string, or -1.
ZRK_API std::optional<ZRKError> zrk_errorFromAPIResponse(const ZRKJson* response);

// Does nothing; referring to it keeps this unit in a static link.
ZRK_API void linkNSErrorCategory();

}  // namespace zrk

#endif  // ZRK_ZRKAPIERROR_H
