#include "ZrkProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace zrk::test {
namespace {

std::string temporaryDirectory() {
  static const std::string directory = [] {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/zrk-cli-XXXXXX";
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    return pattern;
  }();
  return directory;
}

}  // namespace

std::string temporaryPath(const std::string& name) { return temporaryDirectory() + "/" + name; }

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

ZrkRun runZrk(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
              std::chrono::milliseconds limit) {
  static int serial = 0;
  const std::string outPath = temporaryPath("out-" + std::to_string(++serial));
  const std::string errPath = temporaryPath("err-" + std::to_string(serial));

  std::vector<std::string> args{ZRK_CLI_PATH};
  args.insert(args.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (auto& argument : args) argv.push_back(argument.data());
  argv.push_back(nullptr);

  std::vector<std::string> env;
  for (char** entry = environ; *entry; ++entry) {
    if (std::strncmp(*entry, "ZRK_", 4) != 0) env.emplace_back(*entry);
  }
  env.insert(env.end(), environment.begin(), environment.end());
  std::vector<char*> envp;
  for (auto& entry : env) envp.push_back(entry.data());
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);

  ZrkRun run;
  const auto start = std::chrono::steady_clock::now();
  pid_t child = 0;
  const int spawned = posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) throw std::runtime_error(std::string("cannot start zrk: ") + std::strerror(spawned));

  int status = 0;
  while (waitpid(child, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() - start > limit) {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  run.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  run.out = readFile(outPath);
  run.err = readFile(errPath);
  unlink(outPath.c_str());
  unlink(errPath.c_str());
  return run;
}

}  // namespace zrk::test
