#include "zrk/ZRKScanAPIResponse.h"

#include "zrk/ZRKDictionaryAccessors.h"
#include "model/ZRKNullRemoval.h"

namespace zrk {

std::shared_ptr<ZRKApiResponseDecodable> ZRKScanAPIResponse::decodedObjectFromAPIResponse(
    const ZRKJson* response) const {
  if (!response || !response->is_object()) return nullptr;
  detail::WithoutNulls without(*response);
  const ZRKJson& fields = *without;
  // Any value under "code", even 0 or "", marks an error body.
  if (fields.contains("code")) return nullptr;

  auto scan = newInstance();
  scan->scanId_ = without.takeString("id");
  scan->thumbnailUrl_ = without.takeString("thumbnailUrl");
  scan->payloadUrl_ = without.takeString("payloadUrl");
  scan->payloadData_ = without.takeString("payloadData");
  scan->score_ = zrk_intForKey(fields, "score", 0);
  scan->timestamp_ = zrk_intForKey(fields, "timestamp", 0);
  scan->frame_ = zrk_intForKey(fields, "frame", 0);
  scan->triggerId_ = without.takeString("triggerId");
  scan->triggerName_ = without.takeString("triggerName");
  if (const ZRKJson* ocr = zrk_arrayForKey(fields, "ocr")) scan->ocrData_ = *ocr;
  scan->triggerType_ = static_cast<ZRKUInteger>(zrk_intForKey(fields, "triggerType", 0));
  scan->triggerFps_ = zrk_intForKey(fields, "triggerFps", 0);
  return scan;
}

std::shared_ptr<ZRKScanAPIResponse> ZRKScanAPIResponse::copy() const {
  auto copy = newInstance();
  copy->scanId_ = scanId_;
  copy->triggerId_ = triggerId_;
  copy->thumbnailUrl_ = thumbnailUrl_;
  copy->payloadUrl_ = payloadUrl_;
  copy->payloadData_ = payloadData_;
  copy->ocrData_ = ocrData_;
  copy->score_ = score_;
  copy->timestamp_ = timestamp_;
  copy->frame_ = frame_;
  return copy;
}

}  // namespace zrk
