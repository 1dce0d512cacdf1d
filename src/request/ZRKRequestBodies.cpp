#include "zrk/ZRKRequestBodies.h"

#include <cmath>

#include "zrk/ZRKFormEncoder.h"

namespace zrk {

void zrk_addParametersToURL(ZRKURLRequest& request, const ZRKJson& parameters) {
  const auto& url = request.URL();
  if (!url) return;
  const std::string query = ZRKQueryStringFromParameters(parameters);
  const std::string text = url->absoluteString() + (url->query() ? "&" : "?") + query;
  request.setURL(ZRKURL::URLWithString(text));
}

namespace {

// The JSON writer would put null for these, silently.
bool hasNonFiniteNumber(const ZRKJson& value) {
  if (value.is_number_float()) return !std::isfinite(value.get<double>());
  if (!value.is_structured()) return false;
  for (const auto& element : value) {
    if (hasNonFiniteNumber(element)) return true;
  }
  return false;
}

}  // namespace

void zrk_setJSONPayload(ZRKURLRequest& request, const ZRKJson& payload) {
  request.setValue("application/json", "Content-Type");
  if (!payload.is_structured() || hasNonFiniteNumber(payload)) {
    request.setHTTPBody(std::nullopt);
    return;
  }
  try {
    request.setHTTPBody(payload.dump());
  } catch (const ZRKJson::exception&) {
    request.setHTTPBody(std::nullopt);
  }
}

void zrk_setFormPayload(ZRKURLRequest& request, const ZRKJson& parameters) {
  std::string body = ZRKQueryStringFromParameters(parameters);
  request.setValue(std::to_string(body.size()), "Content-Length");
  request.setHTTPBody(std::move(body));
  request.setValue("application/x-www-form-urlencoded", "Content-Type");
}

void zrk_setMultipartFormData(ZRKURLRequest& request, std::string body, std::string_view boundary) {
  request.setValue(std::to_string(body.size()), "Content-Length");
  request.setHTTPBody(std::move(body));
  request.setValue("multipart/form-data; boundary=" + std::string(boundary), "Content-Type");
}

void linkNSMutableURLRequestCategory() {}

}  // namespace zrk
