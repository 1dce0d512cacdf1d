// The app's collections: named groups of reference images that a scan can be
// restricted to (their ids are what scanWithUrl and scanWithImage take as a
// collection).
//
// The listing's answer is {"result": [...], "total": n}. A body without an
// array under "result" decodes to nothing, even with a "total"; a body with
// one decodes, even when it also holds an error "code", because this listing
// has no error test of its own. Within "result", each JSON object becomes a
// ZRKCollection, in order; an element that is not an object (a string, a
// number, a nested array) is skipped, as null elements are, so one odd entry
// does not cost the caller the whole list. "total" is what the service
// reports and may therefore count skipped elements.
//
// Decoders never fill allResponseFields. Instances are plain values, safe to
// read from any thread.
#ifndef ZRK_ZRKCOLLECTION_H
#define ZRK_ZRKCOLLECTION_H

#include "zrk/ZRKExport.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zrk/ZRKApiResponseDecodable.h"
#include "zrk/ZRKJson.h"

namespace zrk {

class ZRK_API ZRKCollection : public ZRKApiResponseDecodable {
 public:
  ZRKCollection() = default;
  ~ZRKCollection() override = default;

  // A ZRKCollection (whatever the prototype's class) from "id", "name" and
  // "imageUrl"; nullptr when the value is no JSON object. Any object
  // decodes, an empty one to a collection with every field absent.
  std::shared_ptr<ZRKApiResponseDecodable> decodedObjectFromAPIResponse(const ZRKJson* response) const override;

  // A new instance of this object's class (see newInstance) with id, name
  // and imageUrl; allResponseFields stays unset.
  std::shared_ptr<ZRKCollection> copy() const;
  // "id:(<id>) name:(<name>)", an absent value written "(null)".
  std::string description() const;

  // The service's "id".
  const std::optional<std::string>& collectionId() const { return collectionId_; }
  void setCollectionId(std::optional<std::string> collectionId) { collectionId_ = std::move(collectionId); }
  const std::optional<std::string>& name() const { return name_; }
  void setName(std::optional<std::string> name) { name_ = std::move(name); }
  // The text as sent, not parsed as a URL.
  const std::optional<std::string>& imageUrl() const { return imageUrl_; }
  void setImageUrl(std::optional<std::string> imageUrl) { imageUrl_ = std::move(imageUrl); }
  std::optional<ZRKJson> allResponseFields() const override { return allResponseFields_; }
  void setAllResponseFields(std::optional<ZRKJson> fields) { allResponseFields_ = std::move(fields); }

 protected:
  // The plain new instance that copying fills: a subclass overrides it to
  // receive copies of its own class. Decoding does not use it.
  virtual std::shared_ptr<ZRKCollection> newInstance() const { return std::make_shared<ZRKCollection>(); }

 private:
  std::optional<std::string> collectionId_;
  std::optional<std::string> name_;
  std::optional<std::string> imageUrl_;
  std::optional<ZRKJson> allResponseFields_;
};

using ZRKCollectionList = std::vector<std::shared_ptr<ZRKCollection>>;

// One answer of the collections listing.
class ZRK_API ZRKCollectionsAPIResponse : public ZRKApiResponseDecodable {
 public:
  ZRKCollectionsAPIResponse() = default;
  ~ZRKCollectionsAPIResponse() override = default;

  // Always a ZRKCollectionsAPIResponse, whatever the prototype's class; see
  // the top of this file for what decodes.
  std::shared_ptr<ZRKApiResponseDecodable> decodedObjectFromAPIResponse(const ZRKJson* response) const override;

  // Absent until decoded; a decoded answer always has a list, maybe empty.
  const std::optional<ZRKCollectionList>& collections() const { return collections_; }
  ZRKInteger total() const { return total_; }
  void setTotal(ZRKInteger total) { total_ = total; }
  std::optional<ZRKJson> allResponseFields() const override { return allResponseFields_; }
  void setAllResponseFields(std::optional<ZRKJson> fields) { allResponseFields_ = std::move(fields); }

 private:
  // Only the decoder fills the list.
  void setCollections(std::optional<ZRKCollectionList> collections) { collections_ = std::move(collections); }

  std::optional<ZRKCollectionList> collections_;
  ZRKInteger total_ = 0;
  std::optional<ZRKJson> allResponseFields_;
};

}  // namespace zrk

#endif  // ZRK_ZRKCOLLECTION_H
