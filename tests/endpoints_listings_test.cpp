#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <typeinfo>

#include "endpoints/ZRKListingCompletion.h"
#include "support/LoopbackServer.h"
#include "support/MainQueueWait.h"
#include "support/ServiceTest.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKScanHistory.h"

namespace zrk {
namespace {

using test::LoopbackServer;
using test::RecordedRequest;
using test::ScriptedResponse;

template <class Model>
std::shared_ptr<Model> decode(const Model& prototype, const ZRKJson& body) {
  return std::dynamic_pointer_cast<Model>(prototype.decodedObjectFromAPIResponse(&body));
}

// Subclasses show which objects come out in the class of the prototype or
// receiver and which always in the library's own class.
class PosterCollection : public ZRKCollection {
  std::shared_ptr<ZRKCollection> newInstance() const override { return std::make_shared<PosterCollection>(); }
};
class PosterCollections : public ZRKCollectionsAPIResponse {};
class PosterScanHistory : public ZRKScanHistory {
  std::shared_ptr<ZRKScanHistory> newInstance() const override { return std::make_shared<PosterScanHistory>(); }
};
class PosterHistoryPage : public ZRKScanHistoryAPIResponse {
  std::shared_ptr<ZRKScanHistoryAPIResponse> newInstance() const override {
    return std::make_shared<PosterHistoryPage>();
  }
};

TEST(CollectionsResponse, DecodesObjectsInOrderIntoTheFixedClassesAndSkipsTheRest) {
  const auto page = decode<ZRKCollectionsAPIResponse>(
      PosterCollections(), {{"result", {{{"id", "c1"}, {"name", "Posters"}, {"imageUrl", "img/c1.jpg"}}, "b", 3,
                                        {{{"id", "x"}}}, nullptr, {{"id", 7}, {"name", "Flyers"}}}},
                            {"total", "6"}});
  ASSERT_TRUE(page);
  EXPECT_EQ(typeid(*page), typeid(ZRKCollectionsAPIResponse));
  EXPECT_EQ(page->total(), 6);
  EXPECT_FALSE(page->allResponseFields());
  ASSERT_EQ(page->collections()->size(), 2u);
  const auto& first = page->collections()->at(0);
  EXPECT_EQ(typeid(*first), typeid(ZRKCollection));
  EXPECT_EQ(first->description(), "id:(c1) name:(Posters)");
  EXPECT_EQ(first->imageUrl(), "img/c1.jpg");
  EXPECT_EQ(page->collections()->at(1)->description(), "id:((null)) name:(Flyers)");
  EXPECT_EQ(typeid(*decode<ZRKCollection>(PosterCollection(), {{"id", "c9"}})), typeid(ZRKCollection));
  EXPECT_FALSE(ZRKCollection().decodedObjectFromAPIResponse(std::make_unique<ZRKJson>("c1").get()));

  // Copies, unlike decoding, keep the receiver's class.
  PosterCollection original;
  original.setCollectionId("c1");
  original.setImageUrl("i");
  original.setAllResponseFields(ZRKJson::object());
  const auto copy = original.copy();
  EXPECT_EQ(typeid(*copy), typeid(PosterCollection));
  EXPECT_EQ(copy->description(), "id:(c1) name:((null))");
  EXPECT_EQ(copy->imageUrl(), "i");
  EXPECT_FALSE(copy->allResponseFields());
}

TEST(CollectionsResponse, OnlyAResultArrayMakesAPageAndCodeIsNotTested) {
  for (const ZRKJson& body : {ZRKJson{{"total", 3}}, ZRKJson{{"result", "c1"}}, ZRKJson{{"result", nullptr}},
                              ZRKJson{{"code", 404}}, ZRKJson::array()}) {
    EXPECT_FALSE(decode(ZRKCollectionsAPIResponse(), body)) << body;
  }
  EXPECT_FALSE(ZRKCollectionsAPIResponse().decodedObjectFromAPIResponse(nullptr));
  for (const ZRKJson& body : {ZRKJson{{"result", ZRKJson::array()}, {"total", 0}},
                              ZRKJson{{"code", 500}, {"result", ZRKJson::array()}}}) {
    const auto page = decode(ZRKCollectionsAPIResponse(), body);
    ASSERT_TRUE(page && page->collections()) << body;
    EXPECT_TRUE(page->collections()->empty()) << body;
  }
}

TEST(ScanHistoryResponse, AMissingResultIsAnEmptyPageButAnyCodeIsNone) {
  for (const ZRKJson& body : {ZRKJson::object(), ZRKJson{{"result", "s1"}}, ZRKJson{{"code", nullptr}},
                              ZRKJson{{"total", 7}}}) {
    const auto page = decode<ZRKScanHistoryAPIResponse>(PosterHistoryPage(), body);
    ASSERT_TRUE(page && page->result()) << body;
    EXPECT_EQ(typeid(*page), typeid(PosterHistoryPage));
    EXPECT_TRUE(page->result()->empty()) << body;
    EXPECT_EQ(page->total(), body.contains("total") ? 7 : 0) << body;
  }
  EXPECT_FALSE(decode(ZRKScanHistoryAPIResponse(), {{"code", 401}}));
  EXPECT_FALSE(decode(ZRKScanHistoryAPIResponse(), {{"code", ""}, {"result", {{{"scanId", "s1"}}}}}));
  EXPECT_FALSE(ZRKScanHistoryAPIResponse().decodedObjectFromAPIResponse(nullptr));

  const auto page = decode<ZRKScanHistoryAPIResponse>(
      PosterHistoryPage(), {{"result", {"s", {{"scanId", "s1"}}, 2, {{"scanId", "s2"}}}}, {"total", 40}});
  ASSERT_TRUE(page);
  EXPECT_EQ(typeid(*page), typeid(PosterHistoryPage));
  EXPECT_EQ(page->total(), 40);
  ASSERT_EQ(page->result()->size(), 2u);
  EXPECT_EQ(typeid(*page->result()->at(0)), typeid(ZRKScanHistory));
  EXPECT_EQ(page->result()->at(1)->scanId(), "s2");
}

TEST(ScanHistory, PositionsAreWholeNumberTextAndTriggerIdIsNeverReadOrCopied) {
  const auto entry = decode<ZRKScanHistory>(PosterScanHistory(), {{"scanId", "s1"}, {"matched", "TRUE"},
                                                                  {"lat", 59.33}, {"lng", "18.06"},
                                                                  {"triggerId", "t9"}, {"timestamp", "1700000000"},
                                                                  {"campaignId", "k"}, {"payloadUrl", 5}});
  ASSERT_TRUE(entry);
  EXPECT_EQ(typeid(*entry), typeid(ZRKScanHistory));
  EXPECT_TRUE(entry->matched());
  EXPECT_EQ(entry->lat(), "59");
  EXPECT_EQ(entry->lng(), "18");
  EXPECT_FALSE(entry->triggerId());
  EXPECT_EQ(entry->timestamp(), 1700000000);
  EXPECT_FALSE(entry->payloadUrl());
  const auto south = decode(ZRKScanHistory(), {{"lat", -0.5}, {"lng", -33.9}, {"matched", 0}});
  EXPECT_EQ(south->lat(), "0");
  EXPECT_EQ(south->lng(), "-33");
  EXPECT_FALSE(south->matched());
  const auto bare = decode(ZRKScanHistory(), ZRKJson::object());
  EXPECT_EQ(bare->lat(), "0");
  EXPECT_FALSE(bare->matched());

  entry->setTriggerId("t9");
  entry->setAllResponseFields(ZRKJson::object());
  const auto copy = entry->copy();
  EXPECT_EQ(copy->timestamp(), 1700000000);
  EXPECT_EQ(copy->scanId(), "s1");
  EXPECT_EQ(copy->campaignId(), "k");
  EXPECT_TRUE(copy->matched());
  EXPECT_EQ(copy->lat(), "59");
  EXPECT_FALSE(copy->triggerId());
  EXPECT_FALSE(copy->allResponseFields());
  EXPECT_EQ(typeid(*PosterScanHistory().copy()), typeid(PosterScanHistory));
}

template <class List>
struct ListingOutcome {
  std::atomic<int> calls{0};
  std::atomic<bool> onMainThread{false};
  std::optional<List> list;
  std::optional<ZRKError> error;

  std::function<void(std::optional<List>, std::optional<ZRKError>)> recorder() {
    return [this](std::optional<List> list, std::optional<ZRKError> error) {
      this->list = std::move(list);
      this->error = std::move(error);
      onMainThread = ZRKMainQueue::isMainThread();
      ++calls;
    };
  }
};
using CollectionsOutcome = ListingOutcome<ZRKCollectionList>;
using HistoryOutcome = ListingOutcome<ZRKScanHistoryList>;

class ListingTest : public test::ServiceTest {
 protected:
  void SetUp() override {
    ServiceTest::SetUp();
    endpointAnswer = {.body = R"({"result":[],"total":0})"};
  }

  // Waits for the completion, then a little longer to catch a second call.
  template <class Outcome>
  void wait(const Outcome& outcome) {
    ASSERT_TRUE(test::runMainQueueUntil([&] { return outcome.calls.load() > 0; }));
    ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(20));
    EXPECT_EQ(outcome.calls.load(), 1);
    EXPECT_TRUE(outcome.onMainThread.load());
  }

  // Method and target of every request but the token step's; no listing has a body.
  std::vector<std::string> listingRequests() const {
    std::vector<std::string> out;
    for (const auto& request : server.requests()) {
      if (request.path != "/app/v1/auth") out.push_back(request.method + " " + request.target + request.body);
    }
    return out;
  }

};

TEST_F(ListingTest, RequestsOnTheWireWithCountZeroAsTwenty) {
  endpointAnswer.body = R"({"result":[{"id":"c1","scanId":"s1","lat":59.9},{"id":"c2"}],"total":41})";
  CollectionsOutcome collections;
  client->retrieveCollectionsWithCompletion(collections.recorder());
  wait(collections);
  ASSERT_EQ(collections.list ? collections.list->size() : 0, 2u);
  EXPECT_EQ(collections.list->at(1)->collectionId(), "c2");
  EXPECT_EQ(server.requests().at(0).path, "/app/v1/auth");
  EXPECT_EQ(server.requests().at(1).header("Authorization"), "Bearer dDE=");
  for (const auto& [count, offset] : {std::pair<ZRKInteger, ZRKInteger>{0, 0}, {5, 40}, {-3, -7}}) {
    HistoryOutcome history;
    client->retrieveScanHistoryWithCount(count, offset, history.recorder());
    wait(history);
    ASSERT_EQ(history.list ? history.list->size() : 0, 2u);
    EXPECT_EQ(history.list->at(0)->lat(), "59");
  }
  // The requests themselves skip the token step, and the options go as given.
  const std::size_t sentSoFar = server.count();
  ZRKApiAuthToken::clear();
  for (const ZRKJson& options : {ZRKJson{{"count", 0}, {"offset", "x y"}, {"all", true}}, ZRKJson::object()}) {
    HistoryOutcome history;
    client->sendWithOptions(options, history.recorder());
    wait(history);
  }
  CollectionsOutcome direct;
  client->send(direct.recorder());
  wait(direct);
  EXPECT_EQ(server.count(), sentSoFar + 3);
  EXPECT_EQ(listingRequests(),
            (std::vector<std::string>{"GET /app/v1/collection", "GET /app/v1/history?count=20&offset=0",
                                      "GET /app/v1/history?count=5&offset=40", "GET /app/v1/history?count=-3&offset=-7",
                                      "GET /app/v1/history?all=true&count=0&offset=x%20y", "GET /app/v1/history",
                                      "GET /app/v1/collection"}));
}

TEST_F(ListingTest, ErrorsArriveWithoutAList) {
  // A refused token does not stop the listing; its own refusal is the error.
  authAnswer = {.status = 500, .body = R"({"code":500,"message":"down"})"};
  endpointAnswer = {.status = 401, .body = R"({"code":401,"message":"no token"})"};
  HistoryOutcome refused;
  client->retrieveScanHistoryWithCount(10, 0, refused.recorder());
  wait(refused);
  EXPECT_FALSE(refused.list);
  EXPECT_EQ(refused.error ? refused.error->code : 0, 401);
  EXPECT_EQ(server.count(), 2u);

  // Collections without a list fail to parse; a history without one is empty.
  endpointAnswer = {.status = 200, .body = R"({"total":3})"};
  CollectionsOutcome unlisted;
  client->send(unlisted.recorder());
  wait(unlisted);
  EXPECT_FALSE(unlisted.list);
  EXPECT_EQ(unlisted.error ? unlisted.error->code : 0, 32);
  HistoryOutcome emptyPage;
  client->sendWithOptions(ZRKJson::object(), emptyPage.recorder());
  wait(emptyPage);
  EXPECT_TRUE(emptyPage.list && emptyPage.list->empty());
  EXPECT_FALSE(emptyPage.error);
}

TEST_F(ListingTest, AnAnswerWithoutListOrErrorEndsInSilence) {
  // The library's decoders always give a list, so the silence is reached by
  // handing the listings' completion answers built here.
  HistoryOutcome outcome;
  auto history = detail::listingCompletion(outcome.recorder(), &ZRKScanHistoryAPIResponse::result);
  history(std::make_shared<ZRKScanHistoryAPIResponse>(), nullptr, std::nullopt);
  history(std::make_shared<ZRKCollectionsAPIResponse>(), nullptr, std::nullopt);
  history(nullptr, nullptr, std::nullopt);
  // Without a completion the answers go unheard. (With a valid token the
  // requests leave from the worker, not from the main queue.)
  ZRKApiAuthToken::setToken(test::validToken());
  client->retrieveCollectionsWithCompletion(nullptr);
  client->retrieveScanHistoryWithCount(0, 0, nullptr);
  ASSERT_TRUE(server.waitForRequests(2));
  ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(200));
  EXPECT_EQ(outcome.calls.load(), 0);

  // A page with a list beside an error passes both on.
  auto page = std::make_shared<ZRKScanHistoryAPIResponse>();
  page->setResult(ZRKScanHistoryList{});
  history(page, nullptr, ZRKError{});
  EXPECT_EQ(outcome.calls.load(), 1);
  EXPECT_TRUE(outcome.list && outcome.error);
}

}  // namespace
}  // namespace zrk
