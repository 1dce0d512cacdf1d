// Everything the emulator remembers: tokens, user accounts, scan history
// and the images of past scans, in one SQLite database (a file, or memory).
//
// One connection behind one mutex: every member may be called from any
// thread. Members throw std::runtime_error when SQLite fails.
#ifndef ZRK_EMULATOR_STORAGE_H
#define ZRK_EMULATOR_STORAGE_H

#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

struct sqlite3;

namespace zrk::emulator {

enum class TokenKind { app, user };

struct UserRecord {
  std::int64_t id = 0;
  std::string appKey;
  std::string email;
  std::string name;
  std::string passwordHash;
  std::optional<std::string> birthdate;
  std::optional<std::string> gender;
  std::optional<std::string> avatar;
};

struct ScanRecord {
  std::string id;
  std::string appKey;
  std::string appUser;  // the app's own id of its end user ("" when none was sent)
  std::int64_t timestamp = 0;
  bool matched = false;
  std::string triggerId;     // "" without a match
  std::string collectionId;  // the matched trigger's collection
  std::string payloadUrl;
  std::optional<double> lat;
  std::optional<double> lng;
};

// A collection or trigger made at run time (a trigger carries its image), or
// the id of a seed's collection or trigger removed at run time.
struct StoredCatalog {
  struct Item {
    std::string id;
    std::string collectionId;  // triggers only
    std::string json;          // the rest of its fields
    std::string image;         // triggers only
  };
  std::vector<Item> collections;  // in the order they were made
  std::vector<Item> triggers;
  std::set<std::string> removedCollections;
  std::set<std::string> removedTriggers;
};

class Storage {
 public:
  // "" opens a private in-memory database.
  explicit Storage(const std::string& path);
  ~Storage();
  Storage(const Storage&) = delete;
  Storage& operator=(const Storage&) = delete;

  // A token of no expiry (user tokens) has expire 0.
  void putToken(const std::string& token, TokenKind kind, const std::string& subject, double expire);
  // The subject of a token that exists, has that kind and has not expired at now.
  std::optional<std::string> tokenSubject(const std::string& token, TokenKind kind, double now);
  void deleteToken(const std::string& token);
  void deleteUserTokens(std::int64_t userId);

  // The new user's id; nothing when the app already has that e-mail.
  std::optional<std::int64_t> insertUser(const UserRecord& user);
  std::optional<UserRecord> userByEmail(const std::string& appKey, const std::string& email);
  std::optional<UserRecord> userById(std::int64_t id);
  // False when the new e-mail belongs to another user of the app.
  bool updateUser(const UserRecord& user);

  void insertScan(const ScanRecord& scan, const std::string& image, const std::string& imageType);
  // Newest first.
  std::vector<ScanRecord> history(const std::string& appKey, const std::string& appUser, std::int64_t count,
                                  std::int64_t offset);
  std::int64_t historyTotal(const std::string& appKey, const std::string& appUser);
  // The stored bytes and content type of a scan's image.
  std::optional<std::pair<std::string, std::string>> scanImage(const std::string& scanId);

  // Scans of every app and user, newest first.
  std::vector<ScanRecord> recentScans(std::int64_t count);
  // Users and scans held.
  std::pair<std::int64_t, std::int64_t> counts();

  // The catalog's changes made at run time. Removing an item drops what was
  // made under its id; a removed seed id stays removed until reset, so that
  // an item made again under it wins over the seed at the next start.
  StoredCatalog catalogChanges();
  void putCatalogItem(bool trigger, const StoredCatalog::Item& item);
  void removeCatalogItem(bool trigger, const std::string& id, bool fromSeed);

  // Drops users, tokens, history and the catalog's changes.
  void reset();

 private:
  class Statement;
  void exec(const char* sql);

  std::mutex mutex_;
  sqlite3* db_ = nullptr;  // guarded by mutex_
};

}  // namespace zrk::emulator

#endif  // ZRK_EMULATOR_STORAGE_H
