#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "support/MainQueueWait.h"
#include "support/RawRecorder.h"
#include "zrk/ZRKMultipartFormData.h"
#include "zrk/ZRKRequestBodies.h"
#include "zrk/ZRKURLSession.h"

namespace zrk {
namespace {

ZRKURLRequest requestFor(std::string_view url) { return ZRKURLRequest(ZRKURL::URLWithString(url)); }

TEST(RequestBodies, ParametersJoinTheQueryWithTheRightSeparator) {
  auto plain = requestFor("https://api.zrk.cloud/app/v1/history");
  zrk_addParametersToURL(plain, {{"b", 2}, {"a", 1}});
  EXPECT_EQ(plain.URL()->absoluteString(), "https://api.zrk.cloud/app/v1/history?a=1&b=2");

  auto withQuery = requestFor("https://api.zrk.cloud/x?x=1");
  zrk_addParametersToURL(withQuery, {{"b", 2}, {"a", 1}});
  EXPECT_EQ(withQuery.URL()->query(), "x=1&a=1&b=2");

  // Nothing to add still adds the separator.
  auto empty = requestFor("https://api.zrk.cloud/x");
  zrk_addParametersToURL(empty, nullptr);
  EXPECT_EQ(empty.URL()->absoluteString(), "https://api.zrk.cloud/x?");
  auto emptyQuery = requestFor("https://api.zrk.cloud/x?");
  zrk_addParametersToURL(emptyQuery, ZRKJson::object());
  EXPECT_EQ(emptyQuery.URL()->absoluteString(), "https://api.zrk.cloud/x?&");
}

TEST(RequestBodies, JsonFormAndMultipartSetTheirHeaders) {
  auto json = requestFor("http://127.0.0.1/");
  json.setValue("text/plain", "content-type");
  zrk_setJSONPayload(json, {{"b", "é"}, {"a", {1, nullptr}}});
  EXPECT_EQ(json.HTTPBody(), R"({"a":[1,null],"b":"é"})");
  EXPECT_EQ(json.valueForHTTPHeaderField("Content-Type"), "application/json");
  EXPECT_FALSE(json.valueForHTTPHeaderField("Content-Length"));

  // Text that is not UTF-8 cannot be JSON: no body rather than a broken one.
  zrk_setJSONPayload(json, {{"bad", "\xff"}});
  EXPECT_FALSE(json.HTTPBody());

  auto form = requestFor("http://127.0.0.1/");
  zrk_setFormPayload(form, {{"q", "a b"}, {"n", 10}});
  EXPECT_EQ(form.HTTPBody(), "n=10&q=a%20b");
  EXPECT_EQ(form.valueForHTTPHeaderField("Content-Length"), "12");
  EXPECT_EQ(form.valueForHTTPHeaderField("Content-Type"), "application/x-www-form-urlencoded");

  auto multipart = requestFor("http://127.0.0.1/");
  zrk_setMultipartFormData(multipart, std::string(1234, 'x'), "B");
  EXPECT_EQ(multipart.HTTPBody()->size(), 1234u);
  EXPECT_EQ(multipart.valueForHTTPHeaderField("Content-Length"), "1234");
  EXPECT_EQ(multipart.valueForHTTPHeaderField("Content-Type"), "multipart/form-data; boundary=B");
  EXPECT_EQ(multipart.allHTTPHeaderFields().size(), 2u);
}

ZRKMultipartFormDataPart part(std::optional<std::string> name, std::optional<std::string> filename,
                              std::optional<std::string> contentType, std::optional<std::string> data) {
  ZRKMultipartFormDataPart p;
  p.setName(std::move(name));
  p.setFilename(std::move(filename));
  p.setContentType(std::move(contentType));
  p.setData(std::move(data));
  return p;
}

TEST(Multipart, BodiesByteForByte) {
  const std::string content("\xFF\xD8\0\r\n--B\r\n", 10);
  EXPECT_EQ(ZRKMultipartFormDataEncoder::multipartFormDataForParts({part("file", "image.jpg", "T", content)}, "B"),
            "--B\r\n"
            "Content-Disposition: form-data; name=\"file\"; filename=\"image.jpg\"\r\n"
            "Content-Type: T\r\n"
            "\r\n" +
                content +
                "\r\n"
                "--B--\r\n");
  EXPECT_EQ(ZRKMultipartFormDataEncoder::multipartFormDataForParts(
                {part("a", std::nullopt, std::nullopt, "1"), part(std::nullopt, std::nullopt, std::nullopt, std::nullopt)},
                "xyz"),
            "--xyz\r\n"
            "Content-Disposition: form-data; name=\"a\"\r\n"
            "\r\n"
            "1\r\n"
            "--xyz\r\n"
            "Content-Disposition: form-data; name=\"(null)\"\r\n"
            "\r\n"
            "\r\n"
            "--xyz--\r\n");
  EXPECT_EQ(ZRKMultipartFormDataEncoder::multipartFormDataForParts({}, "B"), "--B--\r\n");
  // Names go out as given, quotes and all.
  EXPECT_EQ(part("a\"b", "c d.jpg", "", "").composedData(),
            "Content-Disposition: form-data; name=\"a\"b\"; filename=\"c d.jpg\"\r\nContent-Type: \r\n\r\n\r\n");
}

TEST(Multipart, BoundariesAreFreshUpperCaseUuids) {
  const std::regex shape("ZRKApi-iOS-[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    const std::string boundary = ZRKMultipartFormDataEncoder::generateBoundary();
    EXPECT_EQ(boundary.size(), 47u);
    EXPECT_TRUE(std::regex_match(boundary, shape)) << boundary;
    seen.insert(boundary);
  }
  EXPECT_EQ(seen.size(), 100u);
}

// The declared lengths are the ones that reach the wire, once each.
TEST(RequestBodiesWire, FormAndMultipartBodiesArriveWhole) {
  test::RawRecorder recorder;
  auto session = ZRKURLSession::sessionWithConfiguration(std::make_shared<ZRKURLSessionConfiguration>(), {}, &ZRKMainQueue::mainQueue());
  const std::string boundary = ZRKMultipartFormDataEncoder::generateBoundary();
  const std::string body = ZRKMultipartFormDataEncoder::multipartFormDataForParts(
      {part("file", "image.jpg", "image/jpeg", std::string(100000, '\x80'))}, boundary);

  auto multipart = requestFor(recorder.url() + "/scan");
  multipart.setHTTPMethod("POST");
  zrk_setMultipartFormData(multipart, body, boundary);
  auto form = requestFor(recorder.url() + "/form");
  form.setHTTPMethod("POST");
  zrk_setFormPayload(form, {{"a", "b c"}});

  int done = 0;
  session->dataTaskWithRequest(multipart, [&](auto, auto, auto) { ++done; })->resume();
  ASSERT_TRUE(test::runMainQueueUntil([&] { return done == 1; }));
  session->dataTaskWithRequest(form, [&](auto, auto, auto) { ++done; })->resume();
  ASSERT_TRUE(test::runMainQueueUntil([&] { return done == 2; }));

  const auto raw = recorder.requests(2);
  const auto split = [](const std::string& request) {
    const std::size_t end = request.find("\r\n\r\n");
    return std::pair(request.substr(0, end + 2), request.substr(end + 4));
  };
  const auto [scanHead, scanBody] = split(raw.at(0));
  EXPECT_EQ(scanBody, body);
  EXPECT_NE(scanHead.find("\r\nContent-Length: " + std::to_string(body.size()) + "\r\n"), std::string::npos);
  EXPECT_NE(scanHead.find("\r\nContent-Type: multipart/form-data; boundary=" + boundary + "\r\n"), std::string::npos);
  EXPECT_EQ(scanHead.find("Content-Length"), scanHead.rfind("Content-Length"));
  const auto [formHead, formBody] = split(raw.at(1));
  EXPECT_EQ(formBody, "a=b%20c");
  EXPECT_NE(formHead.find("\r\nContent-Length: 7\r\n"), std::string::npos);
  EXPECT_NE(formHead.find("\r\nContent-Type: application/x-www-form-urlencoded\r\n"), std::string::npos);
}

}  // namespace
}  // namespace zrk
