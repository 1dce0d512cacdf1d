// Running a parsed command against the service through the library's public
// API, and the one command that stays offline (prepare).
#ifndef ZRK_TOOLS_COMMANDS_H
#define ZRK_TOOLS_COMMANDS_H

#include "CommandLine.h"
#include "ExitStatus.h"
#include "Output.h"

namespace zrk::tool {

ExitStatus runCommand(const Invocation& invocation, Console& console);

}  // namespace zrk::tool

#endif  // ZRK_TOOLS_COMMANDS_H
