#include "zrk/ZRKCollection.h"

#include "zrk/ZRKDictionaryAccessors.h"
#include "model/ZRKNullRemoval.h"

namespace zrk {
namespace {

// The page decodes its elements into ZRKCollection itself, never a subclass.
std::shared_ptr<ZRKCollection> decodeCollection(const ZRKJson& value) {
  if (!value.is_object()) return nullptr;
  detail::WithoutNulls without(value);
  auto collection = std::make_shared<ZRKCollection>();
  collection->setCollectionId(without.takeString("id"));
  collection->setImageUrl(without.takeString("imageUrl"));
  collection->setName(without.takeString("name"));
  return collection;
}

}  // namespace

std::shared_ptr<ZRKApiResponseDecodable> ZRKCollection::decodedObjectFromAPIResponse(const ZRKJson* response) const {
  return response ? decodeCollection(*response) : nullptr;
}

std::shared_ptr<ZRKCollection> ZRKCollection::copy() const {
  auto copy = newInstance();
  copy->collectionId_ = collectionId_;
  copy->imageUrl_ = imageUrl_;
  copy->name_ = name_;
  return copy;
}

std::string ZRKCollection::description() const {
  return "id:(" + collectionId_.value_or("(null)") + ") name:(" + name_.value_or("(null)") + ")";
}

std::shared_ptr<ZRKApiResponseDecodable> ZRKCollectionsAPIResponse::decodedObjectFromAPIResponse(
    const ZRKJson* response) const {
  if (!response || !response->is_object()) return nullptr;
  // No "code" test here: an error body fails only for want of a "result".
  detail::WithoutNulls without(*response);
  const ZRKJson& fields = *without;
  const ZRKJson* result = zrk_arrayForKey(fields, "result");
  const ZRKInteger total = zrk_intForKey(fields, "total", 0);
  if (!result) return nullptr;

  ZRKCollectionList collections;
  collections.reserve(result->size());
  for (const ZRKJson& element : *result) {
    if (auto collection = decodeCollection(element)) collections.push_back(std::move(collection));
  }
  auto page = std::make_shared<ZRKCollectionsAPIResponse>();
  page->setCollections(std::move(collections));
  page->total_ = total;
  return page;
}

}  // namespace zrk
