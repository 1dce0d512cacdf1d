#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "platform/ZRKLanguages.h"
#include "platform/ZRKMessageCatalog.h"
#include "zrk/ZRKLocalizationUtils.h"

namespace zrk {
namespace {

using detail::LocaleEnvironment;
using detail::MessageCatalog;

constexpr const char* kKey = "There was an unexpected error -- try again in a few seconds";

// A catalog in the layout msgfmt writes, in either byte order.
std::string catalogBytes(const std::vector<std::pair<std::string, std::string>>& entries, bool bigEndian = false) {
  std::string out;
  const auto word = [&](std::uint32_t v) {
    for (int k = 0; k < 4; ++k) out += static_cast<char>(bigEndian ? (v >> (24 - 8 * k)) : (v >> (8 * k)));
  };
  const auto count = static_cast<std::uint32_t>(entries.size());
  const std::uint32_t originals = 28;
  const std::uint32_t translations = originals + 8 * count;
  std::uint32_t offset = translations + 8 * count;
  std::string strings;
  std::vector<std::uint32_t> table;
  for (int side = 0; side < 2; ++side) {
    for (const auto& entry : entries) {
      const std::string& text = side == 0 ? entry.first : entry.second;
      table.push_back(static_cast<std::uint32_t>(text.size()));
      table.push_back(offset + static_cast<std::uint32_t>(strings.size()));
      strings += text;
      strings += '\0';
    }
  }
  for (std::uint32_t v : {0x950412deu, 0u, count, originals, translations, 0u, 0u}) word(v);
  for (auto v : table) word(v);
  return out + strings;
}

TEST(MessageCatalog, ReadsBothByteOrders) {
  const std::vector<std::pair<std::string, std::string>> entries = {
      {"", "Content-Type: text/plain; charset=UTF-8\n"}, {"a", "Ä"}, {std::string("one\0many", 8), std::string("eins\0viele", 10)}};
  for (bool bigEndian : {false, true}) {
    const auto catalog = MessageCatalog::parse(catalogBytes(entries, bigEndian));
    ASSERT_TRUE(catalog);
    EXPECT_EQ(catalog->size(), 2u);
    ASSERT_TRUE(catalog->find("a"));
    EXPECT_EQ(*catalog->find("a"), "Ä");
    ASSERT_TRUE(catalog->find("one"));
    EXPECT_EQ(*catalog->find("one"), "eins");
    EXPECT_FALSE(catalog->find(""));
    EXPECT_FALSE(catalog->find("b"));
  }
}

TEST(MessageCatalog, RefusesWhatIsNoCatalogAndSkipsBrokenEntries) {
  EXPECT_FALSE(MessageCatalog::parse(""));
  EXPECT_FALSE(MessageCatalog::parse(std::string(27, '\0')));
  EXPECT_FALSE(MessageCatalog::parse(std::string(64, 'x')));
  std::string later = catalogBytes({{"a", "b"}});
  later[6] = 1;  // major revision 1
  EXPECT_FALSE(MessageCatalog::parse(later));
  std::string boastful = catalogBytes({{"a", "b"}});
  boastful[8] = '\xff';  // more entries than the file could hold
  boastful[11] = '\x7f';
  EXPECT_FALSE(MessageCatalog::parse(boastful));

  std::string outside = catalogBytes({{"a", "b"}, {"c", "d"}});
  outside[28 + 8 + 4] = '\xf0';  // the second message id points past the end
  const auto partial = MessageCatalog::parse(outside);
  ASSERT_TRUE(partial);
  EXPECT_TRUE(partial->find("a"));
  EXPECT_EQ(partial->size(), 1u);

  const auto notText = MessageCatalog::parse(catalogBytes({{"a", "\xC3\x28"}, {"b", "ok"}}));
  ASSERT_TRUE(notText);
  EXPECT_FALSE(notText->find("a"));
  EXPECT_TRUE(notText->find("b"));

  // Every truncation of a good catalog is read without harm.
  const std::string good = catalogBytes({{"a", "b"}, {"key", "value"}});
  for (std::size_t n = 0; n < good.size(); ++n) (void)MessageCatalog::parse(good.substr(0, n));
  EXPECT_FALSE(MessageCatalog::load("/nonexistent/zrkapi.mo"));
}

TEST(Languages, ReadAsGettextReadsThem) {
  const auto languages = [](LocaleEnvironment environment) { return detail::userLanguages(environment); };
  using List = std::vector<std::string>;
  EXPECT_EQ(languages({}), List{"en"});
  EXPECT_EQ(languages({.lang = "de_AT.UTF-8@euro"}), List{"de_AT"});
  EXPECT_EQ(languages({.lcMessages = "fr_FR", .lang = "de_DE"}), List{"fr_FR"});
  EXPECT_EQ(languages({.lcAll = "es", .lcMessages = "fr_FR", .lang = "de_DE"}), List{"es"});
  EXPECT_EQ(languages({.language = "pt_BR:de::C", .lcAll = "es"}), (List{"pt_BR", "de", "en"}));
  EXPECT_EQ(languages({.language = "", .lcAll = "", .lang = "POSIX"}), List{"en"});
  EXPECT_EQ(languages({.language = ":", .lang = "C.UTF-8"}), List{"en"});
  EXPECT_EQ(detail::languageCode("pt_BR"), "pt");
}

TEST(Languages, ADirectoryOffersTheUsersLanguagesItHasCatalogsFor) {
  const std::string shipped = std::string(ZRK_LOCALE_PROBE).substr(0, std::string(ZRK_LOCALE_PROBE).rfind('/')) +
                              "/ZRKApi.bundle";
  using List = std::vector<std::string>;
  const auto offered = [&](List languages) { return detail::directoryBundle(shipped, languages)->preferredLocalizations(); };
  EXPECT_EQ(offered({"pt_BR", "de_AT", "fr", "de"}), (List{"de", "fr"}));
  EXPECT_EQ(offered({"pt_BR"}), List{"en"});
  EXPECT_EQ(offered({"en_GB", "ja"}), (List{"en", "ja"}));
  EXPECT_EQ(detail::directoryBundle(shipped, {"de_CH"})->localizedStringForKey(kKey),
            "Ein unerwarteter Fehler ist aufgetreten – bitte versuchen Sie es in ein paar Sekunden erneut");
  EXPECT_EQ(detail::directoryBundle(shipped, {"en"})->localizedStringForKey(kKey), kKey);
  EXPECT_EQ(detail::directoryBundle(shipped, {"de"})->localizedStringForKey("Not a known text"), "Not a known text");
  EXPECT_EQ(detail::directoryBundle(shipped + "/missing", {"de"}), nullptr);
  EXPECT_EQ(detail::mainBundle({"de_AT", "de", "fr"})->preferredLocalizations(), (List{"de", "fr"}));
}

// What a fresh process prints: its generic error text and where it found
// the catalogs.
struct Probe {
  std::string text;
  std::string bundle;
};

Probe probe(const std::string& environment, const std::string& directory = ".", const std::string& arguments = "") {
  const std::string command =
      "cd '" + directory + "' && env -i " + environment + " '" + ZRK_LOCALE_PROBE + "' " + arguments;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return {};
  std::string output;
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, pipe)) output += buffer;
  EXPECT_EQ(::pclose(pipe), 0) << command;
  const std::size_t newline = output.find('\n');
  if (newline == std::string::npos) return {output, ""};
  std::string bundle = output.substr(newline + 1);
  if (!bundle.empty() && bundle.back() == '\n') bundle.pop_back();
  return {output.substr(0, newline), bundle};
}

TEST(Localization, ShippedLanguagesTranslateTheGenericText) {
  EXPECT_EQ(probe("LANG=de_DE.UTF-8").text,
            "Ein unerwarteter Fehler ist aufgetreten – bitte versuchen Sie es in ein paar Sekunden erneut");
  EXPECT_EQ(probe("LANG=de_DE LC_ALL=fr_FR.UTF-8").text,
            "Une erreur inattendue s'est produite – réessayez dans quelques secondes");
  EXPECT_EQ(probe("LANGUAGE=es:de LC_ALL=fr_FR").text,
            "Se ha producido un error inesperado: inténtalo de nuevo en unos segundos");
  const Probe japanese = probe("LC_MESSAGES=ja_JP.UTF-8");
  EXPECT_EQ(japanese.text, "予期しないエラーが発生しました。数秒後にもう一度お試しください");
  EXPECT_TRUE(japanese.bundle.ends_with("/ZRKApi.bundle")) << japanese.bundle;
}

TEST(Localization, OtherLanguagesGetTheEnglishKey) {
  // With "pt:de" the user's first language is not one the library speaks,
  // so the library does not answer in its second either.
  for (const char* environment : {"", "LANG=C.UTF-8", "LANG=en_US.UTF-8", "LANG=pt_BR.UTF-8", "LANGUAGE=pt:de"}) {
    EXPECT_EQ(probe(environment).text, kKey) << environment;
  }
}

TEST(Localization, TheApplicationsCatalogServesLanguagesTheLibraryLacks) {
  const std::string catalogs = std::string(ZRK_LOCALE_FIXTURES) + "/application";
  EXPECT_EQ(probe("LANGUAGE=pt", ".", "--app-catalog '" + catalogs + "'").text, "Texto da aplicação");
  // Where both speak the user's language, the library's own text wins.
  EXPECT_EQ(probe("LANGUAGE=de:pt", ".", "--app-catalog '" + catalogs + "'").text.substr(0, 3), "Ein");
}

TEST(Localization, TheWorkingDirectoryComesFirst) {
  const Probe found = probe("LANG=de_DE.UTF-8", std::string(ZRK_LOCALE_FIXTURES) + "/working-directory");
  EXPECT_EQ(found.text, "Aus dem Arbeitsverzeichnis");
  EXPECT_EQ(found.bundle, "ZRKResource.bundle");
  // A file that is no catalog is found but gives no translation.
  const Probe broken = probe("LANG=de_DE.UTF-8", std::string(ZRK_LOCALE_FIXTURES) + "/broken");
  EXPECT_EQ(broken.text, kKey);
  EXPECT_EQ(broken.bundle, "ZRKResource.bundle");
}

TEST(Localization, EveryShippedCatalogTranslatesEveryText) {
  // Keeps po/ complete: a text added to the template must reach each language.
  std::ifstream pot(std::string(ZRK_SOURCE_DIR) + "/po/zrkapi.pot");
  std::vector<std::string> ids;
  for (std::string line; std::getline(pot, line);) {
    if (line.starts_with("msgid \"") && line != "msgid \"\"") ids.push_back(line.substr(7, line.size() - 8));
  }
  ASSERT_FALSE(ids.empty());
  const std::string shipped = std::string(ZRK_LOCALE_PROBE).substr(0, std::string(ZRK_LOCALE_PROBE).rfind('/')) +
                              "/ZRKApi.bundle";
  int languages = 0;
  for (const auto& entry : std::filesystem::directory_iterator(shipped)) {
    ++languages;
    const auto catalog = MessageCatalog::load(entry.path().string() + "/LC_MESSAGES/zrkapi.mo");
    ASSERT_TRUE(catalog) << entry.path();
    for (const auto& id : ids) EXPECT_TRUE(catalog->find(id)) << entry.path() << ": " << id;
  }
  EXPECT_GE(languages, 3);
}

}  // namespace
}  // namespace zrk
