// The console's page, style and script, compiled into the emulator from
// emulator/console/ (embed.cmake writes them into a generated source), so
// that the binary serves the whole console by itself.
#ifndef ZRK_EMULATOR_CONSOLE_CONSOLEFILES_H
#define ZRK_EMULATOR_CONSOLE_CONSOLEFILES_H

#include <string_view>

namespace zrk::emulator {

struct ConsoleFile {
  std::string_view name;  // "index.html", "console.js", ...
  std::string_view type;  // its Content-Type
  std::string_view body;
};

// Nothing when there is no such file.
const ConsoleFile* findConsoleFile(std::string_view name);

}  // namespace zrk::emulator

#endif  // ZRK_EMULATOR_CONSOLE_CONSOLEFILES_H
