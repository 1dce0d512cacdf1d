// zrk: the command-line client of the image-recognition service.
#include <variant>

#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"
#include "Secrets.h"

int main(int argc, char** argv) {
  using namespace zrk::tool;
  Secrets secrets = Secrets::fromCommandLine(argc, argv);
  const auto parsed = parseCommandLine(argc, argv, Console(false, secrets));
  if (const int* status = std::get_if<int>(&parsed)) return *status;
  const Invocation& invocation = std::get<Invocation>(parsed);
  Console console(invocation.json, secrets);
  return runCommand(invocation, console);
}
