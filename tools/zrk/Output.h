// How zrk shows results and errors: with --json, one JSON value on stdout
// whose keys are the models' property names (absent values left out);
// otherwise a short summary. Errors go to stderr with domain, code and
// message. Everything printed is redacted first (Secrets.h).
#ifndef ZRK_TOOLS_OUTPUT_H
#define ZRK_TOOLS_OUTPUT_H

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Secrets.h"
#include "zrk/ZRKError.h"
#include "zrk/ZRKJson.h"

namespace zrk {
class ZRKCollection;
class ZRKScanAPIResponse;
class ZRKScanHistory;
class ZRKUserAPIResponse;
}  // namespace zrk

namespace zrk::tool {

// One result in both of its forms.
struct Report {
  ZRKJson json;
  std::string text;  // lines, each ending in "\n"
};

ZRKJson toJson(const ZRKScanAPIResponse& scan);
ZRKJson toJson(const ZRKCollection& collection);
ZRKJson toJson(const ZRKScanHistory& entry);
ZRKJson toJson(const ZRKUserAPIResponse& account);

Report report(const ZRKScanAPIResponse& scan);
Report report(const std::vector<std::shared_ptr<ZRKCollection>>& collections);
Report report(const std::vector<std::shared_ptr<ZRKScanHistory>>& history);
// headline says what happened ("logged in"); the fields follow it.
Report report(const ZRKUserAPIResponse* account, std::string_view headline);

// "DOMAIN error CODE: description (message)" on one line.
std::string errorSummary(const ZRKError& error);

class Console {
 public:
  Console(bool json, Secrets& secrets) : json_(json), secrets_(secrets) {}

  void print(const Report& report) const;
  // The report as one line: the text as it is, or the JSON without breaks.
  void printLine(const Report& report) const;
  void error(const ZRKError& error) const;
  // A problem of the program's own (usage, files), one line on stderr.
  void problem(std::string_view message) const;

 private:
  void write(const Report& report, int indent) const;  // indent -1: one line

  bool json_;
  Secrets& secrets_;  // learns the app token once the library has one
};

}  // namespace zrk::tool

#endif  // ZRK_TOOLS_OUTPUT_H
