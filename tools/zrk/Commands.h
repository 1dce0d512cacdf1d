// Running a parsed command against the service through the library's public
// API, and the one command that stays offline (prepare).
#ifndef ZRK_TOOLS_COMMANDS_H
#define ZRK_TOOLS_COMMANDS_H

#include <optional>
#include <string>

#include "CommandLine.h"
#include "ExitStatus.h"
#include "Output.h"
#include "zrk/ZRKImage.h"

namespace zrk::tool {

ExitStatus runCommand(const Invocation& invocation, Console& console);

// The JPEG an image scan uploads for this image: at most 1000 pixels on the
// longer side, quality 100; nullopt when the image cannot be decoded.
std::optional<std::string> uploadJpeg(const ZRKImage& image);

}  // namespace zrk::tool

#endif  // ZRK_TOOLS_COMMANDS_H
