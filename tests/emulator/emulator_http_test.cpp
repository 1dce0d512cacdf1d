// The emulator on its own, spoken to directly: what it refuses and how,
// seeds it will not start with, concurrent use and stopping.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "emulator/EmulatorTestSupport.h"

namespace zrk::test {
namespace {

namespace fs = std::filesystem;

class EmulatorHttpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    writeFile(seed.path() / "posters" / "alpha.jpg", encodeJpeg(posterPixels(1, 400, 300), 400, 300));
    emulator =
        std::make_unique<EmulatorProcess>(ZRK_EMULATOR_PATH, std::vector<std::string>{"--seed", seed.path().string()});
    raw = std::make_unique<RawClient>(emulator->url());
  }
  void TearDown() override {
    if (emulator) {
      EXPECT_EQ(emulator->stop(), 0);
    }
  }

  TemporaryDirectory seed;
  std::unique_ptr<EmulatorProcess> emulator;
  std::unique_ptr<RawClient> raw;
};

std::string multipart(const std::string& name, const std::string& content) {
  return "--B\r\nContent-Disposition: form-data; name=\"" + name +
         "\"; filename=\"image.jpg\"\r\nContent-Type: multipart/form-data\r\n\r\n" + content + "\r\n--B--\r\n";
}

TEST_F(EmulatorHttpTest, BadRequestsGetAnErrorBodyWithTheirStatus) {
  const std::string bearer = raw->bearer();
  const httplib::Headers app = {{"Authorization", bearer}};
  const std::string json = "application/json", form = "multipart/form-data; boundary=B";
  struct Case {
    std::string what, method, path;
    httplib::Headers headers;
    std::string body, contentType;
    int status;
  };
  const Case cases[] = {
      {"auth body not JSON", "POST", "/app/v1/auth", {}, "{key", json, 400},
      {"auth key not a string", "POST", "/app/v1/auth", {}, R"({"key":1,"secret":"s"})", json, 400},
      {"auth body of another type", "POST", "/app/v1/auth", {}, "key=a", "application/x-www-form-urlencoded", 415},
      {"unknown app", "POST", "/app/v1/auth", {}, R"({"key":"nobody","secret":"demo-secret"})", json, 401},
      {"no bearer", "GET", "/app/v1/collection", {}, "", "", 401},
      {"raw token instead of its base64",
       "GET",
       "/app/v1/collection",
       {{"Authorization", "Bearer " + bearer.substr(7, 20)}},
       "",
       "",
       401},
      {"bearer not base64", "GET", "/app/v1/collection", {{"Authorization", "Bearer %%%="}}, "", "", 401},
      {"negative count", "GET", "/app/v1/history?count=-1", app, "", "", 400},
      {"count not a number", "GET", "/app/v1/history?count=ten", app, "", "", 400},
      {"negative offset", "GET", "/app/v1/history?offset=-5", app, "", "", 400},
      {"multipart without its file", "POST", "/app/v1/scan", app, multipart("photo", "x"), form, 400},
      {"multipart file not an image", "POST", "/app/v1/scan", app, multipart("file", "GIF89a..."), form, 400},
      {"JSON scan without fileUrl", "POST", "/app/v1/scan", app, R"({"url":"x"})", json, 400},
      {"collection of path and body differ", "POST", "/app/v1/scan/posters", app,
       R"({"fileUrl":"http://127.0.0.1:1/x.jpg","collectionId":"other"})", json, 400},
      {"unknown collection", "POST", "/app/v1/scan/nope", app, multipart("file", "\xFF\xD8\xFF"), form, 404},
      {"nothing listens at fileUrl", "POST", "/app/v1/scan", app, R"({"fileUrl":"http://127.0.0.1:1/x.jpg"})", json,
       422},
      {"register without password", "POST", "/app/v1/user", app, R"({"email":"a@b.c","name":"A"})", json, 400},
      {"register with a numeric name", "POST", "/app/v1/user", app, R"({"email":"a@b.c","name":7,"password":"p"})",
       json, 400},
      {"register with no e-mail address", "POST", "/app/v1/user", app, R"({"email":"ab","name":"A","password":"p"})",
       json, 400},
      {"update without a user token", "PATCH", "/app/v1/user", app, R"({"name":"A"})", json, 401},
      {"retrieve with an unknown token", "GET", "/app/v1/user?ZRK-User-Token=u123", app, "", "", 401},
      {"logout without credentials", "DELETE", "/app/v1/user/auth", app, "", "", 400},
      {"logout of nobody", "DELETE", "/app/v1/user/auth?email=x%40y.z&password=p", app, "", "", 401},
      {"verb the path does not take", "PUT", "/app/v1/user", app, "{}", json, 405},
      {"GET on reset", "GET", "/__emulator/reset", {}, "", "", 405},
      {"unknown path", "GET", "/app/v2/collection", app, "", "", 404},
      {"unknown trigger file", "GET", "/files/triggers/nobody", {}, "", "", 404},
      {"unknown scan file", "GET", "/files/scans/nothing", {}, "", "", 404},
      {"body over the cap", "POST", "/app/v1/user", app, std::string((16u << 20) + 1, ' '), json, 413},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const auto answer = raw->send(c.method, c.path, c.headers, c.body, c.contentType);
    ASSERT_TRUE(answer) << httplib::to_string(answer.error());
    EXPECT_EQ(answer->status, c.status) << answer->body;
    const ZRKJson body = ZRKJson::parse(answer->body, nullptr, false);
    ASSERT_TRUE(body.is_object()) << answer->body;
    EXPECT_EQ(body["code"], c.status);
    EXPECT_TRUE(body["message"].is_string());
  }
  const auto refused = raw->send("PUT", "/app/v1/user/auth", app, "{}", json);
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->get_header_value("Allow"), "POST, DELETE");

  // None of it disturbed the emulator.
  const auto health = raw->get("/__emulator/health");
  ASSERT_TRUE(health);
  EXPECT_EQ(ZRKJson::parse(health->body)["triggers"], 1);
}

TEST_F(EmulatorHttpTest, ConcurrentRegistrationsOfOneAddressLetExactlyOneIn) {
  const std::string bearer = raw->bearer();
  constexpr int kThreads = 6;
  std::atomic<int> created{0}, conflicts{0}, other{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      RawClient client(emulator->url());
      const httplib::Headers headers = {{"Authorization", bearer}};
      const auto answer = client.send(
          "POST", "/app/v1/user", headers,
          R"({"email":"same@example.com","name":"N)" + std::to_string(t) + R"(","password":"p"})", "application/json");
      const int status = answer ? answer->status : 0;
      (status == 201 ? created : status == 409 ? conflicts : other)++;
      for (int k = 0; k < 5; ++k) {
        const auto listed = client.get("/app/v1/collection", headers);
        if (!listed || listed->status != 200) other++;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(created.load(), 1);
  EXPECT_EQ(conflicts.load(), kThreads - 1);
  EXPECT_EQ(other.load(), 0);
}

TEST_F(EmulatorHttpTest, StopsCleanlyOnSigint) { EXPECT_EQ(emulator->stop(SIGINT), 0); }

TEST(EmulatorStart, RefusesASeedItCannotUse) {
  const std::string poster = encodeJpeg(posterPixels(5, 320, 240), 320, 240);
  const std::string plain = encodeJpeg(std::vector<unsigned char>(320 * 240 * 3, 128), 320, 240);
  struct Case {
    std::string what;
    std::vector<std::pair<std::string, std::string>> files;
    std::string message;
  };
  const Case cases[] = {
      {"a trigger id twice", {{"a/same.jpg", poster}, {"b/same.jpg", poster}}, "\"same\" is already taken"},
      {"a trigger id twice in one folder", {{"a/same.jpg", poster}, {"a/same.png", poster}}, "already taken"},
      {"a collection id unfit for a path", {{"with space/x.jpg", poster}}, "collection id"},
      {"a file that is no image", {{"a/x.jpg", "not a jpeg"}}, "not a JPEG or PNG"},
      {"a trigger's JSON that is no object", {{"a/x.jpg", poster}, {"a/x.json", "[1]"}}, "not a JSON object"},
      {"a type that is no integer", {{"a/x.jpg", poster}, {"a/x.json", R"({"type":"poster"})"}}, "\"type\""},
      {"a picture too plain to recognise", {{"a/grey.jpg", plain}}, "grey"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TemporaryDirectory seed;
    for (const auto& [path, bytes] : c.files) writeFile(seed.path() / path, bytes);
    const auto outcome = EmulatorProcess::runToExit(ZRK_EMULATOR_PATH, {"--port", "0", "--seed", seed.path().string()});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_NE(outcome.errorOutput.find(c.message), std::string::npos) << outcome.errorOutput;
  }
}

TEST(EmulatorStart, RefusesBadOptions) {
  const std::vector<std::string> cases[] = {
      {"--app", "no-colon"}, {"--app", ":secret"},       {"--fail-rate", "1.5"},
      {"--token-ttl", "0"},  {"--seed", "/nonexistent"},
  };
  for (const auto& arguments : cases) {
    SCOPED_TRACE(arguments[0] + " " + arguments[1]);
    const auto outcome = EmulatorProcess::runToExit(ZRK_EMULATOR_PATH, arguments);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_FALSE(outcome.errorOutput.empty());
  }
}

}  // namespace
}  // namespace zrk::test
