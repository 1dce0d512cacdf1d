// The library itself against the emulator: every endpoint, tokens that
// expire, accounts, persistence across a restart, errors and the request log.
#include <gtest/gtest.h>

#include <map>
#include <thread>

#include "emulator/EmulatorTestSupport.h"
#include "support/LoopbackServer.h"
#include "zrk/ZRKApi.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKScanAPIResponse.h"
#include "zrk/ZRKScanHistory.h"
#include "zrk/ZRKUser.h"
#include "zrk/ZRKUserAPIResponse.h"
#include "zrk/ZRKUserSession.h"

namespace zrk::test {
namespace {

namespace fs = std::filesystem;

using Scan = std::shared_ptr<ZRKScanAPIResponse>;
using Account = std::shared_ptr<ZRKUserAPIResponse>;
using Collections = std::optional<std::vector<std::shared_ptr<ZRKCollection>>>;
using History = std::optional<std::vector<std::shared_ptr<ZRKScanHistory>>>;

constexpr int kWidth = 480, kHeight = 360;

class EmulatorTest : public ::testing::Test {
 protected:
  // Seed: posters/{alpha.jpg, beta.png}, tickets/{gamma.jpg}; photos of the
  // same pictures, and of one that is in no collection.
  static void SetUpTestSuite() {
    files_ = std::make_unique<TemporaryDirectory>();
    const fs::path seed = files_->path() / "seed", photos = files_->path() / "photos";
    const auto alpha = posterPixels(1, kWidth, kHeight), beta = posterPixels(2, kWidth, kHeight),
               gamma = posterPixels(3, kWidth, kHeight), stranger = posterPixels(99, kWidth, kHeight);
    writeFile(seed / "posters" / "collection.json", R"({"name": "Posters"})");
    writeFile(seed / "posters" / "alpha.jpg", encodeJpeg(alpha, kWidth, kHeight));
    writeFile(seed / "posters" / "alpha.json",
              R"({"name": "Alpha", "type": 2, "payloadUrl": "https://example.com/alpha",
                  "payloadData": {"prize": "mug"}, "ocr": ["ALPHA 1"]})");
    writeFile(seed / "posters" / "beta.png", encodePng(beta, kWidth, kHeight));
    writeFile(seed / "tickets" / "gamma.jpg", encodeJpeg(gamma, kWidth, kHeight));
    fs::create_directories(photos);
    fs::copy_file(seed / "posters" / "alpha.jpg", photos / "alpha.jpg");
    fs::copy_file(seed / "posters" / "beta.png", photos / "beta.png");
    writeFile(photos / "gamma.jpg", encodeJpeg(gamma, kWidth, kHeight, 90));
    writeFile(photos / "stranger.jpg", encodeJpeg(stranger, kWidth, kHeight));
  }
  static void TearDownTestSuite() { files_.reset(); }

  void SetUp() override {
    if (ZRKAppConfiguration::sharedConfiguration()->appUserId() != "emulator-user") {
      // A new user id sets off a token request of its own. Aimed where
      // nothing listens (or at this test's emulator, should it go late), it
      // cannot leave behind a token that a later emulator does not know.
      ZRKApiClient::setBaseUrl("http://127.0.0.1:1");
      ZRKApi::initializeWithAppKey("demo-key", "demo-secret", "emulator-user");
    }
    start({});
    ZRKApi::initializeWithAppKey("demo-key", "demo-secret");
  }

  void TearDown() override {
    ZRKApiAuthToken::clear();
    ZRKUserSession::clearSession();
    ZRKApiClient::setUserLocationLatitude(0, 0);
    ZRKApiClient::setBaseUrl(ZRKDefaultBaseURL);
    if (emulator) {
      EXPECT_EQ(emulator->stop(), 0) << "the emulator did not stop cleanly";
    }
  }

  // (Re)starts the emulator with the seed and the arguments; a new one
  // knows no token of the old one unless they share --data.
  void start(std::vector<std::string> arguments, bool keepToken = false) {
    if (emulator) {
      EXPECT_EQ(emulator->stop(), 0) << "the emulator did not stop cleanly";
    }
    arguments.insert(arguments.begin(), {"--seed", (files_->path() / "seed").string()});
    emulator = std::make_unique<EmulatorProcess>(ZRK_EMULATOR_PATH, arguments);
    ZRKApiClient::setBaseUrl(emulator->url());
    if (!keepToken) ZRKApiAuthToken::clear();
  }

  static std::string photo(const std::string& name) { return (files_->path() / "photos" / name).string(); }
  static std::string seedFile(const std::string& path) { return readFile(files_->path() / "seed" / path); }

  Completed<Scan> scanImage(const std::string& name, const std::string& collection = "") {
    const auto image = ZRKImage::imageWithContentsOfFile(photo(name));
    EXPECT_TRUE(image) << name;
    return await<Scan>([&](auto done) { client->scanWithImage(image, collection, done); });
  }
  Completed<Scan> scanUrl(const std::string& url, const std::string& collection = "") {
    return await<Scan>([&](auto done) { client->scanWithUrl(ZRKJson(url), collection, done); });
  }
  Completed<Collections> collections() {
    return await<Collections>([&](auto done) { client->retrieveCollectionsWithCompletion(done); });
  }
  Completed<History> history(ZRKInteger count, ZRKInteger offset) {
    return await<History>([&](auto done) { client->retrieveScanHistoryWithCount(count, offset, done); });
  }
  // One request of the account group, by its operation.
  Completed<Account> account(void (ZRKApiClient::*operation)(std::shared_ptr<const ZRKUser>, ZRKUserCompletion),
                             const std::shared_ptr<const ZRKUser>& user) {
    return await<Account>([&](auto done) { ((*client).*operation)(user, done); });
  }

  static std::shared_ptr<ZRKUser> ann(const std::string& password = "pw-ann-1") {
    return ZRKUser::initFromDictionary({{"email", "ann@example.com"}, {"name", "Ann"}, {"password", password}});
  }

  std::shared_ptr<ZRKApiClient> client = ZRKApiClient::sharedClient();
  std::unique_ptr<EmulatorProcess> emulator;
  static inline std::unique_ptr<TemporaryDirectory> files_;
};

TEST_F(EmulatorTest, ListsTheSeedsCollectionsWithImagesItServes) {
  const auto listed = collections();
  ASSERT_TRUE(listed.ok && listed.value) << (listed.error ? listed.error->localizedDescription() : "");
  std::map<std::string, std::string> names;
  for (const auto& collection : *listed.value)
    names[collection->collectionId().value_or("?")] = collection->name().value_or("?");
  EXPECT_EQ(names, (std::map<std::string, std::string>{{"posters", "Posters"}, {"tickets", "tickets"}}));

  // The first trigger stands for its collection, served by the emulator.
  const std::string imageUrl = listed.value->at(0)->imageUrl().value_or("");
  ASSERT_TRUE(imageUrl.starts_with(emulator->url() + "/files/")) << imageUrl;
  const auto image = RawClient(emulator->url()).get(imageUrl.substr(emulator->url().size()));
  ASSERT_TRUE(image);
  EXPECT_EQ(image->status, 200);
  EXPECT_EQ(image->get_header_value("Content-Type"), "image/jpeg");
  EXPECT_EQ(image->body, seedFile("posters/alpha.jpg"));
}

TEST_F(EmulatorTest, AnImageScanFindsTheTriggerItShows) {
  struct Case {
    std::string photo, collection, trigger;  // "" trigger: no match
  };
  const Case cases[] = {
      {"alpha.jpg", "", "alpha"},   {"beta.png", "", "beta"}, {"gamma.jpg", "tickets", "gamma"},
      {"gamma.jpg", "posters", ""}, {"stranger.jpg", "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.photo + " in \"" + c.collection + "\"");
    const auto scan = scanImage(c.photo, c.collection);
    ASSERT_TRUE(scan.ok && scan.value) << (scan.error ? scan.error->localizedDescription() : "");
    EXPECT_FALSE(scan.value->scanId().value_or("").empty());
    EXPECT_GT(scan.value->timestamp(), 1600000000);
    if (c.trigger.empty()) {
      EXPECT_EQ(scan.value->score(), 0);
      EXPECT_FALSE(scan.value->triggerId());
      continue;
    }
    EXPECT_EQ(scan.value->triggerId(), c.trigger);
    EXPECT_GT(scan.value->score(), 0);
    EXPECT_LE(scan.value->score(), 100);
    EXPECT_EQ(scan.value->thumbnailUrl(), emulator->url() + "/files/triggers/" + c.trigger);
  }

  // What a trigger's own JSON says comes back with its match; structured
  // payload data travels as text, since that is all the client reads.
  const auto alpha = scanImage("alpha.jpg");
  ASSERT_TRUE(alpha.value);
  EXPECT_EQ(alpha.value->triggerName(), "Alpha");
  EXPECT_EQ(alpha.value->triggerType(), 2u);
  EXPECT_EQ(alpha.value->payloadUrl(), "https://example.com/alpha");
  EXPECT_EQ(alpha.value->payloadData(), R"({"prize":"mug"})");
  EXPECT_EQ(alpha.value->ocrData(), ZRKJson::array({"ALPHA 1"}));
  const auto beta = scanImage("beta.png");
  ASSERT_TRUE(beta.value);
  EXPECT_EQ(beta.value->triggerName(), "beta");
  EXPECT_EQ(beta.value->ocrData(), ZRKJson::array());
}

TEST_F(EmulatorTest, AUrlScanFetchesFromLoopbackOnly) {
  LoopbackServer images;
  images.answer({.body = readFile(photo("gamma.jpg")), .contentType = "image/jpeg"});
  const auto fromElsewhere = scanUrl(images.url() + "/gamma.jpg", "tickets");
  ASSERT_TRUE(fromElsewhere.value) << (fromElsewhere.error ? fromElsewhere.error->localizedDescription() : "");
  EXPECT_EQ(fromElsewhere.value->triggerId(), "gamma");
  ASSERT_EQ(images.count(), 1u);
  EXPECT_EQ(images.requests()[0].path, "/gamma.jpg");

  const auto fromItself = scanUrl(emulator->url() + "/files/triggers/alpha");
  ASSERT_TRUE(fromItself.value);
  EXPECT_EQ(fromItself.value->triggerId(), "alpha");

  struct Refusal {
    std::string url, collection;
    long code;
  };
  const Refusal refusals[] = {
      {"http://192.0.2.7/poster.jpg", "", 403},  // not loopback: never fetched
      {"ftp://127.0.0.1/poster.jpg", "", 400},
      {images.url() + "/gamma.jpg", "no-such-collection", 404},
      {emulator->url() + "/files/triggers/nobody", "", 422},
  };
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.url);
    const auto scan = scanUrl(refusal.url, refusal.collection);
    EXPECT_FALSE(scan.value);
    ASSERT_TRUE(scan.error);
    EXPECT_EQ(scan.error->domain, ZRKDomain);
    EXPECT_EQ(scan.error->code, refusal.code);
  }
  EXPECT_EQ(images.count(), 1u);
}

TEST_F(EmulatorTest, HistoryPagesNewestFirstWithThePositionSent) {
  ZRKApiClient::setUserLocationLatitude(48.85f, 2.35f);
  for (const char* name : {"alpha.jpg", "stranger.jpg", "gamma.jpg"}) ASSERT_TRUE(scanImage(name).value);

  const auto first = history(2, 0);
  ASSERT_TRUE(first.value) << (first.error ? first.error->localizedDescription() : "");
  ASSERT_EQ(first.value->size(), 2u);
  const auto& newest = *first.value->at(0);
  EXPECT_TRUE(newest.matched());
  EXPECT_EQ(newest.campaignId(), "tickets");
  EXPECT_EQ(newest.thumbnailUrl(), emulator->url() + "/files/triggers/gamma");
  EXPECT_FALSE(first.value->at(1)->matched());
  EXPECT_EQ(newest.lat(), "48");
  EXPECT_EQ(newest.lng(), "2");

  // The scanned photo itself is kept and served.
  const std::string imageUrl = newest.imageUrl().value_or("");
  ASSERT_TRUE(imageUrl.starts_with(emulator->url() + "/files/scans/")) << imageUrl;
  const auto stored = RawClient(emulator->url()).get(imageUrl.substr(emulator->url().size()));
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->status, 200);
  EXPECT_TRUE(stored->body.starts_with("\xFF\xD8\xFF"));

  const auto rest = history(2, 2);
  ASSERT_TRUE(rest.value);
  ASSERT_EQ(rest.value->size(), 1u);
  EXPECT_EQ(rest.value->at(0)->campaignId(), "posters");
  const auto all = history(0, 0);  // the library asks for 20
  ASSERT_TRUE(all.value);
  EXPECT_EQ(all.value->size(), 3u);

  // Another end user of the app has a history of their own. (Asked
  // directly: switching the library's user id would start a token request
  // that could outlive the test.)
  RawClient raw(emulator->url());
  const auto theirs = raw.get("/app/v1/history", {{"Authorization", raw.bearer()}, {"ZRK-User-Id", "someone-else"}});
  ASSERT_TRUE(theirs);
  EXPECT_EQ(ZRKJson::parse(theirs->body)["total"], 0);
}

TEST_F(EmulatorTest, AnAccountRegistersLogsInChangesAndLogsOut) {
  const auto registered = account(&ZRKApiClient::registerUser, ann());
  ASSERT_TRUE(registered.value) << (registered.error ? registered.error->localizedDescription() : "");
  EXPECT_EQ(registered.value->email(), "ann@example.com");
  EXPECT_FALSE(registered.value->token().value_or("").empty());
  const auto again = account(&ZRKApiClient::registerUser, ann());
  ASSERT_TRUE(again.error);
  EXPECT_EQ(again.error->code, 409);

  const auto wrong = account(&ZRKApiClient::loginUser, ann("not-it"));
  ASSERT_TRUE(wrong.error);
  EXPECT_EQ(wrong.error->code, 401);
  EXPECT_EQ(ZRKUserSession::currentSession()->userToken(), "");

  const auto login = account(&ZRKApiClient::loginUser, ann());
  ASSERT_TRUE(login.value);
  const std::string token = login.value->token().value_or("");
  ASSERT_FALSE(token.empty());
  EXPECT_NE(token, registered.value->token());
  EXPECT_EQ(ZRKUserSession::currentSession()->userToken(), token);

  // Later requests carry the session's token, which names the account.
  const auto own = account(&ZRKApiClient::createUserAPIGetRequest, nullptr);
  ASSERT_TRUE(own.value) << (own.error ? own.error->localizedDescription() : "");
  EXPECT_EQ(own.value->name(), "Ann");
  auto changed = ann();
  changed->setZRKUserName("Ann B.");
  changed->setZRKUserGender("female");
  const auto updated = account(&ZRKApiClient::updateUserProfile, changed);
  ASSERT_TRUE(updated.value) << (updated.error ? updated.error->localizedDescription() : "");
  EXPECT_EQ(updated.value->name(), "Ann B.");
  changed->setZRKUserAvatar("https://example.com/ann.png");
  const auto avatar = await<Account>([&](auto done) { client->updateUserAvatar(changed, nullptr, done); });
  ASSERT_TRUE(avatar.value) << (avatar.error ? avatar.error->localizedDescription() : "");
  const auto retrieved = await<Account>([&](auto done) { client->retrieveUser(token, done); });
  ASSERT_TRUE(retrieved.value);
  EXPECT_EQ(retrieved.value->name(), "Ann B.");
  EXPECT_EQ(retrieved.value->gender(), "female");
  EXPECT_EQ(retrieved.value->avatar(), "https://example.com/ann.png");

  // Logging out answers twice (at once, then with the answer) and revokes the token.
  const auto logout = await<Account>([&](auto done) { client->logoutUser(changed, done); }, 2);
  ASSERT_TRUE(logout.value) << (logout.error ? logout.error->localizedDescription() : "");
  EXPECT_EQ(ZRKUserSession::currentSession()->userToken(), "");
  const auto revoked = await<Account>([&](auto done) { client->retrieveUser(token, done); });
  ASSERT_TRUE(revoked.error);
  EXPECT_EQ(revoked.error->code, 401);
}

TEST_F(EmulatorTest, AnExpiredAppTokenIsRefusedAndTheLibraryFetchesANewOne) {
  start({"--token-ttl", "1"});
  ASSERT_TRUE(collections().value);
  const std::string first = ZRKApiAuthToken::token()->tokenString().value_or("");
  ASSERT_FALSE(first.empty());
  for (int i = 0; i < 100 && !ZRKApiAuthToken::token()->expired(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ASSERT_TRUE(ZRKApiAuthToken::token()->expired());

  RawClient raw(emulator->url());
  const auto refused = raw.get("/app/v1/collection", {{"Authorization", "Bearer " + base64(first)}});
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->status, 401);

  ASSERT_TRUE(collections().value);
  EXPECT_NE(ZRKApiAuthToken::token()->tokenString(), first);
  int authentications = 0;
  const ZRKJson log = raw.requestLog();
  for (const auto& entry : log["requests"]) authentications += entry["path"] == "/app/v1/auth";
  EXPECT_EQ(authentications, 2) << log.dump(1);
}

TEST_F(EmulatorTest, AWrongSecretReachesTheCompletionAs401) {
  ZRKApi::initializeWithAppKey("demo-key", "not-the-secret");
  const auto listed = collections();
  ASSERT_TRUE(listed.error);
  EXPECT_EQ(listed.error->domain, ZRKDomain);
  EXPECT_EQ(listed.error->code, 401);
  const auto scan = scanImage("alpha.jpg");
  ASSERT_TRUE(scan.error);
  EXPECT_EQ(scan.error->code, 401);

  // Apps given on the command line replace the demo app.
  start({"--app", "shop:s3cret", "--app", "kiosk:k3y"});
  ZRKApi::initializeWithAppKey("kiosk", "k3y");
  EXPECT_TRUE(collections().value);
  ZRKApi::initializeWithAppKey("demo-key", "demo-secret");
  ASSERT_TRUE(collections().error);
}

TEST_F(EmulatorTest, ARestartWithTheSameDataKeepsAccountsHistoryAndTokens) {
  TemporaryDirectory data;
  const std::string file = (data.path() / "emulator.sqlite").string();
  start({"--data", file});
  ASSERT_TRUE(account(&ZRKApiClient::registerUser, ann()).value);
  ASSERT_TRUE(account(&ZRKApiClient::loginUser, ann()).value);
  ASSERT_TRUE(scanImage("alpha.jpg").value);

  start({"--data", file}, true);
  // The library still holds its app token and the user's; both still count.
  const auto own = account(&ZRKApiClient::createUserAPIGetRequest, nullptr);
  ASSERT_TRUE(own.value) << (own.error ? own.error->localizedDescription() : "");
  EXPECT_EQ(own.value->email(), "ann@example.com");
  const auto kept = history(10, 0);
  ASSERT_TRUE(kept.value);
  ASSERT_EQ(kept.value->size(), 1u);
  EXPECT_TRUE(kept.value->at(0)->matched());
  const auto image =
      RawClient(emulator->url()).get(kept.value->at(0)->imageUrl().value_or("").substr(emulator->url().size()));
  ASSERT_TRUE(image);
  EXPECT_EQ(image->status, 200);
  EXPECT_TRUE(account(&ZRKApiClient::loginUser, ann()).value);

  // Without the file nothing is left.
  start({});
  EXPECT_EQ(account(&ZRKApiClient::loginUser, ann()).error.value_or(ZRKError()).code, 401);
}

TEST_F(EmulatorTest, ResetDropsAccountsHistoryAndTokensButKeepsTheSeed) {
  ASSERT_TRUE(account(&ZRKApiClient::registerUser, ann()).value);
  ASSERT_TRUE(scanImage("alpha.jpg").value);
  RawClient raw(emulator->url());
  const auto reset = raw.send("POST", "/__emulator/reset", {}, "", "application/json");
  ASSERT_TRUE(reset);
  EXPECT_EQ(reset->status, 200);

  EXPECT_EQ(collections().error.value_or(ZRKError()).code, 401);  // the app token went too
  ZRKApiAuthToken::clear();
  const auto listed = collections();
  ASSERT_TRUE(listed.value);
  EXPECT_EQ(listed.value->size(), 2u);
  const auto emptied = history(10, 0);
  ASSERT_TRUE(emptied.value);
  EXPECT_TRUE(emptied.value->empty());
  EXPECT_EQ(account(&ZRKApiClient::loginUser, ann()).error.value_or(ZRKError()).code, 401);
}

TEST_F(EmulatorTest, TheRequestLogShowsWhatTheLibrarySent) {
  ASSERT_TRUE(collections().value);
  ASSERT_TRUE(scanImage("alpha.jpg", "posters").value);
  const std::string bearer = "Bearer " + base64(ZRKApiAuthToken::token()->tokenString().value_or(""));

  const ZRKJson log = RawClient(emulator->url()).requestLog();
  std::vector<std::string> lines;
  const ZRKJson* scan = nullptr;
  for (const auto& entry : log["requests"]) {
    lines.push_back(entry["method"].get<std::string>() + " " + entry["path"].get<std::string>() + " " +
                    std::to_string(entry["status"].get<int>()));
    if (entry["path"] == "/app/v1/scan/posters") scan = &entry;
  }
  EXPECT_EQ(lines, (std::vector<std::string>{"POST /app/v1/auth 200", "GET /app/v1/collection 200",
                                             "POST /app/v1/scan/posters 200"}));
  ASSERT_TRUE(scan);
  std::map<std::string, std::string> headers;
  for (const auto& pair : (*scan)["headers"]) headers[pair[0]] = pair[1];
  EXPECT_EQ(headers["Authorization"], bearer);
  EXPECT_EQ(headers["ZRK-User-Id"], "emulator-user");
  EXPECT_EQ(headers["Pelmor-User-Id"], "emulator-user");
  EXPECT_TRUE(headers["Content-Type"].starts_with("multipart/form-data; boundary=ZRKApi-iOS-"))
      << headers["Content-Type"];
  EXPECT_EQ(std::to_string((*scan)["bodySize"].get<long>()), headers["Content-Length"]);
  EXPECT_GT((*scan)["bodySize"].get<long>(), 10000);
}

TEST_F(EmulatorTest, FaultDrillsAnswer503) {
  start({"--fail-rate", "1", "--latency-ms", "20"});
  const auto listed = collections();
  ASSERT_TRUE(listed.error);
  EXPECT_EQ(listed.error->code, 503);
  // The emulator's own routes are no part of the drill.
  const auto health = RawClient(emulator->url()).get("/__emulator/health");
  ASSERT_TRUE(health);
  EXPECT_EQ(health->status, 200);
}

}  // namespace
}  // namespace zrk::test
