// Reader of GNU gettext's compiled message catalogs (.mo files).
//
// The library reads its catalogs itself rather than through libintl, whose
// choice of language depends on the process's setlocale() state: a library
// must not change that state, and in the default "C" locale libintl
// translates nothing.
#ifndef ZRK_PLATFORM_ZRKMESSAGECATALOG_H
#define ZRK_PLATFORM_ZRKMESSAGECATALOG_H

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace zrk::detail {

class MessageCatalog {
 public:
  // nullopt when the bytes are no catalog. Entries that point outside the
  // file, and translations that are not UTF-8, are skipped; plural and
  // context entries are read by their first message id.
  static std::optional<MessageCatalog> parse(std::string_view bytes);
  // nullopt when the file cannot be read, is larger than 16 MiB, or is no catalog.
  static std::optional<MessageCatalog> load(const std::string& path);

  // The translation, or nullptr when there is none.
  const std::string* find(std::string_view key) const;
  std::size_t size() const { return translations_.size(); }

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
  };
  std::unordered_map<std::string, std::string, Hash, std::equal_to<>> translations_;
};

}  // namespace zrk::detail

#endif  // ZRK_PLATFORM_ZRKMESSAGECATALOG_H
