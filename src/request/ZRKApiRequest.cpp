#include "zrk/ZRKApiRequest.h"

#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKDispatchFunctions.h"
#include "zrk/ZRKRequestBodies.h"
#include "request/ZRKEndpointURL.h"
#include "request/ZRKJsonBody.h"
#include "platform/ZRKText.h"
#include "platform/ZRKURLCharacters.h"

namespace zrk {
namespace {

bool hasKeys(const ZRKJson& parameters) { return parameters.is_object() && !parameters.empty(); }

ZRKURLRequest requestFor(const ZRKApiClient& client, std::string_view endpoint) {
  std::optional<ZRKURL> url = client.apiURL();
  if (url) url = url->URLByAppendingPathComponent(endpoint);
  return client.configuredRequestForURL(url);
}

// parseResponse; `release`, when given, is the body's owner, emptied once the
// text is parsed so that a large answer is not held twice while it decodes.
void parseAndDecode(std::shared_ptr<const ZRKHTTPURLResponse> response, const std::optional<std::string>& body,
                    std::optional<std::string>* release, std::optional<ZRKError> error,
                    const ZRKApiRequest::Deserializers& deserializers, ZRKApiRequestCompletion completion) {
  const auto finish = [&](std::shared_ptr<ZRKApiResponseDecodable> object, std::optional<ZRKError> failure) {
    if (!completion) return;
    zrkDispatchToMainThreadIfNecessary(
        [completion = std::move(completion), object = std::move(object), response,
         failure = std::move(failure)]() mutable { completion(std::move(object), std::move(response), std::move(failure)); });
  };

  if (error) return finish(nullptr, std::move(error));
  if (deserializers.empty()) return finish(nullptr, zrk_genericFailedToParseResponseError());

  const std::optional<ZRKJson> json = detail::parseJSONObjectBody(body);
  const ZRKJson* parsed = json ? &*json : nullptr;
  if (release) release->reset();

  const ZRKApiResponseDecodable* chosen = nullptr;
  if (deserializers.size() == 1) {
    chosen = deserializers.front().get();
  } else if (parsed) {
    const auto object = parsed->find("object");
    if (object != parsed->end() && object->is_string()) {
      for (const auto& entry : deserializers) {
        const auto* naming = dynamic_cast<const ZRKObjectNaming*>(entry.get());
        if (naming && naming->zrkObject() == object->get_ref<const std::string&>()) chosen = entry.get();
      }
    }
  }

  if (chosen) {
    if (auto decoded = chosen->decodedObjectFromAPIResponse(parsed)) return finish(std::move(decoded), std::nullopt);
  }
  if (auto bodyError = zrk_errorFromAPIResponse(parsed)) return finish(nullptr, std::move(bodyError));
  finish(nullptr, zrk_genericFailedToParseResponseError());
}


ZRKApiRequest::Task send(const ZRKApiClient& client, ZRKURLRequest request, ZRKApiRequest::Deserializers deserializers,
                         ZRKApiRequestCompletion completion) {
  auto task = client.urlSession()->dataTaskWithRequest(
      std::move(request), [deserializers = std::move(deserializers), completion = std::move(completion)](
                              std::optional<std::string> data, std::shared_ptr<const ZRKHTTPURLResponse> response,
                              std::optional<ZRKError> error) mutable {
        // The body is ours: it goes as soon as it is parsed.
        parseAndDecode(std::move(response), data, &data, std::move(error), deserializers, std::move(completion));
      });
  task->resume();
  return task;
}

ZRKApiRequest::Deserializers single(ZRKDeserializer deserializer) {
  ZRKApiRequest::Deserializers list;
  if (deserializer) list.push_back(std::move(deserializer));
  return list;
}

ZRKApiRequest::Task sendWithBody(const std::shared_ptr<ZRKApiClient>& client, const char* method,
                                 ZRKURLRequest request, const ZRKJson& parameters,
                                 ZRKApiRequest::Deserializers deserializers, ZRKApiRequestCompletion completion) {
  request.setHTTPMethod(method);
  if (hasKeys(parameters)) zrk_setJSONPayload(request, parameters);
  return send(*client, std::move(request), std::move(deserializers), std::move(completion));
}

}  // namespace

namespace detail {

std::optional<ZRKURL> URLByAppendingPathSegment(const std::optional<ZRKURL>& url, std::string_view segment) {
  if (!url) return std::nullopt;
  std::string encoded;
  // "." and ".." would be resolved away by the transport; "%2E" is not.
  const bool dots = segment.find_first_not_of('.') == std::string_view::npos;
  appendPercentEncoded(encoded, segment, [dots](unsigned char c) {
    return (isUnreserved(c) && !(dots && c == '.')) || isSubDelim(c) || c == ':' || c == '@';
  });
  std::string text = url->absoluteString();
  const auto schemeEnd = text.find("://");
  const auto end = text.find_first_of("?#", schemeEnd == std::string::npos ? 0 : schemeEnd + 3);
  const auto at = end == std::string::npos ? text.size() : end;
  text.insert(at, (at > 0 && text[at - 1] == '/') ? encoded : "/" + encoded);
  return ZRKURL::URLWithString(text);
}

ZRKApiRequest::Task postToURL(const std::shared_ptr<ZRKApiClient>& client, const std::optional<ZRKURL>& url,
                              const ZRKJson& parameters, ZRKDeserializer deserializer,
                              ZRKApiRequestCompletion completion) {
  return sendWithBody(client, "POST", client->configuredRequestForURL(url), parameters,
                      single(std::move(deserializer)), std::move(completion));
}

}  // namespace detail

ZRKApiRequest::Task ZRKApiRequest::postWithAPIClient(const std::shared_ptr<ZRKApiClient>& client,
                                                     std::string_view endpoint, const ZRKJson& parameters,
                                                     ZRKDeserializer deserializer, ZRKApiRequestCompletion completion) {
  return postWithAPIClient(client, endpoint, parameters, single(std::move(deserializer)), std::move(completion));
}

ZRKApiRequest::Task ZRKApiRequest::postWithAPIClient(const std::shared_ptr<ZRKApiClient>& client,
                                                     std::string_view endpoint, const ZRKJson& parameters,
                                                     Deserializers deserializers, ZRKApiRequestCompletion completion) {
  return sendWithBody(client, "POST", requestFor(*client, endpoint), parameters, std::move(deserializers),
                      std::move(completion));
}

ZRKApiRequest::Task ZRKApiRequest::getWithAPIClient(const std::shared_ptr<ZRKApiClient>& client,
                                                    std::string_view endpoint, const ZRKJson& parameters,
                                                    ZRKDeserializer deserializer, ZRKApiRequestCompletion completion) {
  ZRKURLRequest request = requestFor(*client, endpoint);
  if (hasKeys(parameters)) zrk_addParametersToURL(request, parameters);
  return send(*client, std::move(request), single(std::move(deserializer)), std::move(completion));
}

ZRKApiRequest::Task ZRKApiRequest::deleteWithAPIClient(const std::shared_ptr<ZRKApiClient>& client,
                                                       std::string_view endpoint, const ZRKJson& parameters,
                                                       ZRKDeserializer deserializer,
                                                       ZRKApiRequestCompletion completion) {
  return deleteWithAPIClient(client, endpoint, parameters, single(std::move(deserializer)), std::move(completion));
}

ZRKApiRequest::Task ZRKApiRequest::deleteWithAPIClient(const std::shared_ptr<ZRKApiClient>& client,
                                                       std::string_view endpoint, const ZRKJson& parameters,
                                                       Deserializers deserializers, ZRKApiRequestCompletion completion) {
  ZRKURLRequest request = requestFor(*client, endpoint);
  // Unconditionally, so an empty DELETE ends in "?".
  zrk_addParametersToURL(request, parameters);
  request.setHTTPMethod("DELETE");
  return send(*client, std::move(request), std::move(deserializers), std::move(completion));
}

ZRKApiRequest::Task ZRKApiRequest::patchWithAPIClient(const std::shared_ptr<ZRKApiClient>& client,
                                                      std::string_view endpoint, const ZRKJson& parameters,
                                                      ZRKDeserializer deserializer, ZRKApiRequestCompletion completion) {
  return patchWithAPIClient(client, endpoint, parameters, single(std::move(deserializer)), std::move(completion));
}

ZRKApiRequest::Task ZRKApiRequest::patchWithAPIClient(const std::shared_ptr<ZRKApiClient>& client,
                                                      std::string_view endpoint, const ZRKJson& parameters,
                                                      Deserializers deserializers, ZRKApiRequestCompletion completion) {
  return sendWithBody(client, "PATCH", requestFor(*client, endpoint), parameters, std::move(deserializers),
                      std::move(completion));
}

void ZRKApiRequest::parseResponse(std::shared_ptr<const ZRKHTTPURLResponse> response,
                                  const std::optional<std::string>& body, std::optional<ZRKError> error,
                                  const Deserializers& deserializers, ZRKApiRequestCompletion completion) {
  parseAndDecode(std::move(response), body, nullptr, std::move(error), deserializers, std::move(completion));
}

}  // namespace zrk
