#include "LiveCatalog.h"

#include <algorithm>
#include <iostream>
#include <stdexcept>

namespace zrk::emulator {

namespace {

const char* const kIdRule = "may hold only letters, digits, '.', '_' and '-', with no \"..\" and at most 128 of them";

std::string triggerJson(const Trigger& trigger) {
  return nlohmann::json{{"name", trigger.name},
                        {"type", trigger.type},
                        {"payloadUrl", trigger.payloadUrl},
                        {"payloadData", trigger.payloadData},
                        {"ocr", trigger.ocr},
                        {"imageType", trigger.imageType}}
      .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

Collection* findCollection(Catalog& catalog, const std::string& id) {
  const auto found = std::find_if(catalog.collections.begin(), catalog.collections.end(),
                                  [&](const Collection& collection) { return collection.id == id; });
  return found == catalog.collections.end() ? nullptr : &*found;
}

}  // namespace

LiveCatalog::LiveCatalog(Catalog seed, Storage& storage) : seed_(std::move(seed)), storage_(storage) { rebuild(); }

LiveCatalog::~LiveCatalog() = default;

void LiveCatalog::rebuild() {
  auto recognizer = std::make_unique<Recognizer>();
  const StoredCatalog changes = storage_.catalogChanges();
  Catalog catalog;
  for (const Collection& collection : seed_.collections) {
    if (changes.removedCollections.contains(collection.id)) continue;
    Collection kept{collection.id, collection.name, {}};
    for (const std::string& id : collection.triggerIds) {
      if (changes.removedTriggers.contains(id)) continue;
      const Trigger& trigger = *seed_.trigger(id);
      try {
        recognizer->addTrigger(id, collection.id, bytesOf(trigger.image));
      } catch (const std::invalid_argument& error) {
        throw SeedError("trigger \"" + id + "\" in \"" + collection.id + "\": " + error.what());
      }
      kept.triggerIds.push_back(id);
      catalog.triggers.emplace(id, trigger);
    }
    catalog.collections.push_back(std::move(kept));
  }
  catalog_ = std::move(catalog);
  recognizer_ = std::move(recognizer);
  // What was made at run time; a seed that has since taken one of its ids
  // (the seed's own was never removed) wins.
  for (const StoredCatalog::Item& item : changes.collections) {
    if (catalog_.collection(item.id)) continue;
    const auto json = nlohmann::json::parse(item.json, nullptr, false);
    catalog_.collections.push_back({item.id, json.is_object() ? json.value("name", item.id) : item.id, {}});
  }
  std::sort(catalog_.collections.begin(), catalog_.collections.end(),
            [](const Collection& a, const Collection& b) { return a.id < b.id; });
  for (const StoredCatalog::Item& item : changes.triggers) {
    const auto json = nlohmann::json::parse(item.json, nullptr, false);
    Trigger trigger{item.id, item.collectionId, item.id, 1, "", "", nlohmann::json::array(), item.image, ""};
    try {
      trigger.name = json.at("name");
      trigger.type = json.at("type");
      trigger.payloadUrl = json.at("payloadUrl");
      trigger.payloadData = json.at("payloadData");
      trigger.ocr = json.at("ocr");
      trigger.imageType = json.at("imageType");
    } catch (const nlohmann::json::exception&) {
      std::cerr << "zrk-emulator: stored trigger \"" << item.id << "\" is damaged; left out\n";
      continue;
    }
    if (const auto error = place(std::move(trigger), false)) {
      std::cerr << "zrk-emulator: stored trigger \"" << item.id << "\" left out: " << error->message << "\n";
    }
  }
}

std::optional<LiveCatalog::Found> LiveCatalog::match(std::span<const unsigned char> photo,
                                                     const std::optional<std::string>& collectionId) const {
  std::shared_lock lock(mutex_);
  auto match = recognizer_->match(photo, collectionId);
  const Trigger* trigger = match ? catalog_.trigger(match->triggerId) : nullptr;
  if (!trigger) return std::nullopt;
  // Everything but the image, which a scan's answer does not need.
  return Found{{trigger->id, trigger->collectionId, trigger->name, trigger->type, trigger->payloadUrl,
                trigger->payloadData, trigger->ocr, "", trigger->imageType},
               std::move(*match)};
}

std::optional<CatalogError> LiveCatalog::createCollection(const std::string& id, const std::string& name) {
  if (!isValidId(id)) return CatalogError{400, std::string("A collection id ") + kIdRule};
  if (name.size() > 200) return CatalogError{400, "A collection's name is at most 200 bytes"};
  std::unique_lock lock(mutex_);
  if (catalog_.collection(id)) return CatalogError{409, "There is a collection \"" + id + "\" already"};
  const Collection made{id, name.empty() ? id : name, {}};
  storage_.putCatalogItem(false, {id, "", nlohmann::json{{"name", made.name}}.dump(), ""});
  catalog_.collections.insert(std::upper_bound(catalog_.collections.begin(), catalog_.collections.end(), made,
                                               [](const Collection& a, const Collection& b) { return a.id < b.id; }),
                              made);
  return std::nullopt;
}

std::optional<CatalogError> LiveCatalog::deleteCollection(const std::string& id) {
  if (!isValidId(id)) return CatalogError{400, std::string("A collection id ") + kIdRule};
  std::unique_lock lock(mutex_);
  Collection* collection = findCollection(catalog_, id);
  if (!collection) return CatalogError{404, "No collection \"" + id + "\""};
  for (const std::string& triggerId : collection->triggerIds) {
    storage_.removeCatalogItem(true, triggerId, seed_.trigger(triggerId) != nullptr);
    recognizer_->removeTrigger(triggerId);
    catalog_.triggers.erase(triggerId);
  }
  storage_.removeCatalogItem(false, id, seed_.collection(id) != nullptr);
  std::erase_if(catalog_.collections, [&](const Collection& c) { return c.id == id; });
  return std::nullopt;
}

std::optional<CatalogError> LiveCatalog::addTrigger(Trigger trigger) {
  if (!isValidId(trigger.id)) return CatalogError{400, std::string("A trigger id ") + kIdRule};
  const auto type = imageTypeOf(trigger.image);
  if (!type) return CatalogError{400, "The trigger's image is neither a JPEG nor a PNG"};
  trigger.imageType = *type;
  if (trigger.name.empty()) trigger.name = trigger.id;
  std::unique_lock lock(mutex_);
  return place(std::move(trigger), true);
}

std::optional<CatalogError> LiveCatalog::place(Trigger trigger, bool keep) {
  Collection* collection = findCollection(catalog_, trigger.collectionId);
  if (!collection) return CatalogError{404, "No collection \"" + trigger.collectionId + "\""};
  if (const Trigger* taken = catalog_.trigger(trigger.id)) {
    return CatalogError{409, "Trigger id \"" + trigger.id + "\" is taken (in \"" + taken->collectionId + "\")"};
  }
  try {
    recognizer_->addTrigger(trigger.id, trigger.collectionId, bytesOf(trigger.image));
  } catch (const std::invalid_argument& error) {
    return CatalogError{422, std::string("The image cannot serve as a trigger: ") + error.what()};
  }
  if (keep) {
    storage_.putCatalogItem(true, {trigger.id, trigger.collectionId, triggerJson(trigger), trigger.image});
  }
  auto& ids = collection->triggerIds;
  ids.insert(std::upper_bound(ids.begin(), ids.end(), trigger.id), trigger.id);
  catalog_.triggers.emplace(trigger.id, std::move(trigger));
  return std::nullopt;
}

std::optional<CatalogError> LiveCatalog::deleteTrigger(const std::string& id) {
  if (!isValidId(id)) return CatalogError{400, std::string("A trigger id ") + kIdRule};
  std::unique_lock lock(mutex_);
  const Trigger* trigger = catalog_.trigger(id);
  if (!trigger) return CatalogError{404, "No trigger \"" + id + "\""};
  storage_.removeCatalogItem(true, id, seed_.trigger(id) != nullptr);
  recognizer_->removeTrigger(id);
  std::erase(findCollection(catalog_, trigger->collectionId)->triggerIds, id);
  catalog_.triggers.erase(id);
  return std::nullopt;
}

void LiveCatalog::reset() {
  std::unique_lock lock(mutex_);
  storage_.reset();
  rebuild();
}

}  // namespace zrk::emulator
