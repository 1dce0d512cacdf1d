// What zrk prints and how it exits: results, errors, usage errors, silence,
// and the secrets it must never print.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CliTest.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKJson.h"

namespace zrk::test {
namespace {

using Args = std::vector<std::string>;
using namespace std::chrono_literals;

const Args kLogin = {"user", "login", "--email", "ann@example.com", "--password", kPassword};
const Args kLogout = {"user", "logout", "--email", "ann@example.com", "--password", kPassword};

Args operator+(Args first, const Args& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST_F(CliTest, JsonOutputUsesTheModelsPropertyNames) {
  struct Case {
    std::string route;
    std::string body;
    Args args;
    ZRKJson printed;
  };
  const Case cases[] = {
      {"POST /app/v1/scan",
       R"({"id":"s1","score":87.6,"triggerId":"tr","triggerName":"Poster","ocr":["ABC",null],"thumbnailUrl":"https://t",
           "payloadUrl":"https://p","payloadData":"d","timestamp":1700000000,"triggerType":2})",
       {"scan", "https://img.example/a.jpg"},
       {{"scanId", "s1"}, {"score", 87}, {"triggerId", "tr"}, {"triggerName", "Poster"}, {"ocrData", {"ABC"}},
        {"thumbnailUrl", "https://t"}, {"payloadUrl", "https://p"}, {"payloadData", "d"}, {"timestamp", 1700000000},
        {"frame", 0}, {"triggerType", 2}, {"triggerFps", 0}}},
      // Absent strings are left out; numbers are never absent.
      {"POST /app/v1/scan", R"({"id":17})", {"scan", "https://img.example/a.jpg"},
       {{"score", 0}, {"timestamp", 0}, {"frame", 0}, {"triggerType", 0}, {"triggerFps", 0}}},
      {"GET /app/v1/collection", R"({"result":[{"id":"c1","name":"Posters","imageUrl":"https://i"},{"id":"c2"}]})",
       {"collections"},
       ZRKJson::array({{{"collectionId", "c1"}, {"name", "Posters"}, {"imageUrl", "https://i"}},
                       {{"collectionId", "c2"}}})},
      {"GET /app/v1/history",
       R"({"result":[{"scanId":"h1","matched":true,"lat":59.33,"lng":-0.5,"timestamp":1700000000,"campaignId":"cp",
           "thumbnailUrl":"https://t"}],"total":1})",
       {"history"},
       ZRKJson::array({{{"scanId", "h1"}, {"matched", true}, {"lat", "59"}, {"lng", "0"}, {"timestamp", 1700000000},
                        {"campaignId", "cp"}, {"thumbnailUrl", "https://t"}}})},
      {"GET /app/v1/history", R"({"result":[]})", {"history"}, ZRKJson::array()},
      {"POST /app/v1/user/auth", R"({"email":"ann@example.com","name":"Ann","token":"ut-1"})", kLogin,
       {{"email", "ann@example.com"}, {"name", "Ann"}, {"token", "ut-1"}}},
      {"POST /app/v1/user",
       R"({"email":"a@x","name":"A","gender":"f","birthdate":"1980-01-01","avatar":"https://a","token":"ut-2"})",
       {"user", "register", "--email", "a@x", "--password", kPassword, "--name", "A"},
       {{"email", "a@x"}, {"name", "A"}, {"gender", "f"}, {"birthdate", "1980-01-01"}, {"avatar", "https://a"},
        {"token", "ut-2"}}},
      {"GET /app/v1/user", R"({"email":"a@x","birthdate":19800101})", {"user", "get", "--token", "ut-2"},
       {{"email", "a@x"}}},
      {"DELETE /app/v1/user/auth", R"({"email":"ann@example.com"})", kLogout, {{"email", "ann@example.com"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.route + " " + c.body);
    answer(c.route, {.body = c.body});
    Args args{"--json"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const ZrkRun run = zrk(args);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    ASSERT_TRUE(ZRKJson::accept(run.out)) << run.out;
    EXPECT_EQ(ZRKJson::parse(run.out), c.printed);
  }
}

TEST_F(CliTest, PlainOutputSummarisesTheResult) {
  struct Case {
    std::string route;
    std::string body;
    Args args;
    std::string expected;
  };
  const Case cases[] = {
      {"POST /app/v1/scan", R"({"id":"s1","score":87,"triggerId":"tr","triggerName":"Poster"})",
       {"scan", "https://img.example/a.jpg"}, "matched Poster with score 87\n"},
      {"POST /app/v1/scan", R"({"id":"s1","score":12,"triggerId":"tr"})", {"scan", "https://img.example/a.jpg"},
       "matched tr with score 12\n"},
      {"GET /app/v1/collection", R"({"result":[{"id":"c1","name":"Posters"}]})", {"collections"}, "c1\tPosters\t-\n"},
      {"GET /app/v1/collection", R"({"result":[]})", {"collections"}, "no collections\n"},
      {"GET /app/v1/history", R"({"result":[{"scanId":"h1","matched":true,"timestamp":5}]})", {"history"},
       "h1\tmatched\t5\t-\n"},
      {"POST /app/v1/user/auth", R"({"email":"ann@example.com","token":"ut-1"})", kLogin, "  token: ut-1\n"},
      {"DELETE /app/v1/user/auth", "{}", kLogout, "logged out\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.route + " " + c.body);
    answer(c.route, {.body = c.body});
    const ZrkRun run = zrk(c.args);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(contains(run.out, c.expected)) << run.out;
  }
}

TEST_F(CliTest, ServiceAndTransportErrorsExitWithOne) {
  struct Case {
    std::string route;
    ScriptedResponse answer;
    Args args;
    std::vector<std::string> printed;  // on stderr
  };
  const Case cases[] = {
      {"GET /app/v1/collection",
       {.status = 401, .body = R"({"code":401,"message":"no token","detail":{"hint":"renew"}})"},
       {"collections"},
       {ZRKDomain, " 401", "no token", "renew"}},
      {"GET /app/v1/history", {.status = 500, .body = "<html>"}, {"history"}, {ZRKDomain, " 32"}},
      {"POST /app/v1/scan", {.body = R"({"code":"429","message":"slow down"})"}, {"scan", "https://img.example/a"},
       {ZRKDomain, " 429", "slow down"}},
      {"POST /app/v1/user/auth", {.status = 403, .body = R"({"code":403,"message":"wrong password"})"}, kLogin,
       {" 403", "wrong password"}},
      // The second call of logout carries the service's refusal.
      {"DELETE /app/v1/user/auth", {.status = 404, .body = R"({"code":404,"message":"no such user"})"}, kLogout,
       {" 404", "no such user"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.route);
    answer(c.route, c.answer);
    for (const bool json : {false, true}) {
      Args args = json ? Args{"--json"} : Args{};
      args.insert(args.end(), c.args.begin(), c.args.end());
      const ZrkRun run = zrk(args);
      EXPECT_EQ(run.status, 1);
      EXPECT_EQ(run.out, "");
      for (const std::string& part : c.printed) EXPECT_TRUE(contains(run.err, part)) << run.err;
    }
  }

  const ZrkRun refused = runZrk({"--base-url", "http://127.0.0.1:1", "--key", "k", "--secret", "sss", "collections"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_TRUE(contains(refused.err, std::string(ZRKURLErrorDomain) + " error " +
                                        std::to_string(ZRKURLErrorCannotConnect)))
      << refused.err;
}

TEST_F(CliTest, UsageErrorsExitWithTwoAndSendNothing) {
  const std::string text = temporaryPath("notes.txt");
  writeFile(text, "not an image");
  const std::string url = server.url();
  const Args credentials = {"--base-url", url, "--key", "k", "--secret", "sss"};
  const std::vector<Args> cases = {
      {},
      {"frobnicate"},
      {"user"},
      {"user", "register", "--email", "a@x", "--password", "pw1"},
      {"user", "update", "--email", "a@x", "--name", "A"},
      {"user", "login", "--email", "a@x"},
      {"user", "logout", "--password", "pw1"},
      {"user", "get"},
      {"user", "get", "--token", ""},
      {"scan"},
      {"scan", temporaryPath("missing.jpg")},
      {"scan", text},
      {"scan", "https://bad host/x.jpg"},
      {"--gender", "robot", "collections"},
      {"--lat", "91", "--lng", "10", "collections"},
      {"--lat", "-91", "collections"},
      {"--age", "abc", "collections"},
      {"--timeout", "0", "collections"},
      {"collections", "--timeout", "1"},  // options go before the command
      {"history", "--count", "many"},
      {"prepare", text, "-o", temporaryPath("out.jpg")},
      {"prepare", temporaryPath("missing.png")},
  };
  for (const Args& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c));
    Args args = credentials;
    args.insert(args.end(), c.begin(), c.end());
    const ZrkRun run = runZrk(args);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(contains(run.err, "zrk: ")) << run.err;
  }

  // Without credentials, or with an address that is no web URL.
  const std::vector<Args> unconfigured = {
      {"--base-url", url, "collections"},
      {"--base-url", url, "--key", "k", "collections"},
      {"--base-url", "not a url", "--key", "k", "--secret", "sss", "collections"},
      {"--base-url", "ftp://127.0.0.1/", "--key", "k", "--secret", "sss", "collections"},
  };
  for (const Args& c : unconfigured) {
    SCOPED_TRACE(::testing::PrintToString(c));
    EXPECT_EQ(runZrk(c).status, 2);
  }
  EXPECT_EQ(server.count(), 0u);
}

TEST_F(CliTest, HelpAndVersionDocumentTheProgram) {
  const ZrkRun help = runZrk({"--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* word : {"--base-url", "--key", "--secret", "--user-id", "--age", "--gender", "--lat", "--lng",
                           "--timeout", "--json", "--version", "scan SOURCE", "--collection", "collections",
                           "history", "--count", "--offset", "user register", "user update", "user login",
                           "user logout", "user get", "--token", "--birthdate", "--avatar", "prepare IMAGE", "-o",
                           "ZRK_BASE_URL", "ZRK_APP_KEY", "ZRK_APP_SECRET", "Exit status"}) {
    EXPECT_TRUE(contains(help.out, word)) << word;
  }
  const ZrkRun version = runZrk({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_TRUE(contains(version.out, "zrkapi 1.0.0")) << version.out;
}

TEST_F(CliTest, SilenceEndsWithThreeAtTheTimeOut) {
  // A refused token makes a user operation send nothing and call nothing.
  answer("POST /app/v1/auth", {.status = 500, .body = R"({"code":500,"message":"down"})"});
  const ZrkRun silent = zrk(Args{"--timeout", "0.5"} + kLogin);
  EXPECT_EQ(silent.status, 3);
  EXPECT_GE(silent.elapsed, 500ms);
  EXPECT_LT(silent.elapsed, 30s);
  EXPECT_TRUE(contains(silent.err, "no answer within 0.5 s")) << silent.err;
  EXPECT_TRUE(endpointRequests().empty());

  // A service that holds its answer back.
  answer("POST /app/v1/auth", {.body = std::string(R"({"token":")") + kAppToken + R"(","expire":4102444800})"});
  answer("GET /app/v1/collection", {.stall = 60s});
  const ZrkRun stalled = zrk({"--timeout", "0.5", "collections"});
  EXPECT_EQ(stalled.status, 3);
  EXPECT_LT(stalled.elapsed, 30s);
  EXPECT_EQ(endpointRequests().size(), 1u);
}

TEST_F(CliTest, LogoutWaitsForTheServicesAnswer) {
  answer("DELETE /app/v1/user/auth", {.body = R"({"email":"ann@example.com"})", .stall = 300ms});
  const ZrkRun run = zrk(Args{"--json"} + kLogout);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_GE(run.elapsed, 300ms);
  EXPECT_EQ(ZRKJson::parse(run.out), (ZRKJson{{"email", "ann@example.com"}}));
}

TEST_F(CliTest, SecretsNeverReachTheOutput) {
  const std::string appEchoed = std::string(kAppSecret) + " " + kAppToken + " QXBwVG9rLTU1YWI=";
  const std::string echoed = std::string(kPassword) + " " + appEchoed;
  answer("POST /app/v1/user/auth",
         {.body = R"({"email":"ann@example.com","name":"echo )" + echoed + R"(","token":"ut-visible"})"});
  answer("DELETE /app/v1/user/auth",
         {.status = 403, .body = R"({"code":403,"message":"wrong )" + echoed + R"(","detail":{"seen":")" + echoed +
                                     R"("}})"});
  answer("GET /app/v1/collection", {.status = 401, .body = R"({"code":401,"message":")" + appEchoed + R"("})"});
  answer("GET /app/v1/user", {.status = 401, .body = R"({"code":401,"message":"unknown ut-input-7"})"});

  std::vector<ZrkRun> runs;
  for (const bool json : {false, true}) {
    const Args mode = json ? Args{"--json"} : Args{};
    runs.push_back(zrk(mode + kLogin));
    runs.push_back(zrk(mode + kLogout));
    runs.push_back(zrk(mode + Args{"collections"}));
    runs.push_back(zrk(mode + Args{"user", "get", "--token", "ut-input-7"}));
    runs.push_back(zrk(mode + Args{"--age", kAppSecret, "collections"}));
    runs.push_back(zrk(mode + Args{"--age=" + std::string(kPassword), "user", "login", "--password=" + std::string(kPassword)}));
  }
  // No service at all: the token step fails, and the logout ends in silence.
  runs.push_back(runZrk(Args{"--base-url", "http://127.0.0.1:1", "--key", "k", "--secret", kAppSecret,
                             "--timeout", "0.5"} + kLogout));
  runs.push_back(runZrk({"--base-url", server.url(), "--key", "k", "--age", kAppSecret, "collections"},
                        {std::string("ZRK_APP_SECRET=") + kAppSecret}));

  // The service did see the credentials, and the user token is printed.
  EXPECT_TRUE(contains(server.requests().front().body, kAppSecret));
  EXPECT_TRUE(contains(runs[0].out, "ut-visible"));
  EXPECT_TRUE(contains(runs[0].out, "echo"));
  for (const ZrkRun& run : runs) {
    SCOPED_TRACE(run.out + run.err);
    EXPECT_FALSE(run.out.empty() && run.err.empty());
    for (const char* secret : {kPassword, kAppSecret, kAppToken, "QXBwVG9rLTU1YWI=", "ut-input-7"}) {
      EXPECT_FALSE(contains(run.out, secret)) << secret;
      EXPECT_FALSE(contains(run.err, secret)) << secret;
    }
  }
}

}  // namespace
}  // namespace zrk::test
