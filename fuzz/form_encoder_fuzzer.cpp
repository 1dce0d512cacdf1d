// The query and form encoder over parameter trees built from the input.
//
// Input: a small program read with FuzzedDataProvider. Each value starts
// with a kind byte (modulo 8): 0 null, 1 boolean, 2 signed integer,
// 3 unsigned integer, 4 double, 5 string, 6 array, 7 object. Strings and
// keys are raw bytes (not necessarily UTF-8) ended by "\" and one other
// byte. Containers hold a count byte's worth of values, keys first.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzCheck.h"
#include "zrk/ZRKFormEncoder.h"
#include "zrk/ZRKRequestBodies.h"

namespace zrk::fuzz {
namespace {

constexpr int kMaximumDepth = 6;

ZRKJson value(FuzzedDataProvider& in, int depth) {
  const int kind = in.ConsumeIntegral<std::uint8_t>() % 8;
  switch (kind) {
    case 0:
      return nullptr;
    case 1:
      return in.ConsumeBool();
    case 2:
      return in.ConsumeIntegral<std::int64_t>();
    case 3:
      return in.ConsumeIntegral<std::uint64_t>();
    case 4:
      return in.ConsumeFloatingPoint<double>();
    case 5:
      return in.ConsumeRandomLengthString(64);
    default:
      break;
  }
  const int count = depth >= kMaximumDepth ? 0 : in.ConsumeIntegralInRange(0, 5);
  if (kind == 6) {
    ZRKJson array = ZRKJson::array();
    for (int i = 0; i < count && in.remaining_bytes() > 0; ++i) array.push_back(value(in, depth + 1));
    return array;
  }
  ZRKJson object = ZRKJson::object();
  for (int i = 0; i < count && in.remaining_bytes() > 0; ++i) {
    std::string key = in.ConsumeRandomLengthString(32);
    object[key] = value(in, depth + 1);
  }
  return object;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;  // the encoder writes upper-case escapes only
}

std::string percentDecoded(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%') {
      ZRK_FUZZ_CHECK(i + 2 < text.size() && hexDigit(text[i + 1]) >= 0 && hexDigit(text[i + 2]) >= 0);
      out += static_cast<char>(hexDigit(text[i + 1]) * 16 + hexDigit(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

bool isQueryByte(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("-._~/?%=&[]").find(static_cast<char>(c)) != std::string_view::npos;
}

std::size_t leaves(const ZRKJson& value) {
  if (!value.is_structured()) return 1;
  std::size_t count = 0;
  for (const auto& element : value) count += leaves(element);
  return count;
}

// What a leaf reads as once decoded.
void checkLeafText(const ZRKJson& leaf, const std::string& text) {
  if (leaf.is_null()) {
    ZRK_FUZZ_CHECK(text.empty());
  } else if (leaf.is_boolean()) {
    ZRK_FUZZ_CHECK(text == (leaf.get<bool>() ? "true" : "false"));
  } else if (leaf.is_string()) {
    ZRK_FUZZ_CHECK(text == leaf.get_ref<const std::string&>());
  } else if (leaf.is_number_unsigned()) {
    ZRK_FUZZ_CHECK(text == std::to_string(leaf.get<std::uint64_t>()));
  } else if (leaf.is_number_integer()) {
    ZRK_FUZZ_CHECK(text == std::to_string(leaf.get<std::int64_t>()));
  } else if (std::isfinite(leaf.get<double>())) {
    ZRK_FUZZ_CHECK(std::strtod(text.c_str(), nullptr) == leaf.get<double>());
  }
}

// One "field=value" of the query leads through the tree to the leaf it names.
void checkPair(const ZRKJson& parameters, std::string_view pair) {
  const std::size_t equals = pair.find('=');
  ZRK_FUZZ_CHECK(equals != std::string_view::npos);
  const std::string_view field = pair.substr(0, equals);
  const std::string_view valueText = pair.substr(equals + 1);
  ZRK_FUZZ_CHECK(valueText.find('=') == std::string_view::npos);

  std::size_t open = field.find('[');
  const ZRKJson* node = &parameters.at(percentDecoded(field.substr(0, open)));
  while (open != std::string_view::npos) {
    const std::size_t close = field.find(']', open);
    ZRK_FUZZ_CHECK(close != std::string_view::npos);
    const std::string segment = percentDecoded(field.substr(open + 1, close - open - 1));
    if (node->is_array()) {
      node = &node->at(std::stoul(segment));
    } else {
      ZRK_FUZZ_CHECK(node->is_object());
      node = &node->at(segment);
    }
    open = close + 1 == field.size() ? std::string_view::npos : close + 1;
    if (open != std::string_view::npos) ZRK_FUZZ_CHECK(field[open] == '[');
  }
  ZRK_FUZZ_CHECK(!node->is_structured());
  checkLeafText(*node, percentDecoded(valueText));
}

void checkQuery(const ZRKJson& parameters) {
  const std::string query = ZRKQueryStringFromParameters(parameters);
  if (!parameters.is_object()) {
    ZRK_FUZZ_CHECK(query.empty());
    return;
  }
  for (unsigned char c : query) ZRK_FUZZ_CHECK(isQueryByte(c));

  std::size_t pairs = 0;
  if (!query.empty()) {
    std::size_t start = 0;
    while (true) {
      const std::size_t end = std::min(query.find('&', start), query.size());
      checkPair(parameters, std::string_view(query).substr(start, end - start));
      ++pairs;
      if (end == query.size()) break;
      start = end + 1;
    }
  }
  ZRK_FUZZ_CHECK(pairs == leaves(parameters) || (pairs == 0 && leaves(parameters) == 0));

  ZRKURLRequest request(ZRKURL::URLWithString("http://127.0.0.1/form"));
  zrk_setFormPayload(request, parameters);
  ZRK_FUZZ_CHECK(request.HTTPBody() == query);
  ZRK_FUZZ_CHECK(request.valueForHTTPHeaderField("Content-Length") == std::to_string(query.size()));

  // The query goes onto a URL unchanged, and the URL stays one.
  zrk_addParametersToURL(request, parameters);
  ZRK_FUZZ_CHECK(request.URL() && request.URL()->absoluteString() == "http://127.0.0.1/form?" + query);
}

void checkEscaping(const std::string& text) {
  const std::string escaped = ZRKPercentEscapedStringFromString(text);
  ZRK_FUZZ_CHECK(!hasLineBreak(escaped));
  ZRK_FUZZ_CHECK(percentDecoded(escaped) == text);
  for (unsigned char c : escaped) ZRK_FUZZ_CHECK(isQueryByte(c) && c != '&' && c != '=' && c != '[' && c != ']');

  const std::string camel = ZRKFormEncoder::stringByReplacingSnakeCaseWithCamelCase(text);
  ZRK_FUZZ_CHECK(camel.find('_') == std::string::npos);
  bool ascii = true;
  for (unsigned char c : text) ascii = ascii && c < 0x80;
  if (ascii) {
    std::size_t underscores = 0;
    for (char c : text) underscores += c == '_';
    ZRK_FUZZ_CHECK(camel.size() == text.size() - underscores);
  }
}

}  // namespace
}  // namespace zrk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  const zrk::ZRKJson parameters = zrk::fuzz::value(in, 0);
  zrk::fuzz::checkQuery(parameters);
  if (parameters.is_string()) zrk::fuzz::checkEscaping(parameters.get<std::string>());
  return 0;
}
