// The result of one scan: the recognised reference image (the trigger), the
// score of the match and the content attached to it.
//
// Every field is optional in the service's answer: a missing or mistyped
// field leaves its default (absent, or 0), and only a body holding "code"
// (an error) or no body at all decodes to nothing. triggerType and the
// elements of ocrData are passed through as the service sends them.
// Instances are plain values, safe to read from any thread.
#ifndef ZRK_ZRKSCANAPIRESPONSE_H
#define ZRK_ZRKSCANAPIRESPONSE_H

#include "zrk/ZRKExport.h"

#include <memory>
#include <optional>
#include <string>

#include "zrk/ZRKApiResponseDecodable.h"
#include "zrk/ZRKJson.h"

namespace zrk {

class ZRK_API ZRKScanAPIResponse : public ZRKApiResponseDecodable {
 public:
  ZRKScanAPIResponse() = default;
  ~ZRKScanAPIResponse() override = default;

  // A new instance of the prototype's class (see newInstance) from the body.
  std::shared_ptr<ZRKApiResponseDecodable> decodedObjectFromAPIResponse(const ZRKJson* response) const override;

  // A new instance carrying scanId, triggerId, thumbnailUrl, payloadUrl,
  // payloadData, ocrData, score, timestamp and frame only: triggerName,
  // triggerType, triggerFps and allResponseFields stay unset.
  std::shared_ptr<ZRKScanAPIResponse> copy() const;

  ZRKInteger timestamp() const { return timestamp_; }
  void setTimestamp(ZRKInteger timestamp) { timestamp_ = timestamp; }
  // A fractional score is truncated toward zero (87.6 gives 87).
  ZRKInteger score() const { return score_; }
  void setScore(ZRKInteger score) { score_ = score; }
  ZRKInteger frame() const { return frame_; }
  void setFrame(ZRKInteger frame) { frame_ = frame; }
  // The answer's "id".
  const std::optional<std::string>& scanId() const { return scanId_; }
  void setScanId(std::optional<std::string> scanId) { scanId_ = std::move(scanId); }
  const std::optional<std::string>& triggerId() const { return triggerId_; }
  void setTriggerId(std::optional<std::string> triggerId) { triggerId_ = std::move(triggerId); }
  const std::optional<std::string>& thumbnailUrl() const { return thumbnailUrl_; }
  void setThumbnailUrl(std::optional<std::string> url) { thumbnailUrl_ = std::move(url); }
  const std::optional<std::string>& payloadUrl() const { return payloadUrl_; }
  void setPayloadUrl(std::optional<std::string> url) { payloadUrl_ = std::move(url); }
  const std::optional<std::string>& payloadData() const { return payloadData_; }
  void setPayloadData(std::optional<std::string> data) { payloadData_ = std::move(data); }
  const std::optional<std::string>& triggerName() const { return triggerName_; }
  void setTriggerName(std::optional<std::string> name) { triggerName_ = std::move(name); }
  // The answer's "ocr" array, nulls removed, elements as sent.
  const std::optional<ZRKJson>& ocrData() const { return ocrData_; }
  void setOcrData(std::optional<ZRKJson> ocrData) { ocrData_ = std::move(ocrData); }
  // The service's raw value; a negative one keeps its bit pattern.
  ZRKUInteger triggerType() const { return triggerType_; }
  void setTriggerType(ZRKUInteger triggerType) { triggerType_ = triggerType; }
  ZRKInteger triggerFps() const { return triggerFps_; }
  void setTriggerFps(ZRKInteger fps) { triggerFps_ = fps; }
  // Never filled by the decoder.
  std::optional<ZRKJson> allResponseFields() const override { return allResponseFields_; }
  void setAllResponseFields(std::optional<ZRKJson> fields) { allResponseFields_ = std::move(fields); }

 protected:
  // The plain new instance that decoding and copying fill: a subclass
  // overrides it to receive instances of itself.
  virtual std::shared_ptr<ZRKScanAPIResponse> newInstance() const { return std::make_shared<ZRKScanAPIResponse>(); }

 private:
  ZRKInteger timestamp_ = 0;
  ZRKInteger score_ = 0;
  ZRKInteger frame_ = 0;
  std::optional<std::string> scanId_;
  std::optional<std::string> triggerId_;
  std::optional<std::string> thumbnailUrl_;
  std::optional<std::string> payloadUrl_;
  std::optional<std::string> payloadData_;
  std::optional<std::string> triggerName_;
  std::optional<ZRKJson> ocrData_;
  ZRKUInteger triggerType_ = 0;
  ZRKInteger triggerFps_ = 0;
  std::optional<ZRKJson> allResponseFields_;
};

}  // namespace zrk

#endif  // ZRK_ZRKSCANAPIRESPONSE_H
