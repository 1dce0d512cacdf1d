// zrk-emulator spoken to over HTTP: its REST contract and bearer checks,
// storage across a restart, reset, the inspection paths and the fault
// drills, the console's admin routes; then one run of the library against it.
#include <gtest/gtest.h>
#include <httplib.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "core/ZRKBase64.h"
#include "zrk/testing/ZRKProcess.h"
#include "support/Recorder.h"
#include "zrk/ZRKApi.h"
#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKScanAPIResponse.h"

namespace zrk::test {
namespace {

using namespace std::chrono_literals;
using zrk::testing::ZRKProcess;

const std::string kSeed = ZRK_SAMPLES "/seed", kPhoto = ZRK_SAMPLES "/photos/jazz-night-photo.jpg";
const std::string kForm = "multipart/form-data; boundary=B";
const std::string kAnn = R"({"email":"ann@example.com","name":"Ann","password":"pw-1"})";

// A file as the one part of a multipart body under the boundary "B".
std::string upload(const std::string& path = kPhoto, const std::string& name = "file") {
  std::ifstream file(path, std::ios::binary);
  return "--B\r\nContent-Disposition: form-data; name=\"" + name + "\"; filename=\"i.jpg\"\r\n\r\n" +
         std::string(std::istreambuf_iterator<char>(file), {}) + "\r\n--B--\r\n";
}

std::string bytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Text fields, then the file as the part "file", under the boundary "B".
std::string form(const std::vector<std::pair<std::string, std::string>>& fields, const std::string& path) {
  std::string body;
  for (const auto& [name, value] : fields)
    body += "--B\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value + "\r\n";
  return body + upload(path);
}

// The answer a request of these headers alone gets on a fresh connection
// that the server closes.
std::string answerTo(int port, const std::string& head) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string answer;
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      send(fd, head.data(), head.size(), 0) == static_cast<ssize_t>(head.size())) {
    char buffer[4096];
    for (ssize_t got; answer.size() < 65536 && (got = recv(fd, buffer, sizeof buffer, 0)) > 0;) answer.append(buffer, got);
  }
  close(fd);
  return answer;
}

struct Reply {
  int status = 0;
  ZRKJson json;  // discarded when the body is no JSON
};

class EmulatorTest : public ::testing::Test {
 protected:
  void SetUp() override { start({}); }
  void TearDown() override { EXPECT_EQ(emulator->stop(), 0) << emulator->err(); }

  // (Re)starts the emulator with the sample seed and the arguments.
  void start(std::vector<std::string> arguments) {
    if (emulator) {
      EXPECT_EQ(emulator->stop(), 0) << emulator->err();
    }
    arguments.insert(arguments.end(), {"--port", "0", "--seed", kSeed});
    emulator = std::make_unique<ZRKProcess>(ZRK_EMULATOR_PATH, arguments);
    url = emulator->lineAfter("listening on ");
    ASSERT_FALSE(url.empty()) << emulator->err();
  }

  Reply call(const std::string& method, const std::string& path, const std::string& body = "",
             const httplib::Headers& headers = {}, const std::string& type = "application/json") const {
    httplib::Client http(url);
    http.set_read_timeout(60, 0);
    const auto result = method == "GET"     ? http.Get(path, headers)
                        : method == "POST"  ? http.Post(path, headers, body, type)
                        : method == "PATCH" ? http.Patch(path, headers, body, type)
                        : method == "PUT"   ? http.Put(path, headers, body, type)
                                            : http.Delete(path, headers, body, type);
    return result ? Reply{result->status, ZRKJson::parse(result->body, nullptr, false)} : Reply{};
  }
  // A fresh app token of an app the emulator admits; "" when refused.
  std::string token(const std::string& key = "demo-key", const std::string& secret = "demo-secret") const {
    return call("POST", "/app/v1/auth", ZRKJson{{"key", key}, {"secret", secret}}.dump()).json.value("token", "");
  }
  static httplib::Headers bearer(const std::string& appToken) {
    return {{"Authorization", "Bearer " + detail::base64Encode(appToken)}};
  }

  std::unique_ptr<ZRKProcess> emulator;
  std::string url;
};

TEST_F(EmulatorTest, RefusesBadRequestsWithTheirStatusInAnErrorBody) {
  const std::string raw = token();
  struct Case {
    std::string method, path, body;
    int status;
    std::string type = "application/json";
  };
  const Case cases[] = {
      {"POST", "/app/v1/auth", "{key", 400},
      {"POST", "/app/v1/auth", "key=a", 415, "application/x-www-form-urlencoded"},
      {"POST", "/app/v1/auth", R"({"key":"demo-key","secret":"demo-secreT"})", 401},
      {"GET", "/app/v1/history?count=0", "", 400},
      {"POST", "/app/v1/scan", upload(kPhoto, "photo"), 400, kForm},
      {"POST", "/app/v1/scan", upload(kSeed + "/city-festival/jazz-night.json"), 400, kForm},
      {"POST", "/app/v1/scan", R"({"url":"x"})", 400},
      {"POST", "/app/v1/scan/city-festival", R"({"fileUrl":"http://127.0.0.1:1/x","collectionId":"x"})", 400},
      {"POST", "/app/v1/scan/nope", upload(), 404, kForm},
      {"POST", "/app/v1/scan", R"({"fileUrl":"ftp://127.0.0.1/x.jpg"})", 400},
      {"POST", "/app/v1/scan", R"({"fileUrl":"http://192.0.2.7/x.jpg"})", 403},  // never fetched
      {"POST", "/app/v1/scan", R"({"fileUrl":"http://127.0.0.1:1/x.jpg"})", 422},
      {"POST", "/app/v1/user", R"({"email":"a@b.c","name":"A"})", 400},
      {"POST", "/app/v1/user", R"({"email":"@b.c","name":"A","password":"p"})", 400},
      {"PATCH", "/app/v1/user", R"({"name":"A"})", 401},
      {"DELETE", "/app/v1/user/auth", "", 400},
      {"PUT", "/app/v1/user", "{}", 405},
      {"GET", "/app/v2/collection", "", 404},
      {"POST", "/app/v1/user", std::string((16u << 20) + 1, ' '), 413},
  };
  for (const Case& c : cases) {
    const Reply reply = call(c.method, c.path, c.body, bearer(raw), c.type);
    EXPECT_EQ(reply.status, c.status) << c.method << " " << c.path << " " << c.body.substr(0, 80) << ": " << reply.json;
    EXPECT_TRUE(reply.json.value("code", 0) == c.status && reply.json.contains("message"));
  }
  // The bearer is the base64 of a live token, nothing else.
  for (const auto& headers : {httplib::Headers{}, httplib::Headers{{"Authorization", "Bearer " + raw}},
                              httplib::Headers{{"Authorization", "Bearer %%%="}}, bearer(token("nobody"))}) {
    EXPECT_EQ(call("GET", "/app/v1/collection", "", headers).status, 401);
  }
  EXPECT_EQ(call("GET", "/app/v1/collection", "", bearer(raw)).status, 200);
}

TEST_F(EmulatorTest, ScansMatchTheSeedAndGoIntoTheCallersHistory) {
  auto headers = bearer(token());
  headers.insert({{"ZRK-User-Id", "u1"}, {"ZRK-User-Lat", "48.5"}, {"Pelmor-User-Lng", "2.25"}});
  const Reply matched = call("POST", "/app/v1/scan", upload(), headers, kForm);
  EXPECT_EQ(matched.json.value("triggerId", ""), "jazz-night") << matched.json;
  EXPECT_EQ(matched.json.value("payloadUrl", ""), "https://example.com/festival/jazz-night");
  EXPECT_EQ(matched.json.value("thumbnailUrl", ""), url + "/files/triggers/jazz-night");
  EXPECT_TRUE(matched.json.value("score", 0) > 0 && matched.json.value("score", 0) <= 100) << matched.json;

  // No such poster in another collection; a latitude past 90 is not kept.
  headers.find("ZRK-User-Lat")->second = "120";
  const Reply missed = call("POST", "/app/v1/scan/science-museum", upload(), headers, kForm);
  EXPECT_TRUE(missed.json.value("score", -1) == 0 && !missed.json.contains("triggerId")) << missed.json;

  // A URL scan of an image the emulator serves.
  const std::string byUrl = R"({"fileUrl":")" + matched.json.value("thumbnailUrl", "") + R"("})";
  EXPECT_EQ(call("POST", "/app/v1/scan", byUrl, headers).json["triggerId"], "jazz-night");

  // Newest first and paged, with the position when it was valid.
  const ZRKJson page = call("GET", "/app/v1/history?count=2&offset=1", "", headers).json;
  EXPECT_EQ(page["total"], 3);
  ASSERT_EQ(page["result"].size(), 2u);
  EXPECT_TRUE(page["result"][0]["matched"] == false && !page["result"][0].contains("lat"));
  const ZRKJson& first = page["result"][1];
  EXPECT_EQ(first["scanId"], matched.json["id"]);
  EXPECT_EQ(first["campaignId"], "city-festival");
  EXPECT_EQ(first["lat"], 48.5);
  EXPECT_EQ(first["lng"], 2.25);
  // Another end user of the app has a history of their own.
  headers.find("ZRK-User-Id")->second = "u2";
  const ZRKJson theirs = call("GET", "/app/v1/history", "", headers).json;
  EXPECT_TRUE(theirs["total"] == 0 && theirs["result"].empty()) << theirs;
}

TEST_F(EmulatorTest, AppTokensLastTheirLifetimeForTheAppsGiven) {
  start({"--token-ttl", "1", "--app", "shop:s3cret"});
  EXPECT_EQ(token(), "");  // the apps given replace the demo app
  const auto before = std::chrono::system_clock::now();
  const Reply issued = call("POST", "/app/v1/auth", R"({"key":"shop","secret":"s3cret"})");
  const auto expire = std::chrono::system_clock::from_time_t(issued.json.value("expire", 0L));
  EXPECT_EQ(issued.json["expireIn"], 1);
  EXPECT_TRUE(expire >= before && expire <= std::chrono::system_clock::now() + 1s);
  // Refused once the clock has passed its expiry.
  while (std::chrono::system_clock::now() < expire + 200ms) std::this_thread::sleep_for(50ms);
  EXPECT_EQ(call("GET", "/app/v1/collection", "", bearer(issued.json.value("token", ""))).status, 401);
}

TEST_F(EmulatorTest, AccountsSurviveARestartWithTheirFileAndResetDropsThem) {
  const std::string file = std::filesystem::temp_directory_path() / ("zrk-emulator-" + std::to_string(getpid()));
  std::filesystem::remove(file);
  start({"--data", file});
  auto headers = bearer(token());
  EXPECT_EQ(call("POST", "/app/v1/user", kAnn, headers).status, 201);
  EXPECT_EQ(call("POST", "/app/v1/user", kAnn, headers).status, 409);
  EXPECT_EQ(call("POST", "/app/v1/user/auth", R"({"email":"ann@example.com","password":"pw-2"})", headers).status, 401);
  const std::string userToken = call("POST", "/app/v1/user/auth", kAnn, headers).json.value("token", "");
  ASSERT_EQ(call("POST", "/app/v1/scan", upload(), headers, kForm).status, 200);
  // The user token names the account, in the headers or in the query.
  headers.emplace("ZRK-User-Token", userToken);
  EXPECT_EQ(call("PATCH", "/app/v1/user", R"({"name":"Ann B.","gender":"f"})", headers).status, 200);

  start({});
  EXPECT_EQ(call("POST", "/app/v1/user/auth", kAnn, bearer(token())).status, 401);
  start({"--data", file});
  EXPECT_EQ(call("GET", "/app/v1/user?Pelmor-User-Token=" + userToken, "", bearer(token())).json,
            ZRKJson::parse(R"({"object":"user","id":"1","email":"ann@example.com","name":"Ann B.","gender":"f"})"));
  EXPECT_EQ(call("GET", "/app/v1/history", "", headers).json["total"], 1);
  EXPECT_EQ(call("DELETE", "/app/v1/user/auth?email=ann%40example.com&password=pw-1", "", headers).status, 200);
  EXPECT_EQ(call("GET", "/app/v1/user?ZRK-User-Token=" + userToken, "", headers).status, 401);

  EXPECT_EQ(call("POST", "/__emulator/reset").status, 200);
  EXPECT_EQ(call("GET", "/app/v1/collection", "", headers).status, 401);
  const auto fresh = bearer(token());
  EXPECT_EQ(call("GET", "/app/v1/collection", "", fresh).json["total"], 3);
  EXPECT_EQ(call("GET", "/app/v1/history", "", fresh).json["total"], 0);
  EXPECT_EQ(call("POST", "/app/v1/user/auth", kAnn, fresh).status, 401);
  EXPECT_EQ(call("GET", "/__emulator/health").json,
            ZRKJson::parse(R"({"status":"ok","collections":3,"triggers":8,"persistent":true})"));
  EXPECT_EQ(emulator->stop(SIGINT), 0);
  std::filesystem::remove(file);
}

TEST_F(EmulatorTest, DrillsSlowAndFailTheServiceButNotItsOwnPaths) {
  start({"--fail-rate", "1", "--latency-ms", "300"});
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(call("POST", "/app/v1/auth", R"({"key":"demo-key","secret":"demo-secret"})").status, 503);
  EXPECT_GE(std::chrono::steady_clock::now() - started, 300ms);
  EXPECT_EQ(call("GET", "/__emulator/health").status, 200);
  // Changed at run time; a reset brings back the command line's.
  EXPECT_EQ(call("POST", "/__emulator/drills", R"({"failRate":0,"latencyMs":0})").json,
            ZRKJson::parse(R"({"failRate":0.0,"latencyMs":0})"));
  EXPECT_NE(token(), "");
  EXPECT_EQ(call("POST", "/__emulator/reset").status, 200);
  EXPECT_EQ(call("GET", "/__emulator/drills").json, ZRKJson::parse(R"({"failRate":1.0,"latencyMs":300})"));
}

TEST_F(EmulatorTest, AdminRoutesRefuseBadInputWithAMessageAndChangeNothing) {
  ASSERT_EQ(call("POST", "/__emulator/collections", R"({"id":"mine","name":"Mine"})").status, 201);
  const ZRKJson before = call("GET", "/__emulator/overview").json;
  const std::string poster = bytes(kSeed + "/city-festival/jazz-night.jpg");
  const auto trigger = [](const std::string& id, const std::string& image) {
    return ZRKJson{{"id", id}, {"name", "N"}, {"image", image}}.dump();
  };
  struct Case {
    std::string method, path, body;
    int status;
    std::string type = "application/json";
  };
  const Case cases[] = {
      {"POST", "/__emulator/collections", R"({"id":"a/b"})", 400},
      {"POST", "/__emulator/collections", R"({"id":"a..b"})", 400},
      {"POST", "/__emulator/collections", R"({"id":5})", 400},
      {"POST", "/__emulator/collections", R"({"id":"mine"})", 409},
      {"POST", "/__emulator/collections/mine/triggers", trigger("jazz-night", detail::base64Encode(poster)), 409},
      {"POST", "/__emulator/collections/mine/triggers", trigger("../x", detail::base64Encode(poster)), 400},
      {"POST", "/__emulator/collections/mine/triggers", trigger("t", detail::base64Encode("GIF89a...")), 400},
      {"POST", "/__emulator/collections/mine/triggers", trigger("t", "%%%%"), 400},
      {"POST", "/__emulator/collections/mine/triggers", form({{"id", "t"}}, kSeed + "/city-festival/jazz-night.json"),
       400, kForm},
      {"POST", "/__emulator/collections/mine/triggers", upload(), 400, kForm},  // no id
      {"POST", "/__emulator/collections/nope/triggers", trigger("t", detail::base64Encode(poster)), 404},
      {"DELETE", "/__emulator/triggers/nope", "", 404},
      {"DELETE", "/__emulator/triggers/a..b", "", 400},
      {"DELETE", "/__emulator/collections/a%2Fb", "", 404},
      {"POST", "/__emulator/try", "GIF89a...", 400, "image/gif"},
      {"POST", "/__emulator/try?collection=nope", poster, 404, "image/jpeg"},
      {"POST", "/__emulator/drills", R"({"latencyMs":-1})", 400},
      {"POST", "/__emulator/drills", R"({"latencyMs":5,"failRate":1.5})", 400},
      {"GET", "/__emulator/requests?after=x", "", 400},
  };
  for (const Case& c : cases) {
    const Reply reply = call(c.method, c.path, c.body, {}, c.type);
    EXPECT_EQ(reply.status, c.status) << c.method << " " << c.path << " " << c.body.substr(0, 80) << ": " << reply.json;
    EXPECT_TRUE(reply.json.value("code", 0) == c.status && reply.json.contains("message"));
  }
  // A 2 GB upload is refused by its announced length, before a byte of it
  // (the server's own refusal would come after reading, without the detail).
  const std::string answer =
      answerTo(std::stoi(url.substr(url.rfind(':') + 1)),
               "POST /__emulator/collections/mine/triggers HTTP/1.1\r\nHost: e\r\n"
               "Content-Type: application/json\r\nContent-Length: 2000000000\r\n\r\n");
  EXPECT_TRUE(answer.starts_with("HTTP/1.1 413 ") && answer.find(R"("contentLength":2000000000)") != std::string::npos)
      << answer;
  EXPECT_EQ(call("GET", "/__emulator/overview").json, before);
}

TEST_F(EmulatorTest, TriggersMadeAtRunTimeAreScannedKeptAndResetAway) {
  const std::string file = std::filesystem::temp_directory_path() / ("zrk-console-" + std::to_string(getpid()));
  std::filesystem::remove(file);
  start({"--data", file});
  const std::string photo = bytes(kPhoto), poster = kSeed + "/city-festival/jazz-night.jpg";
  const auto scan = [&](const std::string& collection) {
    return call("POST", "/app/v1/scan/" + collection, upload(), bearer(token()), kForm).json;
  };
  ASSERT_EQ(call("POST", "/__emulator/collections", R"({"id":"mine","name":"Mine"})").status, 201);
  const auto fields = std::vector<std::pair<std::string, std::string>>{
      {"id", "copy"}, {"name", "Copy"}, {"payloadUrl", "https://example.com/c"}, {"payloadData", "d"}};
  ASSERT_EQ(call("POST", "/__emulator/collections/mine/triggers", form(fields, poster), {}, kForm).status, 201);
  EXPECT_EQ(scan("mine").value("payloadData", ""), "d");
  // Trying a photo answers as a scan would, with the match drawn.
  const ZRKJson tried = call("POST", "/__emulator/try?collection=mine", photo, {}, "image/jpeg").json;
  EXPECT_EQ(tried.value("triggerId", "") + " " + tried.value("picture", "").substr(0, 27),
            "copy data:image/jpeg;base64,/9j/");
  EXPECT_EQ(tried["outline"].size(), 4u);
  EXPECT_GE(tried.value("inliers", 0), 20);
  EXPECT_EQ(call("POST", "/__emulator/try?collection=science-museum", photo, {}, "image/jpeg").json["matched"], false);

  // Kept across a restart, deletions of seed triggers too.
  ASSERT_EQ(call("DELETE", "/__emulator/triggers/jazz-night").status, 200);
  start({"--data", file});
  EXPECT_EQ(scan("mine").value("triggerId", ""), "copy");
  EXPECT_EQ(scan("city-festival").value("score", -1), 0);
  EXPECT_EQ(call("GET", "/files/triggers/copy").status, 200);
  EXPECT_EQ(call("GET", "/__emulator/scans").json["scans"][0].value("imageUrl", "").substr(0, 13), "/files/scans/");

  // A collection goes with its triggers, freeing their ids.
  ASSERT_EQ(call("DELETE", "/__emulator/triggers/copy").status, 200);
  EXPECT_EQ(scan("mine").value("score", -1), 0);
  ASSERT_EQ(call("POST", "/__emulator/collections/mine/triggers", form(fields, poster), {}, kForm).status, 201);
  ASSERT_EQ(call("DELETE", "/__emulator/collections/mine").status, 200);
  EXPECT_EQ(call("POST", "/__emulator/collections/science-museum/triggers", form(fields, poster), {}, kForm).status, 201);
  // A removed seed id given again: the new trigger wins over the seed's.
  auto again = fields;
  again[0].second = "jazz-night";
  ASSERT_EQ(call("POST", "/__emulator/collections/city-festival/triggers", form(again, poster), {}, kForm).status, 201);
  start({"--data", file});
  EXPECT_EQ(scan("city-festival").value("payloadData", ""), "d");

  // A reset brings back the seed alone.
  ASSERT_EQ(call("POST", "/__emulator/reset").status, 200);
  const ZRKJson overview = call("GET", "/__emulator/overview").json;
  EXPECT_EQ(overview["collections"].size(), 3u);
  EXPECT_EQ(overview["collections"][0]["triggers"].size(), 3u);
  EXPECT_TRUE(overview["scans"] == 0 && overview["users"] == 0) << overview;
  start({"--data", file});
  EXPECT_EQ(scan("city-festival").value("payloadData", ""), "Harbour Stage, Saturday 20:00. Doors open 19:00.");
  EXPECT_EQ(emulator->stop(), 0);
  std::filesystem::remove(file);
}

TEST_F(EmulatorTest, RequestLogFollowsACursorAndMasksSecrets) {
  const std::uint64_t last = call("GET", "/__emulator/requests").json.value("last", 0u);
  auto headers = bearer(token());
  call("POST", "/app/v1/user", kAnn, headers);
  const std::string scanId = call("POST", "/app/v1/scan", upload(), headers, kForm).json.value("id", "");
  call("DELETE", "/app/v1/user/auth?email=ann%40example.com&password=pw-1", "", headers);
  ZRKJson log;  // each request is logged just after its answer has gone out
  for (auto end = std::chrono::steady_clock::now() + 30s; log.size() < 4 && std::chrono::steady_clock::now() < end;) {
    log = call("GET", "/__emulator/requests?after=" + std::to_string(last)).json["requests"];
  }
  ASSERT_EQ(log.size(), 4u) << log;
  EXPECT_EQ(log[0]["body"]["json"], ZRKJson::parse(R"({"key":"demo-key","secret":"****"})"));
  EXPECT_EQ(log[1]["body"]["json"]["password"], "****");
  EXPECT_EQ(log[2]["body"]["scanImage"], "/files/scans/" + scanId);
  EXPECT_EQ(log[2]["body"]["parts"][0]["filename"], "i.jpg");
  EXPECT_EQ(log[3]["query"], "email=ann%40example.com&password=****");
  for (const ZRKJson& entry : log) {
    EXPECT_GE(entry.value("latencyMs", -1.0), entry.value("durationMs", -1.0)) << entry;
    EXPECT_GE(entry.value("durationMs", -1.0), 0) << entry;
    EXPECT_EQ(entry.dump().find(headers.begin()->second.substr(7)), std::string::npos) << entry;
  }
  const ZRKJson rest = call("GET", "/__emulator/requests?after=" + log[3]["sequence"].dump()).json;
  EXPECT_TRUE(rest["requests"].empty() && rest["last"] == log[3]["sequence"]) << rest;
}

TEST_F(EmulatorTest, AConsoleTokenGuardsTheConsoleAndAdminRoutesOnly) {
  EXPECT_EQ(call("GET", "/").status, 200);  // open on loopback
  start({"--console-token", "t0k3n"});
  const auto status = [&](const std::string& path, const httplib::Headers& headers) {
    httplib::Client http(url);
    const auto result = http.Get(path, headers);
    return result ? result->status : 0;
  };
  const auto withToken = httplib::Headers{{"ZRK-Console-Token", "t0k3n"}};
  EXPECT_EQ(status("/", {}), 401);
  EXPECT_EQ(status("/console/console.js", {{"ZRK-Console-Token", "t0k3N"}}), 401);
  EXPECT_EQ(status("/__emulator/overview", {{"Cookie", "zrk-console-token=t0k3"}}), 401);
  EXPECT_EQ(status("/__emulator/requests", {}), 401);
  EXPECT_EQ(status("/__emulator/overview", withToken), 200);
  EXPECT_EQ(status("/__emulator/scans?token=t0k3n", {}), 200);
  EXPECT_EQ(status("/console/console.css", {{"Cookie", "a=b; zrk-console-token=t0k3n"}}), 200);
  EXPECT_EQ(status("/__emulator/health", {}), 200);
  EXPECT_EQ(status("/app/v1/collection", bearer(token())), 200);
  // The address with the token leaves it in a cookie for the page's own requests.
  httplib::Client http(url);
  const auto page = http.Get("/?token=t0k3n");
  ASSERT_TRUE(page);
  EXPECT_TRUE(page->status == 200 && page->get_header_value("Set-Cookie").starts_with("zrk-console-token=t0k3n;"));
  EXPECT_NE(page->body.find("<title>"), std::string::npos);
  EXPECT_NE(emulator->err().find("console on " + url + "/?token=t0k3n\n"), std::string::npos) << emulator->err();
}

TEST(EmulatorStart, RefusesBadOptions) {
  const std::vector<std::string> options[] = {
      {"--app", "no-colon"}, {"--fail-rate", "1.5"}, {"--token-ttl", "0"}, {"--seed", "/nope"}};
  for (const auto& arguments : options) EXPECT_EQ(ZRKProcess::run(ZRK_EMULATOR_PATH, arguments).status, 2) << arguments[1];
}

// The library against the emulator, once: a photo scanned, and what it sent
// as the emulator logged it.
TEST_F(EmulatorTest, TheLibraryScansAgainstIt) {
  ZRKApi::initializeWithAppKey("demo-key", "demo-secret");
  ZRKApiClient::setBaseUrl(url);
  Recorder<std::shared_ptr<ZRKScanAPIResponse>, std::optional<ZRKError>> scan;
  ZRKApiClient::sharedClient()->scanWithImage(ZRKImage::imageWithContentsOfFile(kPhoto), "city-festival", scan);
  ASSERT_TRUE(scan.wait(60s));
  ASSERT_TRUE(scan.arg<0>()) << scan.arg<1>()->localizedDescription();
  EXPECT_EQ(scan.arg<0>()->triggerId(), "jazz-night");
  EXPECT_EQ(scan.arg<0>()->payloadData(), "Harbour Stage, Saturday 20:00. Doors open 19:00.");

  ZRKJson log;  // the emulator logs a request just after its answer has gone out
  for (auto end = std::chrono::steady_clock::now() + 30s; log.size() < 2 && std::chrono::steady_clock::now() < end;) {
    log = call("GET", "/__emulator/requests").json["requests"];
  }
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[1].value("method", "") + " " + log[1].value("path", ""), "POST /app/v1/scan/city-festival");
  // The log masks the bearer but for its last 4 characters.
  const std::string bearer = detail::base64Encode(*ZRKApiAuthToken::token()->tokenString());
  const ZRKJson& headers = log[1]["headers"];  // pairs of name and value
  const ZRKJson masked = ZRKJson::array({"Authorization", "Bearer ****" + bearer.substr(bearer.size() - 4)});
  EXPECT_NE(std::find(headers.begin(), headers.end(), masked), headers.end()) << headers;
  EXPECT_GT(log[1].value("bodySize", 0), 10000);
  ZRKApiAuthToken::clear();
  ZRKApiClient::setBaseUrl(ZRKDefaultBaseURL);
}

}  // namespace
}  // namespace zrk::test
