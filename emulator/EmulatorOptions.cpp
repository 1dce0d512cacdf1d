#include "EmulatorOptions.h"

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <iostream>

namespace zrk::emulator {

bool isLoopbackHost(const std::string& host) {
  std::string bare = host;
  if (bare.size() > 2 && bare.front() == '[' && bare.back() == ']') bare = bare.substr(1, bare.size() - 2);
  if (bare == "localhost") return true;
  in_addr v4{};
  if (inet_pton(AF_INET, bare.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  in6_addr v6{};
  if (inet_pton(AF_INET6, bare.c_str(), &v6) == 1) return IN6_IS_ADDR_LOOPBACK(&v6);
  return false;
}

std::optional<EmulatorOptions> parseEmulatorOptions(int argc, char** argv, int* exitCode) {
  EmulatorOptions options;
  std::vector<std::string> apps;
  CLI::App cli{"zrk-emulator: a local stand-in for the image-recognition service"};
  cli.add_option("--host", options.host, "Address to listen on (loopback unless you mean otherwise)")
      ->capture_default_str();
  cli.add_option("--port", options.port, "Port to listen on; 0 picks a free one")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  cli.add_option("--data", options.dataFile, "SQLite file for users, tokens and history (default: in memory)");
  cli.add_option("--seed", options.seedDir, "Folder of collections: DIR/<collection>/<trigger>.jpg|.png")
      ->check(CLI::ExistingDirectory);
  cli.add_option("--app", apps, "An app's credentials as KEY:SECRET (repeatable; default demo-key:demo-secret)");
  cli.add_option("--token-ttl", options.tokenTtlSeconds, "Lifetime of app tokens in seconds")
      ->check(CLI::Range(1, 10 * 365 * 24 * 3600))
      ->capture_default_str();
  cli.add_option("--latency-ms", options.latencyMs, "Delay added to every service request")
      ->check(CLI::Range(0, 60000));
  cli.add_option("--fail-rate", options.failRate, "Share of service requests answered with error 503")
      ->check(CLI::Range(0.0, 1.0));
  cli.add_flag("--allow-remote-fetch", options.allowRemoteFetch,
               "Let URL scans fetch images from hosts other than loopback");
  cli.add_option("--console-token", options.consoleToken,
                 "Token the console and /__emulator/ ask for (default: none on loopback, a random one elsewhere)");
  try {
    cli.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    // Usage errors all exit 2, whatever CLI11's own numbering.
    *exitCode = cli.exit(error) == 0 ? 0 : 2;
    return std::nullopt;
  }
  for (const std::string& app : apps) {
    const auto colon = app.find(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == app.size()) {
      std::cerr << "zrk-emulator: --app wants KEY:SECRET, got \"" << app << "\"\n";
      *exitCode = 2;
      return std::nullopt;
    }
    options.apps[app.substr(0, colon)] = app.substr(colon + 1);
  }
  if (options.apps.empty()) options.apps["demo-key"] = "demo-secret";
  return options;
}

}  // namespace zrk::emulator
