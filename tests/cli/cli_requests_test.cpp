// What each zrk command puts on the wire.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "CliTest.h"

namespace zrk::test {
namespace {

using Args = std::vector<std::string>;

TEST_F(CliTest, EachCommandSendsItsOneRequest) {
  struct Case {
    Args args;
    std::string sent;
  };
  const std::string password = kPassword;
  const Case cases[] = {
      {{"scan", "https://img.example/a.jpg", "--collection", "c1"},
       R"(POST /app/v1/scan/c1 {"collectionId":"c1","fileUrl":"https://img.example/a.jpg"})"},
      {{"scan", "http://img.example/b.png"}, R"(POST /app/v1/scan {"fileUrl":"http://img.example/b.png"})"},
      {{"collections"}, "GET /app/v1/collection"},
      {{"history"}, "GET /app/v1/history?count=20&offset=0"},
      {{"history", "--count", "5", "--offset", "40"}, "GET /app/v1/history?count=5&offset=40"},
      {{"history", "--offset", "-5"}, "GET /app/v1/history?count=20&offset=-5"},
      {{"user", "register", "--email", "ann@example.com", "--password", password, "--name", "Ann", "--gender", "f"},
       R"(POST /app/v1/user {"email":"ann@example.com","gender":"f","name":"Ann","password":")" + password + R"("})"},
      {{"user", "update", "--email", "ann@example.com", "--password", password, "--name", "Ann", "--birthdate",
        "1980-01-01", "--avatar", "https://a.example/x.png"},
       R"(PATCH /app/v1/user {"avatar":"https://a.example/x.png","birthdate":"1980-01-01","email":"ann@example.com","name":"Ann","password":")" +
           password + R"("})"},
      {{"user", "login", "--email", "ann@example.com", "--password", password},
       R"(POST /app/v1/user/auth {"email":"ann@example.com","password":")" + password + R"("})"},
      {{"user", "logout", "--email", "ann@example.com", "--password", password},
       "DELETE /app/v1/user/auth?email=ann%40example.com&password=" + password},
      {{"user", "get", "--token", "ut-1"}, "GET /app/v1/user?Pelmor-User-Token=ut-1&ZRK-User-Token=ut-1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    const std::size_t before = endpointRequests().size();
    const ZrkRun run = zrk(c.args);
    EXPECT_EQ(run.status, 0) << run.err;
    const auto sent = endpointRequests();
    ASSERT_EQ(sent.size(), before + 1);
    EXPECT_EQ(line(sent.back()), c.sent);
  }
  // A fresh process has no token: each run authenticated first, with the key and secret.
  const auto all = server.requests();
  ASSERT_FALSE(all.empty());
  EXPECT_EQ(line(all.front()), std::string(R"(POST /app/v1/auth {"key":")") + kAppKey + R"(","secret":")" +
                                   kAppSecret + R"("})");
}

// Both header families carry the same value; "<absent>" when neither is sent.
void expectHeader(const RecordedRequest& request, const std::string& suffix, const std::string& value) {
  EXPECT_EQ(request.header("ZRK-" + suffix), value) << suffix;
  EXPECT_EQ(request.header("Pelmor-" + suffix), value) << suffix;
}

TEST_F(CliTest, GlobalOptionsBecomeTheEndUserHeaders) {
  struct Case {
    Args options;
    std::map<std::string, std::string> headers;
  };
  const Case cases[] = {
      {{}, {{"User-Gender", "other"}, {"User-Age", "<absent>"}, {"User-Lat", "<absent>"}, {"User-Lng", "<absent>"}}},
      {{"--user-id", "u-42"}, {{"User-Id", "u-42"}}},
      {{"--age", "30", "--gender", "female"}, {{"User-Age", "30"}, {"User-Gender", "female"}}},
      {{"--gender", "3"}, {{"User-Gender", "male"}}},
      {{"--gender", "2"}, {{"User-Gender", "female"}}},
      {{"--gender", "other"}, {{"User-Gender", "other"}}},
      // Negative degrees in both spellings.
      {{"--lat", "-33.9", "--lng", "18.4"}, {{"User-Lat", "-33.900002"}, {"User-Lng", "18.400000"}}},
      {{"--lat=-33.9", "--lng=18.4"}, {{"User-Lat", "-33.900002"}, {"User-Lng", "18.400000"}}},
      // The library sends a position only east of Greenwich.
      {{"--lat", "48", "--lng", "-2"}, {{"User-Lat", "<absent>"}, {"User-Lng", "<absent>"}}},
      {{"--lat", "48", "--lng=-2"}, {{"User-Lat", "<absent>"}, {"User-Lng", "<absent>"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.options));
    Args args = c.options;
    args.push_back("collections");
    const ZrkRun run = zrk(args);
    ASSERT_EQ(run.status, 0) << run.err;
    const RecordedRequest sent = endpointRequests().back();
    EXPECT_EQ(sent.header("Authorization"), "Bearer QXBwVG9rLTU1YWI=");  // the app token, base64
    for (const auto& [suffix, value] : c.headers) expectHeader(sent, suffix, value);
  }
}

TEST_F(CliTest, CredentialsComeFromOptionsOrTheEnvironment) {
  struct Case {
    Args args;
    std::vector<std::string> environment;
    std::string authBody;
  };
  const std::string base = server.url();
  const Case cases[] = {
      {{"collections"},
       {"ZRK_BASE_URL=" + base, "ZRK_APP_KEY=env-key", "ZRK_APP_SECRET=env-secret"},
       R"({"key":"env-key","secret":"env-secret"})"},
      {{"--key", "opt-key", "--secret", "opt-secret", "collections"},
       {"ZRK_BASE_URL=" + base, "ZRK_APP_KEY=env-key", "ZRK_APP_SECRET=env-secret"},
       R"({"key":"opt-key","secret":"opt-secret"})"},
      {{"--base-url", base, "--key", "opt-key", "collections"},
       {"ZRK_BASE_URL=http://127.0.0.1:1", "ZRK_APP_SECRET=env-secret"},
       R"({"key":"opt-key","secret":"env-secret"})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.authBody);
    const std::size_t before = server.count();
    const ZrkRun run = runZrk(c.args, c.environment);
    EXPECT_EQ(run.status, 0) << run.err;
    const auto all = server.requests();
    ASSERT_EQ(all.size(), before + 2);
    EXPECT_EQ(line(all[before]), "POST /app/v1/auth " + c.authBody);
    EXPECT_EQ(line(all[before + 1]), "GET /app/v1/collection");
  }
}

}  // namespace
}  // namespace zrk::test
