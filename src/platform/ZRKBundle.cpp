#include "zrk/ZRKBundle.h"

#include <libintl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "platform/ZRKLanguages.h"
#include "platform/ZRKMessageCatalog.h"
#include "platform/ZRKText.h"

namespace zrk {
namespace detail {
namespace {

bool isDirectory(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool isFile(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

const char* nonEmpty(const char* value) { return value && *value ? value : nullptr; }

// "de_AT.UTF-8@euro" gives "de_AT"; C and POSIX give "en".
std::string normalized(std::string name) {
  name = name.substr(0, name.find_first_of(".@"));
  if (name.empty() || name == "C" || name == "POSIX") return "en";
  return name;
}

}  // namespace

LocaleEnvironment LocaleEnvironment::current() {
  return {std::getenv("LANGUAGE"), std::getenv("LC_ALL"), std::getenv("LC_MESSAGES"), std::getenv("LANG")};
}

std::vector<std::string> userLanguages(const LocaleEnvironment& environment) {
  std::vector<std::string> languages;
  if (const char* list = nonEmpty(environment.language)) {
    const std::string_view text(list);
    for (std::size_t start = 0; start <= text.size();) {
      const std::size_t end = std::min(text.find(':', start), text.size());
      if (end > start) languages.push_back(normalized(std::string(text.substr(start, end - start))));
      start = end + 1;
    }
  }
  if (languages.empty()) {
    const char* single = nonEmpty(environment.lcAll);
    if (!single) single = nonEmpty(environment.lcMessages);
    if (!single) single = nonEmpty(environment.lang);
    languages.push_back(normalized(single ? single : "C"));
  }
  return languages;
}

std::string languageCode(const std::string& locale) { return locale.substr(0, locale.find('_')); }

std::shared_ptr<const ZRKBundle> directoryBundle(std::string path, const std::vector<std::string>& languages) {
  if (!isDirectory(path)) return nullptr;
  const auto catalogPath = [&path](const std::string& locale) {
    return path + "/" + locale + "/LC_MESSAGES/" + kTextDomain + ".mo";
  };
  std::vector<std::string> preferred;
  std::string firstCatalog;
  for (const auto& locale : languages) {
    const std::string code = languageCode(locale);
    std::string catalog;
    if (isFile(catalogPath(locale))) {
      catalog = catalogPath(locale);
    } else if (isFile(catalogPath(code))) {
      catalog = catalogPath(code);
    } else if (code != "en") {
      continue;
    }
    if (std::find(preferred.begin(), preferred.end(), code) != preferred.end()) continue;
    if (preferred.empty()) firstCatalog = catalog;
    preferred.push_back(code);
  }
  if (preferred.empty()) preferred.push_back("en");
  std::shared_ptr<const MessageCatalog> catalog;
  if (!firstCatalog.empty()) {
    if (auto loaded = MessageCatalog::load(firstCatalog)) catalog = std::make_shared<MessageCatalog>(std::move(*loaded));
  }
  return std::make_shared<ZRKBundle>(std::move(path), std::move(preferred), std::move(catalog));
}

std::shared_ptr<const ZRKBundle> mainBundle(const std::vector<std::string>& languages) {
  std::vector<std::string> preferred;
  for (const auto& locale : languages) {
    std::string code = languageCode(locale);
    if (std::find(preferred.begin(), preferred.end(), code) == preferred.end()) preferred.push_back(std::move(code));
  }
  return std::make_shared<ZRKBundle>(std::string(), std::move(preferred), nullptr);
}

}  // namespace detail

ZRKBundle::ZRKBundle(std::string path, std::vector<std::string> preferredLocalizations,
                     std::shared_ptr<const detail::MessageCatalog> catalog)
    : path_(std::move(path)), preferredLocalizations_(std::move(preferredLocalizations)), catalog_(std::move(catalog)) {}

std::shared_ptr<const ZRKBundle> ZRKBundle::mainBundle() {
  static const auto bundle = detail::mainBundle(detail::userLanguages(detail::LocaleEnvironment::current()));
  return bundle;
}

std::shared_ptr<const ZRKBundle> ZRKBundle::bundleWithPath(std::string_view path) {
  if (path.empty()) return nullptr;
  return detail::directoryBundle(std::string(path), detail::userLanguages(detail::LocaleEnvironment::current()));
}

std::string ZRKBundle::localizedStringForKey(std::string_view key) const {
  if (isMainBundle()) {
    // The application's own catalogs, in whatever language its locale
    // setting picks; a text that is not UTF-8 could not travel in an error.
    const std::string id(key);
    const char* text = ::gettext(id.c_str());
    if (text && detail::isValidUTF8(text)) return text;
    return id;
  }
  if (catalog_) {
    if (const std::string* text = catalog_->find(key)) return *text;
  }
  return std::string(key);
}

}  // namespace zrk
