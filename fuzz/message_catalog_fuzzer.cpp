// The reader of compiled message catalogs.
//
// Input: the bytes of a catalog file.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "platform/ZRKMessageCatalog.h"

namespace {

// The file's own view of itself, read independently of the reader under test.
struct Table {
  std::string_view bytes;
  bool swapped = false;

  std::optional<std::uint32_t> word(std::uint64_t offset) const {
    if (offset + 4 > bytes.size()) return std::nullopt;
    std::uint32_t v = 0;
    for (int k = 0; k < 4; ++k) {
      const auto byte = static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[offset + k]));
      v |= swapped ? byte << (8 * (3 - k)) : byte << (8 * k);
    }
    return v;
  }

  std::optional<std::string_view> string(std::uint64_t entry) const {
    const auto length = word(entry), offset = word(entry + 4);
    if (!length || !offset || std::uint64_t{*offset} + *length > bytes.size()) return std::nullopt;
    const std::string_view text = bytes.substr(*offset, *length);
    return text.substr(0, text.find('\0'));
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zrk;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const auto catalog = detail::MessageCatalog::parse(bytes);
  if (!catalog) return 0;

  Table table{bytes, bytes.size() >= 4 && static_cast<unsigned char>(bytes[0]) == 0x95};
  const std::uint32_t count = *table.word(8);
  const std::uint32_t originals = *table.word(12), translations = *table.word(16);
  ZRK_FUZZ_CHECK(catalog->size() <= count);

  // Every message the file holds in bounds, with a well-formed translation,
  // is found; whatever is found is text.
  for (std::uint64_t i = 0; i < count; ++i) {
    const auto key = table.string(originals + 8 * i);
    const auto value = table.string(translations + 8 * i);
    if (!key) continue;
    const std::string* found = catalog->find(*key);
    if (found) ZRK_FUZZ_CHECK(!found->empty() && fuzz::isUTF8(*found) && found->find('\0') == std::string::npos);
    if (value && !key->empty() && !value->empty() && fuzz::isUTF8(*value)) ZRK_FUZZ_CHECK(found);
    if (key->empty()) ZRK_FUZZ_CHECK(!found);
  }
  return 0;
}
