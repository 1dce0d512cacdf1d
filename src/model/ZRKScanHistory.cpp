#include "zrk/ZRKScanHistory.h"

#include "zrk/ZRKDictionaryAccessors.h"
#include "model/ZRKNullRemoval.h"

namespace zrk {
namespace {

// The page decodes its elements into ZRKScanHistory itself, never a subclass.
std::shared_ptr<ZRKScanHistory> decodeScanHistory(const ZRKJson& value) {
  if (!value.is_object()) return nullptr;
  detail::WithoutNulls without(value);
  const ZRKJson& fields = *without;
  auto entry = std::make_shared<ZRKScanHistory>();
  entry->setScanId(without.takeString("scanId"));
  entry->setCampaignId(without.takeString("campaignId"));
  entry->setTimestamp(zrk_intForKey(fields, "timestamp", 0));
  entry->setMatched(zrk_boolForKey(fields, "matched", false));
  entry->setImageUrl(without.takeString("imageUrl"));
  entry->setThumbnailUrl(without.takeString("thumbnailUrl"));
  entry->setPayloadUrl(without.takeString("payloadUrl"));
  // The service's positions are kept as whole degrees, by design.
  entry->setLat(std::to_string(zrk_intForKey(fields, "lat", 0)));
  entry->setLng(std::to_string(zrk_intForKey(fields, "lng", 0)));
  return entry;
}

}  // namespace

std::shared_ptr<ZRKApiResponseDecodable> ZRKScanHistory::decodedObjectFromAPIResponse(const ZRKJson* response) const {
  return response ? decodeScanHistory(*response) : nullptr;
}

std::shared_ptr<ZRKScanHistory> ZRKScanHistory::copy() const {
  auto copy = newInstance();
  copy->scanId_ = scanId_;
  copy->campaignId_ = campaignId_;
  copy->timestamp_ = timestamp_;
  copy->matched_ = matched_;
  copy->imageUrl_ = imageUrl_;
  copy->thumbnailUrl_ = thumbnailUrl_;
  copy->payloadUrl_ = payloadUrl_;
  copy->lat_ = lat_;
  copy->lng_ = lng_;
  return copy;
}

std::shared_ptr<ZRKApiResponseDecodable> ZRKScanHistoryAPIResponse::decodedObjectFromAPIResponse(
    const ZRKJson* response) const {
  if (!response || !response->is_object()) return nullptr;
  detail::WithoutNulls without(*response);
  const ZRKJson& fields = *without;
  // Any value under "code", even 0 or "", marks an error body.
  if (fields.contains("code")) return nullptr;
  const ZRKJson* result = zrk_arrayForKey(fields, "result");
  const ZRKInteger total = zrk_intForKey(fields, "total", 0);

  // An empty history is a page, not a failure; without "result" but with a
  // "total" the page is empty too and keeps that total.
  ZRKScanHistoryList entries;
  if (result) {
    entries.reserve(result->size());
    for (const ZRKJson& element : *result) {
      if (auto entry = decodeScanHistory(element)) entries.push_back(std::move(entry));
    }
  }
  auto page = newInstance();
  page->setScanHistory(std::move(entries));
  page->total_ = total;
  return page;
}

}  // namespace zrk
