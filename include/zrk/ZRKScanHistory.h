// The scan history, one page at a time.
//
// The listing's answer is {"result": [...], "total": n}. Unlike the
// collections listing, a body holding any "code" is an error body and
// decodes to nothing, and a missing "result" is no failure: the page is
// empty, with the "total" the service sent (0 when it sent none). Within
// "result", each JSON object becomes a ZRKScanHistory, in order; an element
// that is not an object (a string, a number, a nested array) is skipped, as
// null elements are, so one odd entry does not cost the caller the page.
// "total" is what the service reports and may count skipped elements.
//
// Decoders never fill allResponseFields. Instances are plain values, safe to
// read from any thread.
#ifndef ZRK_ZRKSCANHISTORY_H
#define ZRK_ZRKSCANHISTORY_H

#include "zrk/ZRKExport.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zrk/ZRKApiResponseDecodable.h"
#include "zrk/ZRKJson.h"

namespace zrk {

// One past scan.
class ZRK_API ZRKScanHistory : public ZRKApiResponseDecodable {
 public:
  ZRKScanHistory() = default;
  ~ZRKScanHistory() override = default;

  // A ZRKScanHistory (whatever the prototype's class); nullptr when the
  // value is no JSON object. Any object decodes, and there is no error test.
  // "lat" and "lng" are read as whole numbers and kept as their decimal text
  // (59.33 gives "59", -0.5 gives "0", a missing one "0"). triggerId is
  // never decoded, even when the body holds it.
  std::shared_ptr<ZRKApiResponseDecodable> decodedObjectFromAPIResponse(const ZRKJson* response) const override;

  // A new instance of this object's class (see newInstance) with every field
  // but triggerId and allResponseFields.
  std::shared_ptr<ZRKScanHistory> copy() const;

  ZRKInteger timestamp() const { return timestamp_; }
  void setTimestamp(ZRKInteger timestamp) { timestamp_ = timestamp; }
  bool matched() const { return matched_; }
  void setMatched(bool matched) { matched_ = matched; }
  const std::optional<std::string>& scanId() const { return scanId_; }
  void setScanId(std::optional<std::string> scanId) { scanId_ = std::move(scanId); }
  const std::optional<std::string>& triggerId() const { return triggerId_; }
  void setTriggerId(std::optional<std::string> triggerId) { triggerId_ = std::move(triggerId); }
  const std::optional<std::string>& campaignId() const { return campaignId_; }
  void setCampaignId(std::optional<std::string> campaignId) { campaignId_ = std::move(campaignId); }
  const std::optional<std::string>& thumbnailUrl() const { return thumbnailUrl_; }
  void setThumbnailUrl(std::optional<std::string> url) { thumbnailUrl_ = std::move(url); }
  const std::optional<std::string>& imageUrl() const { return imageUrl_; }
  void setImageUrl(std::optional<std::string> url) { imageUrl_ = std::move(url); }
  const std::optional<std::string>& payloadUrl() const { return payloadUrl_; }
  void setPayloadUrl(std::optional<std::string> url) { payloadUrl_ = std::move(url); }
  const std::optional<std::string>& lat() const { return lat_; }
  void setLat(std::optional<std::string> lat) { lat_ = std::move(lat); }
  const std::optional<std::string>& lng() const { return lng_; }
  void setLng(std::optional<std::string> lng) { lng_ = std::move(lng); }
  std::optional<ZRKJson> allResponseFields() const override { return allResponseFields_; }
  void setAllResponseFields(std::optional<ZRKJson> fields) { allResponseFields_ = std::move(fields); }

 protected:
  // The plain new instance that copying fills: a subclass overrides it to
  // receive copies of its own class. Decoding does not use it.
  virtual std::shared_ptr<ZRKScanHistory> newInstance() const { return std::make_shared<ZRKScanHistory>(); }

 private:
  ZRKInteger timestamp_ = 0;
  bool matched_ = false;
  std::optional<std::string> scanId_;
  std::optional<std::string> triggerId_;
  std::optional<std::string> campaignId_;
  std::optional<std::string> thumbnailUrl_;
  std::optional<std::string> imageUrl_;
  std::optional<std::string> payloadUrl_;
  std::optional<std::string> lat_;
  std::optional<std::string> lng_;
  std::optional<ZRKJson> allResponseFields_;
};

using ZRKScanHistoryList = std::vector<std::shared_ptr<ZRKScanHistory>>;

// One page of the history.
class ZRK_API ZRKScanHistoryAPIResponse : public ZRKApiResponseDecodable {
 public:
  ZRKScanHistoryAPIResponse() = default;
  ~ZRKScanHistoryAPIResponse() override = default;

  // A new instance of the prototype's class (see newInstance); see the top
  // of this file for what decodes.
  std::shared_ptr<ZRKApiResponseDecodable> decodedObjectFromAPIResponse(const ZRKJson* response) const override;

  // Absent until decoded or set; a decoded page always has a list, maybe
  // empty.
  const std::optional<ZRKScanHistoryList>& result() const { return result_; }
  void setResult(std::optional<ZRKScanHistoryList> result) { result_ = std::move(result); }
  // The same storage as result, under a second name.
  void setScanHistory(std::optional<ZRKScanHistoryList> scanHistory) { result_ = std::move(scanHistory); }
  ZRKInteger total() const { return total_; }
  void setTotal(ZRKInteger total) { total_ = total; }
  std::optional<ZRKJson> allResponseFields() const override { return allResponseFields_; }
  void setAllResponseFields(std::optional<ZRKJson> fields) { allResponseFields_ = std::move(fields); }

 protected:
  // The plain new instance that decoding fills: a subclass overrides it to
  // receive pages of its own class.
  virtual std::shared_ptr<ZRKScanHistoryAPIResponse> newInstance() const {
    return std::make_shared<ZRKScanHistoryAPIResponse>();
  }

 private:
  std::optional<ZRKScanHistoryList> result_;
  ZRKInteger total_ = 0;
  std::optional<ZRKJson> allResponseFields_;
};

}  // namespace zrk

#endif  // ZRK_ZRKSCANHISTORY_H
