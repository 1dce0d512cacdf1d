#include <gtest/gtest.h>

#include "zrk/ZRKApiError.h"

namespace zrk {
namespace {

const char* const kUnreadable = "Could not interpret the error response that was returned from ZRK Api.";

std::optional<ZRKError> fromBody(const ZRKJson& body) { return zrk_errorFromAPIResponse(&body); }

TEST(ApiErrors, KeysDeriveFromTheDomain) {
  EXPECT_EQ(ZRKErrorMessageKey, ZRKDomain + ":ErrorMessageKey");
  EXPECT_EQ(ZRKErrorCodeKey, ZRKDomain + ":ErrorCodeKey");
  EXPECT_EQ(ZRKErrorDetailKey, ZRKDomain + ":ErrorDetailKey");
}

TEST(ApiErrors, GenericErrorsCarryTwoEntries) {
  const ZRKError parse = zrk_genericFailedToParseResponseError();
  EXPECT_EQ(parse.domain, ZRKDomain);
  EXPECT_EQ(parse.code, 32);
  EXPECT_EQ(parse.userInfo, (ZRKJson{{ZRKLocalizedDescriptionKey, zrk_unexpectedErrorMessage()},
                                     {ZRKErrorMessageKey, "The response from ZRK API failed to get parsed into valid JSON."}}));
  const ZRKError connection = zrk_genericConnectionError();
  EXPECT_EQ(connection.code, 300);
  EXPECT_EQ(connection.userInfo, (ZRKJson{{ZRKLocalizedDescriptionKey, zrk_unexpectedErrorMessage()},
                                          {ZRKErrorMessageKey, "There was an error connecting to ZRK API."}}));
  EXPECT_EQ(connection.localizedDescription(), zrk_unexpectedErrorMessage());
}

TEST(ApiErrors, BodiesWithoutAUsableCodeGiveNoError) {
  EXPECT_FALSE(zrk_errorFromAPIResponse(nullptr));
  EXPECT_FALSE(fromBody(ZRKJson::array({1})));
  EXPECT_FALSE(fromBody("code"));
  EXPECT_FALSE(fromBody({{"message", "m"}}));
  EXPECT_FALSE(fromBody({{"code", -1}, {"message", "m"}}));
  EXPECT_FALSE(fromBody({{"code", "-1"}}));
  EXPECT_FALSE(fromBody({{"code", nullptr}}));
  EXPECT_FALSE(fromBody({{"code", {404}}}));
}

TEST(ApiErrors, TheServiceCodeMessageAndDetail) {
  const auto error = fromBody({{"code", 404}, {"message", "x"}, {"detail", {{"field", "email"}}}, {"other", 1}});
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain, ZRKDomain);
  EXPECT_EQ(error->code, 404);
  EXPECT_EQ(error->userInfo, (ZRKJson{{ZRKErrorCodeKey, "404"},
                                      {ZRKLocalizedDescriptionKey, "x"},
                                      {ZRKErrorMessageKey, "x"},
                                      {ZRKErrorDetailKey, {{"field", "email"}}}}));
  EXPECT_EQ(error->localizedDescription(), "x");
}

TEST(ApiErrors, OddValuesAreReadLeniently) {
  // No message: the user sees the generic text, the developer a fixed one.
  const auto silent = fromBody({{"code", 401}, {"message", 7}, {"detail", {1, 2}}});
  ASSERT_TRUE(silent);
  EXPECT_EQ(silent->userInfo, (ZRKJson{{ZRKErrorCodeKey, "401"},
                                       {ZRKLocalizedDescriptionKey, zrk_unexpectedErrorMessage()},
                                       {ZRKErrorMessageKey, kUnreadable}}));

  const auto text = fromBody({{"code", "17"}});
  ASSERT_TRUE(text);
  EXPECT_EQ(text->code, 17);
  EXPECT_EQ(text->userInfo[ZRKErrorCodeKey], "17");

  const auto negative = fromBody({{"code", -2}});
  ASSERT_TRUE(negative);
  EXPECT_EQ(negative->code, -2);
  EXPECT_EQ(negative->userInfo[ZRKErrorCodeKey], "-2");

  const auto word = fromBody({{"code", "abc"}});
  ASSERT_TRUE(word);
  EXPECT_EQ(word->code, 0);
  EXPECT_EQ(word->userInfo[ZRKErrorCodeKey], "0");

  const auto fraction = fromBody({{"code", 10001.9}, {"message", "Invalid user"}});
  ASSERT_TRUE(fraction);
  EXPECT_EQ(fraction->code, 10001);
  EXPECT_EQ(fraction->userInfo[ZRKErrorCodeKey], "10001");

  // A detail object is copied as it is, nulls included.
  const auto detailed = fromBody({{"code", 1}, {"detail", {{"a", nullptr}, {"b", {{"c", {}}}}}}});
  ASSERT_TRUE(detailed);
  EXPECT_EQ(detailed->userInfo[ZRKErrorDetailKey], (ZRKJson{{"a", nullptr}, {"b", {{"c", {}}}}}));
}

}  // namespace
}  // namespace zrk
