#include <gtest/gtest.h>

#include "zrk/ZRKURL.h"

namespace zrk {
namespace {

TEST(URLParsing, RefusesTextThatNoURLMayHold) {
  for (const char* bad : {"not a url", "http://h/a b", "http://h/\"q\"", "http://h/<x>", "http://h/%zz", "http://h/%4",
                          "http://h/a#b#c", "http://h/\xC3\xA9", "http://h/a\nb", "http://h:99999/"}) {
    EXPECT_FALSE(ZRKURL::URLWithString(bad)) << bad;
  }
}

TEST(URLParsing, KeepsTheTextAndReadsItsComponents) {
  const auto url = ZRKURL::URLWithString("HTTPS://Api.Example.com:8443/a/b%20c?x=1&y=#frag");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->absoluteString(), "HTTPS://Api.Example.com:8443/a/b%20c?x=1&y=#frag");
  EXPECT_EQ(url->scheme(), "HTTPS");
  EXPECT_EQ(url->host(), "Api.Example.com");
  EXPECT_EQ(url->port(), 8443);
  EXPECT_EQ(url->path(), "/a/b%20c");
  EXPECT_EQ(url->query(), "x=1&y=");
  EXPECT_EQ(url->fragment(), "frag");

  const auto bare = ZRKURL::URLWithString("https://h");
  ASSERT_TRUE(bare);
  EXPECT_EQ(bare->path(), "");
  EXPECT_FALSE(bare->query());
  EXPECT_EQ(ZRKURL::URLWithString("https://h/p?")->query(), "");
  EXPECT_EQ(ZRKURL::URLWithString("http://[::1]:8080/")->host(), "::1");
  EXPECT_TRUE(ZRKURL::URLWithString("relative/path?q=1"));
}

TEST(URLAppendingPathComponent, InsertsOneSlashAndKeepsInnerSlashes) {
  const auto base = *ZRKURL::URLWithString("https://api.example.com");
  EXPECT_EQ(base.URLByAppendingPathComponent("app/v1/auth").absoluteString(), "https://api.example.com/app/v1/auth");
  const auto slashed = *ZRKURL::URLWithString("https://api.example.com/root/");
  EXPECT_EQ(slashed.URLByAppendingPathComponent("app/v1").absoluteString(), "https://api.example.com/root/app/v1");
  const auto nested = *ZRKURL::URLWithString("http://127.0.0.1:8080/base");
  EXPECT_EQ(nested.URLByAppendingPathComponent("app").absoluteString(), "http://127.0.0.1:8080/base/app");
}

TEST(URLAppendingPathComponent, EscapesWhatAPathMayNotHold) {
  const auto base = *ZRKURL::URLWithString("https://h");
  EXPECT_EQ(base.URLByAppendingPathComponent("app/v1/scan/my coll?#%").absoluteString(),
            "https://h/app/v1/scan/my%20coll%3F%23%25");
  EXPECT_EQ(base.URLByAppendingPathComponent("caf\xC3\xA9").absoluteString(), "https://h/caf%C3%A9");
  EXPECT_EQ(base.URLByAppendingPathComponent("a:b@c!$&'()*+,;=").absoluteString(), "https://h/a:b@c!$&'()*+,;=");
}

TEST(URLAppendingPathComponent, KeepsQueryAndFragmentAfterThePath) {
  const auto base = *ZRKURL::URLWithString("https://h/p?x=1#f");
  EXPECT_EQ(base.URLByAppendingPathComponent("q").absoluteString(), "https://h/p/q?x=1#f");
}

TEST(URLResolvingReference, ResolvesRelativeAndAbsoluteLocations) {
  const auto base = *ZRKURL::URLWithString("http://127.0.0.1:9/app/v1/scan?x=1");
  EXPECT_EQ(base.URLByResolvingReference("/moved")->absoluteString(), "http://127.0.0.1:9/moved");
  EXPECT_EQ(base.URLByResolvingReference("other")->absoluteString(), "http://127.0.0.1:9/app/v1/other");
  EXPECT_EQ(base.URLByResolvingReference("http://127.0.0.2:10/x")->absoluteString(), "http://127.0.0.2:10/x");
  EXPECT_EQ(base.URLByResolvingReference("/a b")->absoluteString(), "http://127.0.0.1:9/a%20b");
}

}  // namespace
}  // namespace zrk
