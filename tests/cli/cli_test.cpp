// zrk end to end against a recording stand-in of the service: the request
// each command sends, what it prints, how it exits, and what it never prints.
#include <gtest/gtest.h>

#include <fstream>
#include <map>

#include "zrk/testing/ZRKProcess.h"
#include "support/ScriptedServer.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKJson.h"

namespace zrk::test {
namespace {

using Args = std::vector<std::string>;
using zrk::testing::ZRKProcess;

const std::string kSecret = "AppSecret-9f3k", kPassword = "Pw-7xq2", kAppToken = "AppTok-55ab";
const std::string kPhoto = ZRK_SOURCE_DIR "/emulator/samples/photos/jazz-night-photo.jpg";  // 960 x 720
const Args kLogin = {"user", "login", "--email", "a@x", "--password", kPassword};
const Args kLogout = {"user", "logout", "--email", "a@x", "--password", kPassword};

Args operator+(Args first, const Args& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// The value of a header field, spelt as the library spells it; "-" when absent.
std::string header(const RawRequest& request, const std::string& name) {
  const auto at = request.head.find("\r\n" + name + ": ");
  if (at == std::string::npos) return "-";
  const auto start = at + name.size() + 4;
  return request.head.substr(start, request.head.find("\r\n", start) - start);
}

class CliTest : public ::testing::Test {
 protected:
  CliTest() { answer("POST /app/v1/auth", R"({"token":")" + kAppToken + R"(","expire":4102444800})"); }

  // What the service answers to "METHOD /path" from now on (an empty list elsewhere); status 0 hangs up instead.
  void answer(const std::string& route, const std::string& body, int status = 200) {
    routes_[route] = status ? Script{readBody(), send(httpAnswer(body, status))}
                            : Script{readBody(), closeConnection()};
    server.choose([routes = routes_](const RawRequest& request) {
      const auto found = routes.find(request.method() + " " + request.path());
      return found == routes.end() ? Script{readBody(), send(httpAnswer(R"({"result":[]})"))} : found->second;
    });
  }
  ZRKProcess::Result zrk(const Args& arguments) {
    return ZRKProcess::run(ZRK_CLI_PATH, Args{"--base-url", server.url(), "--key", "k1", "--secret", kSecret} + arguments);
  }
  // "METHOD target body" of each request but the token step's.
  std::vector<std::string> sent() const {
    std::vector<std::string> lines;
    for (const auto& r : server.requests()) {
      if (r.path() != "/app/v1/auth") lines.push_back(r.method() + " " + r.target() + " " + r.body);
    }
    return lines;
  }

  std::map<std::string, Script> routes_;
  ScriptedServer server;
};

TEST_F(CliTest, EachCommandSendsItsOneRequest) {
  const std::string pw = kPassword;
  const std::pair<Args, std::string> cases[] = {
      {{"scan", "https://i/a.jpg", "--collection", "c1"},
       R"(POST /app/v1/scan/c1 {"collectionId":"c1","fileUrl":"https://i/a.jpg"})"},
      {{"collections"}, "GET /app/v1/collection "},
      {{"history", "--count", "5", "--offset", "-5"}, "GET /app/v1/history?count=5&offset=-5 "},
      {{"user", "register", "--email", "a@x", "--password", pw, "--name", "A", "--gender", "f"},
       R"(POST /app/v1/user {"email":"a@x","gender":"f","name":"A","password":")" + pw + R"("})"},
      {{"user", "update", "--email", "a@x", "--password", pw, "--name", "A", "--birthdate", "1980", "--avatar", "u"},
       R"(PATCH /app/v1/user {"avatar":"u","birthdate":"1980","email":"a@x","name":"A","password":")" + pw + R"("})"},
      {kLogin, R"(POST /app/v1/user/auth {"email":"a@x","password":")" + pw + R"("})"},
      {kLogout, "DELETE /app/v1/user/auth?email=a%40x&password=" + pw + " "},
      {{"user", "get", "--token", "ut-1"}, "GET /app/v1/user?Pelmor-User-Token=ut-1&ZRK-User-Token=ut-1 "},
  };
  for (const auto& [args, line] : cases) {
    EXPECT_EQ(zrk(args).status, 0) << line;
    EXPECT_EQ(sent().back(), line);
  }
  EXPECT_EQ(sent().size(), std::size(cases));  // one request each
  // A file is uploaded as a photo.
  ASSERT_EQ(zrk({"scan", kPhoto, "--collection", "c9"}).status, 0);
  EXPECT_TRUE(sent().back().starts_with("POST /app/v1/scan/c9 --ZRKApi-")) << sent().back().substr(0, 80);
}

TEST_F(CliTest, OptionsAndTheEnvironmentBecomeCredentialsAndEndUserHeaders) {
  const std::pair<Args, std::string> cases[] = {
      {{}, "other - - -"},
      {{"--age", "30", "--gender", "female"}, "female 30 - -"},
      {{"--gender", "3"}, "male - - -"},
      {{"--lat", "-33.9", "--lng", "18.4"}, "other - -33.900002 18.400000"},
      {{"--lat=-33.9", "--lng=18.4"}, "other - -33.900002 18.400000"},
      {{"--user-id", "u-42", "--lat", "48", "--lng=-2"}, "other - - -"},  // a position east of Greenwich only
  };
  for (const auto& [options, expected] : cases) {
    ASSERT_EQ(zrk(options + Args{"collections"}).status, 0);
    std::string seen;
    for (const char* name : {"Gender", "Age", "Lat", "Lng"}) {
      seen += (seen.empty() ? "" : " ") + header(server.requests().back(), std::string("ZRK-User-") + name);
    }
    EXPECT_EQ(seen, expected);
  }
  EXPECT_EQ(header(server.requests().back(), "ZRK-User-Id"), "u-42");

  // Options win over the environment, which fills in what they leave out.
  const std::vector<std::string> environment = {"ZRK_BASE_URL=" + server.url(), "ZRK_APP_KEY=ek", "ZRK_APP_SECRET=es"};
  const std::pair<Args, std::string> credentials[] = {{{}, R"({"key":"ek","secret":"es"})"},
                                                      {{"--key", "ok"}, R"({"key":"ok","secret":"es"})"}};
  for (const auto& [args, authBody] : credentials) {
    EXPECT_EQ(ZRKProcess::run(ZRK_CLI_PATH, args + Args{"collections"}, environment).status, 0);
    EXPECT_EQ(server.requests().end()[-2].body, authBody);  // this run's token step
  }
}

TEST_F(CliTest, PrintsEachResultAsTextOrAsJsonWithTheModelsPropertyNames) {
  const std::tuple<std::string, std::string, Args, std::string, std::string> cases[] = {
      // route, its answer, the command, what it prints with --json and without
      {"POST /app/v1/scan",
       R"({"id":"s","score":87.6,"triggerId":"t","triggerName":"P","ocr":["A",null],"payloadUrl":"u"})",
       {"scan", "https://i/a.jpg"},
       R"({"scanId":"s","score":87,"triggerId":"t","triggerName":"P","ocrData":["A"],"payloadUrl":"u","timestamp":0,
           "frame":0,"triggerType":0,"triggerFps":0})",
       "matched P with score 87\n"},
      {"GET /app/v1/collection", R"({"result":[{"id":"c1","name":"Posters","imageUrl":"i"},{"id":"c2"}]})",
       {"collections"}, R"([{"collectionId":"c1","name":"Posters","imageUrl":"i"},{"collectionId":"c2"}])",
       "c1\tPosters\ti\nc2\t-\t-\n"},
      {"GET /app/v1/history",
       R"({"result":[{"scanId":"h","matched":true,"lat":59.3,"lng":-0.5,"timestamp":17,"campaignId":"c"}]})",
       {"history"}, R"([{"scanId":"h","matched":true,"lat":"59","lng":"0","timestamp":17,"campaignId":"c"}])",
       "h\tmatched\t17\t-\n"},
      {"POST /app/v1/user/auth", R"({"email":"a@x","name":"Ann","gender":"f","token":"ut-1"})", kLogin,
       R"({"email":"a@x","name":"Ann","gender":"f","token":"ut-1"})", "logged in\n  email: a@x\n  name: Ann\n"},
      // Logout's first call only says it is under way: the answer is the second's.
      {"DELETE /app/v1/user/auth", R"({"email":"a@x"})", kLogout, R"({"email":"a@x"})", "logged out\n  email: a@x\n"},
  };
  for (const auto& [route, body, args, printed, text] : cases) {
    answer(route, body);
    const auto plain = zrk(args), json = zrk(Args{"--json"} + args);
    EXPECT_EQ(plain.status + json.status, 0) << plain.err << json.err;
    EXPECT_TRUE(contains(plain.out, text)) << plain.out;
    EXPECT_EQ(ZRKJson::parse(json.out, nullptr, false), ZRKJson::parse(printed)) << json.out;
  }
}

TEST_F(CliTest, ServiceAndTransportErrorsExitWithOne) {
  const std::tuple<std::string, std::string, int, Args, std::string> cases[] = {
      {"GET /app/v1/collection", R"({"code":401,"message":"no token","detail":{"hint":"renew"}})", 401,
       {"collections"}, ZRKDomain + " error 401: no token\n  detail: {\"hint\":\"renew\"}\n"},
      {"GET /app/v1/history", "<html>", 500, {"history"}, ZRKDomain + " error 32"},
      {"GET /app/v1/user", "", 0, {"user", "get", "--token", "t"}, ZRKURLErrorDomain + std::string(" error 52")},
  };
  for (const auto& [route, body, status, args, printed] : cases) {
    answer(route, body, status);
    for (const Args& mode : {Args{}, Args{"--json"}}) {
      const auto run = zrk(mode + args);
      EXPECT_EQ(run.status, 1);
      EXPECT_TRUE(run.out.empty() && contains(run.err, printed)) << run.out << run.err;
    }
  }
}

TEST_F(CliTest, UsageErrorsExitWithTwoAndSendNothing) {
  const std::string text = std::filesystem::temp_directory_path() / "zrk-cli-notes.txt";
  std::ofstream(text) << "not an image";
  const Args service = {"--base-url", server.url(), "--key", "k", "--secret", "sss"};
  std::vector<Args> cases = {{"--base-url", server.url(), "--key", "k", "collections"},
                             {"--base-url", "not a url", "--key", "k", "--secret", "sss", "collections"},
                             {"--base-url", "ftp://127.0.0.1/", "--key", "k", "--secret", "sss", "collections"}};
  for (const Args& args : std::initializer_list<Args>{
           {}, {"frobnicate"}, {"user", "update", "--email", "a@x", "--name", "A"}, {"user", "login"},
           {"user", "get", "--token", ""}, {"scan", "/nonexistent.jpg"}, {"scan", text}, {"scan", "https://a b"},
           {"--gender", "robot", "collections"}, {"--lat", "91", "--lng", "1", "collections"},
           {"--age", "abc", "collections"}, {"--timeout", "0", "collections"}, {"collections", "--timeout", "1"},
           {"history", "--count", "many"}, {"prepare", text, "-o", text + ".jpg"}}) {
    cases.push_back(service + args);
  }
  for (const Args& args : cases) {
    const auto run = ZRKProcess::run(ZRK_CLI_PATH, args);
    EXPECT_EQ(run.status, 2) << ::testing::PrintToString(args);
    EXPECT_TRUE(run.out.empty() && contains(run.err, "zrk: ")) << run.out << run.err;
  }
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(CliTest, PrepareWritesTheUploadAndSendsNothing) {
  const std::string large = std::filesystem::temp_directory_path() / "zrk-cli-large.jpg";
  const auto grey = ZRKImage::imageWithRGBAPixels(std::vector<std::uint8_t>(1600 * 1200 * 4, 90), 1600, 1200);
  std::ofstream(large, std::ios::binary) << *ZRKImageJPEGRepresentation(*grey, 0.9);
  for (const auto& [photo, size] : {std::pair(kPhoto, "960x720"), std::pair(large, "1000x750")}) {
    const std::string out = large + ".upload.jpg";
    const auto run = zrk({"prepare", photo, "-o", out});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "wrote " + out + ": " + size + " JPEG, " + std::to_string(std::filesystem::file_size(out)) +
                           " bytes\n");
  }
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(CliTest, SilenceEndsWithThreeAtTheTimeOut) {
  // A refused token makes a user operation send nothing and call nothing.
  answer("POST /app/v1/auth", R"({"code":500,"message":"down"})", 500);
  const auto started = std::chrono::steady_clock::now();
  const auto silent = zrk(Args{"--timeout", "0.5"} + kLogin);
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(500));
  EXPECT_TRUE(silent.status == 3 && contains(silent.err, "no answer within 0.5 s") && sent().empty()) << silent.err;
}

TEST_F(CliTest, SecretsNeverReachTheOutput) {
  const std::string bearer = "QXBwVG9rLTU1YWI=";  // the app token in base64, as it travels
  const std::string echoed = kPassword + " " + kSecret + " " + kAppToken + " " + bearer;
  answer("POST /app/v1/user/auth", R"({"email":"a@x","name":"echo )" + echoed + R"(","token":"ut-seen"})");
  answer("DELETE /app/v1/user/auth", R"({"code":403,"message":")" + echoed + R"(","detail":[")" + echoed + R"("]})");
  answer("GET /app/v1/user", R"({"code":401,"message":"unknown ut-input-7"})");
  std::vector<ZRKProcess::Result> runs;
  for (const Args& args : {kLogin, kLogout, Args{"user", "get", "--token", "ut-input-7"},
                           Args{"--age", kSecret, "history"}, Args{"--age=" + kPassword, "--password=" + kPassword}}) {
    runs.push_back(zrk(args));
    runs.push_back(zrk(Args{"--json"} + args));
  }
  runs.push_back(ZRKProcess::run(ZRK_CLI_PATH, {"--base-url", server.url(), "--key", "k", "--age", kSecret, "collections"},
                              {"ZRK_APP_SECRET=" + kSecret}));
  EXPECT_TRUE(contains(runs[0].out, "ut-seen"));  // a user token the service gives is shown
  for (const auto& run : runs) {
    EXPECT_FALSE(run.out.empty() && run.err.empty());
    for (const std::string& secret : {kPassword, kSecret, kAppToken, bearer, std::string("ut-input-7")}) {
      EXPECT_FALSE(contains(run.out + run.err, secret)) << run.out << run.err;
    }
  }
}

}  // namespace
}  // namespace zrk::test
