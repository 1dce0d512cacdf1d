#include "Storage.h"

#include <sqlite3.h>

#include <ctime>
#include <stdexcept>

namespace zrk::emulator {

namespace {

const char* const kSchema = R"(
CREATE TABLE IF NOT EXISTS tokens (
  token   TEXT PRIMARY KEY,
  kind    INTEGER NOT NULL,
  subject TEXT NOT NULL,
  expire  REAL NOT NULL
);
CREATE TABLE IF NOT EXISTS users (
  id            INTEGER PRIMARY KEY AUTOINCREMENT,
  app_key       TEXT NOT NULL,
  email         TEXT NOT NULL COLLATE NOCASE,
  name          TEXT NOT NULL,
  password_hash TEXT NOT NULL,
  birthdate     TEXT,
  gender        TEXT,
  avatar        TEXT,
  UNIQUE (app_key, email)
);
CREATE TABLE IF NOT EXISTS scans (
  seq           INTEGER PRIMARY KEY AUTOINCREMENT,
  id            TEXT NOT NULL UNIQUE,
  app_key       TEXT NOT NULL,
  app_user      TEXT NOT NULL,
  timestamp     INTEGER NOT NULL,
  matched       INTEGER NOT NULL,
  trigger_id    TEXT NOT NULL,
  collection_id TEXT NOT NULL,
  payload_url   TEXT NOT NULL,
  lat           REAL,
  lng           REAL,
  image         BLOB NOT NULL,
  image_type    TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS scans_by_user ON scans (app_key, app_user, seq);
CREATE TABLE IF NOT EXISTS catalog_items (
  seq           INTEGER PRIMARY KEY AUTOINCREMENT,
  is_trigger    INTEGER NOT NULL,
  id            TEXT NOT NULL,
  collection_id TEXT NOT NULL,
  json          TEXT NOT NULL,
  image         BLOB NOT NULL,
  UNIQUE (is_trigger, id)
);
CREATE TABLE IF NOT EXISTS catalog_removed (is_trigger INTEGER NOT NULL, id TEXT NOT NULL, PRIMARY KEY (is_trigger, id));
)";

[[noreturn]] void fail(sqlite3* db, const std::string& what) {
  throw std::runtime_error(what + ": " + (db ? sqlite3_errmsg(db) : "out of memory"));
}

}  // namespace

// A prepared statement that binds by position and finalizes itself.
class Storage::Statement {
 public:
  Statement(sqlite3* db, const char* sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK) fail(db, "prepare");
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& bind(const std::string& text) {
    check(sqlite3_bind_text(statement_, ++index_, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT));
    return *this;
  }
  Statement& bind(const std::optional<std::string>& text) {
    if (!text) {
      check(sqlite3_bind_null(statement_, ++index_));
      return *this;
    }
    return bind(*text);
  }
  Statement& bind(std::int64_t value) {
    check(sqlite3_bind_int64(statement_, ++index_, value));
    return *this;
  }
  Statement& bind(double value) {
    check(sqlite3_bind_double(statement_, ++index_, value));
    return *this;
  }
  Statement& bind(const std::optional<double>& value) {
    if (!value) {
      check(sqlite3_bind_null(statement_, ++index_));
      return *this;
    }
    return bind(*value);
  }
  Statement& bindBlob(const std::string& bytes) {
    check(sqlite3_bind_blob(statement_, ++index_, bytes.data(), static_cast<int>(bytes.size()), SQLITE_TRANSIENT));
    return *this;
  }

  // True while there is a row; false when done.
  bool step() {
    const int result = sqlite3_step(statement_);
    if (result == SQLITE_ROW) return true;
    if (result == SQLITE_DONE) return false;
    if (result == SQLITE_CONSTRAINT) throw Conflict();
    fail(db_, "step");
  }

  std::string text(int column) const {
    const auto* data = static_cast<const char*>(sqlite3_column_blob(statement_, column));
    return data ? std::string(data, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))) : std::string();
  }
  std::optional<std::string> optionalText(int column) const {
    if (sqlite3_column_type(statement_, column) == SQLITE_NULL) return std::nullopt;
    return text(column);
  }
  std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
  std::optional<double> optionalReal(int column) const {
    if (sqlite3_column_type(statement_, column) == SQLITE_NULL) return std::nullopt;
    return sqlite3_column_double(statement_, column);
  }

  struct Conflict {};

 private:
  void check(int result) {
    if (result != SQLITE_OK) fail(db_, "bind");
  }
  sqlite3* db_;
  sqlite3_stmt* statement_ = nullptr;
  int index_ = 0;
};

Storage::Storage(const std::string& path) {
  const std::string name = path.empty() ? ":memory:" : path;
  if (sqlite3_open_v2(name.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr) !=
      SQLITE_OK) {
    const std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    throw std::runtime_error("cannot open " + name + ": " + message);
  }
  try {
    // Another process (an earlier emulator not yet gone) may still hold the file.
    sqlite3_busy_timeout(db_, 2000);
    exec("PRAGMA journal_mode = WAL");
    exec(kSchema);
  } catch (...) {
    sqlite3_close(db_);
    throw;
  }
}

Storage::~Storage() { sqlite3_close(db_); }

void Storage::exec(const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    const std::string text = message ? message : "unknown error";
    sqlite3_free(message);
    throw std::runtime_error("database: " + text);
  }
}

void Storage::putToken(const std::string& token, TokenKind kind, const std::string& subject, double expire) {
  std::lock_guard lock(mutex_);
  // Expired app tokens are of no use to anyone; sweeping here keeps the table small.
  Statement sweep(db_, "DELETE FROM tokens WHERE expire > 0 AND expire < ?");
  sweep.bind(static_cast<double>(std::time(nullptr))).step();
  Statement insert(db_, "INSERT OR REPLACE INTO tokens (token, kind, subject, expire) VALUES (?, ?, ?, ?)");
  insert.bind(token).bind(static_cast<std::int64_t>(kind)).bind(subject).bind(expire).step();
}

std::optional<std::string> Storage::tokenSubject(const std::string& token, TokenKind kind, double now) {
  std::lock_guard lock(mutex_);
  Statement select(db_, "SELECT subject FROM tokens WHERE token = ? AND kind = ? AND (expire = 0 OR expire > ?)");
  select.bind(token).bind(static_cast<std::int64_t>(kind)).bind(now);
  if (!select.step()) return std::nullopt;
  return select.text(0);
}

void Storage::deleteToken(const std::string& token) {
  std::lock_guard lock(mutex_);
  Statement(db_, "DELETE FROM tokens WHERE token = ?").bind(token).step();
}

void Storage::deleteUserTokens(std::int64_t userId) {
  std::lock_guard lock(mutex_);
  Statement(db_, "DELETE FROM tokens WHERE kind = ? AND subject = ?")
      .bind(static_cast<std::int64_t>(TokenKind::user))
      .bind(std::to_string(userId))
      .step();
}

std::optional<std::int64_t> Storage::insertUser(const UserRecord& user) {
  std::lock_guard lock(mutex_);
  Statement insert(db_,
                   "INSERT INTO users (app_key, email, name, password_hash, birthdate, gender, avatar) "
                   "VALUES (?, ?, ?, ?, ?, ?, ?)");
  insert.bind(user.appKey).bind(user.email).bind(user.name).bind(user.passwordHash);
  insert.bind(user.birthdate).bind(user.gender).bind(user.avatar);
  try {
    insert.step();
  } catch (const Statement::Conflict&) {
    return std::nullopt;
  }
  return sqlite3_last_insert_rowid(db_);
}

namespace {
constexpr const char* kUserColumns = "id, app_key, email, name, password_hash, birthdate, gender, avatar";
}  // namespace

std::optional<UserRecord> Storage::userByEmail(const std::string& appKey, const std::string& email) {
  std::lock_guard lock(mutex_);
  const std::string sql = std::string("SELECT ") + kUserColumns + " FROM users WHERE app_key = ? AND email = ?";
  Statement select(db_, sql.c_str());
  select.bind(appKey).bind(email);
  if (!select.step()) return std::nullopt;
  return UserRecord{select.integer(0), select.text(1),         select.text(2),         select.text(3),
                    select.text(4),    select.optionalText(5), select.optionalText(6), select.optionalText(7)};
}

std::optional<UserRecord> Storage::userById(std::int64_t id) {
  std::lock_guard lock(mutex_);
  const std::string sql = std::string("SELECT ") + kUserColumns + " FROM users WHERE id = ?";
  Statement select(db_, sql.c_str());
  select.bind(id);
  if (!select.step()) return std::nullopt;
  return UserRecord{select.integer(0), select.text(1),         select.text(2),         select.text(3),
                    select.text(4),    select.optionalText(5), select.optionalText(6), select.optionalText(7)};
}

bool Storage::updateUser(const UserRecord& user) {
  std::lock_guard lock(mutex_);
  Statement update(db_,
                   "UPDATE users SET email = ?, name = ?, password_hash = ?, birthdate = ?, gender = ?, avatar = ? "
                   "WHERE id = ?");
  update.bind(user.email).bind(user.name).bind(user.passwordHash).bind(user.birthdate).bind(user.gender);
  update.bind(user.avatar).bind(user.id);
  try {
    update.step();
  } catch (const Statement::Conflict&) {
    return false;
  }
  return true;
}

void Storage::insertScan(const ScanRecord& scan, const std::string& image, const std::string& imageType) {
  std::lock_guard lock(mutex_);
  Statement insert(db_,
                   "INSERT INTO scans (id, app_key, app_user, timestamp, matched, trigger_id, collection_id, "
                   "payload_url, lat, lng, image, image_type) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  insert.bind(scan.id).bind(scan.appKey).bind(scan.appUser).bind(scan.timestamp);
  insert.bind(static_cast<std::int64_t>(scan.matched)).bind(scan.triggerId).bind(scan.collectionId);
  insert.bind(scan.payloadUrl).bind(scan.lat).bind(scan.lng).bindBlob(image).bind(imageType);
  insert.step();
}

std::vector<ScanRecord> Storage::history(const std::string& appKey, const std::string& appUser, std::int64_t count,
                                         std::int64_t offset) {
  std::lock_guard lock(mutex_);
  Statement select(db_,
                   "SELECT id, timestamp, matched, trigger_id, collection_id, payload_url, lat, lng FROM scans "
                   "WHERE app_key = ? AND app_user = ? ORDER BY seq DESC LIMIT ? OFFSET ?");
  select.bind(appKey).bind(appUser).bind(count).bind(offset);
  std::vector<ScanRecord> scans;
  while (select.step()) {
    ScanRecord scan;
    scan.id = select.text(0);
    scan.appKey = appKey;
    scan.appUser = appUser;
    scan.timestamp = select.integer(1);
    scan.matched = select.integer(2) != 0;
    scan.triggerId = select.text(3);
    scan.collectionId = select.text(4);
    scan.payloadUrl = select.text(5);
    scan.lat = select.optionalReal(6);
    scan.lng = select.optionalReal(7);
    scans.push_back(std::move(scan));
  }
  return scans;
}

std::int64_t Storage::historyTotal(const std::string& appKey, const std::string& appUser) {
  std::lock_guard lock(mutex_);
  Statement count(db_, "SELECT COUNT(*) FROM scans WHERE app_key = ? AND app_user = ?");
  count.bind(appKey).bind(appUser);
  return count.step() ? count.integer(0) : 0;
}

std::optional<std::pair<std::string, std::string>> Storage::scanImage(const std::string& scanId) {
  std::lock_guard lock(mutex_);
  Statement select(db_, "SELECT image, image_type FROM scans WHERE id = ?");
  select.bind(scanId);
  if (!select.step()) return std::nullopt;
  return std::make_pair(select.text(0), select.text(1));
}

std::vector<ScanRecord> Storage::recentScans(std::int64_t count) {
  std::vector<ScanRecord> scans;
  std::lock_guard lock(mutex_);
  Statement select(db_,
                   "SELECT id, app_key, app_user, timestamp, matched, trigger_id, collection_id FROM scans "
                   "ORDER BY seq DESC LIMIT ?");
  select.bind(count);
  while (select.step()) {
    ScanRecord scan;
    scan.id = select.text(0);
    scan.appKey = select.text(1);
    scan.appUser = select.text(2);
    scan.timestamp = select.integer(3);
    scan.matched = select.integer(4) != 0;
    scan.triggerId = select.text(5);
    scan.collectionId = select.text(6);
    scans.push_back(std::move(scan));
  }
  return scans;
}

std::pair<std::int64_t, std::int64_t> Storage::counts() {
  std::lock_guard lock(mutex_);
  Statement count(db_, "SELECT (SELECT COUNT(*) FROM users), (SELECT COUNT(*) FROM scans)");
  count.step();
  return {count.integer(0), count.integer(1)};
}

StoredCatalog Storage::catalogChanges() {
  StoredCatalog stored;
  std::lock_guard lock(mutex_);
  Statement items(db_, "SELECT is_trigger, id, collection_id, json, image FROM catalog_items ORDER BY seq");
  while (items.step()) {
    auto& list = items.integer(0) ? stored.triggers : stored.collections;
    list.push_back({items.text(1), items.text(2), items.text(3), items.text(4)});
  }
  Statement removed(db_, "SELECT is_trigger, id FROM catalog_removed");
  while (removed.step()) (removed.integer(0) ? stored.removedTriggers : stored.removedCollections).insert(removed.text(1));
  return stored;
}

void Storage::putCatalogItem(bool trigger, const StoredCatalog::Item& item) {
  std::lock_guard lock(mutex_);
  const auto kind = static_cast<std::int64_t>(trigger);
  Statement insert(db_,
                   "INSERT OR REPLACE INTO catalog_items (is_trigger, id, collection_id, json, image) "
                   "VALUES (?, ?, ?, ?, ?)");
  insert.bind(kind).bind(item.id).bind(item.collectionId).bind(item.json).bindBlob(item.image).step();
}

void Storage::removeCatalogItem(bool trigger, const std::string& id, bool fromSeed) {
  std::lock_guard lock(mutex_);
  const auto kind = static_cast<std::int64_t>(trigger);
  Statement(db_, "DELETE FROM catalog_items WHERE is_trigger = ? AND id = ?").bind(kind).bind(id).step();
  if (fromSeed) {
    Statement(db_, "INSERT OR IGNORE INTO catalog_removed (is_trigger, id) VALUES (?, ?)").bind(kind).bind(id).step();
  }
}

void Storage::reset() {
  std::lock_guard lock(mutex_);
  exec("DELETE FROM tokens; DELETE FROM users; DELETE FROM scans; DELETE FROM catalog_items; "
       "DELETE FROM catalog_removed;");
}

}  // namespace zrk::emulator
