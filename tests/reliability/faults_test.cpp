// Every fault of the wire, in each of the three phases a call goes through:
// the token step, the multipart upload of an image scan, and a JSON answer
// (collections). Each case states what the caller gets: one completion on
// the main thread with the expected error, within the time-out plus a
// margin, and nothing after it.
#include <gtest/gtest.h>
#include <zlib.h>

#include <functional>
#include <set>

#include "support/Reliability.h"
#include "support/ScriptedServer.h"
#include "support/ServiceTest.h"
#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKScanAPIResponse.h"

namespace zrk {
namespace {

using namespace test;
using namespace std::chrono_literals;

enum class Phase { token, upload, json };

const char* pathOf(Phase phase) {
  return phase == Phase::token ? "/app/v1/auth" : phase == Phase::upload ? "/app/v1/scan" : "/app/v1/collection";
}

// A good answer of each phase.
std::string goodBody(Phase phase) {
  switch (phase) {
    case Phase::token: return R"({"token":"t1","expire":4102444800})";
    case Phase::upload: return R"({"id":"s1","score":90,"triggerId":"tr"})";
    case Phase::json: return R"({"result":[{"id":"c1","name":"posters"}],"total":1})";
  }
  return "{}";
}

// What the caller is told.
struct Expect {
  enum Kind { error, result, neither } kind;
  std::string domain;
  std::set<long> codes;
};

Expect transport(std::set<long> codes) { return {Expect::error, ZRKURLErrorDomain, std::move(codes)}; }
const Expect kUnparsable{Expect::error, ZRKDomain, {ZRKErrorCodeFailedToParseResponse}};
const Expect kResult{Expect::result, "", {}};
// An image scan hands on whatever its decoder makes of an answer without an
// error body: for no JSON object, neither a result nor an error.
const Expect kNeither{Expect::neither, "", {}};

std::string gzipped(const std::string& bytes) {
  z_stream z{};
  deflateInit2(&z, 9, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&z, bytes.size()), '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  z.avail_in = static_cast<uInt>(bytes.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

// 80 MiB of JSON whitespace before a good answer: valid, and past the cap.
std::string paddedAnswer(Phase phase) { return std::string(80u << 20, ' ') + goodBody(phase); }

// Large answers are made once, before any clock runs: a slow server would
// otherwise look like a stalled one.
std::shared_ptr<const std::string> oversized(Phase phase) {
  static const std::shared_ptr<const std::string> answers[] = {
      std::make_shared<const std::string>(httpAnswer(paddedAnswer(Phase::token))),
      std::make_shared<const std::string>(httpAnswer(paddedAnswer(Phase::upload))),
      std::make_shared<const std::string>(httpAnswer(paddedAnswer(Phase::json)))};
  return answers[static_cast<int>(phase)];
}

struct Fault {
  const char* name;
  std::function<Script(Phase)> script;  // empty: nothing listens
  Expect token, upload, json;
  std::chrono::milliseconds budget = 1000ms;  // before the margin
  std::size_t connections = 1;                // to the faulted path
};

const Expect& expected(const Fault& f, Phase p) { return p == Phase::token ? f.token : p == Phase::upload ? f.upload : f.json; }

std::vector<Fault> faults() {
  // The time-out, and up to a second until the transport next looks.
  const auto stalled = std::chrono::milliseconds(static_cast<long>(kRequestTimeout * 1000)) + 1000ms;
  return {
      {"ConnectionRefused", nullptr, transport({ZRKURLErrorCannotConnect}), transport({ZRKURLErrorCannotConnect}),
       transport({ZRKURLErrorCannotConnect}), 1000ms, 0},
      {"ResetBeforeHeaders", [](Phase) { return Script{readBody(), resetConnection()}; }, transport({56}),
       transport({56}), transport({56})},
      {"ClosedBeforeHeaders", [](Phase) { return Script{readBody(), closeConnection()}; }, transport({52}),
       transport({52}), transport({52})},
      {"ClosedMidHeaders",
       [](Phase) { return Script{readBody(), send("HTTP/1.1 200 OK\r\nContent-Type: appl"), closeConnection()}; },
       transport({ZRKURLErrorBadServerResponse}), transport({ZRKURLErrorBadServerResponse}),
       transport({ZRKURLErrorBadServerResponse})},
      {"ClosedMidBody",
       [](Phase p) {
         const std::string body = goodBody(p);
         return Script{readBody(), send(httpAnswer(body).substr(0, httpAnswer(body).size() - body.size() / 2)),
                       closeConnection()};
       },
       transport({18}), transport({18}), transport({18})},
      {"Stall", [](Phase) { return Script{readBody(), holdOpen()}; }, transport({ZRKURLErrorTimedOut}),
       transport({ZRKURLErrorTimedOut}), transport({ZRKURLErrorTimedOut}), stalled},
      {"StallMidBody",
       [](Phase p) { return Script{readBody(), send(httpAnswer(goodBody(p)).substr(0, 90)), holdOpen()}; },
       transport({ZRKURLErrorTimedOut}), transport({ZRKURLErrorTimedOut}), transport({ZRKURLErrorTimedOut}),
       stalled},
      {"Trickle", [](Phase p) { return Script{readBody(), trickle(httpAnswer(goodBody(p)), 9, 15ms)}; }, kResult,
       kResult, kResult, 2000ms},
      {"BadStatusLine", [](Phase p) { return Script{readBody(), send("HTTQ/1.1 200 OK\r\n" + goodBody(p))}; },
       transport({1, 8}), transport({1, 8}), transport({1, 8})},
      {"FoldedFirstHeaderLine",
       [](Phase p) {
         const std::string body = goodBody(p);
         return Script{readBody(), send("HTTP/1.1 200 OK\r\n  folded: value\r\nContent-Length: " +
                                        std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body)};
       },
       // Refused either way; libcurl's versions differ in the code.
       transport({8, 43}), transport({8, 43}), transport({8, 43})},
      {"BrokenChunking",
       [](Phase) {
         return Script{readBody(), send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nConnection: close\r\n\r\n"
                                        "4\r\n{\"to\r\nzz\r\nken\r\n0\r\n\r\n")};
       },
       transport({56}), transport({56}), transport({56})},
      {"ContentLengthBeyondBody",
       [](Phase p) {
         const std::string body = goodBody(p);
         return Script{readBody(), send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size() + 40) +
                                        "\r\nConnection: close\r\n\r\n" + body),
                       closeConnection()};
       },
       transport({18}), transport({18}), transport({18})},
      {"ContentLengthShortOfBody",
       [](Phase p) {
         const std::string body = goodBody(p);
         return Script{readBody(), send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size() - 3) +
                                        "\r\nConnection: close\r\n\r\n" + body)};
       },
       kUnparsable, kNeither, kUnparsable},
      {"OversizedBody", [](Phase p) { return Script{readBody(), send(oversized(p))}; },
       transport({ZRKURLErrorResponseTooLarge}), transport({ZRKURLErrorResponseTooLarge}),
       transport({ZRKURLErrorResponseTooLarge}), 4000ms},
      {"CompressionBomb",
       [](Phase p) {
         static const std::string bombs[] = {gzipped(paddedAnswer(Phase::token)), gzipped(paddedAnswer(Phase::upload)),
                                             gzipped(paddedAnswer(Phase::json))};
         return Script{readBody(), send(httpAnswer(bombs[static_cast<int>(p)], 200, "Content-Encoding: gzip\r\n"))};
       },
       transport({ZRKURLErrorResponseTooLarge}), transport({ZRKURLErrorResponseTooLarge}),
       transport({ZRKURLErrorResponseTooLarge}), 4000ms},
      {"GzipAnswer",
       [](Phase p) { return Script{readBody(), send(httpAnswer(gzipped(goodBody(p)), 200, "Content-Encoding: gzip\r\n"))}; },
       kResult, kResult, kResult},
      {"InvalidJson", [](Phase) { return Script{readBody(), send(httpAnswer("{\"token\": \"t1\", oops"))}; },
       kUnparsable, kNeither, kUnparsable},
      {"JsonOfTheWrongShape",
       [](Phase) { return Script{readBody(), send(httpAnswer(R"([{"token":"t1","result":[],"id":"s1"}])"))}; },
       kUnparsable, kNeither, kUnparsable},
      {"MistypedFields",
       [](Phase) { return Script{readBody(), send(httpAnswer(R"({"token":7,"result":{"id":"c1"},"score":"x"})"))}; },
       kUnparsable, kResult, kUnparsable},
      {"EmptyAnswer", [](Phase) { return Script{readBody(), send(httpAnswer("", 204))}; }, kUnparsable, kNeither,
       kUnparsable},
      // The status is never judged: a good body is a good answer.
      {"ServerErrorWithGoodBody", [](Phase p) { return Script{readBody(), send(httpAnswer(goodBody(p), 500))}; },
       kResult, kResult, kResult},
      {"ErrorBody",
       [](Phase) { return Script{readBody(), send(httpAnswer(R"({"code":"403","message":"no"})", 200))}; },
       {Expect::error, ZRKDomain, {403}}, {Expect::error, ZRKDomain, {403}}, {Expect::error, ZRKDomain, {403}}},
      {"RedirectLoop",
       [](Phase p) {
         return Script{readBody(), send(httpAnswer("", 302, std::string("Location: ") + pathOf(p) + "\r\n"))};
       },
       transport({ZRKURLErrorTooManyRedirects}), transport({ZRKURLErrorTooManyRedirects}),
       transport({ZRKURLErrorTooManyRedirects}), 3000ms, 17},
  };
}

struct Case {
  Fault fault;
  Phase phase;
};

std::vector<Case> cases() {
  std::vector<Case> out;
  for (const Fault& f : faults()) {
    for (Phase p : {Phase::token, Phase::upload, Phase::json}) out.push_back({f, p});
  }
  return out;
}

void PrintTo(const Case& c, std::ostream* out) { *out << c.fault.name << "/" << static_cast<int>(c.phase); }

class FaultMatrix : public ReliabilityTest, public ::testing::WithParamInterface<Case> {};

TEST_P(FaultMatrix, OneBoundedCompletionOnTheMainThread) {
  const Fault& fault = GetParam().fault;
  const Phase phase = GetParam().phase;
  if (fault.script) {
    (void)fault.script(phase);  // builds any large answer before the clock starts
    server->choose([&fault, phase](const RawRequest& request) {
      if (request.path() == pathOf(phase)) return fault.script(phase);
      return Script{readBody(), send(httpAnswer(goodBody(Phase::token)))};
    });
  } else {
    ZRKApiClient::setBaseUrl("http://127.0.0.1:" + std::to_string(closedPort()));
  }

  auto outcome = std::make_shared<Outcome>();
  switch (phase) {
    case Phase::token:
      client->authWithCompletion([outcome](bool success, std::optional<ZRKError> error) {
        outcome->record(success, std::move(error));
      });
      break;
    case Phase::upload:
      ZRKApiAuthToken::setToken(validToken());
      client->scanWithImage(testImage(), [outcome](std::shared_ptr<ZRKScanAPIResponse> scan, std::optional<ZRKError> error) {
        outcome->record(scan != nullptr, std::move(error));
      });
      break;
    case Phase::json:
      ZRKApiAuthToken::setToken(validToken());
      client->retrieveCollectionsWithCompletion(
          [outcome](std::optional<std::vector<std::shared_ptr<ZRKCollection>>> list, std::optional<ZRKError> error) {
            outcome->record(list.has_value(), std::move(error));
          });
      break;
  }

  ASSERT_TRUE(waitForCall(outcome, fault.budget + kMargin + 5000ms)) << "no completion at all";
  EXPECT_LE(outcome->seconds(), std::chrono::duration<double>(fault.budget + kMargin).count());
  settle(150ms);
  EXPECT_EQ(outcome->calls, 1);
  EXPECT_FALSE(outcome->offMainThread);

  const Expect& want = expected(fault, phase);
  switch (want.kind) {
    case Expect::error:
      ASSERT_TRUE(outcome->error);
      EXPECT_EQ(outcome->error->domain, want.domain);
      EXPECT_TRUE(want.codes.count(outcome->error->code))
          << "code " << outcome->error->code << ": " << outcome->error->localizedDescription();
      EXPECT_FALSE(outcome->result);
      break;
    case Expect::result:
      EXPECT_FALSE(outcome->error) << outcome->error->localizedDescription();
      EXPECT_TRUE(outcome->result);
      break;
    case Expect::neither:
      EXPECT_FALSE(outcome->error);
      EXPECT_FALSE(outcome->result);
      break;
  }
  // Nothing is retried.
  std::size_t hits = 0;
  for (const auto& request : server->requests()) hits += request.path() == pathOf(phase);
  EXPECT_EQ(hits, fault.connections);
}

std::string caseName(const ::testing::TestParamInfo<Case>& info) {
  const char* phases[] = {"Token", "Upload", "Json"};
  return std::string(info.param.fault.name) + "In" + phases[static_cast<int>(info.param.phase)];
}

INSTANTIATE_TEST_SUITE_P(Wire, FaultMatrix, ::testing::ValuesIn(cases()), caseName);

}  // namespace
}  // namespace zrk
