// The query and form encoder over parameter trees.
//
// Input: the parameters as JSON text; an object is encoded as a query and a
// form, a string is escaped and camel-cased.
#include <algorithm>
#include <cmath>
#include <map>
#include <vector>

#include "FuzzCheck.h"
#include "zrk/ZRKFormEncoder.h"
#include "zrk/ZRKRequestBodies.h"

namespace zrk::fuzz {

std::string percentDecoded(std::string_view text) {
  constexpr std::string_view hex = "0123456789ABCDEF";  // the encoder writes upper-case escapes only
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    ZRK_FUZZ_CHECK(i + 2 < text.size() && hex.find(text[i + 1]) < 16 && hex.find(text[i + 2]) < 16);
    out += static_cast<char>(hex.find(text[i + 1]) * 16 + hex.find(text[i + 2]));
    i += 2;
  }
  return out;
}

bool isEscapedByte(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("-._~/?%").find(static_cast<char>(c)) != std::string_view::npos;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (std::size_t end; (end = text.find(separator)) != std::string_view::npos; text.remove_prefix(end + 1)) {
    parts.push_back(text.substr(0, end));
  }
  parts.push_back(text);
  return parts;
}

// Every leaf of the tree by its path of keys and array indices.
using Leaves = std::map<std::vector<std::string>, const ZRKJson*>;

void collect(const ZRKJson& node, std::vector<std::string>& path, Leaves& leaves) {
  if (!node.is_structured()) {
    leaves.emplace(path, &node);
    return;
  }
  for (const auto& item : node.items()) {
    path.push_back(item.key());
    collect(item.value(), path, leaves);
    path.pop_back();
  }
}

// One "field[key][0]=value" names a leaf not named before and holds its
// text: a boolean as a word, a number as its value.
void checkPair(Leaves& leaves, std::string_view pair) {
  const auto sides = split(pair, '=');
  ZRK_FUZZ_CHECK(sides.size() == 2);
  std::vector<std::string> path;
  for (std::string_view segment : split(sides[0], '[')) {
    ZRK_FUZZ_CHECK(path.empty() || segment.ends_with(']'));
    path.push_back(percentDecoded(path.empty() ? segment : segment.substr(0, segment.size() - 1)));
  }
  const auto found = leaves.find(path);
  ZRK_FUZZ_CHECK(found != leaves.end());
  const ZRKJson& leaf = *found->second;
  const std::string text = percentDecoded(sides[1]);
  if (!leaf.is_number_float()) {
    ZRK_FUZZ_CHECK(text == (leaf.is_null() ? "" : leaf.is_string() ? leaf.get<std::string>() : leaf.dump()));
  } else if (std::isfinite(leaf.get<double>())) {
    ZRK_FUZZ_CHECK(std::strtod(text.c_str(), nullptr) == leaf.get<double>());
  }
  leaves.erase(found);
}

void checkQuery(const ZRKJson& parameters) {
  const std::string query = ZRKQueryStringFromParameters(parameters);
  for (unsigned char c : query) ZRK_FUZZ_CHECK(isEscapedByte(c) || std::string_view("=&[]").find(c) < 4);
  Leaves leaves;
  std::vector<std::string> path;
  collect(parameters, path, leaves);
  if (!query.empty()) {
    for (std::string_view pair : split(query, '&')) checkPair(leaves, pair);
  }
  ZRK_FUZZ_CHECK(leaves.empty());

  ZRKURLRequest request(ZRKURL::URLWithString("http://127.0.0.1/form"));
  zrk_setFormPayload(request, parameters);
  ZRK_FUZZ_CHECK(request.HTTPBody() == query);
  ZRK_FUZZ_CHECK(request.valueForHTTPHeaderField("Content-Length") == std::to_string(query.size()));
  // The query goes onto a URL unchanged, after the query it may have, and
  // the URL stays one.
  zrk_addParametersToURL(request, parameters);
  ZRK_FUZZ_CHECK(request.URL() && request.URL()->absoluteString() == "http://127.0.0.1/form?" + query);
  if (query.empty()) return;
  zrk_addParametersToURL(request, parameters);
  ZRK_FUZZ_CHECK(request.URL() && request.URL()->absoluteString() == "http://127.0.0.1/form?" + query + "&" + query);
}

void checkEscaping(const std::string& text) {
  const std::string escaped = ZRKPercentEscapedStringFromString(text);
  ZRK_FUZZ_CHECK(percentDecoded(escaped) == text && std::all_of(escaped.begin(), escaped.end(), isEscapedByte));
  const std::string camel = ZRKFormEncoder::stringByReplacingSnakeCaseWithCamelCase(text);
  ZRK_FUZZ_CHECK(camel.find('_') == std::string::npos);
  if (std::all_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x80; })) {
    ZRK_FUZZ_CHECK(camel.size() == text.size() - std::count(text.begin(), text.end(), '_'));
  }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = asString(data, size);
  // Parameters come from the application, not the network: a few levels deep.
  if (std::count(text.begin(), text.end(), '[') + std::count(text.begin(), text.end(), '{') > 16) return 0;
  const ZRKJson parameters = ZRKJson::parse(text, nullptr, false);
  if (parameters.is_object()) checkQuery(parameters);
  if (parameters.is_string()) checkEscaping(parameters.get<std::string>());
  // Anything else encodes as nothing.
  if (!parameters.is_object()) ZRK_FUZZ_CHECK(ZRKQueryStringFromParameters(parameters).empty());
  return 0;
}

}  // namespace zrk::fuzz
