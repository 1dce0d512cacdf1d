#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <stdexcept>
#include <tuple>

#include "support/LoopbackServer.h"
#include "support/MainQueueWait.h"
#include "support/ServiceTest.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKUser.h"
#include "zrk/ZRKUserAPIResponse.h"
#include "zrk/ZRKUserSession.h"

namespace zrk {
namespace {

using test::LoopbackServer;
using test::RecordedRequest;
using test::ScriptedResponse;

std::shared_ptr<ZRKUserAPIResponse> decode(const ZRKJson& body) {
  return std::dynamic_pointer_cast<ZRKUserAPIResponse>(ZRKUserAPIResponse().decodedObjectFromAPIResponse(&body));
}

using Fields = std::tuple<std::optional<std::string>, std::optional<std::string>, std::optional<std::string>,
                          std::optional<std::string>, std::optional<std::string>, std::optional<std::string>>;

Fields fields(const ZRKUserAPIResponse& user) {
  return {user.email(), user.name(), user.gender(), user.birthdate(), user.avatar(), user.token()};
}

TEST(UserResponse, DecodesStringsOnlyAndAnyCodeAsNothing) {
  const auto user = decode({{"email", "x1"}, {"name", "Ann"}, {"gender", "f"}, {"birthdate", "1980-01-01"},
                            {"avatar", "https://x/a.png"}, {"token", "t0k"}, {"extra", 1}});
  ASSERT_TRUE(user);
  EXPECT_EQ(fields(*user), Fields("x1", "Ann", "f", "1980-01-01", "https://x/a.png", "t0k"));
  EXPECT_FALSE(user->allResponseFields());
  EXPECT_EQ(user->description(), "email(x1)\nname(Ann)\n");

  const auto sparse = decode({{"email", nullptr}, {"name", "Ann"}, {"birthdate", 19800101}, {"gender", 2}});
  ASSERT_TRUE(sparse);
  EXPECT_EQ(fields(*sparse), Fields(std::nullopt, "Ann", std::nullopt, std::nullopt, std::nullopt, std::nullopt));
  EXPECT_EQ(sparse->description(), "email((null))\nname(Ann)\n");
  ASSERT_TRUE(decode(ZRKJson::object()));
  EXPECT_EQ(decode(ZRKJson::object())->description(), "email((null))\nname((null))\n");

  EXPECT_FALSE(decode({{"code", 401}, {"message", "Unauthorized"}}));
  EXPECT_FALSE(decode({{"code", ""}, {"email", "x"}}));
  EXPECT_FALSE(decode(ZRKJson::array()));
  EXPECT_FALSE(ZRKUserAPIResponse().decodedObjectFromAPIResponse(nullptr));
  EXPECT_TRUE(decode({{"code", nullptr}, {"email", "x"}}));  // a null code is no code
}

class MemberAccount : public ZRKUserAPIResponse {
 protected:
  std::shared_ptr<ZRKUserAPIResponse> newInstance() const override { return std::make_shared<MemberAccount>(); }
};

TEST(UserResponse, CopiesTheSixFieldsIntoTheSameClass) {
  const ZRKJson body = {{"email", "e"}, {"name", "n"}, {"gender", "g"}, {"birthdate", "b"}, {"avatar", "a"},
                        {"token", "t"}};
  const auto user = std::dynamic_pointer_cast<ZRKUserAPIResponse>(MemberAccount().decodedObjectFromAPIResponse(&body));
  ASSERT_TRUE(dynamic_cast<MemberAccount*>(user.get()));
  user->setAllResponseFields(body);
  const auto copy = user->copy();
  ASSERT_TRUE(dynamic_cast<MemberAccount*>(copy.get()));
  EXPECT_EQ(fields(*copy), Fields("e", "n", "g", "b", "a", "t"));
  EXPECT_FALSE(copy->allResponseFields());
}

std::shared_ptr<ZRKUser> ann() {
  return ZRKUser::initFromDictionary({{"email", "ann@example.com"}, {"name", "Ann"}, {"password", "pw1"}});
}

TEST(User, ReadsSixKeysAndBuildsItsParameterSets) {
  const auto user = ZRKUser::initFromDictionary({{"name", "Ann"}, {"email", "e"}, {"password", "p"},
                                                 {"birthdate", "b"}, {"gender", 3}, {"avatar", "a"}, {"id", "i"}});
  EXPECT_EQ(user->ZRKUserName(), "Ann");
  EXPECT_EQ(user->ZRKUserAvatar(), "a");
  EXPECT_FALSE(user->ZRKUserGender());
  EXPECT_FALSE(user->ZRKUserId());
  EXPECT_EQ(user->loginParameters(), (ZRKJson{{"email", "e"}, {"password", "p"}}));
  EXPECT_EQ(user->requiredParameters(), (ZRKJson{{"email", "e"}, {"name", "Ann"}, {"password", "p"}}));
  EXPECT_EQ(user->optionalParameters(), (ZRKJson{{"birthdate", "b"}, {"avatar", "a"}}));
  EXPECT_EQ(user->allParameters(),
            (ZRKJson{{"email", "e"}, {"name", "Ann"}, {"password", "p"}, {"birthdate", "b"}, {"avatar", "a"}}));
  EXPECT_EQ(ZRKUser().optionalParameters(), ZRKJson::object());
}

TEST(User, AMissingMandatoryValueThrows) {
  ZRKUser user;
  user.setZRKUserEmail("e");
  user.setZRKUserPassword("p");
  EXPECT_NO_THROW(user.loginParameters());
  EXPECT_THROW(user.requiredParameters(), std::invalid_argument);
  EXPECT_THROW(user.allParameters(), std::invalid_argument);
  user.setZRKUserName("n");
  user.setZRKUserPassword(std::nullopt);
  EXPECT_THROW(user.loginParameters(), std::invalid_argument);
  EXPECT_THROW(user.requiredParameters(), std::invalid_argument);
}

struct Call {
  std::shared_ptr<ZRKUserAPIResponse> result;
  std::optional<ZRKError> error;
  bool onMainThread = false;
};

// Every call a completion received, in order. The record outlives the
// test, so that a stray late call cannot touch a dead one.
class Calls {
 public:
  ZRKUserCompletion completion() {
    return [record = record_](std::shared_ptr<ZRKUserAPIResponse> result, std::optional<ZRKError> error) {
      std::lock_guard lock(record->mutex);
      record->calls.push_back({std::move(result), std::move(error), ZRKMainQueue::isMainThread()});
    };
  }
  std::vector<Call> snapshot() const {
    std::lock_guard lock(record_->mutex);
    return record_->calls;
  }
  std::size_t size() const { return snapshot().size(); }

 private:
  struct Record {
    std::mutex mutex;
    std::vector<Call> calls;  // guarded by mutex
  };
  std::shared_ptr<Record> record_ = std::make_shared<Record>();
};

using Lines = std::multiset<std::string>;

std::string line(const RecordedRequest& request) {
  return request.method + " " + request.target + (request.body.empty() ? "" : " " + request.body);
}

class UserTest : public test::ServiceTest {
 protected:
  void SetUp() override {
    ServiceTest::SetUp();
    endpointAnswer = {.body = R"({"email":"ann@example.com","name":"Ann","token":"ut1"})"};
  }

  // Waits until the calls arrived, then a little longer to catch one more.
  void waitFor(Calls& calls, std::size_t n) {
    ASSERT_TRUE(test::runMainQueueUntil([&] { return calls.size() >= n; }));
    ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(20));
    ASSERT_EQ(calls.size(), n);
  }

  // Lets n requests arrive and their answers be handled (the token step's
  // answer is handled on the main queue, so that has to run meanwhile).
  void settle(std::size_t n) {
    EXPECT_TRUE(test::runMainQueueUntil([&] { return server.count() >= n; }));
    ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(200));
  }

  std::string sessionToken() { return ZRKUserSession::currentSession()->userToken().value_or("<unset>"); }
};

TEST_F(UserTest, RegisterAndUpdateSendTheUsersFields) {
  Calls calls;
  client->registerUser(ann(), calls.completion());
  auto withGender = std::make_shared<ZRKUser>(*ann());
  withGender->setZRKUserGender("female");
  client->registerUser(withGender, calls.completion());
  client->updateUserAvatar(withGender, ZRKImage::imageWithRGBAPixels(std::vector<std::uint8_t>(4, 0), 1, 1),
                           calls.completion());
  client->updateUserProfile(withGender, calls.completion());
  waitFor(calls, 4);
  for (const Call& call : calls.snapshot()) {
    ASSERT_TRUE(call.result);
    EXPECT_EQ(call.result->name(), "Ann");
    EXPECT_FALSE(call.error);
    EXPECT_TRUE(call.onMainThread);
  }

  Lines sent;
  for (const auto& request : endpointRequests()) {
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    sent.insert(line(request));
  }
  const std::string required = R"("email":"ann@example.com","name":"Ann","password":"pw1")";
  const std::string gendered = R"("email":"ann@example.com","gender":"female","name":"Ann","password":"pw1")";
  // The avatar update sends what registration sends; the image goes nowhere.
  EXPECT_EQ(sent, (Lines{"POST /app/v1/user {" + required + "}", "POST /app/v1/user {" + gendered + "}",
                         "POST /app/v1/user {" + gendered + "}", "PATCH /app/v1/user {" + gendered + "}"}));
}

TEST_F(UserTest, RetrieveSendsTheTokenUnderBothNames) {
  Calls calls;
  client->retrieveUser("u-1", calls.completion());
  waitFor(calls, 1);
  const auto sent = endpointRequests();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(line(sent[0]), "GET /app/v1/user?Pelmor-User-Token=u-1&ZRK-User-Token=u-1");
  EXPECT_FALSE(sent[0].has("ZRK-User-Token"));
}

TEST_F(UserTest, TheRawRequestsHaveNoGuards) {
  Calls calls;
  client->createUserAPIGetRequest(nullptr, calls.completion());
  client->createUserAPIPostRequest(nullptr, calls.completion());
  client->createUserAPIPatchRequest(nullptr, calls.completion());
  waitFor(calls, 3);
  Lines sent;
  for (const auto& request : endpointRequests()) sent.insert(line(request));
  EXPECT_EQ(sent, (Lines{"GET /app/v1/user", "POST /app/v1/user", "PATCH /app/v1/user"}));
}

TEST_F(UserTest, MissingInputsSendNothing) {
  Calls calls;
  auto nameless = std::make_shared<ZRKUser>(*ann());
  nameless->setZRKUserName(std::nullopt);
  EXPECT_THROW(client->registerUser(nameless, calls.completion()), std::invalid_argument);
  EXPECT_THROW(client->updateUserProfile(nameless, calls.completion()), std::invalid_argument);
  EXPECT_THROW(client->updateUserAvatar(nameless, nullptr, calls.completion()), std::invalid_argument);
  auto passwordless = std::make_shared<ZRKUser>(*ann());
  passwordless->setZRKUserPassword(std::nullopt);
  EXPECT_THROW(client->loginUser(passwordless, calls.completion()), std::invalid_argument);

  client->registerUser(nullptr, calls.completion());
  client->updateUserProfile(nullptr, calls.completion());
  client->updateUserAvatar(nullptr, nullptr, calls.completion());
  client->loginUser(nullptr, calls.completion());
  client->retrieveUser(std::nullopt, calls.completion());
  client->retrieveUser("", calls.completion());
  ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(200));
  EXPECT_EQ(calls.size(), 0u);
  EXPECT_EQ(server.count(), 0u);
}

TEST_F(UserTest, LoginKeepsTheTokenOnlyForACompletion) {
  client->loginUser(ann(), nullptr);
  settle(2);
  EXPECT_EQ(sessionToken(), "");

  Calls calls;
  client->loginUser(ann(), calls.completion());
  waitFor(calls, 1);
  EXPECT_EQ(calls.snapshot()[0].result->token(), "ut1");
  EXPECT_EQ(sessionToken(), "ut1");
  const auto logins = endpointRequests();
  ASSERT_EQ(logins.size(), 2u);
  EXPECT_EQ(line(logins[1]), R"(POST /app/v1/user/auth {"email":"ann@example.com","password":"pw1"})");

  // Later requests carry the user token; an answer without one keeps it.
  setAnswers(authAnswer, {.body = R"({"name":"Ann"})"});
  client->createUserAPIGetRequest(nullptr, calls.completion());
  client->loginUser(ann(), calls.completion());
  waitFor(calls, 3);
  const auto later = endpointRequests();
  ASSERT_EQ(later.size(), 4u);
  for (std::size_t i = 2; i < later.size(); ++i) {
    EXPECT_EQ(later[i].header("ZRK-User-Token"), "ut1");
    EXPECT_EQ(later[i].header("Pelmor-User-Token"), "ut1");
  }
  EXPECT_EQ(sessionToken(), "ut1");
}

TEST_F(UserTest, LogoutCallsAtOnceThenWithTheAnswerAndClearsTheSession) {
  const ScriptedResponse answers[] = {{.body = R"({"name":"Ann"})"}, {.status = 500, .body = R"({"code":7})"}};
  for (const ScriptedResponse& response : answers) {
    ZRKUserSession::setCurrentUserToken("ut1");
    setAnswers(authAnswer, response);
    Calls calls;
    client->logoutUser(ann(), calls.completion());
    ASSERT_EQ(calls.size(), 1u);
    const Call early = calls.snapshot()[0];
    EXPECT_TRUE(!early.result && !early.error && early.onMainThread);
    EXPECT_EQ(sessionToken(), "ut1");
    waitFor(calls, 2);
    const Call reply = calls.snapshot()[1];
    EXPECT_TRUE(reply.onMainThread);
    if (response.status == 200) {
      ASSERT_TRUE(reply.result);
      EXPECT_EQ(reply.result->name(), "Ann");
      EXPECT_FALSE(reply.error);
    } else {
      EXPECT_FALSE(reply.result);
      ASSERT_TRUE(reply.error);
      EXPECT_EQ(reply.error->code, 7);
    }
    EXPECT_EQ(sessionToken(), "");
  }
  const auto sent = endpointRequests();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(line(sent[0]), "DELETE /app/v1/user/auth?email=ann%40example.com&password=pw1");
  EXPECT_EQ(sent[0].header("ZRK-User-Token"), "ut1");

  // Without a completion, nobody is told and the session stays.
  ZRKUserSession::setCurrentUserToken("ut1");
  const std::size_t before = server.count();
  client->logoutUser(ann(), nullptr);
  settle(before + 1);
  EXPECT_EQ(endpointRequests().size(), 3u);
  EXPECT_EQ(sessionToken(), "ut1");
}

TEST_F(UserTest, LogoutOfAnIncompleteUserIsAnErrorOnTheCallingThread) {
  ZRKUserSession::setCurrentUserToken("ut1");
  auto emailless = std::make_shared<ZRKUser>(*ann());
  emailless->setZRKUserEmail(std::nullopt);
  auto passwordless = std::make_shared<ZRKUser>(*ann());
  passwordless->setZRKUserPassword(std::nullopt);
  for (const auto& user : {std::shared_ptr<ZRKUser>(), emailless, passwordless}) {
    Calls calls;
    client->logoutUser(user, calls.completion());
    ASSERT_EQ(calls.size(), 1u);
    const Call call = calls.snapshot()[0];
    EXPECT_FALSE(call.result);
    ASSERT_TRUE(call.error);
    EXPECT_EQ(call.error->domain, ZRKDomain);
    EXPECT_EQ(call.error->code, 10001);
    EXPECT_EQ(call.error->userInfo[ZRKErrorCodeKey], "10001");
    EXPECT_EQ(call.error->localizedDescription(), "Invalid user");
  }
  client->logoutUser(nullptr, nullptr);
  ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(200));
  EXPECT_EQ(server.count(), 0u);
  EXPECT_EQ(sessionToken(), "ut1");
}

TEST_F(UserTest, AFailedTokenStepEndsEveryCallInSilence) {
  setAnswers({.status = 500, .body = R"({"code":500,"message":"down"})"}, endpointAnswer);
  ZRKUserSession::setCurrentUserToken("ut1");
  Calls calls;
  client->registerUser(ann(), calls.completion());
  client->updateUserProfile(ann(), calls.completion());
  client->retrieveUser("u", calls.completion());
  client->loginUser(ann(), calls.completion());
  client->createUserAPIGetRequest(nullptr, calls.completion());
  Calls logout;
  client->logoutUser(ann(), logout.completion());
  settle(6);
  EXPECT_EQ(calls.size(), 0u);
  EXPECT_EQ(logout.size(), 1u);  // only the early call
  EXPECT_EQ(server.count(), 6u);
  EXPECT_TRUE(endpointRequests().empty());
  EXPECT_EQ(sessionToken(), "ut1");
}

}  // namespace
}  // namespace zrk
