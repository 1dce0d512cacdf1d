#include <gtest/gtest.h>

#include <thread>

#include "support/LoopbackServer.h"
#include "support/RawRecorder.h"
#include "support/MainQueueWait.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKApiRequest.h"

namespace zrk {
namespace {

using test::LoopbackServer;
using test::RecordedRequest;
using test::ScriptedResponse;

// A model that accepts bodies with a string "value".
class ValueModel : public ZRKApiResponseDecodable {
 public:
  std::shared_ptr<ZRKApiResponseDecodable> decodedObjectFromAPIResponse(const ZRKJson* response) const override {
    ++decodeCalls;
    sawNoJson = response == nullptr;
    if (!response || !response->contains("value") || !(*response)["value"].is_string()) return nullptr;
    auto model = makeEmpty();
    model->value = (*response)["value"].get<std::string>();
    return model;
  }
  std::optional<ZRKJson> allResponseFields() const override { return std::nullopt; }
  virtual std::shared_ptr<ValueModel> makeEmpty() const { return std::make_shared<ValueModel>(); }

  std::string value;
  mutable int decodeCalls = 0;
  mutable bool sawNoJson = false;
};

// One that can be picked from a list by the body's "object".
class NamedModel : public ValueModel, public ZRKObjectNaming {
 public:
  explicit NamedModel(std::string name) : name(std::move(name)) {}
  std::string zrkObject() const override { return name; }
  std::shared_ptr<ValueModel> makeEmpty() const override { return std::make_shared<NamedModel>(name); }
  std::string name;
};

struct Result {
  int calls = 0;
  bool onMainThread = false;
  std::shared_ptr<ZRKApiResponseDecodable> object;
  std::shared_ptr<const ZRKHTTPURLResponse> response;
  std::optional<ZRKError> error;
};

class ApiRequestTest : public ::testing::Test {
 protected:
  void SetUp() override { client->setApiURL(ZRKURL::URLWithString(server.url())); }

  ZRKApiRequestCompletion recorder(const std::shared_ptr<Result>& result) {
    return [result](auto object, auto response, auto error) {
      ++result->calls;
      result->onMainThread = ZRKMainQueue::isMainThread();
      result->object = std::move(object);
      result->response = std::move(response);
      result->error = std::move(error);
    };
  }

  std::shared_ptr<Result> wait(const std::shared_ptr<Result>& result) {
    EXPECT_TRUE(test::runMainQueueUntil([&] { return result->calls > 0; }));
    ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(20));
    EXPECT_EQ(result->calls, 1);
    EXPECT_TRUE(result->onMainThread);
    if (result->calls) {
      EXPECT_NE(result->object == nullptr, !result->error.has_value());
    }
    return result;
  }

  std::shared_ptr<Result> get(const ZRKJson& parameters, ZRKDeserializer model = std::make_shared<ValueModel>()) {
    auto result = std::make_shared<Result>();
    ZRKApiRequest::getWithAPIClient(client, "app/v1/collection", parameters, std::move(model), recorder(result));
    return wait(result);
  }

  LoopbackServer server;
  std::shared_ptr<ZRKApiClient> client = ZRKApiClient::initWithConfiguration(ZRKAppConfiguration::init());
};

// GET puts parameters in the query only when there are any, DELETE always
// ends its query text, POST and PATCH send a JSON body only with a key.
TEST_F(ApiRequestTest, EachVerbPlacesItsParameters) {
  using Send = ZRKApiRequest::Task (*)(const std::shared_ptr<ZRKApiClient>&, std::string_view, const ZRKJson&,
                                       ZRKDeserializer, ZRKApiRequestCompletion);
  const Send get = &ZRKApiRequest::getWithAPIClient, del = &ZRKApiRequest::deleteWithAPIClient,
             post = &ZRKApiRequest::postWithAPIClient, patch = &ZRKApiRequest::patchWithAPIClient;
  const ZRKJson keys = {{"key", "k"}, {"secret", "s/1"}}, none = nullptr, empty = ZRKJson::object();
  const ZRKJson getKeys = {{"count", 20}, {"offset", 0}}, deleteKeys = {{"email", "a@b.c"}};
  const std::string body = R"({"key":"k","secret":"s/1"})";
  struct Case {
    Send send;
    const char* method;
    const char* path;
    const ZRKJson& parameters;
    std::string target, body;
  };
  const Case cases[] = {
      {get, "GET", "app/v1/collection", empty, "/app/v1/collection", ""},
      {get, "GET", "app/v1/collection", none, "/app/v1/collection", ""},
      {get, "GET", "app/v1/collection", getKeys, "/app/v1/collection?count=20&offset=0", ""},
      {del, "DELETE", "app/v1/user/auth", none, "/app/v1/user/auth?", ""},
      {del, "DELETE", "app/v1/user/auth", empty, "/app/v1/user/auth?", ""},
      {del, "DELETE", "app/v1/user/auth", deleteKeys, "/app/v1/user/auth?email=a%40b.c", ""},
      {post, "POST", "app/v1/user", none, "/app/v1/user", ""},
      {post, "POST", "app/v1/user", empty, "/app/v1/user", ""},
      {post, "POST", "app/v1/user", keys, "/app/v1/user", body},
      {patch, "PATCH", "app/v1/user", none, "/app/v1/user", ""},
      {patch, "PATCH", "app/v1/user", empty, "/app/v1/user", ""},
      {patch, "PATCH", "app/v1/user", keys, "/app/v1/user", body}};
  for (const Case& c : cases) {
    auto result = std::make_shared<Result>();
    c.send(client, c.path, c.parameters, std::make_shared<ValueModel>(), recorder(result));
    wait(result);
  }
  const auto got = server.requests();
  ASSERT_EQ(got.size(), std::size(cases));
  for (std::size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i].method, cases[i].method) << i;
    EXPECT_EQ(got[i].target, cases[i].target) << i;
    EXPECT_EQ(got[i].body, cases[i].body) << i;
    EXPECT_EQ(got[i].has("Content-Type"), !cases[i].body.empty()) << i;
    if (cases[i].body.empty()) continue;
    EXPECT_EQ(got[i].header("Content-Type"), "application/json") << i;
    EXPECT_EQ(got[i].header("Content-Length"), std::to_string(got[i].body.size())) << i;
  }
  EXPECT_TRUE(got[2].header("Authorization").starts_with("Bearer"));
}

TEST_F(ApiRequestTest, TheModelDecidesNotTheStatus) {
  server.answer({.status = 500, .body = R"({"value":"fine"})"});
  auto result = get(nullptr);
  ASSERT_TRUE(result->object);
  EXPECT_EQ(std::dynamic_pointer_cast<ValueModel>(result->object)->value, "fine");
  EXPECT_EQ(result->response->statusCode(), 500);

  server.answer({.status = 200, .body = R"({"code":404,"message":"x","detail":{"field":"email"}})"});
  result = get(nullptr);
  ASSERT_TRUE(result->error);
  EXPECT_EQ(result->error->domain, ZRKDomain);
  EXPECT_EQ(result->error->code, 404);
  EXPECT_EQ(result->error->localizedDescription(), "x");
  EXPECT_EQ(result->error->userInfo[ZRKErrorMessageKey], "x");
  EXPECT_EQ(result->error->userInfo[ZRKErrorCodeKey], "404");
  EXPECT_EQ(result->error->userInfo[ZRKErrorDetailKey], (ZRKJson{{"field", "email"}}));
  EXPECT_EQ(result->response->statusCode(), 200);
}

TEST_F(ApiRequestTest, UndecodableBodiesGiveTheGenericError) {
  const ScriptedResponse cases[] = {
      {.status = 204, .body = ""},
      {.body = "not json"},
      {.body = R"("fragment")"},
      {.body = R"([{"value":"in an array"}])"},
      {.body = R"({"code":-1})"},
      {.body = std::string(300, '[') + std::string(300, ']')},
  };
  for (const auto& c : cases) {
    server.answer(c);
    auto model = std::make_shared<ValueModel>();
    const auto result = get(nullptr, model);
    ASSERT_TRUE(result->error) << c.body;
    EXPECT_EQ(result->error->domain, ZRKDomain);
    EXPECT_EQ(result->error->code, ZRKErrorCodeFailedToParseResponse) << c.body;
    EXPECT_EQ(model->decodeCalls, 1);
    if (c.body != R"({"code":-1})") {
      EXPECT_TRUE(model->sawNoJson) << c.body;
    }
  }
}

TEST_F(ApiRequestTest, TransportErrorsPassUnchanged) {
  client->setApiURL(ZRKURL::URLWithString("http://127.0.0.1:1"));
  auto result = get(nullptr);
  ASSERT_TRUE(result->error);
  EXPECT_EQ(result->error->domain, ZRKURLErrorDomain);
  EXPECT_EQ(result->error->code, ZRKURLErrorCannotConnect);

  client->setApiURL(std::nullopt);
  result = get(nullptr);
  EXPECT_EQ(result->error->code, ZRKURLErrorBadURL);
}

TEST_F(ApiRequestTest, ReturnedTaskCancelsTheCall) {
  server.answer({.body = R"({"value":"late"})", .stall = std::chrono::seconds(5)});
  auto result = std::make_shared<Result>();
  auto task = ZRKApiRequest::getWithAPIClient(client, "app/v1/history", nullptr, std::make_shared<ValueModel>(),
                                              recorder(result));
  ASSERT_TRUE(server.waitForRequests(1));
  task->cancel();
  wait(result);
  server.release();
  ASSERT_TRUE(result->error);
  EXPECT_EQ(result->error->domain, ZRKURLErrorDomain);
  EXPECT_EQ(result->error->code, ZRKURLErrorCancelled);
}

TEST_F(ApiRequestTest, CallsFromAnyThreadCompleteOnTheMainThread) {
  server.answer({.body = R"({"value":"v"})"});
  auto result = std::make_shared<Result>();
  std::thread([&] {
    ZRKApiRequest::postWithAPIClient(client, "app/v1/user", {{"a", 1}}, std::make_shared<ValueModel>(), recorder(result));
  }).join();
  wait(result);
  EXPECT_TRUE(result->object);
}

TEST(ParseResponse, PicksTheDeserializerByObjectWhenThereAreSeveral) {
  const auto parse = [](const std::string& body, const ZRKApiRequest::Deserializers& list) {
    std::shared_ptr<ZRKApiResponseDecodable> object;
    std::optional<ZRKError> error;
    ZRKApiRequest::parseResponse(nullptr, body, std::nullopt, list, [&](auto o, auto, auto e) {
      object = std::move(o);
      error = std::move(e);
    });
    return std::make_pair(object, error);
  };
  const auto first = std::make_shared<NamedModel>("scan");
  const auto second = std::make_shared<NamedModel>("scan");
  const auto other = std::make_shared<NamedModel>("user");
  const auto plain = std::make_shared<ValueModel>();

  // Ran synchronously: parsing here is on the main thread.
  auto [object, error] = parse(R"({"object":"scan","value":"v"})", {first, plain, second, other});
  EXPECT_EQ(std::dynamic_pointer_cast<NamedModel>(object)->name, "scan");
  EXPECT_EQ(first->decodeCalls, 0);
  EXPECT_EQ(second->decodeCalls, 1);

  std::tie(object, error) = parse(R"({"value":"v"})", {first, other});
  EXPECT_FALSE(object);
  EXPECT_EQ(error->code, ZRKErrorCodeFailedToParseResponse);

  std::tie(object, error) = parse(R"({"object":"none","value":"v","code":"17"})", {first, other});
  EXPECT_EQ(error->code, 17);
  EXPECT_EQ(error->userInfo[ZRKErrorCodeKey], "17");

  // One deserializer ignores "object" entirely.
  std::tie(object, error) = parse(R"({"object":"user","value":"v"})", {first});
  EXPECT_TRUE(object);

  std::tie(object, error) = parse(R"({"value":"v"})", {});
  EXPECT_EQ(error->code, ZRKErrorCodeFailedToParseResponse);
  std::tie(object, error) = parse(R"({"value":"v"})", {nullptr});
  EXPECT_EQ(error->code, ZRKErrorCodeFailedToParseResponse);

  const ZRKError transport(ZRKURLErrorDomain, ZRKURLErrorTimedOut);
  ZRKApiRequest::parseResponse(nullptr, R"({"value":"v"})", transport, {first}, [&](auto o, auto, auto e) {
    EXPECT_FALSE(o);
    EXPECT_EQ(e, transport);
  });
}

}  // namespace
}  // namespace zrk

namespace zrk {
namespace {

// The exact bytes of a request: header lines as written, the empty bearer
// with its trailing space, no "Expect", the JSON body.
TEST(ApiRequestWire, SendsTheExactBytes) {
  test::RawRecorder recorder;
  ZRKApiAuthToken::clear();
  const auto client = ZRKApiClient::initWithConfiguration(ZRKAppConfiguration::init());
  client->setApiURL(ZRKURL::URLWithString(recorder.url()));
  bool done = false;
  ZRKApiRequest::postWithAPIClient(client, "app/v1/auth", {{"key", "k"}, {"secret", "s"}},
                                   std::make_shared<ZRKApiAuthToken>(), [&](auto, auto, auto) { done = true; });
  ASSERT_TRUE(test::runMainQueueUntil([&] { return done; }));
  const auto raw = recorder.requests().at(0);
  const std::string head = raw.substr(0, raw.find("\r\n\r\n") + 2);
  EXPECT_TRUE(head.starts_with("POST /app/v1/auth HTTP/1.1\r\n")) << head;
  EXPECT_NE(head.find("\r\nAuthorization: Bearer \r\n"), std::string::npos) << head;
  EXPECT_NE(head.find("\r\nContent-Type: application/json\r\n"), std::string::npos) << head;
  EXPECT_NE(head.find("\r\nContent-Length: 24\r\n"), std::string::npos) << head;
  EXPECT_EQ(head.find("Expect:"), std::string::npos) << head;
  EXPECT_EQ(raw.substr(raw.find("\r\n\r\n") + 4), R"({"key":"k","secret":"s"})");
}

}  // namespace
}  // namespace zrk
