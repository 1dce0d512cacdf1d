// zrk-emulator: a local stand-in for the image-recognition service, for
// developing and testing applications offline. See EmulatorOptions.cpp for
// the command line and Service.h for what it answers.
#include <httplib.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <optional>
#include <thread>

#include "EmulatorOptions.h"
#include "LiveCatalog.h"
#include "Passwords.h"
#include "RequestLog.h"
#include "Seed.h"
#include "Service.h"
#include "Storage.h"
#include "Tokens.h"

using namespace zrk::emulator;

namespace {

int run(EmulatorOptions options) {
  Catalog seed;
  try {
    if (!options.seedDir.empty()) seed = loadSeed(options.seedDir);
  } catch (const SeedError& error) {
    std::cerr << "zrk-emulator: seed: " << error.what() << "\n";
    return 2;
  }
  // Beyond loopback, whoever reaches the port could reshape the catalog.
  if (options.consoleToken.empty() && !isLoopbackHost(options.host)) options.consoleToken = randomHex(16);

  try {
    Storage storage(options.dataFile);
    std::optional<LiveCatalog> catalog;
    try {
      catalog.emplace(std::move(seed), storage);
    } catch (const SeedError& error) {
      std::cerr << "zrk-emulator: seed: " << error.what() << "\n";
      return 2;
    }
    Tokens tokens(storage, options.apps, options.tokenTtlSeconds);
    RequestLog log;
    Service service(options, storage, tokens, *catalog, log);
    httplib::Server server;
    service.install(server);

    const int port = options.port == 0 ? server.bind_to_any_port(options.host)
                                       : (server.bind_to_port(options.host, options.port) ? options.port : -1);
    if (port <= 0) {
      std::cerr << "zrk-emulator: cannot listen on " << options.host << ":" << options.port << "\n";
      return 1;
    }
    service.setOwnPort(port);
    if (!isLoopbackHost(options.host)) {
      std::cerr << "zrk-emulator: listening on " << options.host
                << ", reachable from other machines; it checks app keys but is no real service\n";
    }
    const auto [collections, triggers] = catalog->read([](const Catalog& held) {
      return std::make_pair(held.collections.size(), held.triggers.size());
    });
    std::cerr << "zrk-emulator: " << collections << " collections, " << triggers << " triggers; " << (options.dataFile.empty() ? "in-memory data" : "data in " + options.dataFile) << "\n";
    const std::string shownHost = options.host.find(':') != std::string::npos ? "[" + options.host + "]" : options.host;
    // The one line on stdout, which scripts and tests read for the port.
    std::cout << "zrk-emulator listening on http://" << shownHost << ":" << port << std::endl;
    std::cerr << "zrk-emulator: console on http://" << shownHost << ":" << port << "/"
              << (options.consoleToken.empty() ? "" : "?token=" + options.consoleToken) << std::endl;

    // SIGINT and SIGTERM are blocked everywhere (see main) and taken here,
    // where stopping the server is safe; SIGUSR1 ends this thread when the
    // server stopped on its own.
    std::atomic<bool> listening{true};
    std::atomic<bool> stopped{false};
    std::thread signals([&] {
      sigset_t set;
      sigemptyset(&set);
      sigaddset(&set, SIGINT);
      sigaddset(&set, SIGTERM);
      sigaddset(&set, SIGUSR1);
      int signal = 0;
      sigwait(&set, &signal);
      if (signal == SIGUSR1) return;
      stopped = true;
      // stop() only acts on a running server: a signal that comes right
      // after start waits until the server runs.
      while (listening.load()) {
        if (server.is_running()) {
          server.stop();
          return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
    });
    const bool clean = server.listen_after_bind();
    listening = false;
    pthread_kill(signals.native_handle(), SIGUSR1);
    signals.join();
    return clean || stopped ? 0 : 1;
  } catch (const std::exception& error) {
    std::cerr << "zrk-emulator: " << error.what() << "\n";
    return 1;
  }
}

}  // namespace

int main(int argc, char** argv) {
  int exitCode = 0;
  const auto options = parseEmulatorOptions(argc, argv, &exitCode);
  if (!options) return exitCode;
  // Blocked before any thread starts, so every thread inherits the mask and
  // only the signal thread ever receives them.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return run(*options);
}
