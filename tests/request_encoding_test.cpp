#include <gtest/gtest.h>

#include "zrk/ZRKFormEncoder.h"

namespace zrk {
namespace {

TEST(QueryEncoding, WorkedExample) {
  const ZRKJson parameters = {{"user", {{"tags", {"x", "y"}}, {"name", "A B"}}}, {"on", true}, {"n", 5}};
  EXPECT_EQ(ZRKQueryStringFromParameters(parameters), "n=5&on=true&user[name]=A%20B&user[tags][0]=x&user[tags][1]=y");
  EXPECT_EQ(ZRKFormEncoder::queryStringFromParameters(parameters), ZRKQueryStringFromParameters(parameters));
}

TEST(QueryEncoding, EscapesEverythingButLettersDigitsAndSixMarks) {
  EXPECT_EQ(ZRKPercentEscapedStringFromString("a/b?x"), "a/b?x");
  EXPECT_EQ(ZRKPercentEscapedStringFromString("a b&x=y"), "a%20b%26x%3Dy");
  EXPECT_EQ(ZRKPercentEscapedStringFromString("-._~"), "-._~");
  EXPECT_EQ(ZRKPercentEscapedStringFromString(":#[]@"), "%3A%23%5B%5D%40");
  EXPECT_EQ(ZRKPercentEscapedStringFromString("!$&'()*+,;="), "%21%24%26%27%28%29%2A%2B%2C%3B%3D");
  EXPECT_EQ(ZRKPercentEscapedStringFromString("\"%<>\\^`{|}"), "%22%25%3C%3E%5C%5E%60%7B%7C%7D");
  EXPECT_EQ(ZRKPercentEscapedStringFromString(std::string("\0\n\x7f", 3)), "%00%0A%7F");
  EXPECT_EQ(ZRKPercentEscapedStringFromString(""), "");
  EXPECT_EQ(ZRKFormEncoder::stringByURLEncoding("é"), "%C3%A9");
  // A flag (two code points, four bytes each) at the place where a batch
  // of fifty units would end comes out whole.
  const std::string text = std::string(49, 'a') + "\xF0\x9F\x87\xB8\xF0\x9F\x87\xAA" + std::string(69, 'b');
  EXPECT_EQ(ZRKPercentEscapedStringFromString(text),
            std::string(49, 'a') + "%F0%9F%87%B8%F0%9F%87%AA" + std::string(69, 'b'));
}

TEST(QueryEncoding, KeysSortByTheirEscapedSpellingCaseSensitively) {
  EXPECT_EQ(ZRKQueryStringFromParameters({{"b", 1}, {"A", 2}, {"a", 3}}), "A=2&a=3&b=1");
  // " " escapes to "%20", which sorts before "!"'s "%21" and before digits.
  EXPECT_EQ(ZRKQueryStringFromParameters({{"0", 1}, {"!", 2}, {" ", 3}}), "%20=3&%21=2&0=1");
  EXPECT_EQ(ZRKQueryStringFromParameters({{"m", {{"b", 1}, {"B", 2}}}}), "m[B]=2&m[b]=1");
}

TEST(QueryEncoding, ValuesOfEveryKind) {
  EXPECT_EQ(ZRKQueryStringFromParameters({{"k", nullptr}}), "k=");
  EXPECT_EQ(ZRKQueryStringFromParameters({{"k", ZRKJson::array()}, {"j", ZRKJson::object()}, {"x", 1}}), "x=1");
  EXPECT_EQ(ZRKQueryStringFromParameters({{"one", 1}, {"yes", true}, {"no", false}}), "no=false&one=1&yes=true");
  EXPECT_EQ(ZRKQueryStringFromParameters({{"f", 0.1}, {"g", -2.5}, {"h", 3.0}, {"u", 18446744073709551615ULL}}),
            "f=0.1&g=-2.5&h=3&u=18446744073709551615");
  EXPECT_EQ(ZRKQueryStringFromParameters({{"k", {1, {2, 3}, {{"z", nullptr}}}}}), "k[0]=1&k[1][0]=2&k[1][1]=3&k[2][z]=");
  EXPECT_EQ(ZRKQueryStringFromParameters({{"a b", {{"c&d", "e=f"}}}}), "a%20b[c%26d]=e%3Df");
  EXPECT_EQ(ZRKQueryStringFromParameters(nullptr), "");
  EXPECT_EQ(ZRKQueryStringFromParameters(ZRKJson::object()), "");
  EXPECT_EQ(ZRKQueryStringFromParameters(ZRKJson::array({1})), "");
}

TEST(QueryEncoding, PairsOfUnescapedValuesRenderTheirOwnText) {
  // Called directly, values have not been escaped: null has no "=", a
  // boolean is a number and strings go out as given.
  const auto render = [](const ZRKJson& value) {
    std::string out;
    for (const auto& pair : ZRKQueryStringPairsFromKeyAndValue("k", value)) out += pair.stringValue() + ";";
    return out;
  };
  EXPECT_EQ(render(nullptr), "k;");
  EXPECT_EQ(render(true), "k=1;");
  EXPECT_EQ(render("a b"), "k=a b;");
  EXPECT_EQ(render({{"y", 1}, {"x", {2}}}), "k[x][0]=2;k[y]=1;");
  EXPECT_EQ(render(ZRKJson::array()), "");
  EXPECT_EQ(ZRKQueryStringPair(std::nullopt, std::nullopt).stringValue(), "");
  EXPECT_EQ(ZRKQueryStringPair(std::nullopt, "v").stringValue(), "=v");
}

TEST(QueryEncoding, EscapedObjectsKeepTheirShape) {
  const ZRKJson escaped = ZRKPercentEscapedObject({{"a b", {"c d", nullptr, false, 2}}});
  EXPECT_EQ(escaped, (ZRKJson{{"a%20b", {"c%20d", "", "false", "2"}}}));
  EXPECT_EQ(ZRKPercentEscapedObject(nullptr), "");
}

// A model with two mapped properties, one of which may be missing, and an
// optional nested model.
class Account : public ZRKFormEncodable {
 public:
  std::map<std::string, std::string> propertyNamesToFormFieldNamesMapping() const override {
    return {{"firstName", "first_name"}, {"age", "age"}, {"owner", "owner"}};
  }
  ZRKFormValue valueForKey(std::string_view property) const override {
    if (property == "firstName") return firstName ? ZRKFormValue(*firstName) : ZRKFormValue();
    if (property == "age") return age;
    if (property == "owner") return owner ? ZRKFormValue(owner) : ZRKFormValue();
    return {};
  }
  std::optional<std::string> rootObjectName() const override { return root; }

  std::optional<std::string> firstName;
  int age = 0;
  std::shared_ptr<const Account> owner;
  std::optional<std::string> root;
};

TEST(FormEncodable, MappedPropertiesThenAdditionalParameters) {
  auto owner = std::make_shared<Account>();
  owner->age = 70;
  Account account;
  account.firstName = "Ada";
  account.age = 36;
  account.owner = owner;
  EXPECT_EQ(ZRKFormEncoder::keyPairDictionaryForObject(account),
            (ZRKJson{{"first_name", "Ada"}, {"age", 36}, {"owner", {{"age", 70}}}}));

  account.setAdditionalAPIParameters({{"age", "replaced"}, {"extra", nullptr}});
  account.root = "account";
  EXPECT_EQ(ZRKFormEncoder::dictionaryForObject(account),
            (ZRKJson{{"account", {{"first_name", "Ada"}, {"age", "replaced"}, {"extra", nullptr}, {"owner", {{"age", 70}}}}}}));
  EXPECT_EQ(ZRKQueryStringFromParameters(ZRKFormEncoder::dictionaryForObject(account)),
            "account[age]=replaced&account[extra]=&account[first_name]=Ada&account[owner][age]=70");
}

TEST(FormEncodable, ValuesConvertThroughContainers) {
  auto account = std::make_shared<Account>();
  account->age = 1;
  const auto converted = ZRKFormEncoder::formEncodableValueForObject(ZRKFormValue::dictionary(
      {{"list", ZRKFormValue::array({account, ZRKFormValue(), "x"})}, {"gone", ZRKFormValue()}, {"null", nullptr}}));
  ASSERT_TRUE(converted);
  EXPECT_EQ(*converted, (ZRKJson{{"list", {{{"age", 1}}, "x"}}, {"null", nullptr}}));
  EXPECT_FALSE(ZRKFormEncoder::formEncodableValueForObject(ZRKFormValue()));
  EXPECT_FALSE(ZRKFormEncoder::formEncodableValueForObject(std::shared_ptr<const ZRKFormEncodable>()));
  EXPECT_EQ(ZRKFormEncoder::formEncodableValueForObject(nullptr), ZRKJson(nullptr));
}

TEST(SnakeCase, BecomesCamelCaseWithEachLaterPieceCapitalized) {
  const auto camel = ZRKFormEncoder::stringByReplacingSnakeCaseWithCamelCase;
  EXPECT_EQ(camel("user_first_name"), "userFirstName");
  EXPECT_EQ(camel("api_URL"), "apiUrl");
  EXPECT_EQ(camel("a__b"), "aB");
  EXPECT_EQ(camel("Already_camel"), "AlreadyCamel");
  EXPECT_EQ(camel("plain"), "plain");
  EXPECT_EQ(camel(""), "");
  EXPECT_EQ(camel("_x_"), "X");
  EXPECT_EQ(camel("n_2nd_TRY"), "n2ndTry");
  EXPECT_EQ(camel("a_two words"), "aTwo Words");
  EXPECT_EQ(camel("x_ÉCOLE_ça_ΣΟΦΊΑ_пРИВЕТ"), "xÉcoleÇaΣοφίαПривет");
  EXPECT_EQ(camel("x_ŁÓDŹ_ĳssel"), "xŁódźĲssel");
  EXPECT_EQ(camel("x_日本"), "x日本");
  EXPECT_EQ(camel(std::string("x_\xff\xc3")), std::string("x\xff\xc3"));
}

}  // namespace
}  // namespace zrk
