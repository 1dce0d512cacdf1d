#include "zrk/ZRKRequestBodies.h"

#include "zrk/ZRKFormEncoder.h"

namespace zrk {

void zrk_addParametersToURL(ZRKURLRequest& request, const ZRKJson& parameters) {
  const auto& url = request.URL();
  if (!url) return;
  const std::string query = ZRKQueryStringFromParameters(parameters);
  const std::string text = url->absoluteString() + (url->query() ? "&" : "?") + query;
  request.setURL(ZRKURL::URLWithString(text));
}

void zrk_setJSONPayload(ZRKURLRequest& request, const ZRKJson& payload) {
  request.setValue("application/json", "Content-Type");
  try {
    request.setHTTPBody(payload.dump());
  } catch (const ZRKJson::exception&) {
    request.setHTTPBody(std::nullopt);
  }
}

void linkNSMutableURLRequestCategory() {}

}  // namespace zrk
