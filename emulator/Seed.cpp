#include "Seed.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace zrk::emulator {

namespace fs = std::filesystem;

namespace {

// Far above any sensible trigger; keeps a stray huge file from eating memory.
constexpr std::uintmax_t kMaxImageBytes = 32u << 20;
constexpr std::uintmax_t kMaxJsonBytes = 1u << 20;

std::string readFile(const fs::path& path, std::uintmax_t limit) {
  std::error_code error;
  const auto size = fs::file_size(path, error);
  if (error) throw SeedError(path.string() + ": cannot read: " + error.message());
  if (size > limit) throw SeedError(path.string() + ": larger than " + std::to_string(limit) + " bytes");
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  if (!in) throw SeedError(path.string() + ": cannot read");
  return bytes.str();
}

nlohmann::json readJsonObject(const fs::path& path) {
  nlohmann::json json = nlohmann::json::parse(readFile(path, kMaxJsonBytes), nullptr, false);
  if (!json.is_object()) throw SeedError(path.string() + ": not a JSON object");
  return json;
}

std::string stringMember(const nlohmann::json& json, const char* key, const fs::path& path, std::string fallback) {
  const auto found = json.find(key);
  if (found == json.end() || found->is_null()) return fallback;
  if (!found->is_string()) throw SeedError(path.string() + ": \"" + key + "\" must be a string");
  return found->get<std::string>();
}

void applyTriggerJson(Trigger& trigger, const fs::path& path) {
  const nlohmann::json json = readJsonObject(path);
  trigger.name = stringMember(json, "name", path, trigger.name);
  trigger.payloadUrl = stringMember(json, "payloadUrl", path, "");
  if (const auto data = json.find("payloadData"); data != json.end() && !data->is_null()) {
    // The client only takes text here, so structured data travels serialised.
    trigger.payloadData = data->is_string() ? data->get<std::string>() : data->dump();
  }
  if (const auto type = json.find("type"); type != json.end() && !type->is_null()) {
    if (!type->is_number_integer()) throw SeedError(path.string() + ": \"type\" must be an integer");
    trigger.type = type->get<std::int64_t>();
  }
  if (const auto ocr = json.find("ocr"); ocr != json.end() && !ocr->is_null()) {
    if (!ocr->is_array()) throw SeedError(path.string() + ": \"ocr\" must be a list");
    trigger.ocr = *ocr;
  }
}

}  // namespace

bool isValidId(const std::string& id) {
  // ".." anywhere, not only alone: an id may end up in a path or a file name.
  return !id.empty() && id.size() <= 128 && id != "." && id.find("..") == std::string::npos && std::all_of(id.begin(), id.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
  });
}

std::optional<std::string> imageTypeOf(const std::string& bytes) {
  if (bytes.size() >= 3 && bytes.compare(0, 3, "\xFF\xD8\xFF") == 0) return "image/jpeg";
  if (bytes.size() >= 8 && bytes.compare(0, 8, "\x89PNG\r\n\x1A\n") == 0) return "image/png";
  return std::nullopt;
}

const Trigger* Catalog::trigger(const std::string& id) const {
  const auto found = triggers.find(id);
  return found == triggers.end() ? nullptr : &found->second;
}

const Collection* Catalog::collection(const std::string& id) const {
  for (const Collection& collection : collections) {
    if (collection.id == id) return &collection;
  }
  return nullptr;
}

Catalog loadSeed(const std::string& dir) {
  Catalog catalog;
  std::error_code error;
  std::vector<fs::path> folders;
  for (const auto& entry : fs::directory_iterator(dir, error)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(".") || !entry.is_directory()) continue;
    if (!isValidId(name)) {
      throw SeedError(entry.path().string() + ": a collection id may hold only letters, digits, '.', '_' and '-'");
    }
    folders.push_back(entry.path());
  }
  if (error) throw SeedError(dir + ": " + error.message());
  std::sort(folders.begin(), folders.end());

  for (const fs::path& folder : folders) {
    Collection collection;
    collection.id = folder.filename().string();
    collection.name = collection.id;
    if (fs::exists(folder / "collection.json")) {
      collection.name =
          stringMember(readJsonObject(folder / "collection.json"), "name", folder / "collection.json", collection.name);
    }
    std::vector<fs::path> images;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
      const std::string extension = entry.path().extension().string();
      if (!entry.is_regular_file() || entry.path().filename().string().starts_with(".")) continue;
      if (extension == ".jpg" || extension == ".jpeg" || extension == ".png") images.push_back(entry.path());
    }
    if (error) throw SeedError(folder.string() + ": " + error.message());
    std::sort(images.begin(), images.end());

    for (const fs::path& path : images) {
      Trigger trigger;
      trigger.id = path.stem().string();
      trigger.collectionId = collection.id;
      trigger.name = trigger.id;
      if (!isValidId(trigger.id)) {
        throw SeedError(path.string() + ": a trigger id may hold only letters, digits, '.', '_' and '-'");
      }
      if (trigger.id == "collection") {
        throw SeedError(path.string() + ": \"collection\" is reserved for the collection's own collection.json");
      }
      if (const Trigger* earlier = catalog.trigger(trigger.id)) {
        throw SeedError(path.string() + ": trigger id \"" + trigger.id + "\" is already taken by a file in \"" +
                        earlier->collectionId + "\"; trigger ids must be unique across the seed");
      }
      trigger.image = readFile(path, kMaxImageBytes);
      const auto type = imageTypeOf(trigger.image);
      if (!type) throw SeedError(path.string() + ": not a JPEG or PNG file");
      trigger.imageType = *type;
      fs::path sidecar = path;
      sidecar.replace_extension(".json");
      if (fs::exists(sidecar)) applyTriggerJson(trigger, sidecar);
      collection.triggerIds.push_back(trigger.id);
      catalog.triggers.emplace(trigger.id, std::move(trigger));
    }
    catalog.collections.push_back(std::move(collection));
  }
  return catalog;
}

}  // namespace zrk::emulator
