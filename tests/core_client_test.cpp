#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <limits>
#include <set>

#include "core/ZRKNumberText.h"
#include "support/MemoryServiceTest.h"
#include "support/Recorder.h"
#include "zrk/ZRKApi.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKDevice.h"

namespace zrk {
namespace {

using test::Recorder;
using test::ZRKScriptedResponse;
using Headers = std::map<std::string, std::string>;
using AuthRecorder = Recorder<bool, std::optional<ZRKError>>;

double now() { return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(); }

std::shared_ptr<ZRKApiAuthToken> decode(const ZRKJson& body) {
  return std::dynamic_pointer_cast<ZRKApiAuthToken>(ZRKApiAuthToken().decodedObjectFromAPIResponse(&body));
}

class ClientTest : public test::MemoryServiceTest {
 protected:
  void TearDown() override {
    ZRKDevice::setAppBuildVersion(std::nullopt);
    ZRKAppConfiguration::setSharedAppUserId(std::nullopt);
    MemoryServiceTest::TearDown();
  }

  // Lets the token fetch that a new user id starts finish here.
  void settleTokenFetch(std::size_t requests) {
    ASSERT_TRUE(sent(requests));
    ASSERT_TRUE(ZRKMainQueue::mainQueue().runUntil([] { return ZRKApiAuthToken::token()->isValid(); },
                                                   std::chrono::seconds(5)));
  }

  // The value under both names; the two must agree.
  static std::optional<std::string> pair(const Headers& headers, const std::string& suffix) {
    const auto zrk = headers.find("ZRK-" + suffix), pelmor = headers.find("Pelmor-" + suffix);
    EXPECT_EQ(zrk == headers.end(), pelmor == headers.end()) << suffix;
    if (zrk == headers.end() || pelmor == headers.end()) return std::nullopt;
    EXPECT_EQ(zrk->second, pelmor->second) << suffix;
    return zrk->second;
  }
};

TEST(AuthToken, ServesUpToTheLastInstantWithoutMargin) {
  ZRKApiAuthToken token;
  EXPECT_TRUE(token.expired());
  token.setExpire(now() + 1);
  EXPECT_TRUE(token.isValid());
  token.setExpire(now() - 1);
  EXPECT_TRUE(token.expired());
  token.setExpire(now() + 60);
  token.setTokenString(std::nullopt);
  EXPECT_FALSE(token.isValid());
}

// The cache takes token and both times, not the fields.
TEST_F(ClientTest, DecodedTokensGoIntoTheCache) {
  const auto token = decode({{"token", "t1"}, {"expire", "4102444800"}, {"expireIn", 59.9}, {"x", nullptr}});
  ASSERT_TRUE(token);
  EXPECT_EQ(token->allResponseFields(), (ZRKJson{{"token", "t1"}, {"expire", "4102444800"}, {"expireIn", 59.9}}));
  ZRKApiAuthToken::setToken(token);
  const auto cached = ZRKApiAuthToken::token();
  EXPECT_EQ(std::make_tuple(cached->tokenString(), cached->expire(), cached->expireIn()),
            std::make_tuple("t1", 4102444800.0, 59.0));
  EXPECT_FALSE(cached->allResponseFields());
  EXPECT_FALSE(decode({{"token", 5}, {"expire", 5}}));
  ZRKApiAuthToken::setToken(nullptr);
  EXPECT_FALSE(ZRKApiAuthToken::token()->tokenString());
}

TEST_F(ClientTest, OneTokenRequestThenTheCachedToken) {
  ZRKApi::initializeWithAppKey("key", "secret");
  AuthRecorder first, second;
  ZRKApiAuthToken::refresh(first);
  ASSERT_TRUE(first.once());
  EXPECT_TRUE(first.arg<0>());
  // With a valid token the completion comes at once, on the worker.
  ZRKApiAuthToken::refresh(second);
  ASSERT_TRUE(second.wait());
  EXPECT_TRUE(second.arg<0>() && second.offMainThread());
  const auto sent = transport->requests();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].HTTPBody(), R"({"key":"key","secret":"secret"})");
  EXPECT_EQ(sent[0].valueForHTTPHeaderField("Authorization"), "Bearer ");
  EXPECT_EQ(ZRKApiAuthToken::token()->tokenString(), "t1");
}

TEST_F(ClientTest, AnExpiredOrExpirelessTokenIsFetchedAgain) {
  cacheToken("old", now() - 1);
  transport->respond("POST", "/app/v1/auth",
                     {ZRKScriptedResponse::json({{"token", "t0"}}),
                      ZRKScriptedResponse::json({{"token", "t2"}, {"expire", 4102444800}})});
  for (AuthRecorder refreshed : {AuthRecorder(), AuthRecorder()}) {
    ZRKApiAuthToken::refresh(refreshed);
    ASSERT_TRUE(refreshed.once());
  }
  const auto sent = transport->requests();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].valueForHTTPHeaderField("Authorization"), "Bearer b2xk");
  EXPECT_EQ(sent[1].valueForHTTPHeaderField("Authorization"), "Bearer dDA=");
  EXPECT_EQ(ZRKApiAuthToken::token()->tokenString(), "t2");
}

// Refreshes made while the cache is invalid are not merged, and every
// answer replaces the cache when it arrives, valid or not.
TEST_F(ClientTest, EveryRefreshAuthenticatesAndTheLastAnswerWins) {
  std::vector<ZRKScriptedResponse> answers;
  for (const char* token : {"a", "b", "c"}) {
    answers.push_back(ZRKScriptedResponse::json({{"token", token}, {"expire", 4102444800}}));
  }
  transport->respond("POST", "/app/v1/auth", answers);
  const auto seen = std::make_shared<std::vector<std::string>>();  // shared: a late call must land somewhere
  for (std::size_t i = 1; i <= 3; ++i) {
    ZRKApiAuthToken::refresh([seen](bool, auto) { seen->push_back(*ZRKApiAuthToken::token()->tokenString()); });
    // The main queue does not run meanwhile, so no answer is stored yet.
    ASSERT_TRUE(transport->waitForRequests(i));
  }
  ASSERT_TRUE(ZRKMainQueue::mainQueue().runUntil([&] { return seen->size() == 3; }, std::chrono::seconds(5)));
  EXPECT_EQ(std::set<std::string>(seen->begin(), seen->end()), (std::set<std::string>{"a", "b", "c"}));
  EXPECT_EQ(ZRKApiAuthToken::token()->tokenString(), seen->back());
}

TEST_F(ClientTest, AFailedTokenStepLeavesTheCacheAndIsNotRetried) {
  const std::pair<ZRKScriptedResponse, long> failures[] = {
      {ZRKScriptedResponse::json({{"code", 401}, {"message", "bad key"}}, 401), 401},
      {ZRKScriptedResponse::json({{"expire", 4102444800}}), ZRKErrorCodeFailedToParseResponse}};
  for (const auto& [answer, code] : failures) {
    transport->reset();
    transport->respond("POST", "/app/v1/auth", answer);
    AuthRecorder refreshed;
    ZRKApiAuthToken::refresh(refreshed);
    ASSERT_TRUE(refreshed.once()) << code;
    EXPECT_FALSE(refreshed.arg<0>()) << code;
    EXPECT_EQ(refreshed.arg<1>().value_or(ZRKError()).code, code);
    EXPECT_EQ(transport->requests().size(), 1u);
    EXPECT_EQ(ZRKApiAuthToken::token()->tokenString(), "");
  }
}

TEST(UserSession, AnEmptyTokenIsNoSessionButAnUnsetOneIs) {
  ZRKUserSession session;
  EXPECT_FALSE(session.valid());
  session.setUserToken(std::nullopt);
  EXPECT_TRUE(session.valid());
}

TEST_F(ClientTest, InitialisationResetsTheTokenOnlyWhereDefined) {
  cacheToken("kept");
  ZRKApi::initializeWithAppKey("key", "secret");
  EXPECT_EQ(ZRKApiAuthToken::token()->tokenString(), "");
  const std::string id = *ZRKAppConfiguration::sharedConfiguration()->appUserId();
  cacheToken("kept");
  ZRKApi::initializeWithAppKey("key2", "secret2", id);
  ZRKApi::initializeWithAppKey("key2", "secret2", std::nullopt);
  EXPECT_EQ(ZRKAppConfiguration::sharedConfiguration()->appUserId(), ZRKDevice::defaultUserId());
  EXPECT_EQ(ZRKApiAuthToken::token()->tokenString(), "kept");

  // A new id drops the token at once and fetches another.
  ZRKApi::initializeWithAppKey("key2", "secret2", id + "-new");
  EXPECT_EQ(ZRKApiAuthToken::token()->tokenString(), "");
  ASSERT_NO_FATAL_FAILURE(settleTokenFetch(1));
  EXPECT_EQ(transport->requests()[0].HTTPBody(), R"({"key":"key2","secret":"secret2"})");
}

// Another client keeps its own credentials and attributes, but the user id
// and the token step are the shared ones.
TEST_F(ClientTest, AnotherClientHasItsOwnConfigurationButSendsTheSharedUserId) {
  const auto configuration = ZRKAppConfiguration::init();
  const auto other = ZRKApiClient::initWithConfiguration(configuration);
  configuration->setAppKey("k");
  configuration->setAppSecret("s");
  EXPECT_EQ(other->description(), "appKey (k) appSecret (s)");
  cacheToken("kept");
  configuration->setAppUserId("someone-else");
  EXPECT_EQ(ZRKApiAuthToken::token()->tokenString(), "");
  ASSERT_NO_FATAL_FAILURE(settleTokenFetch(1));

  // The client keeps a copy, made through the setters: the new id again
  // drops the token.
  other->setConfiguration(configuration);
  configuration->setAppSecret("changed");
  EXPECT_EQ(other->description(), "appKey (k) appSecret (s)");
  EXPECT_EQ(ZRKApiAuthToken::token()->tokenString(), "");
  ASSERT_NO_FATAL_FAILURE(settleTokenFetch(2));

  other->setUserAgeValue(41);
  const Headers headers = other->defaultHeaders();
  EXPECT_EQ(pair(headers, "User-Id"), ZRKAppConfiguration::sharedConfiguration()->appUserId());
  EXPECT_EQ(pair(headers, "User-Age"), "41");
  // The class setters write the shared client.
  ZRKApiClient::setUserLocationLatitude(-33.9f, 18.4f);
  EXPECT_EQ(pair(client->defaultHeaders(), "User-Lat"), "-33.900002");
  ZRKApiClient::setUserLocationLatitude(0, 0);
  for (const char* notABase : {"no url at all", ""}) {
    ZRKApiClient::setBaseUrl(notABase);
    EXPECT_FALSE(client->apiURL()) << notABase;
  }
}

TEST_F(ClientTest, DefaultHeadersFollowTheirGatesAndFormats) {
  const auto fresh = ZRKApiClient::initWithConfiguration(ZRKAppConfiguration::init());
  Headers headers = fresh->defaultHeaders();
  EXPECT_EQ(headers.at("Authorization"), "Bearer ");
  EXPECT_EQ(pair(headers, "User-Gender"), "other");
  EXPECT_EQ(pair(headers, "User-Version"), detail::formatFixed(detail::leadingFloat(ZRKDevice::systemVersion())));
  EXPECT_EQ(pair(headers, "User-Model"), fresh->deviceModel());
  EXPECT_EQ(headers.size(), 11u);  // no token, age, location or build version

  const float nan = std::numeric_limits<float>::quiet_NaN();
  struct Gate {
    std::function<void()> set;
    const char* suffix;
    std::optional<std::string> value;
  };
  const Gate gates[] = {
      {[&] { fresh->setUserGenderValue(4); }, "User-Gender", "other"},
      {[&] { fresh->setUserGenderValue(ZRKUserGenderFemale); }, "User-Gender", "female"},
      {[&] { fresh->setUserGenderValue(ZRKUserGenderMale); }, "User-Gender", "male"},
      {[&] { fresh->setUserAgeValue(-5); }, "User-Age", std::nullopt},
      {[&] { fresh->setUserAgeValue(30); }, "User-Age", "30"},
      {[&] { fresh->setUserAgeValue((ZRKInteger{1} << 32) + 7); }, "User-Age", "7"},
      {[&] { fresh->setUserLat(48), fresh->setUserLng(-2); }, "User-Lat", std::nullopt},
      {[&] { fresh->setUserLng(0); }, "User-Lng", std::nullopt},
      {[&] { fresh->setUserLng(nan); }, "User-Lng", std::nullopt},
      {[&] { fresh->setUserLat(-33.9f), fresh->setUserLng(18.4f); }, "User-Lat", "-33.900002"},
      {[] { ZRKUserSession::setCurrentUserToken(std::nullopt); }, "User-Token", std::nullopt},
      {[] { ZRKUserSession::setCurrentUserToken("ut"); }, "User-Token", "ut"},
      {[] { ZRKDevice::setAppBuildVersion("41b"); }, "App-Version", "41b"},
  };
  for (std::size_t i = 0; i < std::size(gates); ++i) {
    gates[i].set();
    EXPECT_EQ(pair(fresh->defaultHeaders(), gates[i].suffix), gates[i].value) << i;
  }
  cacheToken("abcdef");
  headers = fresh->defaultHeaders();
  EXPECT_EQ(headers.at("Authorization"), "Bearer YWJjZGVm");
  EXPECT_EQ(headers.size(), 21u);
}

// The system version is read as far as it is a number.
TEST(NumberText, ReadsTheLeadingNumber) {
  const std::pair<std::string, float> read[] = {{"10.3.1", 10.3f}, {" -1.5e2x", -150.0f}, {"+.5", 0.5f}, {"0x1A", 0}};
  for (const auto& [text, value] : read) EXPECT_EQ(detail::leadingFloat(text), value) << text;
}

// Redirects are followed with every header of the task's first request,
// to any host and over every hop.
TEST_F(ClientTest, RedirectsCarryTheFirstRequestsHeaders) {
  cacheToken("abc");
  ZRKUserSession::setCurrentUserToken("ut");
  transport->respond("POST", "/app/v1/user", ZRKScriptedResponse::redirect(307, "https://second.test/hop"));
  transport->respond("POST", "/hop", ZRKScriptedResponse::redirect(302, "https://third.test/end"));
  transport->respond("GET", "/end", ZRKScriptedResponse::json({{"token", "t"}}));
  Recorder<std::shared_ptr<ZRKApiResponseDecodable>, std::shared_ptr<const ZRKHTTPURLResponse>, std::optional<ZRKError>>
      done;
  ZRKApiRequest::postWithAPIClient(client, "app/v1/user", {{"k", "v"}}, std::make_shared<ZRKApiAuthToken>(), done);
  ASSERT_TRUE(done.once());
  const auto sent = transport->requests();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(line(sent[1]), "POST /hop");
  EXPECT_EQ(line(sent[2]), "GET /end");
  EXPECT_GE(sent[0].allHTTPHeaderFields().size(), 15u);  // Content-Type and the bearer included
  for (const std::size_t hop : {1, 2}) {
    for (const auto& [name, value] : sent[0].allHTTPHeaderFields().fields()) {
      EXPECT_EQ(sent[hop].valueForHTTPHeaderField(name), value) << hop << " " << name;
    }
  }
}

// A client that is not the shared one, released with a request in flight,
// still restores its headers on a hop to another host, and is let go after.
TEST_F(ClientTest, AReleasedClientStillCarriesItsHeadersAcrossARedirect) {
  cacheToken("abc");
  auto other = ZRKApiClient::initWithConfiguration(ZRKAppConfiguration::init());
  other->setApiURL(ZRKURL::URLWithString(test::kTestBaseURL));
  const std::weak_ptr<ZRKApiClient> released = other;
  auto moved = ZRKScriptedResponse::redirect(307, "https://elsewhere.test/end");
  moved.delay = 0.1;
  transport->respond("GET", "/app/v1/collection", moved);
  transport->respond("GET", "/end", ZRKScriptedResponse::json({{"result", ZRKJson::array()}}));
  Recorder<std::optional<ZRKCollectionList>, std::optional<ZRKError>> done;
  other->retrieveCollectionsWithCompletion(done);
  other.reset();
  ASSERT_TRUE(done.once());
  EXPECT_TRUE(done.arg<0>());
  EXPECT_EQ(transport->requests().back().valueForHTTPHeaderField("Authorization"), "Bearer YWJj");
  for (int i = 0; i < 500 && !released.expired(); ++i) ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(10));
  EXPECT_TRUE(released.expired());
}

TEST_F(ClientTest, TheRedirectHookOverwritesWhatTheProposalCarries) {
  const ZRKURLRequest original = client->configuredRequestForURL(ZRKURL::URLWithString("https://api.zrk.test/a"));
  const auto task = client->urlSession()->dataTaskWithRequest(original, nullptr);
  ZRKURLRequest proposal(ZRKURL::URLWithString("https://elsewhere.test/b"));
  proposal.setValue("other", "ZRK-User-Type");
  proposal.setValue("own", "X-Hop");
  std::optional<ZRKURLRequest> chosen;
  client->willPerformHTTPRedirection(*client->urlSession(), *task,
                                     ZRKHTTPURLResponse(original.URL(), 307, "HTTP/1.1", {}), proposal,
                                     [&](std::optional<ZRKURLRequest> request) { chosen = std::move(request); });
  ASSERT_TRUE(chosen);
  EXPECT_EQ(chosen->valueForHTTPHeaderField("ZRK-User-Type"), "ios");
  EXPECT_EQ(chosen->valueForHTTPHeaderField("X-Hop"), "own");
}

}  // namespace
}  // namespace zrk
