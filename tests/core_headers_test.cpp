#include <gtest/gtest.h>

#include <chrono>
#include <limits>

#include "core/ZRKNumberText.h"
#include "support/LoopbackServer.h"
#include "support/MainQueueWait.h"
#include "support/ServiceTest.h"
#include "support/RawRecorder.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKDevice.h"
#include "zrk/ZRKUserSession.h"

namespace zrk {
namespace {

using Headers = std::map<std::string, std::string>;

using test::validToken;

// Leaves the shared token, session and build version as it found them.
class DefaultHeadersTest : public ::testing::Test {
 protected:
  void TearDown() override {
    ZRKApiAuthToken::clear();
    ZRKUserSession::clearSession();
    ZRKDevice::setAppBuildVersion(std::nullopt);
  }

  // The value under both names, failing when the two differ or one is missing.
  static std::optional<std::string> pair(const Headers& headers, const std::string& suffix) {
    const auto zrk = headers.find("ZRK-" + suffix);
    const auto pelmor = headers.find("Pelmor-" + suffix);
    EXPECT_EQ(zrk == headers.end(), pelmor == headers.end()) << suffix;
    if (zrk == headers.end() || pelmor == headers.end()) return std::nullopt;
    EXPECT_EQ(zrk->second, pelmor->second) << suffix;
    return zrk->second;
  }

  std::shared_ptr<ZRKApiClient> client = ZRKApiClient::initWithConfiguration(ZRKAppConfiguration::init());
};

TEST_F(DefaultHeadersTest, EveryRowWithItsFormat) {
  ZRKApiAuthToken::setToken(validToken("abc"));
  ZRKUserSession::setCurrentUserToken("user-token");
  ZRKDevice::setAppBuildVersion("41b");
  client->setUserAgeValue(30);
  client->setUserGenderValue(ZRKUserGenderFemale);
  client->setUserLat(-33.9f);
  client->setUserLng(18.4f);
  const Headers headers = client->defaultHeaders();

  EXPECT_EQ(headers.at("Authorization"), "Bearer YWJj");
  EXPECT_EQ(pair(headers, "User-Id"), ZRKAppConfiguration::sharedConfiguration()->appUserId());
  EXPECT_EQ(pair(headers, "User-Gender"), "female");
  EXPECT_EQ(pair(headers, "User-Token"), "user-token");
  EXPECT_EQ(pair(headers, "User-Type"), "ios");
  EXPECT_EQ(pair(headers, "User-Version"), detail::formatFixed(detail::leadingFloat(ZRKDevice::systemVersion())));
  EXPECT_EQ(pair(headers, "User-Model"), client->deviceModel());
  EXPECT_EQ(pair(headers, "App-Version"), "41b");
  EXPECT_EQ(pair(headers, "User-Age"), "30");
  EXPECT_EQ(pair(headers, "User-Lat"), "-33.900002");
  EXPECT_EQ(pair(headers, "User-Lng"), "18.400000");
  EXPECT_EQ(headers.size(), 21u);
}

TEST_F(DefaultHeadersTest, GatesLeaveHeadersOut) {
  // A fresh client: no token, age 0, gender 1, location 0,0; no session
  // token and no build version.
  Headers headers = client->defaultHeaders();
  EXPECT_EQ(headers.at("Authorization"), "Bearer ");
  EXPECT_EQ(pair(headers, "User-Gender"), "other");
  for (const char* absent : {"User-Token", "App-Version", "User-Age", "User-Lat", "User-Lng"}) {
    EXPECT_FALSE(pair(headers, absent)) << absent;
  }
  EXPECT_EQ(headers.size(), 11u);

  // Location hangs on the longitude alone.
  client->setUserLat(48.0f);
  client->setUserLng(-2.0f);
  EXPECT_FALSE(pair(client->defaultHeaders(), "User-Lat"));
  client->setUserLng(std::numeric_limits<float>::quiet_NaN());
  EXPECT_FALSE(pair(client->defaultHeaders(), "User-Lng"));
  client->setUserLat(-91.0f);
  client->setUserLng(1e-30f);
  EXPECT_EQ(pair(client->defaultHeaders(), "User-Lat"), "-91.000000");
  EXPECT_EQ(pair(client->defaultHeaders(), "User-Lng"), "0.000000");

  // The age gate is signed; the value goes out as 32 bits.
  client->setUserAgeValue(-5);
  EXPECT_FALSE(pair(client->defaultHeaders(), "User-Age"));
  client->setUserAgeValue((ZRKInteger{1} << 32) + 7);
  EXPECT_EQ(pair(client->defaultHeaders(), "User-Age"), "7");
  client->setUserAgeValue(ZRKInteger{1} << 31);
  EXPECT_EQ(pair(client->defaultHeaders(), "User-Age"), "-2147483648");

  for (ZRKUInteger gender : {0, 1, 4, 1000}) {
    client->setUserGenderValue(gender);
    EXPECT_EQ(pair(client->defaultHeaders(), "User-Gender"), "other");
  }
  client->setUserGenderValue(ZRKUserGenderMale);
  EXPECT_EQ(pair(client->defaultHeaders(), "User-Gender"), "male");

  // An empty session token makes the session invalid; an unset one is valid
  // but has nothing to send.
  ZRKUserSession::setCurrentUserToken("");
  EXPECT_FALSE(pair(client->defaultHeaders(), "User-Token"));
  ZRKUserSession::setCurrentUserToken(std::nullopt);
  EXPECT_FALSE(pair(client->defaultHeaders(), "User-Token"));
}

TEST_F(DefaultHeadersTest, TheTokenIsReadForEveryRequest) {
  ZRKApiAuthToken::setToken(validToken("first"));
  const auto before = client->configuredRequestForURL(ZRKURL::URLWithString("http://127.0.0.1/"));
  ZRKApiAuthToken::setToken(validToken("second"));
  const auto after = client->configuredRequestForURL(ZRKURL::URLWithString("http://127.0.0.1/"));
  EXPECT_EQ(before.valueForHTTPHeaderField("Authorization"), "Bearer Zmlyc3Q=");
  EXPECT_EQ(after.valueForHTTPHeaderField("Authorization"), "Bearer c2Vjb25k");
}

TEST(NumberText, ReadsAndWritesAsTheHeadersNeed) {
  constexpr float inf = std::numeric_limits<float>::infinity();
  const std::pair<std::string, float> read[] = {
      {"10.3", 10.3f}, {"  12", 12.0f}, {"10.3.1", 10.3f}, {"-1.5e2x", -150.0f}, {"+.5", 0.5f},  {"7e", 7.0f},
      {"bookworm", 0}, {"0x1A", 0},     {".", 0},          {"", 0},             {"1e999", inf}, {"-1e999", -inf},
      {"1e-999", 0},   {std::string(400, '9'), inf}};
  for (const auto& [text, value] : read) EXPECT_EQ(detail::leadingFloat(text), value) << text;
  const std::pair<float, std::string> written[] = {
      {10.3f, "10.300000"}, {37.7749f, "37.774899"}, {13.405f, "13.405000"}, {-0.0f, "-0.000000"}, {inf, "inf"},
      {3.0e38f, "300000000549775575777803994281145270272.000000"}};
  for (const auto& [value, text] : written) EXPECT_EQ(detail::formatFixed(value), text) << value;
}

// The wire: every header but "Authorization" twice with one value, and a
// value that could split the header block never goes out.
TEST_F(DefaultHeadersTest, OnTheWire) {
  test::LoopbackServer server;
  ZRKUserSession::setCurrentUserToken("t0");
  client->setApiURL(ZRKURL::URLWithString(server.url()));
  client->setUserLng(1.0f);
  client->setUserAgeValue(3);
  ZRKDevice::setAppBuildVersion("7\r\nX-Forged: yes");
  bool done = false;
  ZRKApiRequest::getWithAPIClient(client, "app/v1/collection", {}, nullptr, [&](auto, auto, auto) { done = true; });
  ASSERT_TRUE(test::runMainQueueUntil([&] { return done; }));
  const auto request = server.requests().at(0);
  EXPECT_FALSE(request.has("X-Forged"));
  EXPECT_FALSE(request.has("ZRK-App-Version"));
  EXPECT_FALSE(request.has("Pelmor-App-Version"));
  int zrk = 0;
  for (const auto& [name, value] : request.headers) {
    if (!name.starts_with("ZRK-")) continue;
    ++zrk;
    EXPECT_EQ(request.values(name).size(), 1u) << name;
    EXPECT_EQ(request.values("Pelmor-" + name.substr(4)), std::vector<std::string>{value}) << name;
  }
  EXPECT_EQ(zrk, 9);
  EXPECT_EQ(request.header("ZRK-User-Token"), "t0");
  EXPECT_EQ(request.header("Pelmor-User-Lng"), "1.000000");
  EXPECT_EQ(request.header("ZRK-User-Age"), "3");
  EXPECT_EQ(request.values("Authorization").size(), 1u);
}

}  // namespace
}  // namespace zrk
