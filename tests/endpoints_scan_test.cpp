#include <gtest/gtest.h>
#include <spng.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>

#include "support/LoopbackServer.h"
#include "support/MainQueueWait.h"
#include "support/RawRecorder.h"
#include "support/ReferenceImages.h"
#include "support/ServiceTest.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKScanAPIResponse.h"

namespace zrk {
namespace {

using test::LoopbackServer;
using test::validToken;
using test::RecordedRequest;
using test::ScriptedResponse;

std::shared_ptr<ZRKScanAPIResponse> decode(const ZRKJson& body) {
  return std::dynamic_pointer_cast<ZRKScanAPIResponse>(ZRKScanAPIResponse().decodedObjectFromAPIResponse(&body));
}

TEST(ScanResponse, DecodesEveryFieldLeniently) {
  const auto scan = decode({{"id", "a1"}, {"score", 0.87}, {"triggerType", 2}, {"ocr", {"ABC", nullptr}},
                            {"timestamp", "1700000000"}, {"frame", 87.6}, {"triggerId", "t"},
                            {"thumbnailUrl", "https://x/t.jpg"}, {"payloadUrl", "https://x/p"},
                            {"payloadData", "d"}, {"triggerName", "poster"}, {"triggerFps", 30}});
  ASSERT_TRUE(scan);
  EXPECT_EQ(scan->scanId(), "a1");
  EXPECT_EQ(scan->score(), 0);
  EXPECT_EQ(scan->triggerType(), 2u);
  EXPECT_EQ(scan->ocrData(), ZRKJson::array({"ABC"}));
  EXPECT_EQ(scan->timestamp(), 1700000000);
  EXPECT_EQ(scan->frame(), 87);
  EXPECT_EQ(scan->triggerId(), "t");
  EXPECT_EQ(scan->thumbnailUrl(), "https://x/t.jpg");
  EXPECT_EQ(scan->payloadUrl(), "https://x/p");
  EXPECT_EQ(scan->payloadData(), "d");
  EXPECT_EQ(scan->triggerName(), "poster");
  EXPECT_EQ(scan->triggerFps(), 30);
  EXPECT_FALSE(scan->allResponseFields());

  const auto odd = decode({{"id", 17}, {"payloadData", {{"k", "v"}}}, {"score", "93"}, {"triggerType", -1},
                           {"ocr", "text"}});
  ASSERT_TRUE(odd);
  EXPECT_FALSE(odd->scanId());
  EXPECT_FALSE(odd->payloadData());
  EXPECT_FALSE(odd->ocrData());
  EXPECT_EQ(odd->score(), 93);
  EXPECT_EQ(odd->triggerType(), std::numeric_limits<ZRKUInteger>::max());

  const auto empty = decode(ZRKJson::object());
  ASSERT_TRUE(empty);
  EXPECT_FALSE(empty->scanId());
  EXPECT_EQ(empty->score(), 0);
}

TEST(ScanResponse, AnyCodeMeansAnErrorBody) {
  EXPECT_FALSE(decode({{"code", 404}}));
  EXPECT_FALSE(decode({{"code", 0}, {"id", "x"}}));
  EXPECT_FALSE(decode({{"code", ""}}));
  EXPECT_FALSE(decode(ZRKJson::array()));
  EXPECT_FALSE(ZRKScanAPIResponse().decodedObjectFromAPIResponse(nullptr));
  const auto nullCode = decode({{"code", nullptr}, {"id", "x"}});
  ASSERT_TRUE(nullCode);
  EXPECT_EQ(nullCode->scanId(), "x");
}

// A subclass receives instances of itself from decoding and copying.
class PosterScan : public ZRKScanAPIResponse {
 protected:
  std::shared_ptr<ZRKScanAPIResponse> newInstance() const override { return std::make_shared<PosterScan>(); }
};

TEST(ScanResponse, CopiesNineFieldsIntoTheSameClass) {
  const auto scan = std::dynamic_pointer_cast<ZRKScanAPIResponse>(PosterScan().decodedObjectFromAPIResponse(
      std::make_unique<ZRKJson>(ZRKJson{{"id", "a"}, {"triggerId", "t"}, {"thumbnailUrl", "u"}, {"payloadUrl", "p"},
                                        {"payloadData", "d"}, {"ocr", {1}}, {"score", 5}, {"timestamp", 6},
                                        {"frame", 7}, {"triggerName", "poster"}, {"triggerType", 3},
                                        {"triggerFps", 24}})
          .get()));
  ASSERT_TRUE(dynamic_cast<PosterScan*>(scan.get()));
  scan->setAllResponseFields(ZRKJson::object());
  const auto copy = scan->copy();
  ASSERT_TRUE(dynamic_cast<PosterScan*>(copy.get()));
  EXPECT_EQ(copy->scanId(), "a");
  EXPECT_EQ(copy->triggerId(), "t");
  EXPECT_EQ(copy->thumbnailUrl(), "u");
  EXPECT_EQ(copy->payloadUrl(), "p");
  EXPECT_EQ(copy->payloadData(), "d");
  EXPECT_EQ(copy->ocrData(), ZRKJson::array({1}));
  EXPECT_EQ(copy->score(), 5);
  EXPECT_EQ(copy->timestamp(), 6);
  EXPECT_EQ(copy->frame(), 7);
  EXPECT_FALSE(copy->triggerName());
  EXPECT_EQ(copy->triggerType(), 0u);
  EXPECT_EQ(copy->triggerFps(), 0);
  EXPECT_FALSE(copy->allResponseFields());
}

struct ScanOutcome {
  std::atomic<int> calls{0};
  std::atomic<bool> onMainThread{false};
  std::shared_ptr<ZRKScanAPIResponse> result;
  std::optional<ZRKError> error;
};

class ScanTest : public test::ServiceTest {
 protected:
  void SetUp() override {
    ServiceTest::SetUp();
    endpointAnswer = {.body = R"({"id":"s1","score":87,"triggerId":"tr"})"};
  }

  ZRKScanCompletion recorder(const std::shared_ptr<ScanOutcome>& outcome) {
    return [outcome](std::shared_ptr<ZRKScanAPIResponse> result, std::optional<ZRKError> error) {
      outcome->result = std::move(result);
      outcome->error = std::move(error);
      outcome->onMainThread = ZRKMainQueue::isMainThread();
      ++outcome->calls;
    };
  }

  // Waits for the completion, then a little longer to catch a second call.
  void wait(const std::shared_ptr<ScanOutcome>& outcome) {
    ASSERT_TRUE(test::runMainQueueUntil([&] { return outcome->calls.load() > 0; }));
    ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(20));
    EXPECT_EQ(outcome->calls.load(), 1);
    EXPECT_TRUE(outcome->onMainThread.load());
  }


};

TEST_F(ScanTest, UrlScanSendsOptionsInThePathAndTheBody) {
  auto outcome = std::make_shared<ScanOutcome>();
  client->scanWithUrl(ZRKURL::URLWithString("https://img.example/a%20b.jpg"), "abc", recorder(outcome));
  wait(outcome);
  ASSERT_TRUE(outcome->result);
  EXPECT_EQ(outcome->result->scanId(), "s1");
  EXPECT_EQ(outcome->result->score(), 87);
  EXPECT_FALSE(outcome->error);
  const auto sent = endpointRequests();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].method, "POST");
  EXPECT_EQ(sent[0].target, "/app/v1/scan/abc");
  EXPECT_EQ(ZRKJson::parse(sent[0].body), (ZRKJson{{"collectionId", "abc"}, {"fileUrl", "https://img.example/a%20b.jpg"}}));
  EXPECT_EQ(sent[0].header("Authorization"), "Bearer dDE=");
  EXPECT_EQ(server.requests().front().path, "/app/v1/auth");
}

TEST_F(ScanTest, UrlScanVariantsOfCollectionAndAddress) {
  for (const std::optional<std::string>& collection : {std::optional<std::string>(), std::optional<std::string>("")}) {
    auto outcome = std::make_shared<ScanOutcome>();
    client->scanWithUrl(ZRKJson("https://img.example/x.png"), collection, recorder(outcome));
    wait(outcome);
  }
  // Neither a URL nor a string: no "fileUrl", and the scan is still sent.
  auto outcome = std::make_shared<ScanOutcome>();
  client->scanWithUrl(ZRKJson(42), recorder(outcome));
  wait(outcome);
  const auto sent = endpointRequests();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].target, "/app/v1/scan");
  EXPECT_EQ(sent[1].target, "/app/v1/scan");
  EXPECT_EQ(sent[0].body, R"({"fileUrl":"https://img.example/x.png"})");
  // An empty parameter set sends no body at all.
  EXPECT_EQ(sent[2].body, "");
}

TEST_F(ScanTest, AFailedTokenStepDoesNotStopTheScan) {
  authAnswer = {.status = 500, .body = R"({"code":500,"message":"down"})"};
  endpointAnswer = {.status = 401, .body = R"({"code":401,"message":"no token"})"};
  auto outcome = std::make_shared<ScanOutcome>();
  client->scanWithUrl(ZRKURL::URLWithString("https://img.example/x.png"), recorder(outcome));
  wait(outcome);
  EXPECT_FALSE(outcome->result);
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->code, 401);
  EXPECT_EQ(outcome->error->userInfo[ZRKErrorMessageKey], "no token");
  EXPECT_EQ(server.count(), 2u);
}

TEST_F(ScanTest, DirectUrlScanSkipsTheTokenStep) {
  auto outcome = std::make_shared<ScanOutcome>();
  client->scanUrlWithOptions({{"fileUrl", "u"}}, recorder(outcome));
  wait(outcome);
  ASSERT_EQ(server.count(), 1u);
  EXPECT_EQ(server.requests()[0].path, "/app/v1/scan");
}

TEST_F(ScanTest, AnUndecodableUrlScanAnswerIsAnError) {
  endpointAnswer = {.body = "not json"};
  auto outcome = std::make_shared<ScanOutcome>();
  client->scanUrlWithOptions(ZRKJson::object(), recorder(outcome));
  wait(outcome);
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->code, 32);
}


// Textured, so that JPEGs of it are not trivial.
std::shared_ptr<ZRKImage> pattern(int width, int height, double scale = 1) {
  return ZRKImage::imageWithRGBAPixels(test::textured(width, height, 4, 1).pixels, width, height, scale);
}

// The same as a PNG, as a screenshot tool writes it.
std::shared_ptr<ZRKImage> pngPattern(int width, int height) {
  const auto pixels = test::textured(width, height, 4, 1).pixels;
  spng_ctx* context = spng_ctx_new(SPNG_CTX_ENCODER);
  spng_set_option(context, SPNG_ENCODE_TO_BUFFER, 1);
  spng_ihdr header{static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height), 8,
                   SPNG_COLOR_TYPE_TRUECOLOR_ALPHA, 0, 0, 0};
  spng_set_ihdr(context, &header);
  std::string png;
  if (spng_encode_image(context, pixels.data(), pixels.size(), SPNG_FMT_PNG, SPNG_ENCODE_FINALIZE) == 0) {
    std::size_t length = 0;
    int error = 0;
    char* buffer = static_cast<char*>(spng_get_png_buffer(context, &length, &error));
    if (buffer) png.assign(buffer, length);
    std::free(buffer);
  }
  spng_ctx_free(context);
  return ZRKImage::imageWithData(std::move(png));
}

// The JPEG inside a one-part multipart body.
std::string uploadedJpeg(const std::string& body) {
  const std::size_t start = body.find("\r\n\r\n");
  const std::size_t end = body.rfind("\r\n--");
  if (start == std::string::npos || end == std::string::npos || end < start + 4) return {};
  return body.substr(start + 4, end - start - 4);
}

constexpr const char* kScanAnswer =
    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 10\r\nConnection: close\r\n\r\n{\"id\":\"r\"}";

TEST_F(ScanTest, ImageScansAreReducedToAThousandPixelsOnTheLongerSide) {
  // Raw bytes, since the test server would take a multipart body apart.
  test::RawRecorder service(kScanAnswer);
  client->setApiURL(ZRKURL::URLWithString(service.url()));
  ZRKApiAuthToken::setToken(validToken());
  struct Case {
    int width, height;
    double scale;
    int sentWidth, sentHeight;
    std::optional<std::string> collection;
  };
  const Case cases[] = {{1000, 800, 1, 1000, 800},   {1001, 800, 1, 1000, 799},  {2000, 2000, 1, 1000, 1000},
                        {1200, 1200, 2, 1000, 1000}, {800, 1001, 1, 799, 1000}, {2000, 1500, 1, 1000, 750, "posters"}};
  for (const Case& c : cases) {
    auto outcome = std::make_shared<ScanOutcome>();
    // The last one arrives as a PNG.
    const auto image = c.collection ? pngPattern(c.width, c.height) : pattern(c.width, c.height, c.scale);
    ASSERT_TRUE(image);
    c.collection ? client->scanWithImage(image, c.collection, recorder(outcome))
                 : client->scanWithImage(image, recorder(outcome));
    wait(outcome);
    EXPECT_EQ(outcome->result ? outcome->result->scanId() : std::nullopt, "r");
  }
  const auto sent = service.requests(std::size(cases));
  ASSERT_EQ(sent.size(), std::size(cases));
  for (std::size_t i = 0; i < sent.size(); ++i) {
    const std::string path = cases[i].collection ? "/app/v1/scan/" + *cases[i].collection : "/app/v1/scan";
    EXPECT_TRUE(sent[i].starts_with("POST " + path + " HTTP/1.1\r\n")) << i;
    const auto jpeg = ZRKImage::imageWithData(uploadedJpeg(sent[i].substr(sent[i].find("\r\n\r\n") + 4)));
    ASSERT_TRUE(jpeg) << i;
    EXPECT_EQ(jpeg->pixelWidth(), cases[i].sentWidth) << i;
    EXPECT_EQ(jpeg->pixelHeight(), cases[i].sentHeight) << i;
  }
}

TEST_F(ScanTest, AnImageScanIsOneExactMultipartRequest) {
  test::RawRecorder recorder(kScanAnswer);
  client->setApiURL(ZRKURL::URLWithString(recorder.url()));
  const auto image = pattern(640, 480);
  auto outcome = std::make_shared<ScanOutcome>();
  client->scanImage(image, {{"collectionId", "c 1"}}, this->recorder(outcome));
  wait(outcome);
  ASSERT_TRUE(outcome->result);
  EXPECT_EQ(outcome->result->scanId(), "r");

  const std::string raw = recorder.requests().at(0);
  const std::size_t split = raw.find("\r\n\r\n");
  const std::string head = raw.substr(0, split + 2);
  const std::string body = raw.substr(split + 4);
  EXPECT_TRUE(head.starts_with("POST /app/v1/scan/c%201 HTTP/1.1\r\n")) << head;
  const std::string marker = "\r\nContent-Type: multipart/form-data; boundary=";
  const std::size_t at = head.find(marker);
  ASSERT_NE(at, std::string::npos) << head;
  const std::string boundary = head.substr(at + marker.size(), head.find("\r\n", at + 2) - at - marker.size());
  EXPECT_TRUE(boundary.starts_with("ZRKApi-iOS-"));
  EXPECT_EQ(boundary.size(), 47u);
  const auto jpeg = ZRKImageJPEGRepresentation(*image, 1.0);
  ASSERT_TRUE(jpeg);
  EXPECT_EQ(body, "--" + boundary + "\r\n" +
                      "Content-Disposition: form-data; name=\"file\"; filename=\"image.jpg\"\r\n"
                      "Content-Type: multipart/form-data\r\n\r\n" +
                      *jpeg + "\r\n--" + boundary + "--\r\n");
  EXPECT_NE(head.find("\r\nContent-Length: " + std::to_string(body.size()) + "\r\n"), std::string::npos);
  EXPECT_NE(head.find("\r\nZRK-User-Type: ios\r\n"), std::string::npos);
}

TEST_F(ScanTest, ImageScanErrorsComeFromTheBodyThenTheTransport) {
  endpointAnswer = {.status = 200, .body = R"({"code":"429","message":"slow down","detail":{"retry":3}})"};
  auto fromBody = std::make_shared<ScanOutcome>();
  client->scanImage(pattern(8, 8), ZRKJson::object(), recorder(fromBody));
  wait(fromBody);
  ASSERT_TRUE(fromBody->error);
  EXPECT_EQ(fromBody->error->code, 429);
  EXPECT_EQ(fromBody->error->userInfo[ZRKErrorDetailKey], (ZRKJson{{"retry", 3}}));

  // An answer that is no JSON and no error decodes to nothing, silently
  // successful, as the scan's own parsing has it.
  endpointAnswer = {.status = 500, .body = "<html>"};
  auto undecodable = std::make_shared<ScanOutcome>();
  client->scanImage(pattern(8, 8), ZRKJson::object(), recorder(undecodable));
  wait(undecodable);
  EXPECT_FALSE(undecodable->error);
  EXPECT_FALSE(undecodable->result);

  client->setApiURL(ZRKURL::URLWithString("http://127.0.0.1:1"));
  auto unreachable = std::make_shared<ScanOutcome>();
  client->scanImage(pattern(8, 8), ZRKJson::object(), recorder(unreachable));
  wait(unreachable);
  ASSERT_TRUE(unreachable->error);
  EXPECT_EQ(unreachable->error->domain, ZRKURLErrorDomain);
}

TEST_F(ScanTest, WithoutAnImageTheErrorComesAtOnceOnTheCallingThread) {
  std::optional<ZRKError> error;
  bool onMain = false;
  client->scanImage(nullptr, ZRKJson::object(), [&](auto result, auto e) {
    EXPECT_FALSE(result);
    error = e;
    onMain = ZRKMainQueue::isMainThread();
  });
  ASSERT_TRUE(error);
  EXPECT_TRUE(onMain);
  EXPECT_EQ(error->code, 1000);
  EXPECT_EQ(error->userInfo[ZRKErrorCodeKey], "1000");
  EXPECT_EQ(error->localizedDescription(), "ZRKSDK Error: Search image with invalid image");

  // Through the token step, with a valid token, it arrives on the worker
  // that ran that step.
  ZRKApiAuthToken::setToken(validToken());
  std::promise<bool> offMain;
  client->scanWithImage(nullptr, "c", [&](auto, auto e) { offMain.set_value(e && !ZRKMainQueue::isMainThread()); });
  auto future = offMain.get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(future.get());
  client->scanImage(nullptr, ZRKJson::object(), nullptr);
  EXPECT_EQ(endpointRequests().size(), 0u);
}

}  // namespace
}  // namespace zrk
