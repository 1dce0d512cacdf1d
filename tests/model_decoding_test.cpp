#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <vector>

#include "zrk/ZRKArrayAccessors.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKDictionaryAccessors.h"
#include "zrk/ZRKScanAPIResponse.h"
#include "zrk/ZRKScanHistory.h"
#include "zrk/ZRKStringAccessors.h"
#include "zrk/ZRKUserAPIResponse.h"

namespace zrk {
namespace {

constexpr ZRKInteger kMax = std::numeric_limits<ZRKInteger>::max();
constexpr ZRKInteger kMin = std::numeric_limits<ZRKInteger>::min();

ZRKJson J(const char* text) { return ZRKJson::parse(text); }

TEST(NullRemoval, DropsNullsAtAnyDepthAndKeepsFalsyValues) {
  EXPECT_EQ(zrk_dictionaryByRemovingNulls(J(R"({"a": [1, null, {"b": null, "c": 2}], "d": {"e": [[null]]}, "f": 0})")),
            J(R"({"a": [1, {"c": 2}], "d": {"e": [[]]}, "f": 0})"));
  EXPECT_EQ(zrk_arrayByRemovingNulls(J(R"([null, "x", [null], {"y": null}])")), J(R"(["x", [], {}])"));
  EXPECT_EQ(zrk_dictionaryByRemovingNulls(J("[1]")), ZRKJson::object());
  EXPECT_EQ(zrk_dictionaryByRemovingNonStrings(J(R"({"a": "x", "b": 1, "c": null, "d": {"e": "f"}, "g": true})")),
            J(R"({"a": "x"})"));
}

TEST(TypedLookup, ReturnsOnlyTheRequestedType) {
  const ZRKJson d = J(R"({"id": 12, "s": "12", "a": [1], "t": true, "u": "https://e.com/a?b=c", "bad": "a b"})");
  EXPECT_FALSE(zrk_stringForKey(d, "id"));
  EXPECT_EQ(zrk_stringForKey(d, "s"), "12");
  EXPECT_EQ(zrk_arrayForKey(d, "a"), &d["a"]);
  EXPECT_EQ(zrk_dictionaryForKey(d, "a"), nullptr);
  EXPECT_EQ(zrk_numberForKey(d, "t"), ZRKJson(true));
  EXPECT_FALSE(zrk_numberForKey(d, "s"));
  EXPECT_EQ(zrk_urlForKey(d, "u")->absoluteString(), "https://e.com/a?b=c");
  EXPECT_FALSE(zrk_urlForKey(d, "bad"));
}

TEST(IntForKey, ConvertsNumbersAndTextLenientlyAndSaturates) {
  const ZRKJson d = J(R"({"x": "x", "t": true, "a": [1], "s": "42.9", "g": -3.9, "hi": 1e300, "lo": -1e300,
      "big": "99999999999999999999", "neg": "-9223372036854775809", "pad": " +0012abc", "hex": "0x1F", "exp": "1e3"})");
  const std::pair<const char*, ZRKInteger> cases[] = {
      {"missing", 7}, {"x", 0},      {"t", 1},    {"a", 7},       {"s", 42},  {"g", -3},  {"hi", kMax},
      {"lo", kMin},   {"big", kMax}, {"neg", kMin}, {"pad", 12}, {"hex", 0}, {"exp", 1}};
  for (const auto& [key, value] : cases) EXPECT_EQ(zrk_intForKey(d, key, 7), value) << key;
}

TEST(BoolForKey, ReadsNumbersAndWords) {
  const ZRKJson d = J(R"({"T": "TRUE", "Y": "Yes", "1": "1", "p": " +007", "h": 0.5,
      "f": "false", "z": 0, "n": "no", "e": "", "d": "0.5", "o": {}})");
  for (const char* key : {"T", "Y", "1", "p", "h"}) EXPECT_TRUE(zrk_boolForKey(d, key, false)) << key;
  for (const char* key : {"f", "z", "n", "e", "d"}) EXPECT_FALSE(zrk_boolForKey(d, key, true)) << key;
  EXPECT_TRUE(zrk_boolForKey(d, "o", true));
}

TEST(DateForKey, ReadsSecondsSince1970Unscaled) {
  using namespace std::chrono;
  const ZRKJson d = J(R"({"n": 1500000000, "s": "1500000000", "iso": "2016-05-01T10:00:00Z", "a": []})");
  const ZRKDate expected = sys_days{year{2017} / July / 14} + hours{2} + minutes{40};
  EXPECT_EQ(zrk_dateForKey(d, "n"), expected);
  EXPECT_EQ(zrk_dateForKey(d, "s"), expected);
  EXPECT_EQ(zrk_dateForKey(d, "iso")->time_since_epoch().count(), 2016.0);
  EXPECT_FALSE(zrk_dateForKey(d, "a"));
  EXPECT_EQ(zrk_doubleValue(" -1.5e3x"), -1500.0);
}

TEST(ArrayAndStringAccessors, StayWithinBoundsAndCharacters) {
  const ZRKJson a = J("[10, 20, 30]");
  EXPECT_EQ(zrk_boundSafeObjectAtIndex(a, 0), &a[0]);
  EXPECT_EQ(zrk_boundSafeObjectAtIndex(a, 2), &a[2]);
  for (ZRKInteger i : {ZRKInteger{-1}, ZRKInteger{3}, kMin}) EXPECT_EQ(zrk_boundSafeObjectAtIndex(a, i), nullptr) << i;

  const std::string s = "\u00E9\U0001F600b";  // é (1 UTF-16 unit), 😀 (2 units), b
  const std::pair<ZRKUInteger, std::string> prefixes[] = {{2, "\u00E9"}, {3, "\u00E9\U0001F600"}, {9, s}};
  for (const auto& [index, prefix] : prefixes) EXPECT_EQ(zrk_safeSubstringToIndex(s, index), prefix) << index;
  EXPECT_EQ(zrk_safeSubstringFromIndex(s, 2), "b");
  EXPECT_EQ(zrk_safeSubstringFromIndex("abc", 4), "");

  EXPECT_EQ(zrk_stringByRemovingSuffix("foobar", "bar"), "foo");
  EXPECT_EQ(zrk_stringByRemovingSuffix("foobar", std::nullopt), "foobar");
  EXPECT_EQ(zrk_stringByRemovingSuffix("\u00E9", "\xA9"), "\u00E9");  // the tail of é is no character

  const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467", se = "\U0001F1F8\U0001F1EA",
                    fi = "\U0001F1EB\U0001F1EE";
  EXPECT_EQ(zrk_reversedString("xe\u0301" + family + se + fi + "\r\n"), "\r\n" + fi + se + family + "e\u0301x");
  // Whole clusters in every script: Hebrew with points, Arabic with harakat,
  // Thai vowels, kana with a combining dakuten, Devanagari vowel signs,
  // Hangul jamo, a ZWJ sequence with a skin tone, a keycap; then a byte that
  // is not UTF-8, on its own.
  const std::vector<std::string> clusters = {"\u05E9\u05C1\u05B8", "\u0628\u064E", "\u0E01\u0E34\u0E48", "\u304B\u3099",
                                             "\u0915\u093F", "\u1100\u1161\u11A8", "\U0001F469\U0001F3FD\u200D\U0001F4BB",
                                             "1\uFE0F\u20E3", "\xFF", "a"};
  std::string forward, backward;
  for (std::size_t i = 0; i < clusters.size(); ++i) forward += clusters[i], backward += clusters[clusters.size() - 1 - i];
  EXPECT_EQ(zrk_reversedString(forward), backward);
}

template <class Model>
std::shared_ptr<Model> decode(const ZRKJson& body, const Model& prototype = Model()) {
  return std::dynamic_pointer_cast<Model>(prototype.decodedObjectFromAPIResponse(&body));
}

// Error bodies (any "code" that survives null removal) and bodies that are
// no object decode to nothing for the models that test for them.
TEST(Models, ErrorBodiesDecodeToNothing) {
  for (const ZRKJson& body : {ZRKJson{{"code", 404}}, ZRKJson{{"code", 0}, {"id", "x"}}, ZRKJson{{"code", ""}},
                              ZRKJson::array()}) {
    EXPECT_FALSE(decode<ZRKScanAPIResponse>(body)) << body;
    EXPECT_FALSE(decode<ZRKUserAPIResponse>(body)) << body;
    EXPECT_FALSE(decode<ZRKScanHistoryAPIResponse>(body)) << body;
  }
  EXPECT_EQ(decode<ZRKScanAPIResponse>({{"code", nullptr}, {"id", "x"}})->scanId(), "x");
}

TEST(ScanResponse, DecodesEveryFieldLenientlyAndCopiesNine) {
  const auto scan = decode<ZRKScanAPIResponse>(
      {{"id", "a1"}, {"score", 87.6}, {"triggerType", -1}, {"ocr", {"ABC", nullptr}}, {"timestamp", "1700000000"},
       {"frame", 3}, {"triggerId", "t"}, {"thumbnailUrl", "u"}, {"payloadUrl", "p"}, {"payloadData", "d"},
       {"triggerName", "poster"}, {"triggerFps", 30}});
  ASSERT_TRUE(scan);
  EXPECT_EQ(std::tie(scan->scanId(), scan->triggerId(), scan->thumbnailUrl(), scan->payloadUrl(), scan->payloadData(),
                     scan->triggerName()),
            std::make_tuple("a1", "t", "u", "p", "d", "poster"));
  EXPECT_EQ(std::make_tuple(scan->score(), scan->timestamp(), scan->frame(), scan->triggerFps()),
            std::make_tuple(87, 1700000000, 3, 30));
  EXPECT_EQ(scan->triggerType(), std::numeric_limits<ZRKUInteger>::max());
  EXPECT_EQ(scan->ocrData(), ZRKJson::array({"ABC"}));
  const auto odd = decode<ZRKScanAPIResponse>({{"id", 17}, {"payloadData", {{"k", 1}}}, {"score", "93"}, {"ocr", 0}});
  EXPECT_FALSE(odd->scanId() || odd->payloadData() || odd->ocrData());
  EXPECT_EQ(odd->score(), 93);
  // The copy leaves out name, type and frame rate.
  const auto copy = scan->copy();
  EXPECT_EQ(std::tie(copy->scanId(), copy->triggerId(), copy->payloadData(), copy->ocrData()),
            std::tie(scan->scanId(), scan->triggerId(), scan->payloadData(), scan->ocrData()));
  EXPECT_EQ(std::make_tuple(copy->timestamp(), copy->triggerName(), copy->triggerType(), copy->triggerFps()),
            std::make_tuple(1700000000, std::nullopt, 0u, 0));
}

TEST(UserResponse, DecodesStringsOnly) {
  const auto user = decode<ZRKUserAPIResponse>(
      {{"email", "x1"}, {"name", "Ann"}, {"gender", "f"}, {"birthdate", 19800101}, {"avatar", "a"}, {"token", "t"}});
  ASSERT_TRUE(user);
  EXPECT_EQ(std::tie(user->gender(), user->avatar(), user->token(), user->birthdate()),
            std::make_tuple("f", "a", "t", std::nullopt));
  EXPECT_EQ(user->description(), "email(x1)\nname(Ann)\n");
  EXPECT_EQ(decode<ZRKUserAPIResponse>({{"email", nullptr}})->description(), "email((null))\nname((null))\n");
}

// The page classes decode every element with the item class, skip what is no
// object, and differ on what a missing "result" and a "code" mean.
TEST(ListingResponses, DecodePagesOfItems) {
  const auto collections = decode<ZRKCollectionsAPIResponse>(
      {{"result", {{{"id", "c1"}, {"name", "P"}, {"imageUrl", "i"}}, "b", nullptr, {{"id", 7}}}}, {"total", "6"}});
  ASSERT_TRUE(collections && collections->collections()->size() == 2u);
  EXPECT_EQ(collections->total(), 6);
  EXPECT_EQ(collections->collections()->at(0)->description(), "id:(c1) name:(P)");
  EXPECT_EQ(collections->collections()->at(0)->imageUrl(), "i");
  EXPECT_EQ(collections->collections()->at(1)->description(), "id:((null)) name:((null))");
  EXPECT_FALSE(decode<ZRKCollectionsAPIResponse>({{"total", 3}}));
  EXPECT_TRUE(decode<ZRKCollectionsAPIResponse>({{"code", 500}, {"result", ZRKJson::array()}}));

  const auto history = decode<ZRKScanHistoryAPIResponse>({{"result", {{{"scanId", "s1"}}, 2, {{"scanId", "s2"}}}},
                                                          {"total", 40}});
  ASSERT_TRUE(history && history->result()->size() == 2u);
  EXPECT_EQ(history->total(), 40);
  EXPECT_EQ(history->result()->at(1)->scanId(), "s2");
  for (const ZRKJson& body : {ZRKJson::object(), ZRKJson{{"total", 7}}, ZRKJson{{"result", "s1"}, {"total", 7}}}) {
    const auto empty = decode<ZRKScanHistoryAPIResponse>(body);
    ASSERT_TRUE(empty && empty->result()) << body;
    EXPECT_TRUE(empty->result()->empty());
    EXPECT_EQ(empty->total(), body.contains("total") ? 7 : 0);
  }
}

TEST(ScanHistory, PositionsAreWholeNumberTextAndTriggerIdIsNeverRead) {
  const auto entry = decode<ZRKScanHistory>({{"scanId", "s1"}, {"matched", "TRUE"}, {"lat", 59.33}, {"lng", "-18.06"},
                                             {"triggerId", "t9"}, {"timestamp", 17}, {"campaignId", "k"}});
  ASSERT_TRUE(entry);
  EXPECT_EQ(std::make_tuple(entry->matched(), entry->lat(), entry->lng(), entry->campaignId()),
            std::make_tuple(true, "59", "-18", "k"));
  EXPECT_FALSE(entry->triggerId());
  const auto bare = decode<ZRKScanHistory>({{"matched", 0}});
  EXPECT_EQ(std::make_tuple(bare->matched(), bare->lng()), std::make_tuple(false, "0"));
  entry->setTriggerId("t9");
  const auto copy = entry->copy();
  EXPECT_EQ(std::tie(copy->scanId(), copy->lng()), std::make_tuple("s1", "-18"));
  EXPECT_EQ(copy->timestamp(), 17);
  EXPECT_FALSE(copy->triggerId());
}

}  // namespace
}  // namespace zrk
