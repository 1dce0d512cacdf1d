#include <gtest/gtest.h>

#include <chrono>

#include "support/LoopbackServer.h"
#include "support/MainQueueWait.h"
#include "support/ServiceTest.h"
#include "zrk/ZRKApi.h"
#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKCategoryLoader.h"
#include "zrk/ZRKDevice.h"

namespace zrk {
namespace {

using test::LoopbackServer;
using test::ScriptedResponse;

using test::validToken;

TEST(ApiFacade, ReportsItsVersions) {
  EXPECT_EQ(ZRKApi::sdkVersion(), "1.0.0");
  EXPECT_EQ(ZRKApi::apiVersion(), "v1");
  EXPECT_EQ(ZRKApiClient::apiVersion(), "v1");
  EXPECT_EQ(ZRKApi::sharedApiClient(), ZRKApiClient::sharedClient());
  ZRKCategoryLoader::loadCategories();
}

TEST(ApiClient, StartsWithDefaultsAndEmptyCredentials) {
  const auto client = ZRKApiClient::initWithConfiguration(ZRKAppConfiguration::init());
  EXPECT_EQ(client->userGender(), 1u);
  EXPECT_EQ(client->userAge(), 0);
  EXPECT_EQ(client->userLat(), 0.0f);
  EXPECT_EQ(client->userLng(), 0.0f);
  EXPECT_EQ(client->apiURL()->absoluteString(), ZRKDefaultBaseURL);
  EXPECT_EQ(client->apiURL()->path(), "");
  EXPECT_EQ(client->appKey(), "");
  EXPECT_EQ(client->appSecret(), "");
  EXPECT_EQ(client->configuration()->appUserId(), ZRKDevice::defaultUserId());
  EXPECT_EQ(client->description(), "appKey () appSecret ()");
  EXPECT_EQ(&client->urlSession()->delegateQueue(), &ZRKMainQueue::mainQueue());
}

TEST(ApiClient, HoldsItsConfigurationByReferenceButCopiesOneItIsGiven) {
  const auto configuration = ZRKAppConfiguration::init();
  const auto client = ZRKApiClient::initWithConfiguration(configuration);
  configuration->setAppKey("k1");
  configuration->setAppSecret("s1");
  EXPECT_EQ(client->appKey(), "k1");
  EXPECT_EQ(client->description(), "appKey (k1) appSecret (s1)");

  client->setConfiguration(configuration);
  configuration->setAppKey("k2");
  EXPECT_EQ(client->appKey(), "k1");
  EXPECT_NE(client->configuration(), configuration);
}

TEST(AppConfiguration, DescribesItselfAndDefaultsTheUserId) {
  const auto configuration = ZRKAppConfiguration::init();
  EXPECT_EQ(configuration->description(), "appID: (null)\nappSecret: (null) appUserId: " + ZRKDevice::defaultUserId());
  configuration->setAppUserId(std::nullopt);
  EXPECT_EQ(configuration->appUserId(), ZRKDevice::defaultUserId());
  const std::string id = ZRKDevice::defaultUserId();
  ASSERT_EQ(id.size(), 36u);
  for (char c : id) EXPECT_TRUE(c == '-' || (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F')) << id;
}

// Credentials and user id reset the token cache only in the defined cases.
class TokenResetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server.answer({.body = R"({"token":"fresh","expire":4102444800,"expireIn":60})"});
    ZRKApiClient::setBaseUrl(server.url());
  }
  void TearDown() override {
    // Let any background authentication finish before the server goes.
    test::runMainQueueUntil([] { return false; }, std::chrono::milliseconds(200));
    ZRKApiAuthToken::clear();
  }
  LoopbackServer server;
};

TEST_F(TokenResetTest, TwoArgumentInitialisationAlwaysClears) {
  ZRKApiAuthToken::setToken(validToken("kept"));
  ZRKApi::initializeWithAppKey("key", "secret");
  EXPECT_FALSE(ZRKApiAuthToken::token()->isValid());
  EXPECT_EQ(ZRKApiAuthToken::token()->tokenString(), "");
  EXPECT_EQ(ZRKApiClient::sharedClient()->appKey(), "key");
}

TEST_F(TokenResetTest, ThreeArgumentInitialisationClearsOnlyOnANewUserId) {
  // Coming from the default id, this one is new and fetches a token.
  ZRKApi::initializeWithAppKey("key", "secret", "user-1");
  test::runMainQueueUntil([] { return ZRKApiAuthToken::token()->isValid(); }, std::chrono::seconds(2));
  ZRKApiAuthToken::setToken(validToken("kept"));
  ZRKApi::initializeWithAppKey("key2", "secret2", "user-1");
  EXPECT_EQ(ZRKApiAuthToken::token()->tokenString(), "kept");
  EXPECT_EQ(ZRKApiClient::sharedClient()->appSecret(), "secret2");

  ZRKApi::initializeWithAppKey("key2", "secret2", std::nullopt);
  EXPECT_EQ(ZRKAppConfiguration::sharedConfiguration()->appUserId(), ZRKDevice::defaultUserId());
  EXPECT_EQ(ZRKApiAuthToken::token()->tokenString(), "kept");

  // A new id clears the cache and fetches a new token in the background.
  const std::size_t before = server.count();
  ZRKApi::initializeWithAppKey("key2", "secret2", "user-2");
  ASSERT_TRUE(server.waitForRequests(before + 1));
  const auto auth = server.requests().at(before);
  EXPECT_EQ(auth.method, "POST");
  EXPECT_EQ(auth.target, "/app/v1/auth");
  EXPECT_EQ(auth.body, R"({"key":"key2","secret":"secret2"})");
  ASSERT_TRUE(test::runMainQueueUntil([] { return ZRKApiAuthToken::token()->isValid(); }));
  EXPECT_EQ(ZRKApiAuthToken::token()->tokenString(), "fresh");
}

TEST_F(TokenResetTest, CopyingAConfigurationRunsTheUserIdSetter) {
  ZRKApiAuthToken::setToken(validToken("kept"));
  const auto configuration = ZRKAppConfiguration::init();
  configuration->setAppUserId("someone");  // a fresh configuration: clears
  ASSERT_TRUE(server.waitForRequests(1));
  test::runMainQueueUntil([] { return ZRKApiAuthToken::token()->isValid(); });
  ZRKApiAuthToken::setToken(validToken("kept"));
  const auto client = ZRKApiClient::initWithConfiguration(ZRKAppConfiguration::init());
  client->setConfiguration(configuration);
  EXPECT_EQ(client->configuration()->appUserId(), "someone");
  EXPECT_NE(ZRKApiAuthToken::token()->tokenString(), "kept");
}

TEST(ApiClientSetters, WriteTheSharedClient) {
  ZRKApiClient::setUserAge(30);
  ZRKApiClient::setUserGender(ZRKUserGenderFemale);
  ZRKApiClient::setUserLocationLatitude(-33.9f, 18.4f);
  const auto client = ZRKApiClient::sharedClient();
  EXPECT_EQ(client->userAge(), 30);
  EXPECT_EQ(client->userGender(), 2u);
  EXPECT_EQ(client->userLat(), -33.9f);
  EXPECT_EQ(client->userLng(), 18.4f);
  ZRKApiClient::setBaseUrl("no url at all");
  EXPECT_FALSE(client->apiURL());
  ZRKApiClient::setBaseUrl(ZRKDefaultBaseURL);
  ZRKApiClient::setUserAge(0);
  ZRKApiClient::setUserGender(1);
  ZRKApiClient::setUserLocationLatitude(0, 0);
}

TEST(ApiClient, RedirectsCarryTheFirstRequestsHeadersToAnyHost) {
  LoopbackServer first;
  LoopbackServer second("127.0.0.2");
  LoopbackServer third("127.0.0.3");
  first.answer({.status = 307, .headers = {{"Location", second.url() + "/hop"}}});
  second.answer({.status = 302, .headers = {{"Location", third.url() + "/end"}}});
  third.answer({.body = R"({"token":"t"})"});
  ZRKApiAuthToken::setToken(validToken("abc"));
  const auto client = ZRKApiClient::initWithConfiguration(ZRKAppConfiguration::init());
  client->setApiURL(ZRKURL::URLWithString(first.url()));
  bool done = false;
  ZRKApiRequest::postWithAPIClient(client, "app/v1/auth", {{"k", "v"}}, std::make_shared<ZRKApiAuthToken>(),
                                   [&](auto object, auto, auto error) {
                                     EXPECT_TRUE(object);
                                     EXPECT_FALSE(error);
                                     done = true;
                                   });
  ASSERT_TRUE(test::runMainQueueUntil([&] { return done; }));
  ZRKApiAuthToken::clear();
  const auto original = first.requests().at(0);
  int copied = 0;
  for (const LoopbackServer* server : {&second, &third}) {
    ASSERT_EQ(server->count(), 1u);
    const auto hop = server->requests().front();
    EXPECT_EQ(hop.header("Authorization"), "Bearer YWJj");
    for (const auto& [name, value] : original.headers) {
      if (!name.starts_with("ZRK-") && !name.starts_with("Pelmor-")) continue;
      EXPECT_EQ(hop.header(name), value) << name;
      ++copied;
    }
    // The 302 turned the POST into a GET without a body, yet the first
    // request's Content-Type was copied back on.
    EXPECT_EQ(hop.header("Content-Type"), "application/json");
  }
  EXPECT_GE(copied, 2 * 10);
  EXPECT_EQ(second.requests().front().method, "POST");
  EXPECT_EQ(third.requests().front().method, "GET");
}

}  // namespace
}  // namespace zrk
