// The reader of compiled message catalogs.
//
// Input: the bytes of a catalog file.
#include "FuzzCheck.h"
#include "platform/ZRKMessageCatalog.h"

namespace zrk::fuzz {

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const auto catalog = detail::MessageCatalog::parse(bytes);
  if (!catalog) return 0;

  // The file's own view of itself, read independently of the reader under test.
  const bool swapped = static_cast<unsigned char>(bytes[0]) == 0x95;
  const auto word = [&](std::uint64_t offset) -> std::optional<std::uint32_t> {
    if (offset + 4 > size) return std::nullopt;
    std::uint32_t v = 0;
    for (int k = 0; k < 4; ++k) v |= std::uint32_t{data[offset + k]} << (8 * (swapped ? 3 - k : k));
    return v;
  };
  const auto string = [&](std::uint64_t entry) -> std::optional<std::string_view> {
    const auto length = word(entry), offset = word(entry + 4);
    if (!length || !offset || std::uint64_t{*offset} + *length > size) return std::nullopt;
    const std::string_view text = bytes.substr(*offset, *length);
    return text.substr(0, text.find('\0'));
  };
  const std::uint32_t count = *word(8), originals = *word(12), translations = *word(16);
  ZRK_FUZZ_CHECK(catalog->size() <= count);

  // Every message the file holds in bounds, with a well-formed translation,
  // is found; whatever is found is text.
  for (std::uint64_t i = 0; i < count; ++i) {
    const auto key = string(originals + 8 * i), value = string(translations + 8 * i);
    if (!key) continue;
    const std::string* found = catalog->find(*key);
    if (found) ZRK_FUZZ_CHECK(!found->empty() && isUTF8({*found}) && found->find('\0') == std::string::npos);
    if (value && !key->empty() && !value->empty() && isUTF8({std::string(*value)})) ZRK_FUZZ_CHECK(found);
    if (key->empty()) ZRK_FUZZ_CHECK(!found);
  }
  return 0;
}

}  // namespace zrk::fuzz
