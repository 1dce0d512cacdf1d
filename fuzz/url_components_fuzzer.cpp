// URL parsing, URL components, their query items and URL matching.
//
// Input: fields read with FuzzedDataProvider, each ended by "\" and one
// other byte: a URL, a second URL to match it against, then raw values for
// the host, user, path, query and fragment setters and for query items.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <set>
#include <vector>

#include "FuzzCheck.h"
#include "zrk/ZRKURLComponents.h"
#include "zrk/ZRKURLComponentsQuery.h"

namespace zrk::fuzz {

// Bytes that no component may hold once a setter has escaped it.
bool isSafe(const std::optional<std::string>& text) {
  return !text || (text->find_first_of("\"<>\\^`{|}#") == std::string::npos &&
                    std::all_of(text->begin(), text->end(), [](unsigned char c) { return c > 0x20 && c < 0x7F; }));
}

void checkParsed(const std::string& text) {
  const auto components = ZRKURLComponents::componentsWithString(text);
  if (!components) return;
  // Every component is held as it stands in the URL.
  ZRK_FUZZ_CHECK(components->string() == text);
  const auto items = components->queryItems();
  ZRK_FUZZ_CHECK(items.has_value() == components->query().has_value());
  if (!items) return;
  ZRKURLComponents rewritten = *components;
  rewritten.setQueryItems(items);
  ZRK_FUZZ_CHECK(rewritten.queryItems() == items && isSafe(rewritten.query()));
  ZRK_FUZZ_CHECK(!rewritten.scheme() || rewritten.URL());

  // A URL describes itself, unless its query repeats a name or has an item
  // without a value: those items match nothing.
  std::set<std::string> names;
  bool plain = true;
  for (const auto& item : *items) plain = plain && item.value && names.insert(item.name).second;
  if (plain && components->scheme() && components->host()) {
    ZRK_FUZZ_CHECK(zrk_matchesURLComponents(*components, *components));
  }
  const ZRKJson dictionary = zrk_queryItemsDictionary(*components);
  ZRK_FUZZ_CHECK(std::all_of(dictionary.begin(), dictionary.end(), [](auto& v) { return v.is_string(); }));
  if (plain) ZRK_FUZZ_CHECK(dictionary.size() == items->size());
}

void checkMatching(const std::string& first, const std::string& second) {
  const auto a = ZRKURLComponents::componentsWithString(first);
  const auto b = ZRKURLComponents::componentsWithString(second);
  if (!a || !b || !zrk_matchesURLComponents(*a, *b)) return;
  ZRK_FUZZ_CHECK(a->scheme() && a->host() && a->scheme() == b->scheme() && a->host() == b->host() &&
                 a->path() == b->path());
  const ZRKJson found = zrk_queryItemsDictionary(*b);
  for (const auto& item : a->queryItems().value_or(std::vector<ZRKURLQueryItem>{})) {
    ZRK_FUZZ_CHECK(item.value && found.contains(item.name) && found[item.name] == *item.value);
  }
}

void checkSetters(FuzzedDataProvider& in) {
  ZRKURLComponents c;
  c.setScheme("http");
  c.setHost(in.ConsumeRandomLengthString(64));
  c.setUser(in.ConsumeRandomLengthString(32));
  c.setPath("/" + in.ConsumeRandomLengthString(128));
  c.setQuery(in.ConsumeRandomLengthString(128));
  c.setFragment(in.ConsumeRandomLengthString(64));
  ZRK_FUZZ_CHECK(isSafe(c.host()) && isSafe(c.user()) && isSafe(c.path()) && isSafe(c.query()) && isSafe(c.fragment()));
  ZRK_FUZZ_CHECK(c.path().find('?') == std::string::npos);
  // A URL that the components make reads back as the same components.
  if (const auto text = c.string()) {
    const auto again = ZRKURLComponents::componentsWithString(*text);
    ZRK_FUZZ_CHECK(again && again->string() == text);
    ZRK_FUZZ_CHECK(again->path() == c.path() && again->query() == c.query() && again->fragment() == c.fragment());
  }

  // Query items read back exactly as written, whatever their bytes.
  const std::vector<ZRKURLQueryItem> items{{in.ConsumeRandomLengthString(64), in.ConsumeRandomLengthString(64)},
                                           {in.ConsumeRandomLengthString(64), std::nullopt}};
  c.setQueryItems(items);
  // A "+" would read as a space on the server.
  ZRK_FUZZ_CHECK(c.queryItems() == items && isSafe(c.query()) && c.query()->find('+') == std::string::npos);
  // Strings travel as they are, whatever their bytes.
  const ZRKJson dictionary = {{items[0].name, *items[0].value}};
  setZrk_queryItemsDictionary(c, dictionary);
  ZRK_FUZZ_CHECK(zrk_queryItemsDictionary(c) == dictionary);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  const std::string first = in.ConsumeRandomLengthString(512);
  const std::string second = in.ConsumeRandomLengthString(512);
  checkParsed(first);
  checkMatching(first, second);
  checkSetters(in);
  return 0;
}

}  // namespace zrk::fuzz
