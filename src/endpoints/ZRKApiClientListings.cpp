#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKScanHistory.h"
#include "endpoints/ZRKListingCompletion.h"

namespace zrk {
namespace {

// The page size the service is asked for when the caller leaves it at 0.
constexpr ZRKInteger kDefaultHistoryCount = 20;

}  // namespace

void ZRKApiClient::retrieveCollectionsWithCompletion(ZRKCollectionsCompletion completion) {
  // The listing goes out whatever the token step says.
  ZRKApiAuthToken::refresh([self = shared_from_this(), completion = std::move(completion)](
                               bool, std::optional<ZRKError>) mutable { self->send(std::move(completion)); });
}

void ZRKApiClient::send(ZRKCollectionsCompletion completion) {
  ZRKApiRequest::getWithAPIClient(
      shared_from_this(), "app/v1/collection", ZRKJson::object(), std::make_shared<ZRKCollectionsAPIResponse>(),
      detail::listingCompletion(std::move(completion), &ZRKCollectionsAPIResponse::collections));
}

void ZRKApiClient::retrieveScanHistoryWithCount(ZRKInteger count, ZRKInteger offset,
                                                ZRKScanHistoryCompletion completion) {
  // Only 0 means "the default"; a negative count goes to the service as it is.
  if (count == 0) count = kDefaultHistoryCount;
  ZRKApiAuthToken::refresh([self = shared_from_this(), count, offset, completion = std::move(completion)](
                               bool, std::optional<ZRKError>) mutable {
    self->sendWithOptions({{"count", count}, {"offset", offset}}, std::move(completion));
  });
}

void ZRKApiClient::sendWithOptions(const ZRKJson& options, ZRKScanHistoryCompletion completion) {
  ZRKApiRequest::getWithAPIClient(
      shared_from_this(), "app/v1/history", options, std::make_shared<ZRKScanHistoryAPIResponse>(),
      detail::listingCompletion(std::move(completion), &ZRKScanHistoryAPIResponse::result));
}

}  // namespace zrk
