// Runs a program as a child process, for tests that start zrk-emulator or
// zrk: its standard output and error go to files the test can read at any
// time, and every wait is bounded (the child is killed after it), so a hang
// fails a test instead of blocking the suite. Header-only, POSIX.
//
//   zrk::testing::ZRKProcess emulator("/path/to/zrk-emulator", {"--port", "0", "--seed", "seed"});
//   const std::string url = emulator.lineAfter("listening on ");   // "http://127.0.0.1:PORT"
//   ...
//   EXPECT_EQ(emulator.stop(), 0);   // SIGTERM; or let the destructor stop it
//
//   const auto run = zrk::testing::ZRKProcess::run("/path/to/zrk", {"--json", "collections"});
//   // run.status, run.out, run.err
//
// Not thread-safe; use one object from one thread.
#ifndef ZRK_TESTING_ZRKPROCESS_H
#define ZRK_TESTING_ZRKPROCESS_H

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <ctime>
#include <vector>

extern char** environ;

namespace zrk::testing {

class ZRKProcess {
 public:
  struct Result {
    int status;  // as wait() returns it
    std::string out, err;
  };

  // The child's environment is the caller's without its ZRK_* variables, so
  // that the shell's settings cannot leak in, plus `environment`
  // ("NAME=value"). Standard input is /dev/null.
  ZRKProcess(const std::string& program, std::vector<std::string> arguments, std::vector<std::string> environment = {}) {
    static int serial = 0;
    const auto name = "zrk-process-" + std::to_string(::getpid()) + "-" + std::to_string(++serial);
    out_ = std::filesystem::temp_directory_path() / (name + ".out");
    err_ = std::filesystem::temp_directory_path() / (name + ".err");
    arguments.insert(arguments.begin(), program);
    for (char** entry = environ; *entry; ++entry) {
      if (std::strncmp(*entry, "ZRK_", 4) != 0) environment.emplace_back(*entry);
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int failed = posix_spawn(&pid_, program.c_str(), &actions, nullptr, pointers(arguments).data(),
                                   pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    if (failed) throw std::runtime_error("cannot start " + program + ": " + std::strerror(failed));
  }
  ~ZRKProcess() {
    stop();
    std::remove(out_.c_str());
    std::remove(err_.c_str());
  }
  ZRKProcess(const ZRKProcess&) = delete;
  ZRKProcess& operator=(const ZRKProcess&) = delete;

  // Runs the program to its end.
  static Result run(const std::string& program, std::vector<std::string> arguments,
                    std::vector<std::string> environment = {},
                    std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
    ZRKProcess child(program, std::move(arguments), std::move(environment));
    const int status = child.wait(timeout);
    return {status, child.out(), child.err()};
  }

  // Waits for a line of standard output holding the marker and returns the
  // rest of that line; "" when the child ends or the time-out passes first.
  std::string lineAfter(const std::string& marker, std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    for (const auto deadline = std::chrono::steady_clock::now() + timeout;;) {
      const std::string text = out();
      const auto at = text.find(marker);
      const auto end = at == std::string::npos ? at : text.find('\n', at);
      if (end != std::string::npos) return text.substr(at + marker.size(), end - at - marker.size());
      if (ended() || std::chrono::steady_clock::now() > deadline) return "";
      nap(10);
    }
  }

  // Waits for the end, with SIGKILL after the time-out; the exit status, or
  // 128 + the signal that ended the child. Later calls return the same.
  int wait(std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
    for (const auto deadline = std::chrono::steady_clock::now() + timeout; !ended();) {
      if (std::chrono::steady_clock::now() > deadline) ::kill(pid_, SIGKILL);
      nap(5);
    }
    return status_;
  }
  // Sends a signal and returns at once; stop() also waits for the end.
  void signal(int signal) {
    if (pid_ > 0) ::kill(pid_, signal);
  }
  int stop(int signal = SIGTERM, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    if (pid_ > 0) ::kill(pid_, signal);
    return wait(timeout);
  }

  std::string out() const { return read(out_); }
  std::string err() const { return read(err_); }

 private:
  static void nap(long milliseconds) {
    const timespec duration{0, milliseconds * 1'000'000};
    ::nanosleep(&duration, nullptr);
  }
  static std::vector<char*> pointers(std::vector<std::string>& words) {
    std::vector<char*> out;
    for (auto& word : words) out.push_back(word.data());
    out.push_back(nullptr);
    return out;
  }
  static std::string read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  bool ended() {
    int status = 0;
    const pid_t done = pid_ > 0 ? ::waitpid(pid_, &status, WNOHANG) : 0;
    if (done != 0) {
      pid_ = 0;
      status_ = done < 0 ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return pid_ <= 0;
  }

  pid_t pid_ = 0;
  int status_ = -1;
  std::string out_, err_;
};

}  // namespace zrk::testing

#endif  // ZRK_TESTING_ZRKPROCESS_H
