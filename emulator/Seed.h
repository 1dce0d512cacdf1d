// The collections and triggers an emulator serves, read once at start from
// a folder:
//
//   DIR/<collection>/collection.json    {"name": ...}                    optional
//   DIR/<collection>/<trigger>.jpg|.png the trigger image
//   DIR/<collection>/<trigger>.json     {"name", "type", "payloadUrl",
//                                        "payloadData", "ocr"}           optional
//
// The collection's id is its folder name, a trigger's id its file stem;
// trigger ids are unique across the whole seed. Ids are letters, digits,
// '.', '_' and '-', without ".." (they travel unescaped in URL paths). Other files are
// ignored; folders inside collections too.
#ifndef ZRK_EMULATOR_SEED_H
#define ZRK_EMULATOR_SEED_H

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace zrk::emulator {

struct Trigger {
  std::string id;
  std::string collectionId;
  std::string name;
  std::int64_t type = 1;
  std::string payloadUrl;
  std::string payloadData;
  nlohmann::json ocr = nlohmann::json::array();
  std::string image;      // the encoded file
  std::string imageType;  // "image/jpeg" or "image/png"
};

struct Collection {
  std::string id;
  std::string name;
  std::vector<std::string> triggerIds;  // sorted
};

struct Catalog {
  std::vector<Collection> collections;  // sorted by id
  std::map<std::string, Trigger> triggers;

  const Trigger* trigger(const std::string& id) const;
  const Collection* collection(const std::string& id) const;
};

// A seed that cannot be used; what() names the file and the reason.
struct SeedError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

Catalog loadSeed(const std::string& dir);

// "image/jpeg" or "image/png" by the bytes' signature; nothing otherwise.
std::optional<std::string> imageTypeOf(const std::string& bytes);

bool isValidId(const std::string& id);

}  // namespace zrk::emulator

#endif  // ZRK_EMULATOR_SEED_H
