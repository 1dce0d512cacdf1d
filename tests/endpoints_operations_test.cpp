#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <stdexcept>

#include "endpoints/ZRKListingCompletion.h"
#include "support/MemoryServiceTest.h"
#include "support/Recorder.h"
#include "zrk/ZRKApi.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKScanAPIResponse.h"
#include "zrk/ZRKScanHistory.h"
#include "zrk/ZRKUser.h"
#include "zrk/ZRKUserAPIResponse.h"

namespace zrk {
namespace {

using test::Recorder;
using test::ZRKScriptedResponse;
using ScanRecorder = Recorder<std::shared_ptr<ZRKScanAPIResponse>, std::optional<ZRKError>>;
using UserRecorder = Recorder<std::shared_ptr<ZRKUserAPIResponse>, std::optional<ZRKError>>;
using CollectionsRecorder = Recorder<std::optional<ZRKCollectionList>, std::optional<ZRKError>>;
using HistoryRecorder = Recorder<std::optional<ZRKScanHistoryList>, std::optional<ZRKError>>;

std::shared_ptr<ZRKUser> ann(const ZRKJson& more = ZRKJson::object()) {
  ZRKJson fields = {{"email", "a@x.io"}, {"name", "N"}, {"password", "p"}};
  fields.update(more);
  return ZRKUser::initFromDictionary(fields);
}

long codeOf(const std::optional<ZRKError>& error) { return error.value_or(ZRKError()).code; }
std::string sessionToken() { return ZRKUserSession::currentSession()->userToken().value_or("<unset>"); }

using EndpointTest = test::MemoryServiceTest;

// Every operation's request, and whether the token step comes first.
TEST_F(EndpointTest, EveryOperationSendsItsRequest) {
  const auto none = [](auto, auto) {};
  const auto image = ZRKImage::imageWithRGBAPixels(std::vector<std::uint8_t>(4, 0), 1, 1);
  const auto full = ann({{"gender", "female"}, {"avatar", "a.png"}, {"birthdate", nullptr}});
  const std::string all = R"({"avatar":"a.png","email":"a@x.io","gender":"female","name":"N","password":"p"})";
  struct Case {
    std::function<void(ZRKApiClient&)> call;
    bool tokenStep;
    std::string line;
    std::optional<std::string> body = std::nullopt;
  };
#define OP(call) [&](ZRKApiClient& c) { c.call; }
  const Case cases[] = {
      {OP(scanWithUrl(ZRKURL::URLWithString("https://i.test/a%20b.jpg"), "abc", none)), true, "POST /app/v1/scan/abc",
       R"({"collectionId":"abc","fileUrl":"https://i.test/a%20b.jpg"})"},
      {OP(scanWithUrl(ZRKJson("https://i.test/x.png"), "", none)), true, "POST /app/v1/scan",
       R"({"fileUrl":"https://i.test/x.png"})"},
      {OP(scanWithUrl(ZRKJson(42), none)), true, "POST /app/v1/scan"},
      {OP(scanUrlWithOptions({{"collectionId", "a/b c"}}, none)), false, "POST /app/v1/scan/a%2Fb%20c",
       R"({"collectionId":"a/b c"})"},
      {OP(retrieveCollectionsWithCompletion(none)), true, "GET /app/v1/collection"},
      {OP(send(none)), false, "GET /app/v1/collection"},
      {OP(retrieveScanHistoryWithCount(0, 0, none)), true, "GET /app/v1/history?count=20&offset=0"},
      {OP(retrieveScanHistoryWithCount(-3, 40, none)), true, "GET /app/v1/history?count=-3&offset=40"},
      {OP(sendWithOptions({{"count", 0}, {"all", true}}, none)), false, "GET /app/v1/history?all=true&count=0"},
      {OP(registerUser(ann(), none)), true, "POST /app/v1/user", R"({"email":"a@x.io","name":"N","password":"p"})"},
      {OP(registerUser(full, none)), true, "POST /app/v1/user", all},
      {OP(updateUserAvatar(full, image, none)), true, "POST /app/v1/user", all},
      {OP(updateUserProfile(full, none)), true, "PATCH /app/v1/user", all},
      {OP(retrieveUser("u-1", none)), true, "GET /app/v1/user?Pelmor-User-Token=u-1&ZRK-User-Token=u-1"},
      {OP(loginUser(ann(), none)), true, "POST /app/v1/user/auth", R"({"email":"a@x.io","password":"p"})"},
      {OP(logoutUser(ann(), none)), true, "DELETE /app/v1/user/auth?email=a%40x.io&password=p"},
      {OP(createUserAPIGetRequest(full, none)), true, "GET /app/v1/user"},
      {OP(createUserAPIPostRequest(nullptr, none)), true, "POST /app/v1/user"},
      {OP(createUserAPIPatchRequest(nullptr, none)), true, "PATCH /app/v1/user"},
  };
#undef OP
  for (const Case& c : cases) {
    ZRKApiAuthToken::clear();
    const std::size_t before = transport->requests().size();
    c.call(*client);
    ASSERT_TRUE(sent(before + (c.tokenStep ? 2 : 1))) << c.line;
    const auto requests = transport->requests();
    EXPECT_EQ(line(requests[before]), c.tokenStep ? "POST /app/v1/auth" : c.line);
    const ZRKURLRequest& request = requests.back();
    EXPECT_EQ(line(request), c.line);
    EXPECT_EQ(request.HTTPBody(), c.body) << c.line;
    EXPECT_EQ(request.valueForHTTPHeaderField("Content-Type").has_value(), c.body.has_value()) << c.line;
    EXPECT_EQ(request.valueForHTTPHeaderField("Authorization"), c.tokenStep ? "Bearer dDE=" : "Bearer ") << c.line;
  }
}

// Scans and listings go out whatever the token step says; account requests
// end in silence (logout having made its early call).
TEST_F(EndpointTest, AFailedTokenStepStopsOnlyAccountRequests) {
  transport->respond("POST", "/app/v1/auth", ZRKScriptedResponse::json({{"code", 500}, {"message", "down"}}, 500));
  const auto refused = ZRKScriptedResponse::json({{"code", 401}, {"message", "no token"}}, 401);
  transport->respond("POST", "/app/v1/scan", refused);
  transport->respond("GET", "/app/v1/collection", refused);
  ScanRecorder scan;
  CollectionsRecorder collections;
  client->scanWithUrl(ZRKURL::URLWithString("https://i.test/x.png"), scan);
  client->retrieveCollectionsWithCompletion(collections);
  ASSERT_TRUE(scan.once());
  ASSERT_TRUE(collections.once());
  EXPECT_EQ(codeOf(scan.arg<1>()), 401);
  EXPECT_EQ(codeOf(collections.arg<1>()), 401);

  ZRKUserSession::setCurrentUserToken("ut1");
  UserRecorder users, logout;
  client->registerUser(ann(), users);
  client->updateUserProfile(ann(), users);
  client->updateUserAvatar(ann(), nullptr, users);
  client->retrieveUser("u", users);
  client->loginUser(ann(), users);
  client->createUserAPIGetRequest(nullptr, users);
  client->logoutUser(ann(), logout);
  ASSERT_TRUE(transport->waitForRequests(4 + 7));
  ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(200));
  EXPECT_EQ(transport->requests().size(), 4u + 7u);
  EXPECT_EQ(users.calls(), 0u);
  EXPECT_EQ(logout.calls(), 1u);
  EXPECT_EQ(ZRKUserSession::currentSession()->userToken(), "ut1");
}

TEST_F(EndpointTest, AScanOnAnotherClientTakesTheTokenStepThroughTheSharedOne) {
  ZRKApi::initializeWithAppKey("shared-key", "s");
  const auto configuration = ZRKAppConfiguration::init();
  configuration->setAppKey("own-key");
  const auto other = ZRKApiClient::initWithConfiguration(configuration);
  other->setApiURL(ZRKURL::URLWithString("https://other.zrk.test/"));
  ScanRecorder scan;
  other->scanWithUrl(ZRKJson("https://i.test/x.png"), scan);
  ASSERT_TRUE(scan.once());
  const auto sent = transport->requests();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].HTTPBody(), R"({"key":"shared-key","secret":"s"})");
  EXPECT_EQ(sent[1].URL()->host(), "other.zrk.test");
}

TEST_F(EndpointTest, ListingsHandOverTheListInsideTheAnswer) {
  cacheToken("t");
  transport->respond("GET", "/app/v1/collection",
                     ZRKScriptedResponse::json({{"result", {{{"id", "c1"}, {"name", "Posters"}}, {{"id", "c2"}}}}}));
  CollectionsRecorder collections;
  client->retrieveCollectionsWithCompletion(collections);
  ASSERT_TRUE(collections.once());
  const auto list = collections.arg<0>().value_or(ZRKCollectionList{});
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0]->description(), "id:(c1) name:(Posters)");

  transport->respond("GET", "/app/v1/history", {ZRKScriptedResponse::json({{"result", {{{"scanId", "s1"}}}}}),
                                                ZRKScriptedResponse::json({{"total", 3}})});
  for (const std::size_t size : {1u, 0u}) {
    HistoryRecorder history;
    client->retrieveScanHistoryWithCount(5, 0, history);
    ASSERT_TRUE(history.once());
    EXPECT_EQ(history.arg<0>().value_or(ZRKScanHistoryList(9)).size(), size);
    EXPECT_FALSE(history.arg<1>());
  }
}

TEST_F(EndpointTest, MissingInputsSendNothing) {
  UserRecorder calls;
  auto nameless = ann();
  nameless->setZRKUserName(std::nullopt);
  EXPECT_THROW(client->registerUser(nameless, calls), std::invalid_argument);
  EXPECT_THROW(client->updateUserProfile(nameless, calls), std::invalid_argument);
  auto passwordless = ann();
  passwordless->setZRKUserPassword(std::nullopt);
  EXPECT_THROW(client->loginUser(passwordless, calls), std::invalid_argument);
  client->registerUser(nullptr, calls);
  client->updateUserProfile(nullptr, calls);
  client->updateUserAvatar(nullptr, nullptr, calls);
  client->loginUser(nullptr, calls);
  client->retrieveUser(std::nullopt, calls);
  client->retrieveUser("", calls);
  client->logoutUser(nullptr, nullptr);
  ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(200));
  EXPECT_EQ(calls.calls(), 0u);
  EXPECT_TRUE(transport->requests().empty());
}

// Only a login that has a completion keeps the token; later requests send it.
TEST_F(EndpointTest, LoginKeepsTheUserToken) {
  transport->respond("POST", "/app/v1/user/auth",
                     {ZRKScriptedResponse::json({{"token", "ut0"}}), ZRKScriptedResponse::json({{"token", "ut1"}}),
                      ZRKScriptedResponse::json({{"name", "Ann"}})});
  client->loginUser(ann(), nullptr);
  ASSERT_TRUE(sent(2));
  ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(100));
  EXPECT_EQ(sessionToken(), "");
  for (int i = 0; i < 2; ++i) {
    UserRecorder login;
    client->loginUser(ann(), login);
    ASSERT_TRUE(login.once());
    EXPECT_EQ(sessionToken(), "ut1");
  }
  UserRecorder later;
  client->createUserAPIGetRequest(nullptr, later);
  ASSERT_TRUE(later.once());
  const auto request = transport->requests().back();
  EXPECT_EQ(request.valueForHTTPHeaderField("ZRK-User-Token"), "ut1");
}

// Logout answers twice: at once that it is under way, then with the answer,
// after clearing the session whatever the answer was.
TEST_F(EndpointTest, LogoutCallsTwiceAndClearsTheSession) {
  transport->respond("DELETE", "/app/v1/user/auth",
                     {ZRKScriptedResponse::json({{"name", "Ann"}}), ZRKScriptedResponse::json({{"code", 7}}, 500)});
  for (long code : {0L, 7L}) {
    ZRKUserSession::setCurrentUserToken("ut1");
    UserRecorder logout;
    client->logoutUser(ann(), logout);
    ASSERT_EQ(logout.calls(), 1u);
    EXPECT_TRUE(!logout.arg<0>() && !logout.arg<1>() && !logout.offMainThread());
    EXPECT_EQ(sessionToken(), "ut1");
    ASSERT_TRUE(ZRKMainQueue::mainQueue().runUntil([&] { return logout.calls() == 2; }, std::chrono::seconds(5)));
    EXPECT_EQ(logout.arg<1>().value_or(ZRKError()).code, code);
    EXPECT_EQ(logout.arg<0>() != nullptr, code == 0);
    EXPECT_EQ(sessionToken(), "");
  }
  ZRKUserSession::setCurrentUserToken("ut1");
  const std::size_t before = transport->requests().size();
  client->logoutUser(ann(), nullptr);
  ASSERT_TRUE(sent(before + 1));
  ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(100));
  EXPECT_EQ(sessionToken(), "ut1");
}

TEST_F(EndpointTest, LogoutOfAnIncompleteUserIsAnErrorOnTheCallingThread) {
  auto emailless = ann(), passwordless = ann();
  emailless->setZRKUserEmail(std::nullopt);
  passwordless->setZRKUserPassword(std::nullopt);
  for (const auto& user : {std::shared_ptr<ZRKUser>(), emailless, passwordless}) {
    UserRecorder logout;
    client->logoutUser(user, logout);
    ASSERT_EQ(logout.calls(), 1u);
    EXPECT_FALSE(logout.arg<0>());
    EXPECT_EQ(logout.arg<1>(), ZRKError(ZRKDomain, 10001,
                                        {{ZRKErrorCodeKey, "10001"}, {ZRKLocalizedDescriptionKey, "Invalid user"},
                                         {ZRKErrorMessageKey, "Invalid user"}}));
  }
  EXPECT_TRUE(transport->requests().empty());
}

// The service's answers always decode to a list or an error; a page that has
// neither ends in silence.
TEST(ListingCompletion, APageWithoutListOrErrorIsMetWithSilence) {
  HistoryRecorder history;
  const auto completion = detail::listingCompletion(history.completion(), &ZRKScanHistoryAPIResponse::result);
  completion(std::make_shared<ZRKScanHistoryAPIResponse>(), nullptr, std::nullopt);
  EXPECT_EQ(history.calls(), 0u);
  auto page = std::make_shared<ZRKScanHistoryAPIResponse>();
  page->setResult(ZRKScanHistoryList{});
  completion(page, nullptr, ZRKError());
  EXPECT_EQ(history.calls(), 1u);
  EXPECT_TRUE(history.arg<0>() && history.arg<1>());
}


std::shared_ptr<ZRKImage> image(int width, int height, double scale = 1) {
  std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * height * 4);
  for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<std::uint8_t>(i * 7 % 251);
  return ZRKImage::imageWithRGBAPixels(std::move(pixels), width, height, scale);
}

class ScanTest : public test::MemoryServiceTest {
 protected:
  // Scans the photo (through the token step) and returns the one answer;
  // encoding a photo is slow under the sanitizers.
  ScanRecorder scan(std::shared_ptr<ZRKImage> photo, const std::optional<std::string>& collection = "") {
    ScanRecorder done;
    client->scanWithImage(std::move(photo), collection, done);
    EXPECT_TRUE(done.once(std::chrono::seconds(60)));
    return done;
  }
};

TEST_F(ScanTest, AnImageScanIsOneMultipartPartOfFullQualityJpeg) {
  transport->respond("POST", "/app/v1/scan/c1", ZRKScriptedResponse::json({{"id", "r"}, {"score", 87}}));
  const auto photo = image(640, 480);
  // Encoding waits for a worker, never runs on the main thread: with every
  // worker busy, nothing can have been sent yet.
  std::promise<void> gate;  // broken, and so open, if the test ends early
  const std::shared_future<void> open = gate.get_future().share();
  for (int i = 0; i < 64; ++i) ZRKGlobalQueue::globalQueue().async([open] { open.wait(); });
  ScanRecorder done;
  client->scanImage(photo, {{"collectionId", "c1"}}, done);
  EXPECT_TRUE(transport->requests().empty());
  gate.set_value();
  ASSERT_TRUE(done.once(std::chrono::seconds(60)));
  EXPECT_TRUE(done.arg<0>() && done.arg<0>()->scanId() == "r");
  const auto sent = transport->requests();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].valueForHTTPHeaderField("Authorization"), "Bearer ");
  const std::string type = sent[0].valueForHTTPHeaderField("Content-Type").value_or("");
  const std::string boundary = type.substr(std::string("multipart/form-data; boundary=").size());
  const std::string jpeg = ZRKImageJPEGRepresentation(*photo, 1.0).value_or("");
  const std::string part = "Content-Disposition: form-data; name=\"file\"; filename=\"image.jpg\"\r\n"
                           "Content-Type: multipart/form-data\r\n\r\n";
  EXPECT_EQ(sent[0].HTTPBody(), "--" + boundary + "\r\n" + part + jpeg + "\r\n--" + boundary + "--\r\n");
}

TEST_F(ScanTest, PhotosAreReducedToAThousandPixelsOnTheLongerSide) {
  const std::tuple<int, int, double, int, int> cases[] = {
      {1000, 800, 1, 1000, 800}, {1001, 800, 1, 1000, 799}, {800, 1001, 1, 799, 1000}, {1200, 1200, 2, 1000, 1000}};
  for (const auto& [width, height, scale, sentWidth, sentHeight] : cases) {
    scan(image(width, height, scale));
    const auto sent = endpointRequests();
    const std::string body = sent.empty() ? "" : sent.back().HTTPBody().value_or("");
    const std::size_t start = body.find("\r\n\r\n") + 4, end = body.rfind("\r\n--");
    const auto jpeg = ZRKImage::imageWithData(body.substr(start, end - start));
    ASSERT_TRUE(jpeg) << width;
    EXPECT_EQ(jpeg->pixelWidth(), sentWidth) << width;
    EXPECT_EQ(jpeg->pixelHeight(), sentHeight) << width;
  }
}

// The image scan reads its answer itself: an error body first, then the
// transport's error; a body that is neither error nor scan gives neither.
TEST_F(ScanTest, ImageScanAnswers) {
  transport->respond("POST", "/app/v1/scan",
                     {ZRKScriptedResponse::json({{"code", "429"}, {"message", "slow"}, {"detail", {{"retry", 3}}}}),
                      ZRKScriptedResponse::failure(ZRKURLErrorCannotConnect),
                      ZRKScriptedResponse::json({{"code", nullptr}}, 500)});
  EXPECT_EQ(scan(image(8, 8)).arg<1>().value_or(ZRKError()).userInfo[ZRKErrorDetailKey], (ZRKJson{{"retry", 3}}));
  const auto error = scan(image(8, 8)).arg<1>().value_or(ZRKError());
  EXPECT_EQ(std::tie(error.domain, error.code), std::make_tuple(ZRKURLErrorDomain, ZRKURLErrorCannotConnect));
  const auto empty = scan(image(8, 8));
  EXPECT_FALSE(empty.arg<1>());
  EXPECT_TRUE(empty.arg<0>() && !empty.arg<0>()->scanId());
}

// The one completion that may come off the main thread: the missing image,
// reported at once where the call runs.
TEST_F(ScanTest, WithoutAnImageTheErrorComesAtOnceOnTheCallingThread) {
  ScanRecorder direct, viaToken;
  client->scanImage(nullptr, ZRKJson::object(), direct);
  ASSERT_EQ(direct.calls(), 1u);
  EXPECT_EQ(direct.arg<1>(), ZRKError(ZRKDomain, 1000,
                                      {{ZRKErrorCodeKey, "1000"},
                                       {ZRKLocalizedDescriptionKey, "ZRKSDK Error: Search image with invalid image"},
                                       {ZRKErrorMessageKey, "ZRKSDK Error: Search image with invalid image"}}));
  cacheToken("t");  // the token step then completes on the worker
  client->scanWithImage(nullptr, "c", viaToken);
  ASSERT_TRUE(viaToken.wait());
  EXPECT_TRUE(viaToken.offMainThread());
  EXPECT_EQ(viaToken.arg<1>().value_or(ZRKError()).code, 1000);
  client->scanImage(nullptr, ZRKJson::object(), nullptr);
  EXPECT_TRUE(transport->requests().empty());
}

}  // namespace
}  // namespace zrk
