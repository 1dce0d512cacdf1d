// URL parsing, URL components, their query items and URL matching.
//
// Input: fields read with FuzzedDataProvider, each ended by "\" and one
// other byte: a URL, a second URL to match it against, then raw values for
// the path, query, fragment, host and user setters and for one query item.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "FuzzCheck.h"
#include "zrk/ZRKURLComponents.h"
#include "zrk/ZRKURLComponentsQuery.h"

namespace zrk::fuzz {
namespace {

// Bytes that no component may hold once a setter has escaped it.
bool isSafeComponent(const std::optional<std::string>& text) {
  if (!text) return true;
  for (unsigned char c : *text) {
    if (c <= 0x20 || c >= 0x7F || c == '"' || c == '<' || c == '>' || c == '\\' || c == '^' || c == '`' ||
        c == '{' || c == '|' || c == '}' || c == '#') {
      return false;
    }
  }
  return true;
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
  ZRK_FUZZ_CHECK(rewritten.queryItems() == items);
  ZRK_FUZZ_CHECK(isSafeComponent(rewritten.query()));
  if (rewritten.scheme()) ZRK_FUZZ_CHECK(rewritten.URL().has_value());

  // A URL describes itself, unless its query repeats a name or has an item
  // without a value: those items match nothing.
  std::set<std::string> names;
  bool plain = true;
  for (const auto& item : *items) plain = plain && item.value && names.insert(item.name).second;
  if (plain && components->scheme() && components->host()) {
    ZRK_FUZZ_CHECK(zrk_matchesURLComponents(*components, *components));
  }

  const ZRKJson dictionary = zrk_queryItemsDictionary(*components);
  for (const auto& [name, value] : dictionary.items()) ZRK_FUZZ_CHECK(value.is_string());
  if (plain) ZRK_FUZZ_CHECK(dictionary.size() == items->size());
}

void checkMatching(const std::string& first, const std::string& second) {
  const auto a = ZRKURLComponents::componentsWithString(first);
  const auto b = ZRKURLComponents::componentsWithString(second);
  if (!a || !b || !zrk_matchesURLComponents(*a, *b)) return;
  ZRK_FUZZ_CHECK(a->scheme() && a->host() && a->scheme() == b->scheme() && a->host() == b->host());
  ZRK_FUZZ_CHECK(a->path() == b->path());
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
  for (const auto* component : {&c.host(), &c.user(), &c.query(), &c.fragment()}) {
    ZRK_FUZZ_CHECK(isSafeComponent(*component));
  }
  ZRK_FUZZ_CHECK(isSafeComponent(c.path()));
  ZRK_FUZZ_CHECK(c.query()->find('#') == std::string::npos && c.path().find_first_of("?#") == std::string::npos);
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
  ZRK_FUZZ_CHECK(c.queryItems() == items);
  ZRK_FUZZ_CHECK(isSafeComponent(c.query()));

  // Strings travel as they are (any bytes); other values as their text.
  ZRKJson dictionary = ZRKJson::object();
  dictionary[items[0].name] = *items[0].value;
  setZrk_queryItemsDictionary(c, dictionary);
  ZRK_FUZZ_CHECK(zrk_queryItemsDictionary(c) == dictionary);
}

}  // namespace
}  // namespace zrk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  const std::string first = in.ConsumeRandomLengthString(512);
  const std::string second = in.ConsumeRandomLengthString(512);
  zrk::fuzz::checkParsed(first);
  zrk::fuzz::checkMatching(first, second);
  zrk::fuzz::checkSetters(in);
  return 0;
}
