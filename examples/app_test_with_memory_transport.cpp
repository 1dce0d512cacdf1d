// An application's own unit test, written with the in-memory transport: no
// server, no socket, answers scripted per path. docs/testing.md walks
// through it.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "zrk/ZRKApi.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKMainQueue.h"
#include "zrk/ZRKScanAPIResponse.h"
#include "zrk/testing/ZRKMemoryTransport.h"

using zrk::testing::ZRKMemoryTransport;
using zrk::testing::ZRKScriptedResponse;

// The application's code under test: turns a scan of a poster's URL into
// the text it shows.
class PosterLookup {
 public:
  void lookUp(const std::string& imageUrl, std::function<void(std::string)> show) {
    zrk::ZRKApi::sharedApiClient()->scanWithUrl(
        zrk::ZRKURL::URLWithString(imageUrl), "posters", [show = std::move(show)](auto scan, auto error) {
          if (error) return show("Could not reach the service");
          if (!scan || !scan->triggerId()) return show("Not one of ours");
          show("Poster " + *scan->triggerId() + " (" + std::to_string(scan->score()) + "%)");
        });
  }
};

class PosterLookupTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // Once, before the first request of the process.
    zrk::ZRKApiClient::sharedUrlSessionConfiguration()->transport = transport;
    zrk::ZRKApi::initializeWithAppKey("key", "secret");
    zrk::ZRKApiClient::setBaseUrl("https://api.example.test/");
  }
  void SetUp() override {
    transport->reset();
    transport->respond("POST", "/app/v1/auth", ZRKScriptedResponse::json({{"token", "t1"}, {"expire", 4102444800}}));
  }

  // Runs the lookup and lets the main queue deliver its completion.
  std::optional<std::string> shown(const std::string& imageUrl) {
    std::optional<std::string> text;
    lookup.lookUp(imageUrl, [&](std::string s) { text = std::move(s); });
    zrk::ZRKMainQueue::mainQueue().runUntil([&] { return text.has_value(); }, std::chrono::seconds(5));
    return text;
  }

  static inline const std::shared_ptr<ZRKMemoryTransport> transport = ZRKMemoryTransport::create();
  PosterLookup lookup;
};

TEST_F(PosterLookupTest, ShowsTheMatchedPoster) {
  transport->respond("POST", "/app/v1/scan/posters",
                     ZRKScriptedResponse::json({{"triggerId", "jazz-night"}, {"score", 97}}));
  EXPECT_EQ(shown("https://img.example.test/p.jpg"), "Poster jazz-night (97%)");

  // What the application sent: the image URL, within its collection, with the app token.
  const auto scans = transport->requests("/app/v1/scan/posters");
  ASSERT_EQ(scans.size(), 1u);
  EXPECT_EQ(scans[0].valueForHTTPHeaderField("Authorization"), "Bearer dDE=");  // the token, base64-encoded
  EXPECT_NE(scans[0].HTTPBody().value_or("").find("p.jpg"), std::string::npos);
}

TEST_F(PosterLookupTest, SaysSoWhenNothingMatches) {
  transport->respond("POST", "/app/v1/scan/posters", ZRKScriptedResponse::json({{"score", 0}}));
  EXPECT_EQ(shown("https://img.example.test/cat.jpg"), "Not one of ours");
}

TEST_F(PosterLookupTest, SaysSoWhenTheServiceCannotBeReached) {
  transport->respond("POST", "/app/v1/scan/posters", ZRKScriptedResponse::failure(zrk::ZRKURLErrorCannotConnect));
  EXPECT_EQ(shown("https://img.example.test/p.jpg"), "Could not reach the service");
}
