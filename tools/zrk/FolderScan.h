// `zrk scan` of several sources: up to --jobs scans in flight through the
// library's own asynchronous calls (their completions run on this thread,
// which drains the main queue), one line per source in the order listed,
// then a summary. A source that fails is reported on its line; the run goes
// on. Ctrl-C stops starting scans, lets those in flight finish or reach the
// time-out, and still prints the summary.
#ifndef ZRK_TOOLS_FOLDERSCAN_H
#define ZRK_TOOLS_FOLDERSCAN_H

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "CommandLine.h"
#include "ExitStatus.h"
#include "Output.h"
#include "ScanSources.h"

namespace zrk {
class ZRKApiClient;
}

namespace zrk::tool {

struct FolderScanPlan {
  std::vector<ScanSource> sources;
  std::optional<Expectations> expectations;
  std::string expectPath;
};

// One file or URL without --expect is scanned as it always was (one
// result, the error on stderr); anything else is a folder scan.
bool isFolderScan(const Invocation& in);

// The sources and expectations, or the text of a usage error. Nothing is
// sent before this succeeds.
std::variant<FolderScanPlan, std::string> planFolderScan(const Invocation& in);

// Each scan gets `timeout` from its start. The exit status: kInterrupted
// after Ctrl-C, else kServiceError when any scan failed, else kNoAnswer when
// any got no answer, else kSuccess.
ExitStatus runFolderScan(const Invocation& in, const FolderScanPlan& plan, const Console& console,
                         const std::shared_ptr<ZRKApiClient>& client, std::chrono::milliseconds timeout);

}  // namespace zrk::tool

#endif  // ZRK_TOOLS_FOLDERSCAN_H
