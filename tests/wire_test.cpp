// The wire, tested once: what the default transport sends and how it reads
// what comes back, over TCP and TLS, against a raw server.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>

#include "support/Recorder.h"
#include "support/ScriptedServer.h"
#include "zrk/testing/ZRKProcess.h"
#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKDevice.h"
#include "zrk/ZRKScanAPIResponse.h"
#include "zrk/ZRKUserSession.h"

namespace zrk {
namespace {

using namespace test;
using Values = std::vector<std::string>;
using namespace std::chrono_literals;

// The values of a header field in a raw head, in order, as written after the colon.
Values fieldValues(const std::string& head, const std::string& name) {
  const std::regex field("\r\n" + name + ":([^\r]*)", std::regex::icase);
  Values values;
  for (std::sregex_iterator it(head.begin(), head.end(), field), end; it != end; ++it) values.push_back((*it)[1]);
  return values;
}

// A test CA, and certificates it signed for 127.0.0.1 ("good") and for another name ("wrong"); made once.
std::string certificates() {
  static char directory[] = "/tmp/zrk-wire-XXXXXX";
  static const bool made = [] {
    if (!::mkdtemp(directory)) return false;
    std::atexit([] { std::filesystem::remove_all(directory); });
    const std::string req = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 ";
    return std::system(("cd " + std::string(directory) + " && { " + req + "-keyout ca.key -out ca.pem -subj /CN=ca " +
                        "-addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign && for n in " +
                        "good:IP:127.0.0.1 wrong:DNS:elsewhere.invalid; do " + req + "-CA ca.pem -CAkey ca.key " +
                        "-keyout k -out c -subj /CN=server -addext subjectAltName=${n#*:} -addext " +
                        "basicConstraints=CA:FALSE && cat k c > ${n%%:*}.pem || exit 1; done; } >/dev/null 2>&1")
                           .c_str()) == 0;
  }();
  return made ? directory : "";
}

class WireTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZRKApiClient::sharedUrlSessionConfiguration()->transport = nullptr;
    ZRKApiClient::initializeWithAppKey("key", "secret");
    ZRKApiClient::setBaseUrl(server.url());
  }
  void TearDown() override {
    ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(50));
    ZRKApiAuthToken::clear();
    ZRKUserSession::clearSession();
    ZRKDevice::setAppBuildVersion(std::nullopt);
    ZRKApiClient::setBaseUrl(ZRKDefaultBaseURL);
  }
  // "<status> <body>" or "error <code>", from a session of its own.
  static std::string fetch(const std::string& url, std::shared_ptr<ZRKURLSessionConfiguration> configuration = nullptr,
                           ZRKURLRequest r = ZRKURLRequest()) {
    Recorder<std::optional<std::string>, std::shared_ptr<const ZRKHTTPURLResponse>, std::optional<ZRKError>> done;
    r.setURL(ZRKURL::URLWithString(url));
    ZRKURLSession::sessionWithConfiguration(configuration, {}, &ZRKMainQueue::mainQueue())
        ->dataTaskWithRequest(r, done)
        ->resume();
    EXPECT_TRUE(done.once(std::chrono::seconds(10)));
    const auto [data, response, error] = done.last();
    if (error) return "error " + std::to_string(error->code);
    return std::to_string(response->statusCode()) + " " + data.value_or("");
  }

  ScriptedServer server;
};

TEST_F(WireTest, TheClientsRequestsGoOutAsMade) {
  server.choose([](const RawRequest& r) {
    const bool token = r.path() == "/app/v1/auth";
    return Script{readBody(), send(httpAnswer(token ? R"({"token":"t1","expire":4102444800})" : "{}"))};
  });
  // Control bytes in any value must never reach a header line.
  ZRKUserSession::setCurrentUserToken("u\r\nInjected: 1");
  ZRKDevice::setAppBuildVersion(std::string("1\0Injected: 1", 13));
  Recorder<std::shared_ptr<ZRKScanAPIResponse>, std::optional<ZRKError>> scan;
  ZRKApiClient::sharedClient()->scanWithUrl(ZRKJson("https://example.com/i.jpg"), "c1", scan);
  ASSERT_TRUE(scan.once());
  const auto sent = server.requests();
  ASSERT_EQ(sent.size(), 2u);
  // The token step carries the empty credential, its space kept.
  EXPECT_TRUE(sent[0].head.starts_with("POST /app/v1/auth HTTP/1.1\r\n")) << sent[0].head;
  EXPECT_EQ(fieldValues(sent[0].head, "Authorization"), Values{" Bearer "});
  EXPECT_TRUE(sent[1].head.starts_with("POST /app/v1/scan/c1 HTTP/1.1\r\n")) << sent[1].head;
  EXPECT_EQ(fieldValues(sent[1].head, "Authorization"), Values{" Bearer dDE="});
  EXPECT_EQ(ZRKJson::parse(sent[1].body).value("fileUrl", ""), "https://example.com/i.jpg");
  for (const auto& r : sent) {
    EXPECT_FALSE(r.body.empty());
    EXPECT_EQ(fieldValues(r.head, "Content-Length"), Values{" " + std::to_string(r.body.size())});
    EXPECT_EQ(fieldValues(r.head, "User-Agent"), Values{" " + ZRKURLSessionConfiguration().userAgent});
    EXPECT_EQ(fieldValues(r.head, "Host"), Values{" 127.0.0.1:" + std::to_string(server.port())});
    EXPECT_EQ(fieldValues(r.head, "ZRK-App-Version"), Values{});  // cut at its NUL otherwise
    EXPECT_EQ(r.head.find("Injected"), std::string::npos) << r.head;
  }
}

TEST_F(WireTest, BodiesGoOutOnceWithTheirOwnLength) {
  server.always({readBody(), send(httpAnswer("{}"))});
  for (const auto& [method, body, length] : {std::tuple<std::string, std::optional<std::string>, Values>{
                                                 "PATCH", std::string(2u << 20, 'b'), {" 2097152"}},
                                             {"POST", std::nullopt, {" 0"}}, {"GET", std::nullopt, {}}}) {
    ZRKURLRequest r;
    r.setHTTPMethod(method);
    r.setHTTPBody(body);
    r.setValue("999", "Content-Length");
    r.setValue("chunked", "Transfer-Encoding");
    r.setValue("", "X-Empty");
    EXPECT_EQ(fetch(server.url() + "/p?q=1", nullptr, r), "200 {}");
    const auto got = server.requests().back();
    EXPECT_TRUE(got.head.starts_with(method + " /p?q=1 HTTP/1.1\r\n")) << got.head;
    EXPECT_EQ(got.body, body.value_or(""));
    EXPECT_EQ(fieldValues(got.head, "Content-Length"), length) << method;
    // curl's own form type must not label a request without a body.
    EXPECT_EQ(fieldValues(got.head, "Content-Type").size(), body ? 1u : 0u) << method;
    EXPECT_EQ(fieldValues(got.head, "Expect"), Values{}) << method;
    EXPECT_EQ(fieldValues(got.head, "Transfer-Encoding"), Values{}) << method;
    EXPECT_EQ(fieldValues(got.head, "X-Empty"), Values{""}) << method;
  }
}

TEST_F(WireTest, AnswersAreReadAsSent) {
  const std::string gzipped(
      "\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03\xcb\x48\xcd\xc9\xc9\x07\x00\x86\xa6\x10\x36\x05\x00\x00\x00", 25);
  server.choose([&](const RawRequest& r) {
    if (r.path() == "/from") return Script{send(httpAnswer("", 302, "Location: /to\r\n"))};
    return Script{send("HTTP/1.1 100 Continue\r\nX-Interim: 1\r\n\r\nHTTP/1.1 201 Created\r\nX-Folded: a\r\n  b\r\n"
                       "X-Twice: 1\r\nX-Twice: 2\r\nContent-Encoding: gzip\r\nContent-Length: 25\r\n\r\n" + gzipped)};
  });
  Recorder<std::optional<std::string>, std::shared_ptr<const ZRKHTTPURLResponse>, std::optional<ZRKError>> done;
  ZRKURLSession::sessionWithConfiguration(nullptr, {}, &ZRKMainQueue::mainQueue())
      ->dataTaskWithRequest(ZRKURLRequest(ZRKURL::URLWithString(server.url() + "/from")), done)
      ->resume();
  ASSERT_TRUE(done.once());
  const auto [data, response, error] = done.last();
  ASSERT_TRUE(response) << error->localizedDescription();
  EXPECT_EQ(response->statusCode(), 201);
  EXPECT_EQ(response->URL()->path(), "/to");  // the session, not the transport, followed it
  EXPECT_EQ(response->valueForHTTPHeaderField("X-Folded"), "a b");
  EXPECT_EQ(response->valueForHTTPHeaderField("X-Twice"), "1, 2");
  EXPECT_FALSE(response->valueForHTTPHeaderField("X-Interim"));
  EXPECT_EQ(data, "hello");

  // A connection that ends inside the header block brings no answer.
  server.always({send("HTTP/1.1 200 OK\r\nContent-Type: appl"), closeConnection()});
  EXPECT_EQ(fetch(server.url() + "/cut"), "error 8");
}

TEST_F(WireTest, EachRequestWakesTheIOThread) {
  // A lost wake-up would leave each request to the I/O thread's one-second
  // idle poll: twenty in a row would take twenty seconds, not milliseconds.
  server.always({send(httpAnswer("ok"))});
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) ASSERT_EQ(fetch(server.url() + "/" + std::to_string(i)), "200 ok");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
}

TEST_F(WireTest, OnlyATrustedCertificateForTheHostIsAccepted) {
  const std::string directory = certificates();
  ASSERT_FALSE(directory.empty()) << "openssl could not make the test certificates";
  for (const auto& [certificate, trustTheCA, told] :
       {std::tuple<std::string, bool, std::string>{"good", true, "200 {}"}, {"good", false, "error 60"},
        {"wrong", true, "error 60"}}) {
    ScriptedServer tls("127.0.0.1", directory + "/" + certificate + ".pem");
    const auto configuration = ZRKURLSessionConfiguration::defaultSessionConfiguration();
    if (trustTheCA) configuration->caInfoPath = directory + "/ca.pem";
    EXPECT_EQ(fetch(tls.url() + "/secure", configuration), told) << certificate << trustTheCA;
    EXPECT_EQ(tls.requests().size(), told == "200 {}" ? 1u : 0u) << "a request went over an unverified connection";
  }
}

// Proxies close connections after a number of requests. Against a server
// that closes after three (HTTP/1.1 silently, HTTP/2 with GOAWAY), with sixty
// requests in flight: each one the server never processed goes out again,
// and none it processed goes twice.
TEST_F(WireTest, RequestsAClosingServerNeverProcessedGoOutAgain) {
  if (std::system("/usr/bin/python3 -c 'import h2' 2>/dev/null") != 0) GTEST_SKIP() << "needs python3-h2";
  const std::string directory = certificates();
  ASSERT_FALSE(directory.empty());
  const auto configuration = ZRKURLSessionConfiguration::defaultSessionConfiguration();
  configuration->caInfoPath = directory + "/ca.pem";
  const auto session = ZRKURLSession::sessionWithConfiguration(configuration, {}, &ZRKMainQueue::mainQueue());
  // Sends requests /R.0../R.count-1 at once, in `rounds` rounds (one by one
  // when `count` is 1); the codes of the failed ones and the server's log.
  const auto run = [&](std::vector<std::string> options, int count, int rounds = 1) {
    options.insert(options.begin(), ZRK_CLOSING_SERVER);
    testing::ZRKProcess server("/usr/bin/python3", options);
    const bool tls = std::find(options.begin(), options.end(), "--tls") != options.end();
    const std::string url = (tls ? "https://127.0.0.1:" : "http://127.0.0.1:") + server.lineAfter("port ");
    Recorder<std::optional<std::string>, std::shared_ptr<const ZRKHTTPURLResponse>, std::optional<ZRKError>> done;
    std::vector<long> failed;
    const auto completion = done.completion();
    for (int round = 0; round < rounds; ++round) {
      for (int i = 0; i < count; ++i) {
        ZRKURLRequest request;
        request.setURL(ZRKURL::URLWithString(url + "/" + std::to_string(round) + "." + std::to_string(i)));
        session->dataTaskWithRequest(request, [&failed, completion](auto data, auto response, auto error) {
          if (error) failed.push_back(error->code);
          completion(data, response, error);
        })->resume();
      }
      const auto expected = std::size_t(count) * std::size_t(round + 1);
      EXPECT_TRUE(ZRKMainQueue::mainQueue().runUntil([&] { return done.calls() >= expected; }, 30s));
    }
    std::istringstream log(server.out());
    std::multiset<std::string> lines;
    for (std::string line; std::getline(log, line);) lines.insert(line);
    return std::pair(failed, lines);
  };

  // Whether libcurl's own retry covers the streams a GOAWAY refused depends
  // on timing: rounds make a lost request certain to show.
  for (const bool http2 : {false, true}) {
    std::vector<std::string> options = {"--after", "3"};
    if (http2) options.insert(options.end(), {"--tls", directory + "/good.pem"});
    const int rounds = http2 ? 12 : 1;
    const auto [failed, log] = run(options, 60, rounds);
    EXPECT_EQ(failed, std::vector<long>()) << (http2 ? "HTTP/2" : "HTTP/1.1");
    for (int round = 0; round < rounds; ++round) {
      for (int i = 0; i < 60; ++i) {
        const std::string target = "/" + std::to_string(round) + "." + std::to_string(i);
        EXPECT_EQ(log.count("answered " + target), 1u) << target;
      }
    }
  }
  {
    // Read on a new connection and never answered: the server may have acted on it.
    const auto [failed, log] = run({"--after", "3", "--drop-first"}, 1);
    EXPECT_EQ(failed.size(), 1u);
    EXPECT_EQ(log.count("dropped /0.0"), 1u);
  }
  // Part of an answer arrived on a reused connection: the server acted on it.
  const auto [failed, log] = run({"--after", "1", "--partial"}, 1, 2);
  EXPECT_EQ(failed.size(), 1u);
  EXPECT_EQ(log.count("partial /1.0") + log.count("answered /1.0"), 1u);
}

}  // namespace
}  // namespace zrk
