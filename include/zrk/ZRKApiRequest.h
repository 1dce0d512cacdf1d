// Sending a JSON REST call on a client's session and decoding its answer.
//
// Each verb operation appends the endpoint (a relative path such as
// "app/v1/collection") to the client's apiURL, takes a request carrying the
// default headers from configuredRequestForURL, puts the parameters in the
// query (GET, DELETE) or in a JSON body (POST, PATCH), and returns the
// resumed data task (keep it to cancel the call; dropping it does not).
//   GET     query only when the parameters have at least one key
//   DELETE  query always: with no parameters the URL ends in a bare "?"
//   POST    JSON body only when the parameters have at least one key
//   PATCH   JSON body only when the parameters have at least one key
// Parameters are a JSON object; null, and any value that is no object, mean
// no parameters.
//
// The answer: a transport error reaches the completion unchanged. Otherwise
// the body is parsed as JSON (an object or array at the top; an array counts
// as no JSON) and decoded by the deserializer; if that yields nothing, the
// body's "code", "message" and "detail" become the error (ZRKApiError.h),
// or else the generic error 32. The HTTP status code is never examined: a
// 500 whose body decodes is a success, and a 200 whose body does not is an
// error. With several deserializers, the one whose zrkObject() equals the
// body's "object" member decodes (the last of several matches). A null
// deserializer counts as none.
//
// The completion runs exactly once per task, on the main thread, with
// exactly one of object and error set. An empty completion is not called.
#ifndef ZRK_ZRKAPIREQUEST_H
#define ZRK_ZRKAPIREQUEST_H

#include "zrk/ZRKExport.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zrk/ZRKApiResponseDecodable.h"
#include "zrk/ZRKError.h"
#include "zrk/ZRKJson.h"
#include "zrk/ZRKURLRequest.h"
#include "zrk/ZRKURLSession.h"

namespace zrk {

class ZRKApiClient;

using ZRKApiRequestCompletion = std::function<void(std::shared_ptr<ZRKApiResponseDecodable> object,
                                                   std::shared_ptr<const ZRKHTTPURLResponse> response,
                                                   std::optional<ZRKError> error)>;

class ZRK_API ZRKApiRequest {
 public:
  using Task = std::shared_ptr<ZRKURLSessionDataTask>;
  using Deserializers = std::vector<ZRKDeserializer>;

  static Task postWithAPIClient(const std::shared_ptr<ZRKApiClient>& client, std::string_view endpoint,
                                const ZRKJson& parameters, ZRKDeserializer deserializer,
                                ZRKApiRequestCompletion completion);
  static Task postWithAPIClient(const std::shared_ptr<ZRKApiClient>& client, std::string_view endpoint,
                                const ZRKJson& parameters, Deserializers deserializers,
                                ZRKApiRequestCompletion completion);
  // GET has the single form only.
  static Task getWithAPIClient(const std::shared_ptr<ZRKApiClient>& client, std::string_view endpoint,
                               const ZRKJson& parameters, ZRKDeserializer deserializer,
                               ZRKApiRequestCompletion completion);
  static Task deleteWithAPIClient(const std::shared_ptr<ZRKApiClient>& client, std::string_view endpoint,
                                  const ZRKJson& parameters, ZRKDeserializer deserializer,
                                  ZRKApiRequestCompletion completion);
  static Task deleteWithAPIClient(const std::shared_ptr<ZRKApiClient>& client, std::string_view endpoint,
                                  const ZRKJson& parameters, Deserializers deserializers,
                                  ZRKApiRequestCompletion completion);
  static Task patchWithAPIClient(const std::shared_ptr<ZRKApiClient>& client, std::string_view endpoint,
                                 const ZRKJson& parameters, ZRKDeserializer deserializer,
                                 ZRKApiRequestCompletion completion);
  static Task patchWithAPIClient(const std::shared_ptr<ZRKApiClient>& client, std::string_view endpoint,
                                 const ZRKJson& parameters, Deserializers deserializers,
                                 ZRKApiRequestCompletion completion);

  // Turns what a session delivered into the completion's arguments and calls
  // the completion on the main thread (at once when already there).
  static void parseResponse(std::shared_ptr<const ZRKHTTPURLResponse> response, const std::optional<std::string>& body,
                            std::optional<ZRKError> error, const Deserializers& deserializers,
                            ZRKApiRequestCompletion completion);
};

}  // namespace zrk

#endif  // ZRK_ZRKAPIREQUEST_H
