// What callers and servers cannot make the library do: put control bytes
// into header lines, reach another path through an identifier, read
// secrets from its output, or make it hold an unbounded body. And the
// deliberate behaviours that look like faults but are promised.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>

#include "support/Reliability.h"
#include "support/ServiceTest.h"
#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKAppConfiguration.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKDevice.h"
#include "zrk/ZRKMainQueue.h"
#include "zrk/ZRKScanAPIResponse.h"
#include "zrk/ZRKScanHistory.h"
#include "zrk/ZRKUser.h"
#include "zrk/ZRKUserAPIResponse.h"
#include "zrk/ZRKUserSession.h"

namespace zrk {
namespace {

using namespace test;
using namespace std::chrono_literals;

constexpr const char* kToken = R"({"token":"t1","expire":4102444800})";

// Answers the token step with kToken (or `token`) and everything else with
// `answer`.
void serveService(ScriptedServer& server, std::string answer = "{}", std::string token = kToken) {
  server.choose([answer, token](const RawRequest& request) {
    return Script{readBody(), send(httpAnswer(request.path() == "/app/v1/auth" ? token : answer))};
  });
}

// The head's lines, each of which must be free of control bytes.
void expectCleanHead(const std::string& head, const std::string& label) {
  ASSERT_GE(head.size(), 4u);
  const std::string_view lines(head.data(), head.size() - 4);
  std::size_t start = 0;
  bool first = true;
  while (start <= lines.size()) {
    const auto end = std::min(lines.find("\r\n", start), lines.size());
    const std::string_view line = lines.substr(start, end - start);
    EXPECT_EQ(line.find_first_of(std::string_view("\r\n\0", 3)), std::string_view::npos) << label << ": " << line;
    EXPECT_NE(line.substr(0, 8), "Injected") << label;
    if (first) {
      // "METHOD TARGET HTTP/1.1": nothing in the target splits the line.
      EXPECT_EQ(std::count(line.begin(), line.end(), ' '), 2) << label << ": " << line;
    }
    first = false;
    start = end + 2;
  }
}

struct InjectionCase {
  const char* field;
  // Plants the value and starts one call whose completion is `done`.
  std::function<void(const std::string& value, std::function<void()> done)> run;
};

std::shared_ptr<ZRKUser> userWith(const std::string& value) {
  auto user = std::make_shared<ZRKUser>();
  user->setZRKUserEmail("a" + value + "@example.com");
  user->setZRKUserPassword("p" + value);
  user->setZRKUserName("n" + value);
  user->setZRKUserGender("g" + value);
  user->setZRKUserAvatar("https://example.com/" + value);
  return user;
}

std::vector<InjectionCase> injectionCases() {
  const auto listing = [](std::function<void()> done) {
    ZRKApiClient::sharedClient()->retrieveCollectionsWithCompletion([done](auto, auto) { done(); });
  };
  return {
      {"AppKeyAndSecret",
       [listing](const std::string& v, std::function<void()> done) {
         ZRKApiClient::initializeWithAppKey("key" + v, "secret" + v);
         listing(std::move(done));
       }},
      {"UserId",
       [listing](const std::string& v, std::function<void()> done) {
         ZRKAppConfiguration::setSharedAppUserId("user" + v);
         listing(std::move(done));
       }},
      {"AppVersion",
       [listing](const std::string& v, std::function<void()> done) {
         ZRKDevice::setAppBuildVersion("1.0" + v);
         listing(std::move(done));
       }},
      {"UserToken",
       [listing](const std::string& v, std::function<void()> done) {
         ZRKUserSession::setCurrentUserToken("u" + v);
         listing(std::move(done));
       }},
      {"CollectionId",
       [](const std::string& v, std::function<void()> done) {
         ZRKApiClient::sharedClient()->scanWithUrl(ZRKJson("https://example.com/i.jpg"), "c" + v,
                                                   [done](auto, auto) { done(); });
       }},
      {"CollectionIdOfAnImageScan",
       [](const std::string& v, std::function<void()> done) {
         ZRKApiClient::sharedClient()->scanWithImage(testImage(), "c" + v, [done](auto, auto) { done(); });
       }},
      {"FileUrl",
       [](const std::string& v, std::function<void()> done) {
         ZRKApiClient::sharedClient()->scanWithUrl(ZRKJson("https://example.com/" + v), [done](auto, auto) { done(); });
       }},
      {"UserFields",
       [](const std::string& v, std::function<void()> done) {
         ZRKApiClient::sharedClient()->registerUser(userWith(v), [done](auto, auto) { done(); });
       }},
      {"LogoutFields",
       [](const std::string& v, std::function<void()> done) {
         auto calls = std::make_shared<int>(0);
         ZRKApiClient::sharedClient()->logoutUser(userWith(v), [done, calls](auto, auto) {
           if (++*calls == 2) done();
         });
       }},
      {"RetrievedUserToken",
       [](const std::string& v, std::function<void()> done) {
         ZRKApiClient::sharedClient()->retrieveUser("u" + v, [done](auto, auto) { done(); });
       }},
  };
}

void PrintTo(const InjectionCase& c, std::ostream* out) { *out << c.field; }

class HeaderInjection : public ReliabilityTest, public ::testing::WithParamInterface<InjectionCase> {
 protected:
  void TearDown() override {
    ZRKApiClient::initializeWithAppKey("key", "secret");
    // nullopt restores the default id without fetching a token.
    ZRKAppConfiguration::setSharedAppUserId(std::nullopt);
    ZRKDevice::setAppBuildVersion(std::nullopt);
    ReliabilityTest::TearDown();
  }
};

TEST_P(HeaderInjection, ControlBytesNeverReachAHeaderLine) {
  const std::string values[] = {std::string("\r\nInjected: 1"), std::string("\nInjected: 1"),
                                std::string("\rInjected: 1"), std::string("\0Injected: 1", 12),
                                std::string("\r\n\r\nGET /injected HTTP/1.1")};
  for (const std::string& value : values) {
    // The server's own token, too, travels only encoded.
    serveService(*server, "{}", R"({"token":"t\r\nInjected: 1","expire":4102444800})");
    const std::size_t before = server->requests().size();
    bool done = false;
    GetParam().run(value, [&done] { done = true; });
    EXPECT_TRUE(ZRKMainQueue::mainQueue().runUntil([&] { return done; }, 5s)) << GetParam().field;
    settle(100ms);
    const auto requests = server->requests();
    ASSERT_GT(requests.size(), before);
    for (std::size_t i = before; i < requests.size(); ++i) {
      expectCleanHead(requests[i].head, std::string(GetParam().field) + " " + requests[i].target());
    }
    ZRKApiAuthToken::clear();
    ZRKUserSession::clearSession();
  }
}

INSTANTIATE_TEST_SUITE_P(CallerValues, HeaderInjection, ::testing::ValuesIn(injectionCases()),
                         [](const auto& info) { return std::string(info.param.field); });

struct PathCase {
  std::string collection;
  std::string target;
};

void PrintTo(const PathCase& c, std::ostream* out) { *out << '"' << c.collection << '"'; }

class PathIdentifier : public ReliabilityTest, public ::testing::WithParamInterface<PathCase> {};

TEST_P(PathIdentifier, StaysOneSegmentOfTheScanPath) {
  serveService(*server, R"({"id":"s1"})");
  ZRKApiAuthToken::setToken(validToken());
  int calls = 0;
  client->scanWithUrl(ZRKJson("https://example.com/i.jpg"), GetParam().collection, [&](auto, auto) { ++calls; });
  client->scanWithImage(testImage(), GetParam().collection, [&](auto, auto) { ++calls; });
  ASSERT_TRUE(ZRKMainQueue::mainQueue().runUntil([&] { return calls == 2; }, 5s));
  const auto requests = server->requests();
  ASSERT_EQ(requests.size(), 2u);
  for (const auto& request : requests) EXPECT_EQ(request.target(), GetParam().target);
  // The body keeps the identifier exactly as given.
  const auto json = std::find_if(requests.begin(), requests.end(),
                                 [](const auto& r) { return r.head.find("application/json") != std::string::npos; });
  ASSERT_NE(json, requests.end());
  EXPECT_EQ(ZRKJson::parse(json->body).value("collectionId", ""), GetParam().collection);
}

INSTANTIATE_TEST_SUITE_P(
    Collections, PathIdentifier,
    ::testing::Values(PathCase{"abc", "/app/v1/scan/abc"},
                      PathCase{"5f3a-9c_x.y~z!$&'()*+,;=:@", "/app/v1/scan/5f3a-9c_x.y~z!$&'()*+,;=:@"},
                      PathCase{"a/b", "/app/v1/scan/a%2Fb"}, PathCase{"a?admin=1", "/app/v1/scan/a%3Fadmin=1"},
                      PathCase{"a#top", "/app/v1/scan/a%23top"},
                      PathCase{"../../admin", "/app/v1/scan/..%2F..%2Fadmin"},
                      PathCase{"..", "/app/v1/scan/%2E%2E"}, PathCase{".", "/app/v1/scan/%2E"},
                      PathCase{"a b", "/app/v1/scan/a%20b"}, PathCase{"%2F", "/app/v1/scan/%252F"},
                      PathCase{"\xC3\xBC", "/app/v1/scan/%C3%BC"}),
    [](const auto& info) { return "Case" + std::to_string(info.index); });

// Captures what the process writes to its standard output and error.
class OutputCapture {
 public:
  OutputCapture() {
    std::fflush(stdout);
    std::fflush(stderr);
    file_ = std::tmpfile();
    saved_[0] = ::dup(1);
    saved_[1] = ::dup(2);
    ::dup2(::fileno(file_), 1);
    ::dup2(::fileno(file_), 2);
  }
  std::string finish() {
    std::fflush(stdout);
    std::fflush(stderr);
    ::dup2(saved_[0], 1);
    ::dup2(saved_[1], 2);
    ::close(saved_[0]);
    ::close(saved_[1]);
    std::string text;
    std::rewind(file_);
    char buffer[4096];
    while (const std::size_t n = std::fread(buffer, 1, sizeof buffer, file_)) text.append(buffer, n);
    std::fclose(file_);
    return text;
  }

 private:
  std::FILE* file_;
  int saved_[2];
};

TEST_F(ReliabilityTest, SecretsNeverReachTheOutput) {
  ZRKApiClient::initializeWithAppKey("key-K3Y", "secret-S3CR3T");
  server->choose([](const RawRequest& request) {
    const std::string path = request.path();
    if (path == "/app/v1/auth") return Script{readBody(), send(httpAnswer(R"({"token":"app-T0K3N","expire":4102444800})"))};
    if (path == "/app/v1/user/auth") return Script{readBody(), send(httpAnswer(R"({"token":"user-U53R"})"))};
    if (path == "/app/v1/history") return Script{readBody(), resetConnection()};
    if (path == "/app/v1/collection") return Script{readBody(), send(httpAnswer("", 302, "Location: http://127.0.0.1:1/\r\n"))};
    return Script{readBody(), send(httpAnswer("{not json"))};
  });
  OutputCapture capture;
  int calls = 0;
  const auto count = [&calls](auto, auto) { ++calls; };
  const auto user = userWith("");
  client->loginUser(user, count);
  ZRKMainQueue::mainQueue().runUntil([&] { return calls == 1; }, 5s);
  client->retrieveCollectionsWithCompletion(count);
  client->retrieveScanHistoryWithCount(0, 0, count);
  client->scanWithUrl(ZRKJson("https://example.com/i.jpg"), "c1", count);
  client->scanWithImage(testImage(), count);
  client->registerUser(user, count);
  client->retrieveUser("user-U53R", count);
  client->logoutUser(user, count);
  ZRKMainQueue::mainQueue().runUntil([&] { return calls == 9; }, 10s);
  const std::string output = capture.finish();
  EXPECT_EQ(calls, 9);
  for (const char* secret : {"S3CR3T", "T0K3N", "U53R", "K3Y"}) {
    EXPECT_EQ(output.find(secret), std::string::npos) << secret << " in:\n" << output;
  }
  EXPECT_EQ(output, "");
  ZRKApiClient::initializeWithAppKey("key", "secret");
}

TEST_F(ReliabilityTest, BodiesAreCappedAtANamedLimit) {
  EXPECT_EQ(ZRKURLSessionConfiguration().maximumResponseBytes, ZRKURLSessionMaximumResponseBytes);
  EXPECT_EQ(ZRKApiClient::sharedUrlSessionConfiguration()->maximumResponseBytes, ZRKURLSessionMaximumResponseBytes);
  EXPECT_GE(ZRKURLSessionMaximumResponseBytes, std::size_t{64} << 20);
  const auto session = ZRKURLSession::sessionWithConfiguration(nullptr, {}, &ZRKMainQueue::mainQueue());
  for (const std::size_t size : {ZRKURLSessionMaximumResponseBytes, ZRKURLSessionMaximumResponseBytes + 1}) {
    server->always({send(httpAnswer(std::string(size, 'x')))});
    auto outcome = std::make_shared<Outcome>();
    std::size_t received = 0;
    session
        ->dataTaskWithRequest(ZRKURLRequest(ZRKURL::URLWithString(server->url() + "/big")),
                              [outcome, &received](std::optional<std::string> body, std::shared_ptr<const ZRKHTTPURLResponse>,
                                                   std::optional<ZRKError> error) {
                                received = body ? body->size() : 0;
                                outcome->record(body.has_value(), std::move(error));
                              })
        ->resume();
    ASSERT_TRUE(waitForCall(outcome, 20s));
    if (size == ZRKURLSessionMaximumResponseBytes) {
      EXPECT_FALSE(outcome->error);
      EXPECT_EQ(received, size);
    } else {
      ASSERT_TRUE(outcome->error);
      EXPECT_EQ(outcome->error->domain, ZRKURLErrorDomain);
      EXPECT_EQ(outcome->error->code, ZRKURLErrorResponseTooLarge);
      EXPECT_NE(outcome->error->localizedDescription().find("larger"), std::string::npos);
    }
  }
}

// Deliberate: every header of the first request follows a redirect to any
// host, in each phase.
TEST_F(ReliabilityTest, HeadersFollowARedirectToAnotherHost) {
  ScriptedServer elsewhere("127.0.0.2");
  serveService(elsewhere, R"({"result":[],"id":"s1"})");
  struct Hop {
    const char* path;
    int status;
  };
  for (const Hop hop : {Hop{"/app/v1/auth", 307}, Hop{"/app/v1/scan", 307}, Hop{"/app/v1/collection", 302}}) {
    server->choose([&](const RawRequest& request) {
      if (request.path() != hop.path) return Script{readBody(), send(httpAnswer(kToken))};
      return Script{readBody(), send(httpAnswer("", hop.status, "Location: " + elsewhere.url() + hop.path + "\r\n"))};
    });
    ZRKApiAuthToken::clear();
    if (std::string(hop.path) != "/app/v1/auth") ZRKApiAuthToken::setToken(validToken("first-token"));
    ZRKUserSession::setCurrentUserToken("user-token");
    bool done = false;
    if (std::string(hop.path) == "/app/v1/auth") {
      client->authWithCompletion([&](bool, auto) { done = true; });
    } else if (std::string(hop.path) == "/app/v1/scan") {
      client->scanWithImage(testImage(), [&](auto, auto) { done = true; });
    } else {
      client->retrieveCollectionsWithCompletion([&](auto, auto) { done = true; });
    }
    ASSERT_TRUE(ZRKMainQueue::mainQueue().runUntil([&] { return done; }, 5s)) << hop.path;
    const auto first = server->requests().back();
    const auto second = elsewhere.requests().back();
    EXPECT_EQ(second.path(), hop.path);
    for (const char* name : {"Authorization", "ZRK-User-Token", "Pelmor-User-Token", "ZRK-User-Id", "ZRK-User-Model"}) {
      const auto line = [&](const std::string& head) {
        const auto at = head.find(std::string("\r\n") + name + ": ");
        return at == std::string::npos ? std::string("<absent>") : head.substr(at, head.find("\r\n", at + 2) - at);
      };
      EXPECT_NE(line(first.head), "<absent>") << name;
      EXPECT_EQ(line(second.head), line(first.head)) << hop.path << " " << name;
    }
  }
}

// Deliberate: concurrent calls with no valid token each authenticate.
TEST_F(ReliabilityTest, AuthenticationIsNotDeduplicated) {
  serveService(*server, R"({"result":[]})");
  int calls = 0;
  for (int i = 0; i < 4; ++i) client->retrieveCollectionsWithCompletion([&](auto, auto) { ++calls; });
  ASSERT_TRUE(ZRKMainQueue::mainQueue().runUntil([&] { return calls == 4; }, 5s));
  std::size_t tokenSteps = 0;
  for (const auto& request : server->requests()) tokenSteps += request.path() == "/app/v1/auth";
  // Each call checks the cache before any answer came back.
  EXPECT_GE(tokenSteps, 2u);
  EXPECT_LE(tokenSteps, 4u);
}

// Deliberate: when the token step fails, user operations end in silence,
// while scans and listings go ahead and report their own answer.
TEST_F(ReliabilityTest, AFailedTokenStepSilencesOnlyUserOperations) {
  server->choose([](const RawRequest& request) {
    if (request.path() == "/app/v1/auth") return Script{readBody(), resetConnection()};
    return Script{readBody(), send(httpAnswer(R"({"code":"401","message":"no token"})"))};
  });
  int userCalls = 0;
  std::optional<ZRKError> scanError, listError;
  client->retrieveUser("u", [&](auto, auto) { ++userCalls; });
  client->loginUser(userWith(""), [&](auto, auto) { ++userCalls; });
  client->scanWithUrl(ZRKJson("https://example.com/i.jpg"), [&](auto, auto e) { scanError = e; });
  client->retrieveCollectionsWithCompletion([&](auto, auto e) { listError = e; });
  ASSERT_TRUE(ZRKMainQueue::mainQueue().runUntil([&] { return scanError && listError; }, 5s));
  settle(500ms);
  EXPECT_EQ(scanError->code, 401);
  EXPECT_EQ(listError->code, 401);
  EXPECT_EQ(userCalls, 0);
  for (const auto& request : server->requests()) EXPECT_NE(request.path().rfind("/app/v1/user", 0), 0u);
}

}  // namespace
}  // namespace zrk
