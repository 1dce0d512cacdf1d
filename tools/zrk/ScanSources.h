// What a scan of several sources works through: the command line's sources
// expanded into photos and URLs, and the answers the user expects of them.
#ifndef ZRK_TOOLS_SCANSOURCES_H
#define ZRK_TOOLS_SCANSOURCES_H

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "zrk/ZRKURL.h"

namespace zrk::tool {

// True for text that starts with http:// or https://, in any case.
bool isWebAddress(std::string_view source);

struct ScanSource {
  std::string name;          // as printed: the argument, or the path found in a folder
  std::optional<ZRKURL> url;  // set for an http(s) source; a file otherwise
};

// URLs and files as given, in order; each folder in its place, walked with
// its subfolders for .jpg, .jpeg and .png files (any case), sorted by path
// so that two runs list the same photos in the same order. Files are not
// opened here: one that turns out to be no image is that scan's failure.
// A source that does not exist, a malformed URL or an unreadable folder is
// a usage error, whose text is returned instead.
std::variant<std::vector<ScanSource>, std::string> listSources(const std::vector<std::string>& arguments);

// The --expect file: CSV lines "source,trigger" (RFC 4180 quoting; an
// optional header line "source,trigger"; blank lines skipped). A source is
// a URL or a file path, relative paths taken from the CSV's own folder; the
// trigger is an id or a name, empty when the photo should match nothing.
class Expectations {
 public:
  // The expectations, or the text of a usage error (unreadable file, a
  // malformed line, a source listed twice).
  static std::variant<Expectations, std::string> read(const std::string& path);

  // The expected trigger ("" for none), or nullopt when the source is not listed.
  std::optional<std::string> of(const ScanSource& source) const;

 private:
  std::map<std::string, std::string> triggers_;  // by identity(): a URL's text or a file's canonical path
};

}  // namespace zrk::tool

#endif  // ZRK_TOOLS_SCANSOURCES_H
