#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKDictionaryAccessors.h"
#include "zrk/ZRKDispatchFunctions.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKMainQueue.h"
#include "zrk/ZRKMultipartFormData.h"
#include "zrk/ZRKRequestBodies.h"
#include "zrk/ZRKScanAPIResponse.h"
#include "request/ZRKEndpointURL.h"
#include "request/ZRKJsonBody.h"

namespace zrk {
namespace {

ZRKJson optionsWithCollection(const std::optional<std::string>& collection) {
  ZRKJson options = ZRKJson::object();
  if (collection && !collection->empty()) options["collectionId"] = *collection;
  return options;
}

// "app/v1/scan", or "app/v1/scan/<collection>" with the collection kept to
// one escaped segment, so that no identifier can reach another path, a
// query or a fragment.
std::optional<ZRKURL> scanURLFor(const ZRKApiClient& client, const ZRKJson& options) {
  std::optional<ZRKURL> url = client.apiURL();
  if (url) url = url->URLByAppendingPathComponent("app/v1/scan");
  if (options.is_object()) {
    const auto found = options.find("collectionId");
    if (found != options.end()) {
      url = detail::URLByAppendingPathSegment(url, found->is_string() ? found->get<std::string>() : found->dump());
    }
  }
  return url;
}

void uploadImage(const ZRKApiClient& client, const ZRKImage& image, const std::optional<ZRKURL>& url,
                 ZRKScanCompletion completion) {
  ZRKMultipartFormDataPart part;
  part.setName("file");
  part.setFilename("image.jpg");
  part.setContentType("multipart/form-data");
  part.setData(ZRKScanUploadJPEG(image));
  const std::string boundary = ZRKMultipartFormDataEncoder::generateBoundary();

  ZRKURLRequest request = client.configuredRequestForURL(url);
  request.setHTTPMethod("POST");
  zrk_setMultipartFormData(request, ZRKMultipartFormDataEncoder::multipartFormDataForParts({part}, boundary), boundary);

  client.urlSession()
      ->dataTaskWithRequest(
          std::move(request),
          [completion = std::move(completion)](std::optional<std::string> data,
                                               std::shared_ptr<const ZRKHTTPURLResponse> response,
                                               std::optional<ZRKError> transportError) mutable {
            const std::optional<ZRKJson> parsed = detail::parseJSONObjectBody(data);
            // An error body outranks the transport's error; the status is not examined.
            std::optional<ZRKError> error = zrk_errorFromAPIResponse(parsed ? &*parsed : nullptr);
            if (!error) error = std::move(transportError);
            if (!error && !response) error = zrk_genericFailedToParseResponseError();
            if (!completion) return;
            zrkDispatchToMainThreadIfNecessary(
                [completion = std::move(completion), parsed, error = std::move(error)]() mutable {
                  if (error) return completion(nullptr, std::move(error));
                  const auto decoded = ZRKScanAPIResponse().decodedObjectFromAPIResponse(parsed ? &*parsed : nullptr);
                  completion(std::dynamic_pointer_cast<ZRKScanAPIResponse>(decoded), std::nullopt);
                });
          })
      ->resume();
}

}  // namespace

void ZRKApiClient::scanWithUrl(const std::optional<ZRKURL>& url, ZRKScanCompletion completion) {
  scanWithUrl(url, std::string(), std::move(completion));
}

void ZRKApiClient::scanWithUrl(const std::optional<ZRKURL>& url, const std::optional<std::string>& collection,
                               ZRKScanCompletion completion) {
  scanWithUrl(url ? ZRKJson(url->absoluteString()) : ZRKJson(), collection, std::move(completion));
}

void ZRKApiClient::scanWithUrl(const ZRKJson& url, ZRKScanCompletion completion) {
  scanWithUrl(url, std::string(), std::move(completion));
}

void ZRKApiClient::scanWithUrl(const ZRKJson& url, const std::optional<std::string>& collection,
                               ZRKScanCompletion completion) {
  ZRKJson options = optionsWithCollection(collection);
  if (url.is_string()) options["fileUrl"] = url;
  // The scan goes out whatever the token step says.
  ZRKApiAuthToken::refresh([self = shared_from_this(), options = std::move(options),
                            completion = std::move(completion)](bool, std::optional<ZRKError>) mutable {
    self->scanUrlWithOptions(options, std::move(completion));
  });
}

void ZRKApiClient::scanUrlWithOptions(const ZRKJson& options, ZRKScanCompletion completion) {
  detail::postToURL(
      shared_from_this(), scanURLFor(*this, options), options, std::make_shared<ZRKScanAPIResponse>(),
      [completion = std::move(completion)](std::shared_ptr<ZRKApiResponseDecodable> result,
                                           std::shared_ptr<const ZRKHTTPURLResponse>, std::optional<ZRKError> error) {
        if (!completion) return;
        if (result) {
          completion(std::dynamic_pointer_cast<ZRKScanAPIResponse>(result), std::move(error));
        } else if (error) {
          completion(nullptr, std::move(error));
        }
      });
}

void ZRKApiClient::scanWithImage(std::shared_ptr<const ZRKImage> image, ZRKScanCompletion completion) {
  scanWithImage(std::move(image), std::string(), std::move(completion));
}

void ZRKApiClient::scanWithImage(std::shared_ptr<const ZRKImage> image, const std::optional<std::string>& collection,
                                 ZRKScanCompletion completion) {
  ZRKApiAuthToken::refresh([self = shared_from_this(), image = std::move(image),
                            options = optionsWithCollection(collection),
                            completion = std::move(completion)](bool, std::optional<ZRKError>) mutable {
    self->scanImage(std::move(image), options, std::move(completion));
  });
}

void ZRKApiClient::scanImage(std::shared_ptr<const ZRKImage> image, const ZRKJson& options,
                             ZRKScanCompletion completion) {
  if (!image) {
    if (completion) {
      const ZRKJson body = {{"code", "1000"}, {"message", "ZRKSDK Error: Search image with invalid image"}};
      completion(nullptr, zrk_errorFromAPIResponse(&body));
    }
    return;
  }

  // Scaling and encoding a photo takes tens of milliseconds: never on the
  // main thread, where the token step may have left this call.
  auto upload = [self = shared_from_this(), image = std::move(image), url = scanURLFor(*this, options),
                 completion = std::move(completion)]() mutable {
    uploadImage(*self, *image, url, std::move(completion));
  };
  if (ZRKMainQueue::isMainThread()) {
    ZRKGlobalQueue::globalQueue().async(std::move(upload));
  } else {
    upload();
  }
}

}  // namespace zrk
