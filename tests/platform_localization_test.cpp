#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "platform/ZRKLanguages.h"
#include "platform/ZRKMessageCatalog.h"

namespace zrk {
namespace {

using detail::MessageCatalog;
using List = std::vector<std::string>;

constexpr const char* kKey = "There was an unexpected error -- try again in a few seconds";
constexpr const char* kGerman =
    "Ein unerwarteter Fehler ist aufgetreten – bitte versuchen Sie es in ein paar Sekunden erneut";
const std::string kShipped = std::filesystem::path(ZRK_LOCALE_PROBE).parent_path().string() + "/ZRKApi.bundle";

// A catalog in the layout msgfmt writes on this (little-endian) machine.
std::string catalogBytes(const std::vector<std::pair<std::string, std::string>>& entries) {
  const auto n = static_cast<std::uint32_t>(entries.size());
  std::vector<std::uint32_t> words = {0x950412de, 0, n, 28, 28 + 8 * n, 0, 0};
  std::string strings;
  for (int side = 0; side < 2; ++side)
    for (const auto& [id, text] : entries) {
      const std::string& s = side ? text : id;
      words.insert(words.end(), {std::uint32_t(s.size()), std::uint32_t(28 + 16 * n + strings.size())});
      strings += s + '\0';
    }
  return std::string(reinterpret_cast<const char*>(words.data()), words.size() * 4) + strings;
}

TEST(MessageCatalog, ReadsBothByteOrdersAndSkipsTheHeaderAndBrokenEntries) {
  std::string little = catalogBytes({{"", "Content-Type: text/plain; charset=UTF-8\n"}, {"a", "Ä"}, {"e", "\xC3\x28"},
                                     {std::string("one\0many", 8), std::string("eins\0viele", 10)}, {"c", "d"}});
  little[28 + 4 * 8 + 5] = '\x7f';  // the last message id points past the end
  std::string big = little;  // as a big-endian machine writes it: each word of the header and tables reversed
  for (std::size_t i = 0; i < 28 + 16 * 5; i += 4) std::reverse(big.begin() + i, big.begin() + i + 4);
  for (const std::string& bytes : {little, big}) {
    const auto catalog = MessageCatalog::parse(bytes);
    ASSERT_EQ(catalog ? catalog->size() : 0, 2u);  // no header, nothing that is not UTF-8 or not there
    EXPECT_EQ(catalog->find("a") ? *catalog->find("a") : "", "Ä");
    EXPECT_EQ(catalog->find("one") ? *catalog->find("one") : "", "eins");  // the singular of a plural entry
  }
  std::string later = catalogBytes({{"a", "b"}}), boastful = later;
  later[6] = 1;     // major revision 1
  boastful[9] = 3;  // more entries than the file could hold
  for (const std::string& bad : {std::string(27, '\0'), std::string(64, 'x'), later, boastful})
    EXPECT_FALSE(MessageCatalog::parse(bad));
}

TEST(Languages, AreReadAsGettextReadsThemAndOfferedWhereACatalogExists) {
  const auto languages = [](detail::LocaleEnvironment environment) { return detail::userLanguages(environment); };
  EXPECT_EQ(languages({}), List{"en"});
  EXPECT_EQ(languages({.lang = "de_AT.UTF-8@euro"}), List{"de_AT"});
  EXPECT_EQ(languages({.lang = "sr_RS@latin"}), List{"sr_RS"});
  EXPECT_EQ(languages({.lcMessages = "fr_FR", .lang = "de_DE"}), List{"fr_FR"});
  EXPECT_EQ(languages({.lcAll = "es", .lcMessages = "fr_FR", .lang = "de_DE"}), List{"es"});
  EXPECT_EQ(languages({.language = "pt_BR:de::C", .lcAll = "es"}), (List{"pt_BR", "de", "en"}));
  EXPECT_EQ(languages({.language = "", .lcAll = "", .lang = "POSIX"}), List{"en"});

  // A catalog directory offers those of them it has catalogs for.
  const auto bundle = [](List languages) { return detail::directoryBundle(kShipped, languages); };
  EXPECT_EQ(bundle({"pt_BR", "de_AT", "fr", "de"})->preferredLocalizations(), (List{"de", "fr"}));
  EXPECT_EQ(bundle({"pt_BR"})->preferredLocalizations(), List{"en"});
  EXPECT_EQ(bundle({"en_GB", "ja"})->preferredLocalizations(), (List{"en", "ja"}));
  EXPECT_EQ(bundle({"de_CH", "fr"})->localizedStringForKey(kKey), kGerman);
  EXPECT_EQ(bundle({"de"})->localizedStringForKey("Not a known text"), "Not a known text");
  EXPECT_EQ(detail::directoryBundle(kShipped + "/missing", {"de"}), nullptr);
}

// The library picks its language and catalogs once per process, so each case is a fresh one.
TEST(Localization, GenericTextFollowsTheEnvironmentTheApplicationAndTheWorkingDirectory) {
  const std::string fixtures = ZRK_LOCALE_FIXTURES, app = " PROBE_CATALOG='" + fixtures + "/application'";
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"LANG=de_DE.UTF-8", ".", kGerman},
      {"LANG=de_DE LC_ALL=fr_FR.UTF-8", ".", "Une erreur inattendue s'est produite – réessayez dans quelques secondes"},
      {"LANGUAGE=es:de LC_ALL=fr_FR", ".", "Se ha producido un error inesperado: inténtalo de nuevo en unos segundos"},
      {"LANG=de_DE LC_MESSAGES=ja_JP.UTF-8", ".", "予期しないエラーが発生しました。数秒後にもう一度お試しください"},
      // Other languages get the English key; with "pt:de" the user's first
      // language is not one the library speaks, so it does not answer in its second.
      {"", ".", kKey}, {"LANG=C.UTF-8", ".", kKey}, {"LANG=pt_BR.UTF-8", ".", kKey}, {"LANGUAGE=pt:de", ".", kKey},
      // The application's catalog serves languages the library lacks; where both speak one, the library's own wins.
      {"LANGUAGE=pt" + app, ".", "Texto da aplicação"}, {"LANGUAGE=de:pt" + app, ".", kGerman},
      // Catalogs in the working directory come first, even a file that is no catalog.
      {"LANG=de_DE.UTF-8", fixtures + "/working-directory", "Aus dem Arbeitsverzeichnis"},
      {"LANG=de_DE.UTF-8", fixtures + "/broken", kKey}};
  for (const auto& [environment, directory, expected] : cases) {
    const std::string command = "cd '" + directory + "' && env -i " + environment + " '" + ZRK_LOCALE_PROBE + "'";
    FILE* pipe = ::popen(command.c_str(), "r");
    char text[512] = "", bundle[512] = "";
    EXPECT_TRUE(pipe && std::fgets(text, sizeof text, pipe) && std::fgets(bundle, sizeof bundle, pipe));
    EXPECT_EQ(pipe ? ::pclose(pipe) : -1, 0) << command;
    EXPECT_EQ(text, expected + "\n") << command;
    EXPECT_TRUE(std::string(bundle).ends_with(directory == "." ? "/ZRKApi.bundle\n" : "ZRKResource.bundle\n"));
  }
}

}  // namespace
}  // namespace zrk
