// `zrk scan` of many sources, end to end: a folder of matching, unrelated and
// broken files and URLs against the emulator's real recognition, --expect,
// the exit statuses, the progress bar on a pseudo-terminal and Ctrl-C.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/ScriptedServer.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKJson.h"
#include "zrk/testing/ZRKProcess.h"

namespace zrk::test {
namespace {

namespace fs = std::filesystem;
using Args = std::vector<std::string>;
using zrk::testing::ZRKProcess;

const fs::path kPhotos = ZRK_SOURCE_DIR "/emulator/samples/photos";
const std::string kMatch = R"({"id":"s1","score":91,"triggerId":"t1"})";

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

// The line's columns but the score (recognition decides the score), joined by " | ".
std::string withoutScore(std::string line) {
  std::ranges::replace(line, '\t', '\n');
  auto fields = lines(line);
  if (fields.size() > 2) fields.erase(fields.begin() + 2);
  std::string out;
  for (const auto& field : fields) out += (out.empty() ? "" : " | ") + field;
  return out;
}

// A picture of nothing in particular: a smooth gradient has no features to match.
void writeUnrelated(const fs::path& path, int tint) {
  std::vector<std::uint8_t> pixels(320 * 240 * 4, 255);
  for (std::size_t i = 0; i < pixels.size(); i += 4) pixels[i] = pixels[i + 1] = static_cast<std::uint8_t>(i / 4 % 320 / 2 + tint);
  std::ofstream(path, std::ios::binary) << *ZRKImageJPEGRepresentation(*ZRKImage::imageWithRGBAPixels(pixels, 320, 240), 0.9);
}

class FolderScanTest : public ::testing::Test {
 protected:
  FolderScanTest() : dir_(fs::temp_directory_path() / ("zrk-folder-" + std::to_string(::getpid()))) {
    fs::create_directories(dir_ / "sub");
    fs::copy_file(kPhotos / "jazz-night-photo.jpg", dir_ / "jazz-night-photo.jpg");
    fs::copy_file(kPhotos / "star-dome-photo.jpg", dir_ / "sub" / "star-dome-photo.jpg");
    writeUnrelated(dir_ / "plain-a.JPG", 0);
    writeUnrelated(dir_ / "sub" / "plain-b.png.jpeg", 60);
    std::ofstream(dir_ / "broken.png") << "\x89PNG but nothing more";
    std::ofstream(dir_ / "notes.txt") << "not looked at";
  }
  ~FolderScanTest() override { fs::remove_all(dir_); }

  ZRKProcess::Result zrk(const std::string& url, const Args& args) {
    Args all = {"--base-url", url, "--key", "demo-key", "--secret", "demo-secret"};
    all.insert(all.end(), args.begin(), args.end());
    return ZRKProcess::run(ZRK_CLI_PATH, all);
  }
  std::string file(const std::string& name) const { return (dir_ / name).string(); }

  const fs::path dir_;
};

#ifdef ZRK_EMULATOR_PATH
TEST_F(FolderScanTest, ScansAFolderAndUrlsInOrderAndJudgesThemAgainstExpect) {
  ZRKProcess emulator(ZRK_EMULATOR_PATH, {"--port", "0", "--seed", ZRK_SOURCE_DIR "/emulator/samples/seed"});
  const std::string url = emulator.lineAfter("listening on ");
  ASSERT_FALSE(url.empty()) << emulator.err();
  const std::string poster = url + "/files/triggers/robot-lab", missing = url + "/files/triggers/none";
  std::ofstream(dir_ / "expect.csv") << "Source,Trigger\r\njazz-night-photo.jpg,Jazz Night\r\n"
                                     << "\"sub/star-dome-photo.jpg\", Trail Shoe X2\nplain-a.JPG,\n"
                                     << "sub/plain-b.png.jpeg,robot-lab\nbroken.png,jazz-night\n" << poster << ",robot-lab\n";

  const auto run = zrk(url, {"scan", dir_.string(), poster, missing, "--jobs", "3", "--expect", file("expect.csv")});
  EXPECT_EQ(run.status, 1) << run.err;  // one failed scan is enough
  const auto printed = lines(run.out);
  ASSERT_EQ(printed.size(), 10u) << run.out;
  const std::vector<std::string> expected = {
      file("broken.png") + " | failed",
      file("jazz-night-photo.jpg") + " | jazz-night",
      file("plain-a.JPG") + " | no match",
      file("sub/plain-b.png.jpeg") + " | no match | missed: expected robot-lab",
      file("sub/star-dome-photo.jpg") + " | star-dome | wrong: expected Trail Shoe X2",
      poster + " | robot-lab",
      missing + " | failed",
  };
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_TRUE(withoutScore(printed[i]).starts_with(expected[i])) << printed[i];
  EXPECT_TRUE(printed[0].ends_with("not a readable JPEG or PNG file"));
  EXPECT_TRUE(printed[6].find("error 422") != std::string::npos) << printed[6];
  EXPECT_TRUE(printed[7].starts_with("7 scans in ") && printed[7].ends_with(": 3 matched, 2 not matched, 2 failed")) << printed[7];
  EXPECT_TRUE(printed[8].starts_with("slowest: ")) << printed[8];
  EXPECT_EQ(printed[9], "expected (" + file("expect.csv") + "): 3 of 5 right (60 %), 1 wrong match, 1 missed; 1 not listed");

  // --json: one object a line, in the same order, then the summary.
  const auto json = zrk(url, {"--json", "scan", file("jazz-night-photo.jpg"), file("plain-a.JPG"), file("sub")});
  EXPECT_EQ(json.status, 0) << json.err;
  std::vector<ZRKJson> objects;
  for (const auto& line : lines(json.out)) objects.push_back(ZRKJson::parse(line));
  ASSERT_EQ(objects.size(), 5u) << json.out;
  EXPECT_EQ(objects[0]["scan"]["triggerName"], "Jazz Night");
  EXPECT_EQ(objects[1]["outcome"], "no match");
  EXPECT_EQ(objects[3]["source"], file("sub/star-dome-photo.jpg"));
  EXPECT_EQ(objects[4]["summary"]["matched"], 2);
  EXPECT_EQ(objects[4]["summary"]["noMatch"], 2);
  EXPECT_EQ(objects[4]["summary"]["scans"], 4);
}
#endif

// A stand-in service for the cases the emulator cannot stage: silence and
// connections held open.
class FolderScanScriptedTest : public FolderScanTest {
 protected:
  FolderScanScriptedTest() { serve(send(httpAnswer(kMatch))); }
  void serve(Step scan) {
    server_->choose([scan](const RawRequest& request) {
      if (request.path() == "/app/v1/auth") return Script{readBody(), send(httpAnswer(R"({"token":"t","expire":4102444800})"))};
      return Script{readBody(), scan};
    });
  }
  std::size_t scansSent() const {
    return std::ranges::count_if(server_->requests(), [](const RawRequest& r) { return r.path() != "/app/v1/auth"; });
  }
  std::unique_ptr<ScriptedServer> server_ = std::make_unique<ScriptedServer>();
};

TEST_F(FolderScanScriptedTest, ExitStatusSaysWhetherEveryScanGotAnAnswer) {
  // One folder alone is scanned as a folder; the token is fetched once for all its scans.
  EXPECT_EQ(zrk(server_->url(), {"scan", file("sub"), "--jobs", "2"}).status, 0);
  EXPECT_EQ(server_->requests().size(), 3u);
  const Args urls = {"scan", "http://i/1.jpg", "http://i/2.jpg"};
  EXPECT_EQ(zrk(server_->url(), urls).status, 0);
  EXPECT_EQ(scansSent(), 4u);
  // The second's broken file is a failed scan; the others still go.
  EXPECT_EQ(zrk(server_->url(), {"scan", "http://i/1.jpg", file("broken.png"), "http://i/2.jpg"}).status, 1);
  EXPECT_EQ(scansSent(), 6u);

  std::ofstream(dir_ / "open-quote.csv") << "a.jpg,\"t1\n";
  std::ofstream(dir_ / "three.csv") << "a.jpg,t1,t2\n";
  std::ofstream(dir_ / "twice.csv") << "a.jpg,t1\n./a.jpg,t2\n";
  fs::create_directories(dir_ / "empty");
  for (const Args& args : std::initializer_list<Args>{
           {"scan", "http://i/1.jpg", file("missing.jpg")}, {"scan", file("empty")}, {"scan", "http://i/1.jpg", "http://a b"},
           {"scan", dir_.string(), "--jobs", "0"}, {"scan", dir_.string(), "--expect", file("none.csv")},
           {"scan", dir_.string(), "--expect", file("open-quote.csv")}, {"scan", dir_.string(), "--expect", file("three.csv")},
           {"scan", dir_.string(), "--expect", file("twice.csv")}}) {
    const auto run = zrk(server_->url(), args);
    EXPECT_TRUE(run.status == 2 && run.out.empty() && run.err.starts_with("zrk: ")) << run.err;
  }
  EXPECT_EQ(scansSent(), 6u);  // usage errors send nothing

  serve(holdOpen());
  const auto silent = zrk(server_->url(), {"--timeout", "0.5", "scan", "http://i/1.jpg", "http://i/2.jpg"});
  EXPECT_EQ(silent.status, 3);
  EXPECT_EQ(lines(silent.out)[1], "http://i/2.jpg\tno answer\tno answer within 0.5 s");
}

// Runs zrk with standard error on a pseudo-terminal and standard output in
// a file; what the terminal received.
std::string onTerminal(const Args& args, const std::string& outFile, int& status) {
  int master = -1, slave = -1;
  if (::openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return "no pty";
  std::vector<std::string> words = {ZRK_CLI_PATH};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(slave, STDERR_FILENO);
    ::dup2(::open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
    ::dup2(::open("/dev/null", O_RDONLY), STDIN_FILENO);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(slave);
  std::string seen;
  char buffer[4096];
  for (pollfd master_fd{master, POLLIN, 0}; ::poll(&master_fd, 1, 60'000) > 0;) {
    const auto got = ::read(master, buffer, sizeof buffer);
    if (got <= 0) break;  // EIO once the program has ended
    seen.append(buffer, static_cast<std::size_t>(got));
  }
  ::close(master);
  ::waitpid(pid, &status, 0);
  status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return seen;
}

TEST_F(FolderScanScriptedTest, DrawsTheProgressBarOnATerminalOnly) {
  const Args args = {"--base-url", server_->url(), "--key", "k", "--secret", "sss", "scan", "http://i/1.jpg",
                     "http://i/2.jpg", "http://i/3.jpg"};
  int status = -1;
  const std::string terminal = onTerminal(args, file("out.txt"), status);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(terminal.find("\r[") != std::string::npos && terminal.find("/3 ") != std::string::npos &&
              terminal.find(" matched ") != std::string::npos && terminal.ends_with("\r\033[K"))
      << terminal;
  std::ifstream printed(file("out.txt"));
  EXPECT_EQ(lines({std::istreambuf_iterator<char>(printed), {}}).size(), 5u);  // three lines, two of summary

  const auto piped = ZRKProcess::run(ZRK_CLI_PATH, args);
  EXPECT_EQ(piped.status, 0);
  EXPECT_EQ(piped.err, "");
}

TEST_F(FolderScanScriptedTest, CtrlCStopsStartingScansAndReportsThoseInFlight) {
  serve(holdOpen());
  ZRKProcess zrk(ZRK_CLI_PATH, {"--base-url", server_->url(), "--key", "k", "--secret", "sss", "scan", "--jobs", "2",
                                "http://i/1.jpg", "http://i/2.jpg", "http://i/3.jpg", "http://i/4.jpg"});
  ASSERT_TRUE(server_->waitForRequests(3, std::chrono::seconds(30)));  // the token step and two scans
  zrk.signal(SIGINT);
  for (int i = 0; i < 3000 && zrk.err().find("stopping") == std::string::npos; ++i) ::usleep(10'000);
  ASSERT_NE(zrk.err().find("stopping"), std::string::npos);
  server_.reset();  // hangs up on the two in flight
  EXPECT_EQ(zrk.wait(), 130);
  const auto printed = lines(zrk.out());
  ASSERT_EQ(printed.size(), 5u) << zrk.out();
  EXPECT_TRUE(printed[0].starts_with("http://i/1.jpg\tfailed\t") && printed[1].starts_with("http://i/2.jpg\tfailed\t"));
  EXPECT_TRUE(printed[2].starts_with("2 scans in ")) << printed[2];
  EXPECT_EQ(printed[4], "stopped by Ctrl-C: 2 not scanned");
}

}  // namespace
}  // namespace zrk::test
