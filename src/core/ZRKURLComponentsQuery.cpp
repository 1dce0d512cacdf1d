#include "zrk/ZRKURLComponentsQuery.h"
#include "platform/ZRKText.h"

#include <optional>
#include <string>
#include <vector>

namespace zrk {
namespace {

std::optional<std::string> itemValue(const ZRKJson& value) {
  switch (value.type()) {
    case ZRKJson::value_t::null:
      return std::nullopt;
    case ZRKJson::value_t::string:
      return value.get<std::string>();
    case ZRKJson::value_t::boolean:
      return value.get<bool>() ? "true" : "false";
    case ZRKJson::value_t::number_integer:
    case ZRKJson::value_t::number_unsigned:
    case ZRKJson::value_t::number_float:
      return detail::shortestDecimal(value);
    default:
      // Strings inside that are not UTF-8 must not make dump() throw.
      return value.dump(-1, ' ', false, ZRKJson::error_handler_t::replace);
  }
}

bool equalAndPresent(const std::optional<std::string>& a, const std::optional<std::string>& b) {
  return a && b && *a == *b;
}

}  // namespace

ZRKJson zrk_queryItemsDictionary(const ZRKURLComponents& components) {
  ZRKJson dictionary = ZRKJson::object();
  const auto items = components.queryItems();
  if (!items) return dictionary;
  for (const ZRKURLQueryItem& item : *items) {
    if (item.value) {
      dictionary[item.name] = *item.value;
    } else {
      dictionary.erase(item.name);
    }
  }
  return dictionary;
}

void setZrk_queryItemsDictionary(ZRKURLComponents& components, const ZRKJson& dictionary) {
  std::vector<ZRKURLQueryItem> items;
  if (dictionary.is_object()) {
    for (const auto& [name, value] : dictionary.items()) items.push_back({name, itemValue(value)});
  }
  components.setQueryItems(items);
}

bool zrk_matchesURLComponents(const ZRKURLComponents& a, const ZRKURLComponents& b) {
  if (!equalAndPresent(a.scheme(), b.scheme())) return false;
  // Host and path as text, not as escapes: "%41" and "A" name the same resource.
  const auto decoded = [](const std::optional<std::string>& text) {
    return text ? std::optional(detail::percentDecoded(*text)) : std::nullopt;
  };
  if (!equalAndPresent(decoded(a.host()), decoded(b.host()))) return false;
  if (detail::percentDecoded(a.path()) != detail::percentDecoded(b.path())) return false;
  const auto items = a.queryItems();
  if (!items) return true;
  const ZRKJson dictionary = zrk_queryItemsDictionary(b);
  for (const ZRKURLQueryItem& item : *items) {
    // The dictionary holds strings only, which an item without a value never equals.
    const auto found = dictionary.find(item.name);
    if (found == dictionary.end() || item.value != found->get_ref<const std::string&>()) return false;
  }
  return true;
}

void linkNSURLComponentsCategory() {}

}  // namespace zrk
