#include "zrk/ZRKApiError.h"

#include "zrk/ZRKDictionaryAccessors.h"
#include "zrk/ZRKLocalizationUtils.h"

namespace zrk {

const std::string ZRKDomain = "cloud.zrk.api";
const std::string ZRKErrorMessageKey = ZRKDomain + ":ErrorMessageKey";
const std::string ZRKErrorCodeKey = ZRKDomain + ":ErrorCodeKey";
const std::string ZRKErrorDetailKey = ZRKDomain + ":ErrorDetailKey";

namespace {

ZRKError genericError(long code, const char* message) {
  ZRKJson info = ZRKJson::object();
  info[ZRKLocalizedDescriptionKey] = zrk_unexpectedErrorMessage();
  info[ZRKErrorMessageKey] = message;
  return ZRKError(ZRKDomain, code, std::move(info));
}

}  // namespace

std::string zrk_unexpectedErrorMessage() {
  return ZRKLocalizationUtils::localizedStringForKey("There was an unexpected error -- try again in a few seconds");
}

ZRKError zrk_genericFailedToParseResponseError() {
  return genericError(ZRKErrorCodeFailedToParseResponse, "The response from ZRK API failed to get parsed into valid JSON.");
}

ZRKError zrk_genericConnectionError() {
  return genericError(ZRKErrorCodeConnection, "There was an error connecting to ZRK API.");
}

std::optional<ZRKError> zrk_errorFromAPIResponse(const ZRKJson* response) {
  if (!response || !response->is_object()) return std::nullopt;
  const ZRKInteger code = zrk_intForKey(*response, "code", -1);
  const std::optional<std::string> message = zrk_stringForKey(*response, "message");
  const ZRKJson* detail = zrk_dictionaryForKey(*response, "detail");
  if (code == -1) return std::nullopt;

  ZRKJson info = ZRKJson::object();
  info[ZRKErrorCodeKey] = std::to_string(code);
  if (message) {
    info[ZRKLocalizedDescriptionKey] = *message;
    info[ZRKErrorMessageKey] = *message;
  } else {
    info[ZRKLocalizedDescriptionKey] = zrk_unexpectedErrorMessage();
    info[ZRKErrorMessageKey] = "Could not interpret the error response that was returned from ZRK Api.";
  }
  if (detail) info[ZRKErrorDetailKey] = *detail;
  return ZRKError(ZRKDomain, static_cast<long>(code), std::move(info));
}

void linkNSErrorCategory() {}

}  // namespace zrk
