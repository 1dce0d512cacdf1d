// The collections and triggers the emulator serves: the seed, and the
// changes made at run time through /__emulator/, which Storage keeps (so
// they last with --data) and which scans see at once.
//
// One lock guards the catalog and the recognizer: scans and readers share
// it, changes take it alone. Every member may be called from any thread.
#ifndef ZRK_EMULATOR_LIVECATALOG_H
#define ZRK_EMULATOR_LIVECATALOG_H

#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <span>
#include <string>

#include "Seed.h"
#include "Storage.h"
#include "recognition/Recognizer.h"

namespace zrk::emulator {

inline std::span<const unsigned char> bytesOf(const std::string& text) {
  return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

// Why a change was refused: an HTTP status and a message for people.
struct CatalogError {
  int status;
  std::string message;
};

class LiveCatalog {
 public:
  // Throws SeedError when a trigger of the seed cannot be recognised.
  LiveCatalog(Catalog seed, Storage& storage);
  ~LiveCatalog();

  // f(const Catalog&) under the shared lock; what it returns must not point
  // into the catalog.
  template <class F>
  auto read(F&& f) const {
    std::shared_lock lock(mutex_);
    return f(catalog_);
  }

  struct Found {
    Trigger trigger;  // without its image
    RecognitionMatch match;
  };
  std::optional<Found> match(std::span<const unsigned char> photo, const std::optional<std::string>& collectionId) const;

  std::optional<CatalogError> createCollection(const std::string& id, const std::string& name);
  // Its triggers go with it.
  std::optional<CatalogError> deleteCollection(const std::string& id);
  // The trigger's id, collection, image and fields as given.
  std::optional<CatalogError> addTrigger(Trigger trigger);
  std::optional<CatalogError> deleteTrigger(const std::string& id);
  // Back to the seed; Storage forgets the changes (and users, tokens, history).
  void reset();

 private:
  void rebuild();  // REQUIRES: mutex_ held alone
  std::optional<CatalogError> place(Trigger trigger, bool keep);  // REQUIRES: mutex_ held alone

  const Catalog seed_;
  Storage& storage_;
  mutable std::shared_mutex mutex_;
  Catalog catalog_;                         // guarded by mutex_
  std::unique_ptr<Recognizer> recognizer_;  // guarded by mutex_
};

}  // namespace zrk::emulator

#endif  // ZRK_EMULATOR_LIVECATALOG_H
