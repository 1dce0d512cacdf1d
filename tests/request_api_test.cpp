#include <gtest/gtest.h>

#include <limits>
#include <regex>
#include <thread>

#include "support/MemoryServiceTest.h"
#include "request/ZRKJsonBody.h"
#include "support/Recorder.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKFormEncoder.h"
#include "zrk/ZRKMultipartFormData.h"
#include "zrk/ZRKRequestBodies.h"

namespace zrk {
namespace {

using test::ZRKScriptedResponse;
using RequestRecorder = test::Recorder<std::shared_ptr<ZRKApiResponseDecodable>,
                                       std::shared_ptr<const ZRKHTTPURLResponse>, std::optional<ZRKError>>;

// Accepts bodies with a string "value"; picked from a list by its name.
class ValueModel : public ZRKApiResponseDecodable, public ZRKObjectNaming {
 public:
  explicit ValueModel(std::string name = "") : name(std::move(name)) {}
  std::shared_ptr<ZRKApiResponseDecodable> decodedObjectFromAPIResponse(const ZRKJson* response) const override {
    ++decodeCalls;
    if (!response || !response->contains("value") || !(*response)["value"].is_string()) return nullptr;
    return std::make_shared<ValueModel>(name);
  }
  std::optional<ZRKJson> allResponseFields() const override { return std::nullopt; }
  std::string zrkObject() const override { return name; }
  std::string name;
  mutable int decodeCalls = 0;
};

std::string nameOf(const RequestRecorder& recorder) {
  const auto model = std::dynamic_pointer_cast<ValueModel>(recorder.arg<0>());
  return model ? model->name : "<none>";
}
long codeOf(const RequestRecorder& recorder) { return recorder.arg<2>().value_or(ZRKError()).code; }

using RequestTest = test::MemoryServiceTest;

// The endpoints never send these: a DELETE without parameters, which ends
// in a bare "?", and a POST of an empty object, which has no body.
TEST_F(RequestTest, AnEmptyDeleteEndsInAQuestionMarkAnEmptyPostHasNoBody) {
  RequestRecorder deleted, posted;
  ZRKApiRequest::deleteWithAPIClient(client, "app/v1/x", ZRKJson::object(), std::make_shared<ValueModel>(), deleted);
  ASSERT_TRUE(deleted.once());
  ZRKApiRequest::postWithAPIClient(client, "app/v1/x", ZRKJson::object(), std::make_shared<ValueModel>(), posted);
  ASSERT_TRUE(posted.once());
  const auto sent = transport->requests();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(line(sent[0]), "DELETE /app/v1/x?");
  EXPECT_EQ(line(sent[1]), "POST /app/v1/x");
  EXPECT_FALSE(sent[1].HTTPBody());
}

RequestRecorder parse(const std::string& body, const ZRKApiRequest::Deserializers& list, long status = 200,
                      std::optional<ZRKError> transportError = std::nullopt) {
  RequestRecorder done;
  const auto response = std::make_shared<ZRKHTTPURLResponse>(std::nullopt, status, "HTTP/1.1", ZRKHTTPHeaderFields());
  ZRKApiRequest::parseResponse(response, body, std::move(transportError), list, done);
  EXPECT_EQ(done.calls(), 1u);  // at once, on the main thread
  EXPECT_EQ(done.arg<0>() == nullptr, done.arg<2>().has_value());
  EXPECT_EQ(done.arg<1>(), response);
  return done;
}

// The model decides, never the status.
TEST(ParseResponse, TheModelDecidesNotTheStatus) {
  const auto model = std::make_shared<ValueModel>("v");
  EXPECT_EQ(nameOf(parse(R"({"value":"fine"})", {model}, 500)), "v");
  EXPECT_EQ(parse(R"({"code":404,"message":"x","detail":{"field":"email"}})", {model}).arg<2>(),
            ZRKError("cloud.zrk.api", 404,
                     {{ZRKErrorCodeKey, "404"}, {ZRKLocalizedDescriptionKey, "x"}, {ZRKErrorMessageKey, "x"},
                      {ZRKErrorDetailKey, {{"field", "email"}}}}));
  for (const char* body : {"", "not json", R"("fragment")", R"([{"value":"v"}])", R"({"code":-1,"value":5})"}) {
    EXPECT_EQ(codeOf(parse(body, {model}, 204)), ZRKErrorCodeFailedToParseResponse) << body;
  }
  const ZRKError timedOut(ZRKURLErrorDomain, ZRKURLErrorTimedOut);
  EXPECT_EQ(parse(R"({"value":"v"})", {model}, 200, timedOut).arg<2>(), timedOut);
}

// Long string values are decoded apart from the parser, to spare memory:
// the result must be the parser's own, byte for byte, and what it refuses
// stays refused.
TEST(ParseResponse, LongStringsDecodeAsTheParserWould) {
  const std::string pad(70000, 'p');
  for (const std::string& inner :
       {std::string(R"(\"\\\/\b\f\n\r\t)"), std::string(R"(\u0041\u00e9\u20AC\u0000)"), std::string(R"(\ud83d\ude00)"),
        std::string("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"),
        // Refused: a lone or reversed surrogate, a bad escape or hex digit,
        // bytes that are not UTF-8 (overlong, a surrogate, past U+10FFFF,
        // cut short), a raw control character.
        std::string(R"(\ud83d)"), std::string(R"(\ude00\ud83d)"), std::string(R"(\x)"), std::string(R"(\u12G4)"),
        std::string("\xC0\xAF"), std::string("\xED\xA0\x80"), std::string("\xF4\x90\x80\x80"), std::string("\xE2\x82"),
        std::string("\x01")}) {
    for (const std::string& value : {pad + inner, inner + pad}) {
      const std::string body = R"({"k":"short","long":")" + value + R"(","list":["a",")" + value + R"(",3]})";
      const ZRKJson expected = ZRKJson::parse(body, nullptr, false);
      const auto parsed = detail::parseJSONObjectBody(body);
      ASSERT_EQ(parsed.has_value(), !expected.is_discarded()) << inner;
      if (parsed) {
        EXPECT_TRUE(*parsed == expected) << inner;
      }
    }
  }
  // A long key stays with the parser; the strings after it keep their places.
  const std::string body = R"({")" + pad + R"(":"a","b": [")" + pad + R"(x", "c"],"d":")" + pad + R"(y"})";
  EXPECT_TRUE(detail::parseJSONObjectBody(body) == ZRKJson::parse(body));
}

TEST(ParseResponse, PicksTheDeserializerByObjectWhenThereAreSeveral) {
  const auto first = std::make_shared<ValueModel>("scan"), second = std::make_shared<ValueModel>("scan");
  const auto user = std::make_shared<ValueModel>("user");
  EXPECT_EQ(nameOf(parse(R"({"object":"scan","value":"v"})", {first, user, second})), "scan");
  EXPECT_EQ(first->decodeCalls, 0);
  EXPECT_EQ(second->decodeCalls, 1);
  EXPECT_EQ(nameOf(parse(R"({"object":"user","value":"v"})", {first})), "scan");  // one ignores "object"
  EXPECT_EQ(codeOf(parse(R"({"value":"v"})", {first, user})), ZRKErrorCodeFailedToParseResponse);
  EXPECT_EQ(codeOf(parse(R"({"object":"none","value":"v","code":"17"})", {first, user})), 17);
  EXPECT_EQ(codeOf(parse(R"({"value":"v"})", {})), ZRKErrorCodeFailedToParseResponse);
  EXPECT_EQ(codeOf(parse(R"({"value":"v"})", {nullptr})), ZRKErrorCodeFailedToParseResponse);
  // Bodies nested deeper than 256 levels are no JSON.
  const auto nested = [](int levels) {
    return R"({"value":"v","n":)" + std::string(levels - 1, '[') + std::string(levels - 1, ']') + "}";
  };
  EXPECT_EQ(nameOf(parse(nested(256), {user})), "user");
  EXPECT_EQ(codeOf(parse(nested(257), {user})), ZRKErrorCodeFailedToParseResponse);
}

TEST(ParseResponse, CalledOnAWorkerItCompletesOnTheMainThread) {
  RequestRecorder done;
  std::thread([&] {
    ZRKApiRequest::parseResponse(nullptr, R"({"value":"v"})", std::nullopt, {std::make_shared<ValueModel>("w")}, done);
  }).join();
  ASSERT_TRUE(done.once());
  EXPECT_EQ(nameOf(done), "w");
}

TEST(ApiErrors, BodiesWithAUsableCodeBecomeErrors) {
  const auto fromBody = [](const ZRKJson& body) { return zrk_errorFromAPIResponse(&body); };
  EXPECT_FALSE(zrk_errorFromAPIResponse(nullptr));
  for (const ZRKJson& body : {ZRKJson::array({1}), ZRKJson{{"message", "m"}}, ZRKJson{{"code", -1}},
                              ZRKJson{{"code", "-1"}}, ZRKJson{{"code", nullptr}}, ZRKJson{{"code", {404}}}}) {
    EXPECT_FALSE(fromBody(body)) << body;
  }
  const std::pair<ZRKJson, long> codes[] = {{{{"code", "17"}}, 17}, {{{"code", -2}}, -2}, {{{"code", "abc"}}, 0},
                                            {{{"code", 10001.9}}, 10001}};
  for (const auto& [body, code] : codes) {
    const auto error = fromBody(body);
    ASSERT_TRUE(error) << body;
    EXPECT_EQ(error->code, code);
    EXPECT_EQ(error->userInfo[ZRKErrorCodeKey], std::to_string(code));
  }
  // Without a message the user sees the generic text, the developer a fixed one.
  EXPECT_EQ(fromBody({{"code", 401}, {"message", 7}, {"detail", {1, 2}}}).value_or(ZRKError()).userInfo,
            (ZRKJson{{ZRKErrorCodeKey, "401"},
                     {ZRKLocalizedDescriptionKey, zrk_unexpectedErrorMessage()},
                     {ZRKErrorMessageKey, "Could not interpret the error response that was returned from ZRK Api."}}));
  EXPECT_EQ(zrk_genericFailedToParseResponseError(),
            ZRKError(ZRKDomain, 32,
                     {{ZRKLocalizedDescriptionKey, zrk_unexpectedErrorMessage()},
                      {ZRKErrorMessageKey, "The response from ZRK API failed to get parsed into valid JSON."}}));
}

TEST(QueryEncoding, SortsEscapesAndIndexes) {
  const std::pair<ZRKJson, std::string> cases[] = {
      {{{"user", {{"tags", {"x", "y"}}, {"name", "A B"}}}, {"on", true}, {"n", 5}},
       "n=5&on=true&user[name]=A%20B&user[tags][0]=x&user[tags][1]=y"},
      {{{"b", 1}, {"A", 2}, {"a", 3}}, "A=2&a=3&b=1"},
      // Keys sort by their escaped spelling: "%20" before "%21" before digits.
      {{{"0", 1}, {"!", 2}, {" ", 3}}, "%20=3&%21=2&0=1"},
      {{{"m", {{"b", 1}, {"B", 2}}}}, "m[B]=2&m[b]=1"},
      {{{"k", nullptr}, {"e", ZRKJson::array()}, {"o", ZRKJson::object()}}, "k="},
      {{{"one", 1}, {"no", false}, {"f", 0.1}, {"g", -2.5}}, "f=0.1&g=-2.5&no=false&one=1"},
      {{{"k", {1, {2, 3}, {{"z", nullptr}}}}}, "k[0]=1&k[1][0]=2&k[1][1]=3&k[2][z]="},
      {{{"a b", {{"c&d", "e=f+g"}}}}, "a%20b[c%26d]=e%3Df%2Bg"},
      {nullptr, ""},
  };
  for (const auto& [parameters, query] : cases) EXPECT_EQ(ZRKQueryStringFromParameters(parameters), query);
  EXPECT_EQ(ZRKPercentEscapedObject({{"a b", {"c d", nullptr, false}}}), (ZRKJson{{"a%20b", {"c%20d", "", "false"}}}));
  // Pairs made directly render the value as it is; null has no "=".
  EXPECT_EQ(ZRKQueryStringPairsFromKeyAndValue("k", {{"y", nullptr}}).at(0).stringValue(), "k[y]");
}

TEST(QueryEncoding, EscapesAllButLettersDigitsAndSixMarks) {
  const std::pair<std::string, std::string> cases[] = {
      {"a/b?x-._~", "a/b?x-._~"},
      {":#[]@!$&'()*+,;=", "%3A%23%5B%5D%40%21%24%26%27%28%29%2A%2B%2C%3B%3D"},
      {std::string("\"%<>\\ \0\n", 8), "%22%25%3C%3E%5C%20%00%0A"},
      {"é", "%C3%A9"},
      // A flag across the end of the first 50-unit batch comes out whole.
      {std::string(49, 'a') + "\U0001F1F8\U0001F1EA" + std::string(69, 'b'),
       std::string(49, 'a') + "%F0%9F%87%B8%F0%9F%87%AA" + std::string(69, 'b')},
  };
  for (const auto& [text, escaped] : cases) EXPECT_EQ(ZRKPercentEscapedStringFromString(text), escaped) << text;
}

// A model with a mapped property that may be missing and a nested model.
class Account : public ZRKFormEncodable {
 public:
  std::map<std::string, std::string> propertyNamesToFormFieldNamesMapping() const override {
    return {{"firstName", "first_name"}, {"owner", "owner"}};
  }
  ZRKFormValue valueForKey(std::string_view property) const override {
    if (property == "firstName" && firstName) return *firstName;
    return property == "owner" && owner ? ZRKFormValue(owner) : ZRKFormValue();
  }
  std::optional<std::string> rootObjectName() const override { return root; }
  std::optional<std::string> firstName, root;
  std::shared_ptr<const Account> owner;
};

TEST(FormEncodable, MappedPropertiesThenAdditionalParametersUnderTheRoot) {
  auto owner = std::make_shared<Account>();
  owner->firstName = "Bo";
  Account account;
  account.owner = owner;
  EXPECT_EQ(ZRKFormEncoder::dictionaryForObject(account), (ZRKJson{{"owner", {{"first_name", "Bo"}}}}));
  account.firstName = "Ada";
  account.setAdditionalAPIParameters({{"first_name", "replaced"}, {"extra", nullptr}});
  account.root = "account";
  EXPECT_EQ(ZRKQueryStringFromParameters(ZRKFormEncoder::dictionaryForObject(account)),
            "account[extra]=&account[first_name]=replaced&account[owner][first_name]=Bo");
  const auto list = ZRKFormEncoder::formEncodableValueForObject(ZRKFormValue::array({owner, ZRKFormValue(), "x"}));
  EXPECT_EQ(list.value_or(nullptr), (ZRKJson{{{"first_name", "Bo"}}, "x"}));
}

TEST(SnakeCase, BecomesCamelCaseWithEachLaterPieceCapitalized) {
  const std::pair<const char*, const char*> cases[] = {
      {"user_first_name", "userFirstName"}, {"api_URL", "apiUrl"}, {"a__b", "aB"}, {"plain", "plain"},
      {"x_ÉCOLE_ΣΟΦΊΑ", "xÉcoleΣοφία"}};
  for (const auto& [from, to] : cases) EXPECT_EQ(ZRKFormEncoder::stringByReplacingSnakeCaseWithCamelCase(from), to);
}

TEST(RequestBodies, ParametersJoinTheQueryWithTheRightSeparator) {
  const std::tuple<const char*, ZRKJson, const char*> cases[] = {
      {"https://h/x", {{"b", 2}, {"a", 1}}, "https://h/x?a=1&b=2"},
      {"https://h/x?x=1", {{"a", 1}}, "https://h/x?x=1&a=1"},
      {"https://h/x?", nullptr, "https://h/x?&"}};
  for (const auto& [url, parameters, expected] : cases) {
    ZRKURLRequest request(ZRKURL::URLWithString(url));
    zrk_addParametersToURL(request, parameters);
    EXPECT_EQ(request.URL()->absoluteString(), expected);
  }
}

TEST(RequestBodies, EachBodySetsItsHeaders) {
  ZRKURLRequest json;
  json.setValue("text/plain", "content-type");
  zrk_setJSONPayload(json, {{"b", "é"}, {"a", {1, nullptr}}});
  EXPECT_EQ(json.HTTPBody(), R"({"a":[1,null],"b":"é"})");
  EXPECT_EQ(json.valueForHTTPHeaderField("Content-Type"), "application/json");
  EXPECT_EQ(json.allHTTPHeaderFields().size(), 1u);
  // What JSON cannot hold goes as no body rather than as other data.
  const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
  for (const ZRKJson& payload : {ZRKJson{{"bad", "\xff"}}, ZRKJson{{"a", {1, {{"b", nan}}}}}, ZRKJson{{"i", -inf}},
                                 ZRKJson("text"), ZRKJson(5), ZRKJson()}) {
    zrk_setJSONPayload(json, payload);
    EXPECT_FALSE(json.HTTPBody()) << payload;
  }
  zrk_setJSONPayload(json, ZRKJson::array({1.5}));
  EXPECT_EQ(json.HTTPBody(), "[1.5]");

  ZRKURLRequest form;
  zrk_setFormPayload(form, {{"q", "a b"}, {"n", 10}});
  EXPECT_EQ(form.HTTPBody(), "n=10&q=a%20b");
  EXPECT_EQ(form.valueForHTTPHeaderField("Content-Length"), "12");
  EXPECT_EQ(form.valueForHTTPHeaderField("Content-Type"), "application/x-www-form-urlencoded");

  ZRKURLRequest multipart;
  zrk_setMultipartFormData(multipart, std::string(1234, 'x'), "B");
  EXPECT_EQ(multipart.valueForHTTPHeaderField("Content-Length"), "1234");
  EXPECT_EQ(multipart.valueForHTTPHeaderField("Content-Type"), "multipart/form-data; boundary=B");
}

// Names go out as given; what a part lacks is left out.
TEST(Multipart, BodiesByteForByte) {
  ZRKMultipartFormDataPart named, bare;
  named.setName("a\"b");
  named.setData("1");
  EXPECT_EQ(ZRKMultipartFormDataEncoder::multipartFormDataForParts({named, bare}, "xyz"),
            "--xyz\r\nContent-Disposition: form-data; name=\"a\"b\"\r\n\r\n1\r\n"
            "--xyz\r\nContent-Disposition: form-data; name=\"(null)\"\r\n\r\n\r\n--xyz--\r\n");
  EXPECT_EQ(ZRKMultipartFormDataEncoder::multipartFormDataForParts({}, "B"), "--B--\r\n");
}

TEST(Multipart, BoundariesAreFreshUpperCaseUuids) {
  const std::regex shape("ZRKApi-iOS-[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  const std::string first = ZRKMultipartFormDataEncoder::generateBoundary();
  EXPECT_TRUE(std::regex_match(first, shape)) << first;
  EXPECT_NE(ZRKMultipartFormDataEncoder::generateBoundary(), first);
}

}  // namespace
}  // namespace zrk
