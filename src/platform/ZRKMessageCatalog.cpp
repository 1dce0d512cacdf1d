#include "platform/ZRKMessageCatalog.h"

#include <cstdint>
#include <fstream>
#include <iterator>

#include "platform/ZRKText.h"

namespace zrk::detail {
namespace {

constexpr std::uint32_t kMagic = 0x950412de;
constexpr std::uint32_t kSwappedMagic = 0xde120495;
constexpr std::size_t kHeaderSize = 28;
constexpr std::size_t kMaximumFileSize = 16 << 20;

std::uint32_t swap(std::uint32_t v) {
  return (v >> 24) | ((v >> 8) & 0xFF00) | ((v << 8) & 0xFF0000) | (v << 24);
}

class Reader {
 public:
  Reader(std::string_view bytes, bool swapped) : bytes_(bytes), swapped_(swapped) {}

  std::optional<std::uint32_t> word(std::size_t offset) const {
    if (offset > bytes_.size() || bytes_.size() - offset < 4) return std::nullopt;
    std::uint32_t v = 0;
    for (int k = 3; k >= 0; --k) v = (v << 8) | static_cast<unsigned char>(bytes_[offset + k]);
    return swapped_ ? swap(v) : v;
  }

  // The string described by the (length, offset) entry at the given place,
  // up to its first NUL; nullopt when it does not lie inside the file.
  std::optional<std::string_view> string(std::size_t entry) const {
    const auto length = word(entry);
    const auto offset = word(entry + 4);
    if (!length || !offset) return std::nullopt;
    if (*offset > bytes_.size() || bytes_.size() - *offset < std::size_t{*length}) return std::nullopt;
    std::string_view text = bytes_.substr(*offset, *length);
    return text.substr(0, text.find('\0'));
  }

 private:
  std::string_view bytes_;
  bool swapped_;
};

}  // namespace

std::optional<MessageCatalog> MessageCatalog::parse(std::string_view bytes) {
  if (bytes.size() < kHeaderSize) return std::nullopt;
  const std::uint32_t magic = Reader(bytes, false).word(0).value_or(0);
  if (magic != kMagic && magic != kSwappedMagic) return std::nullopt;
  const Reader reader(bytes, magic == kSwappedMagic);
  // Only major revision 0 is defined; a later one may change the layout.
  if ((*reader.word(4) >> 16) != 0) return std::nullopt;
  const std::size_t count = *reader.word(8);
  const std::size_t originals = *reader.word(12);
  const std::size_t translations = *reader.word(16);
  // Each entry takes eight bytes, so a count the file cannot hold is a lie.
  if (count > bytes.size() / 8) return std::nullopt;

  MessageCatalog catalog;
  for (std::size_t i = 0; i < count; ++i) {
    const auto key = reader.string(originals + 8 * i);
    const auto value = reader.string(translations + 8 * i);
    // The entry with the empty id is the catalog's own header, no message.
    if (!key || !value || key->empty() || value->empty() || !isValidUTF8(*value)) continue;
    catalog.translations_.emplace(std::string(*key), std::string(*value));
  }
  return catalog;
}

std::optional<MessageCatalog> MessageCatalog::load(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string bytes;
  char buffer[8192];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    bytes.append(buffer, static_cast<std::size_t>(in.gcount()));
    if (bytes.size() > kMaximumFileSize) return std::nullopt;
  }
  return parse(bytes);
}

const std::string* MessageCatalog::find(std::string_view key) const {
  const auto found = translations_.find(key);
  return found == translations_.end() ? nullptr : &found->second;
}

}  // namespace zrk::detail
