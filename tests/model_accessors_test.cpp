#include <chrono>
#include <cmath>
#include <limits>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "zrk/ZRKArrayAccessors.h"
#include "zrk/ZRKDictionaryAccessors.h"
#include "zrk/ZRKJson.h"
#include "zrk/ZRKStringAccessors.h"

namespace zrk {
namespace {

constexpr ZRKInteger kMax = std::numeric_limits<ZRKInteger>::max();
constexpr ZRKInteger kMin = std::numeric_limits<ZRKInteger>::min();

ZRKJson J(const char* text) { return ZRKJson::parse(text); }

TEST(NullRemoval, DropsNullsAtAnyDepthAndKeepsFalsyValues) {
  EXPECT_EQ(zrk_dictionaryByRemovingNulls(J(R"({"a": null})")), J("{}"));
  EXPECT_EQ(zrk_dictionaryByRemovingNulls(J(R"({"a": [1, null, {"b": null, "c": 2}]})")),
            J(R"({"a": [1, {"c": 2}]})"));
  EXPECT_EQ(zrk_dictionaryByRemovingNulls(J(R"({"a": {"b": [[null, 0], {"c": null}]}})")),
            J(R"({"a": {"b": [[0], {}]}})"));
  EXPECT_EQ(zrk_dictionaryByRemovingNulls(J(R"({"f": false, "z": 0, "s": ""})")),
            J(R"({"f": false, "z": 0, "s": ""})"));
  EXPECT_EQ(zrk_arrayByRemovingNulls(J(R"([null, "x", null, [null], 3])")),
            J(R"(["x", [], 3])"));
}

TEST(NullRemoval, WrongReceiverGivesEmptyContainer) {
  for (const char* text : {"[1]", "\"s\"", "null", "4"}) {
    EXPECT_EQ(zrk_dictionaryByRemovingNulls(J(text)), ZRKJson::object()) << text;
    EXPECT_EQ(zrk_dictionaryByRemovingNonStrings(J(text)), ZRKJson::object()) << text;
  }
  EXPECT_EQ(zrk_arrayByRemovingNulls(J(R"({"a": 1})")), ZRKJson::array());
}

TEST(NullRemoval, SurvivesHostileNesting) {
  constexpr int kDepth = 200000;
  const std::string text = std::string(kDepth, '[') + "null" + std::string(kDepth, ']');
  const ZRKJson cleaned = zrk_arrayByRemovingNulls(ZRKJson::parse(text));
  const ZRKJson* level = &cleaned;
  int depth = 1;
  while (!level->empty()) {
    level = &level->front();
    ++depth;
  }
  EXPECT_EQ(depth, kDepth);
}

TEST(NonStringRemoval, KeepsOnlyTopLevelStrings) {
  EXPECT_EQ(zrk_dictionaryByRemovingNonStrings(
                J(R"({"a": "x", "b": 1, "c": null, "d": {"e": "f"}, "g": true, "h": ["i"]})")),
            J(R"({"a": "x"})"));
}

TEST(TypedLookup, ReturnsOnlyTheRequestedType) {
  const ZRKJson d = J(R"({"id": 12, "s": "12", "a": [1], "o": {"k": 1}, "t": true, "n": null})");
  EXPECT_FALSE(zrk_stringForKey(d, "id"));
  EXPECT_EQ(zrk_stringForKey(d, "s"), "12");
  EXPECT_EQ(zrk_arrayForKey(d, "a"), &d["a"]);
  EXPECT_EQ(zrk_arrayForKey(d, "o"), nullptr);
  EXPECT_EQ(zrk_dictionaryForKey(d, "o"), &d["o"]);
  EXPECT_EQ(zrk_dictionaryForKey(d, "a"), nullptr);
  EXPECT_EQ(zrk_numberForKey(d, "t"), ZRKJson(true));
  EXPECT_EQ(zrk_numberForKey(d, "id"), ZRKJson(12));
  EXPECT_FALSE(zrk_numberForKey(d, "s"));
  EXPECT_FALSE(zrk_numberForKey(d, "n"));
  EXPECT_FALSE(zrk_stringForKey(d, "missing"));
}

TEST(TypedLookup, NonObjectReceiverGivesAbsentOrDefault) {
  for (const char* text : {"[1, 2]", "\"id\"", "null", "1.5", "true"}) {
    const ZRKJson v = J(text);
    EXPECT_EQ(zrk_arrayForKey(v, "id"), nullptr) << text;
    EXPECT_EQ(zrk_dictionaryForKey(v, "id"), nullptr) << text;
    EXPECT_FALSE(zrk_numberForKey(v, "id")) << text;
    EXPECT_FALSE(zrk_stringForKey(v, "id")) << text;
    EXPECT_FALSE(zrk_urlForKey(v, "id")) << text;
    EXPECT_FALSE(zrk_dateForKey(v, "id")) << text;
    EXPECT_EQ(zrk_intForKey(v, "id", 7), 7) << text;
    EXPECT_TRUE(zrk_boolForKey(v, "id", true)) << text;
  }
}

TEST(TypedLookup, UrlOnlyFromValidText) {
  const ZRKJson d = J(R"({"u": "https://example.com/a?b=c", "bad": "a b", "n": 5})");
  ASSERT_TRUE(zrk_urlForKey(d, "u"));
  EXPECT_EQ(zrk_urlForKey(d, "u")->absoluteString(), "https://example.com/a?b=c");
  EXPECT_FALSE(zrk_urlForKey(d, "bad"));
  EXPECT_FALSE(zrk_urlForKey(d, "n"));
}

TEST(IntForKey, ConvertsNumbersAndTextLeniently) {
  const ZRKJson d = J(R"({"x": "x", "t": true, "a": [1], "s": "42.9", "f": 3.9, "g": -3.9,
      "o": {}, "hi": 1e300, "lo": -1e300, "u": 18446744073709551615})");
  const std::pair<const char*, ZRKInteger> cases[] = {{"missing", 7}, {"x", 0}, {"t", 1},      {"a", 7},     {"o", 7},
                                                      {"s", 42},      {"f", 3}, {"g", -3},     {"hi", kMax}, {"lo", kMin},
                                                      {"u", kMax}};
  for (const auto& [key, value] : cases) EXPECT_EQ(zrk_intForKey(d, key, 7), value) << key;
}

TEST(IntegerValue, ReadsTheLeadingDecimalIntegerAndSaturates) {
  const std::pair<const char*, ZRKInteger> cases[] = {
      {"12abc", 12}, {"", 0}, {" \t\n-42", -42}, {"\u00A0\u3000+7", 7}, {"- 5", 0}, {"+-5", 0}, {"0x1F", 0}, {"1e3", 1},
      {"9223372036854775807", kMax},  {"9223372036854775808", kMax}, {"-9223372036854775808", kMin},
      {"-9223372036854775809", kMin}, {"000000000000000000000000000012", 12}, {"99999999999999999999999999", kMax}};
  for (const auto& [text, value] : cases) EXPECT_EQ(zrk_integerValue(text), value) << text;
}

TEST(BoolForKey, ReadsNumbersAndWords) {
  const ZRKJson d = J(R"({"T": "TRUE", "Y": "Yes", "1": "1", "f": "false", "z": 0, "o": {},
      "h": 0.5, "n": "no", "e": "", "p": " +007", "d": "0.5", "m": "-1"})");
  for (const char* key : {"T", "Y", "1", "h", "p", "m"}) {
    EXPECT_TRUE(zrk_boolForKey(d, key, false)) << key;
  }
  for (const char* key : {"f", "z", "n", "e", "d"}) {
    EXPECT_FALSE(zrk_boolForKey(d, key, true)) << key;
  }
  EXPECT_FALSE(zrk_boolForKey(d, "o", false));
  EXPECT_TRUE(zrk_boolForKey(d, "o", true));
  EXPECT_TRUE(zrk_boolForKey(d, "missing", true));
}

TEST(DoubleValue, ReadsOnlyDecimalText) {
  const std::pair<const char*, double> cases[] = {{" 1.5e3x", 1500.0}, {"+2.5", 2.5}, {"-.5", -0.5}, {"5.", 5.0},
                                                  {"1e", 1.0},         {"1e+", 1.0},  {"2E-1", 0.2}};
  for (const auto& [text, value] : cases) EXPECT_EQ(zrk_doubleValue(text), value) << text;
  for (const char* text : {"", ".", "-", "inf", "nan", "infinity", "0x1p3", "e5", "+-1"}) {
    EXPECT_EQ(zrk_doubleValue(text), 0.0) << text;
  }
}

TEST(DoubleValue, OverflowGivesInfinityAndUnderflowZero) {
  EXPECT_EQ(zrk_doubleValue("1e400"), std::numeric_limits<double>::infinity());
  EXPECT_EQ(zrk_doubleValue("-1e400"), -std::numeric_limits<double>::infinity());
  EXPECT_EQ(zrk_doubleValue("1" + std::string(400, '0')), std::numeric_limits<double>::infinity());
  EXPECT_EQ(zrk_doubleValue("1e-400"), 0.0);
  EXPECT_EQ(zrk_doubleValue("0." + std::string(400, '0') + "1"), 0.0);
  // A long mantissa with a compensating exponent is in range.
  EXPECT_DOUBLE_EQ(zrk_doubleValue("1" + std::string(400, '0') + "e-390"), 1e10);
  EXPECT_EQ(zrk_doubleValue("0.001e99999999999999999999"), std::numeric_limits<double>::infinity());
}

TEST(DateForKey, ReadsSecondsSince1970Unscaled) {
  using namespace std::chrono;
  const ZRKJson d = J(R"({"n": 1500000000, "s": "1500000000", "ms": 1500000000000,
      "iso": "2016-05-01T10:00:00Z", "a": [], "t": true})");
  const ZRKDate expected = sys_days{year{2017} / July / 14} + hours{2} + minutes{40};
  EXPECT_EQ(zrk_dateForKey(d, "n"), expected);
  EXPECT_EQ(zrk_dateForKey(d, "s"), expected);
  EXPECT_GT(zrk_dateForKey(d, "ms"), ZRKDate(sys_days{year{40000} / 1 / 1}));
  EXPECT_EQ(zrk_dateForKey(d, "iso")->time_since_epoch().count(), 2016.0);
  EXPECT_EQ(zrk_dateForKey(d, "t")->time_since_epoch().count(), 1.0);
  EXPECT_FALSE(zrk_dateForKey(d, "a"));
  EXPECT_FALSE(zrk_dateForKey(d, "missing"));
}

TEST(BoundSafeIndex, AbsentOutsideTheArray) {
  const ZRKJson a = J("[10, 20, 30]");
  EXPECT_EQ(zrk_boundSafeObjectAtIndex(a, 0), &a[0]);
  EXPECT_EQ(zrk_boundSafeObjectAtIndex(a, 2), &a[2]);
  for (ZRKInteger i : {ZRKInteger{-1}, ZRKInteger{3}, ZRKInteger{4}, kMin, kMax}) {
    EXPECT_EQ(zrk_boundSafeObjectAtIndex(a, i), nullptr) << i;
  }
  EXPECT_EQ(zrk_boundSafeObjectAtIndex(J(R"({"0": 1})"), 0), nullptr);
}

TEST(Substring, ClampsIndices) {
  EXPECT_EQ(zrk_safeSubstringToIndex("abc", 10), "abc");
  EXPECT_EQ(zrk_safeSubstringToIndex("abc", 0), "");
  EXPECT_EQ(zrk_safeSubstringFromIndex("abc", 4), "");
  EXPECT_EQ(zrk_safeSubstringFromIndex("abc", 3), "");
  EXPECT_EQ(zrk_safeSubstringFromIndex("abc", 1), "bc");
  EXPECT_EQ(zrk_safeSubstringFromIndex("abc", std::numeric_limits<ZRKUInteger>::max()), "");
}

TEST(Substring, CountsUtf16UnitsAndNeverSplitsACharacter) {
  const std::string s = "\u00E9\U0001F600b";  // é (1 unit), 😀 (2 units), b
  EXPECT_EQ(zrk_safeSubstringToIndex(s, 1), "\u00E9");
  EXPECT_EQ(zrk_safeSubstringToIndex(s, 2), "\u00E9");
  EXPECT_EQ(zrk_safeSubstringToIndex(s, 3), "\u00E9\U0001F600");
  EXPECT_EQ(zrk_safeSubstringFromIndex(s, 1), "\U0001F600b");
  EXPECT_EQ(zrk_safeSubstringFromIndex(s, 2), "b");
  EXPECT_EQ(zrk_safeSubstringFromIndex(s, 3), "b");
  // Invalid bytes, including a truncated sequence, count one unit each.
  EXPECT_EQ(zrk_safeSubstringToIndex("\xFF" "a\xE2\x82", 3), "\xFF" "a\xE2");
  EXPECT_EQ(zrk_safeSubstringFromIndex("\xED\xA0\x80z", 3), "z");
}

TEST(RemovingSuffix, RemovesOnlyAWholeTrailingMatch) {
  EXPECT_EQ(zrk_stringByRemovingSuffix("foobar", "bar"), "foo");
  EXPECT_EQ(zrk_stringByRemovingSuffix("foobar", "baz"), "foobar");
  EXPECT_EQ(zrk_stringByRemovingSuffix("foobar", std::nullopt), "foobar");
  EXPECT_EQ(zrk_stringByRemovingSuffix("foobar", ""), "foobar");
  EXPECT_EQ(zrk_stringByRemovingSuffix("bar", "foobar"), "bar");
  EXPECT_EQ(zrk_stringByRemovingSuffix("a\U0001F600", "\U0001F600"), "a");
  // The bytes match, but the tail of "é" is no character of its own.
  EXPECT_EQ(zrk_stringByRemovingSuffix("\u00E9", "\xA9"), "\u00E9");
}

TEST(ReversedString, KeepsUserPerceivedCharactersWhole) {
  EXPECT_EQ(zrk_reversedString(""), "");
  EXPECT_EQ(zrk_reversedString("abc"), "cba");
  EXPECT_EQ(zrk_reversedString("xe\u0301\u0323y"), "ye\u0301\u0323x");
  EXPECT_EQ(zrk_reversedString("a\U0001F600"), "\U0001F600a");
  EXPECT_EQ(zrk_reversedString("\U0001F44D\U0001F3FDx"), "x\U0001F44D\U0001F3FD");
  const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467";
  EXPECT_EQ(zrk_reversedString("a" + family + "b"), "b" + family + "a");
  const std::string se = "\U0001F1F8\U0001F1EA", fi = "\U0001F1EB\U0001F1EE";
  EXPECT_EQ(zrk_reversedString(se + fi + "\U0001F1F8"), "\U0001F1F8" + fi + se);
  EXPECT_EQ(zrk_reversedString("1\uFE0F\u20E3!"), "!1\uFE0F\u20E3");
  EXPECT_EQ(zrk_reversedString("a\r\nb\n\r"), "\r\nb\r\na");
  EXPECT_EQ(zrk_reversedString("\u0301a"), "a\u0301");
  EXPECT_EQ(zrk_reversedString("a\xFF\xC3"), "\xC3\xFF" "a");
}

}  // namespace
}  // namespace zrk
