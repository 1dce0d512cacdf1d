#include "FolderScan.h"

#include <poll.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <sstream>

#include "Terminal.h"
#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKMainQueue.h"
#include "zrk/ZRKScanAPIResponse.h"

namespace zrk::tool {
namespace {

using Clock = std::chrono::steady_clock;

enum class State { waiting, running, matched, unmatched, failed, silent };

struct Record {
  State state = State::waiting;
  Clock::time_point started;
  double seconds = 0;
  std::shared_ptr<ZRKScanAPIResponse> scan;
  std::string reason;  // why it failed or got no answer
};

// The run's records, shared by the loop and the completions, all on the main
// thread. The completions hold it too: one that comes after its scan was
// given up at the time-out still finds it.
struct Batch {
  std::vector<Record> records;
  std::size_t running = 0, finished = 0, matched = 0;
  bool tokenStepDone = false;

  void finish(std::size_t index, State state, std::string reason = {}) {
    Record& record = records[index];
    if (record.state == State::running) --running;
    record.state = state;
    record.reason = std::move(reason);
    record.seconds = std::chrono::duration<double>(Clock::now() - record.started).count();
    ++finished;
    if (state == State::matched) ++matched;
  }
};

enum class Verdict { right, wrongMatch, missed };

bool done(const Record& record) { return record.state != State::waiting && record.state != State::running; }

bool answered(const Record& record) { return record.state == State::matched || record.state == State::unmatched; }

// How the answer compares with the expected trigger (an id or a name; ""
// for none); nothing when there was no answer to judge.
std::optional<Verdict> judge(const Record& record, const std::optional<std::string>& expected) {
  if (!expected || !answered(record)) return std::nullopt;
  if (record.state == State::unmatched) return expected->empty() ? Verdict::right : Verdict::missed;
  const bool same = *expected == record.scan->triggerId() || *expected == record.scan->triggerName();
  return same ? Verdict::right : Verdict::wrongMatch;
}

const char* outcomeName(State state) {
  switch (state) {
    case State::matched:
      return "matched";
    case State::unmatched:
      return "no match";
    case State::failed:
      return "failed";
    default:
      return "no answer";
  }
}

std::string decimal(double value, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

Report lineOf(const ScanSource& source, const Record& record, const std::optional<std::string>& expected) {
  Report out{{{"source", source.name}, {"outcome", outcomeName(record.state)}, {"seconds", record.seconds}}, {}};
  out.text = source.name + "\t";
  if (answered(record)) {
    out.json["scan"] = toJson(*record.scan);
    const auto& scan = *record.scan;
    out.text += (record.state == State::matched ? scan.triggerId().value_or(scan.triggerName().value_or("?"))
                                                : std::string("no match")) +
                "\t" + std::to_string(scan.score());
  } else {
    out.json["reason"] = record.reason;
    out.text += std::string(outcomeName(record.state)) + "\t" + record.reason;
  }
  if (expected) out.json["expected"] = expected->empty() ? ZRKJson() : ZRKJson(*expected);
  if (const auto verdict = judge(record, expected)) {
    static constexpr const char* kVerdicts[] = {"right", "wrong match", "missed"};
    out.json["verdict"] = kVerdicts[static_cast<int>(*verdict)];
    if (*verdict != Verdict::right) {
      out.text += std::string("\t") + (*verdict == Verdict::missed ? "missed" : "wrong") +
                  ": expected " + (expected->empty() ? "no match" : *expected);
    }
  }
  out.text += "\n";
  return out;
}

Report summaryOf(const FolderScanPlan& plan, const Batch& batch, double seconds, bool stopped) {
  std::size_t counts[6] = {};
  const Record* slowest = nullptr;
  std::size_t slowestIndex = 0, judged = 0, unlisted = 0;
  std::size_t verdicts[3] = {};
  for (std::size_t i = 0; i < batch.records.size(); ++i) {
    const Record& record = batch.records[i];
    ++counts[static_cast<int>(record.state)];
    if (record.state == State::waiting) continue;
    if (!slowest || record.seconds > slowest->seconds) slowest = &record, slowestIndex = i;
    if (!plan.expectations) continue;
    const auto expected = plan.expectations->of(plan.sources[i]);
    if (!expected) ++unlisted;
    if (const auto verdict = judge(record, expected)) {
      ++judged;
      ++verdicts[static_cast<int>(*verdict)];
    }
  }
  const auto count = [&](State state) { return counts[static_cast<int>(state)]; };
  const double rate = seconds > 0 ? static_cast<double>(batch.finished) / seconds : 0;

  ZRKJson json = {{"scans", batch.finished},
                  {"matched", count(State::matched)},
                  {"noMatch", count(State::unmatched)},
                  {"failed", count(State::failed)},
                  {"noAnswer", count(State::silent)},
                  {"notScanned", count(State::waiting)},
                  {"seconds", seconds},
                  {"scansPerSecond", rate},
                  {"interrupted", stopped}};
  std::string text = std::to_string(batch.finished) + " scans in " + decimal(seconds, 1) + " s (" +
                     decimal(rate, 1) + " scans/s): " + std::to_string(count(State::matched)) + " matched, " +
                     std::to_string(count(State::unmatched)) + " not matched, " +
                     std::to_string(count(State::failed)) + " failed";
  if (count(State::silent) > 0) text += ", " + std::to_string(count(State::silent)) + " no answer";
  text += "\n";
  if (slowest) {
    json["slowest"] = {{"source", plan.sources[slowestIndex].name}, {"seconds", slowest->seconds}};
    text += "slowest: " + plan.sources[slowestIndex].name + ", " + decimal(slowest->seconds, 2) + " s\n";
  }
  if (plan.expectations) {
    const double share = judged > 0 ? 100.0 * static_cast<double>(verdicts[0]) / static_cast<double>(judged) : 0;
    json["expect"] = {{"judged", judged},
                      {"right", verdicts[0]},
                      {"wrongMatch", verdicts[1]},
                      {"missed", verdicts[2]},
                      {"rightShare", judged > 0 ? ZRKJson(share / 100) : ZRKJson()},
                      {"notListed", unlisted}};
    text += "expected (" + plan.expectPath + "): " + std::to_string(verdicts[0]) + " of " + std::to_string(judged) +
            " right (" + decimal(share, 0) + " %), " + std::to_string(verdicts[1]) + " wrong match" +
            (verdicts[1] == 1 ? "" : "es") + ", " + std::to_string(verdicts[2]) + " missed";
    if (unlisted > 0) text += "; " + std::to_string(unlisted) + " not listed";
    text += "\n";
  }
  if (stopped) text += "stopped by Ctrl-C: " + std::to_string(count(State::waiting)) + " not scanned\n";
  return {{{"summary", std::move(json)}}, std::move(text)};
}

std::string secondsText(double seconds) {
  std::ostringstream text;
  text << seconds;
  return text.str();
}

}  // namespace

bool isFolderScan(const Invocation& in) {
  if (in.sources.size() != 1 || in.expect) return true;
  std::error_code error;
  return !isWebAddress(in.sources.front()) && std::filesystem::is_directory(in.sources.front(), error);
}

std::variant<FolderScanPlan, std::string> planFolderScan(const Invocation& in) {
  FolderScanPlan plan;
  auto sources = listSources(in.sources);
  if (auto* problem = std::get_if<std::string>(&sources)) return std::move(*problem);
  plan.sources = std::move(std::get<std::vector<ScanSource>>(sources));
  if (plan.sources.empty()) return "no .jpg, .jpeg or .png file in " + in.sources.front();
  if (in.expect) {
    auto expectations = Expectations::read(*in.expect);
    if (auto* problem = std::get_if<std::string>(&expectations)) return std::move(*problem);
    plan.expectations = std::move(std::get<Expectations>(expectations));
    plan.expectPath = *in.expect;
  }
  return plan;
}

ExitStatus runFolderScan(const Invocation& in, const FolderScanPlan& plan, const Console& console,
                         const std::shared_ptr<ZRKApiClient>& client, std::chrono::milliseconds timeout) {
  const std::size_t total = plan.sources.size();
  const auto batch = std::make_shared<Batch>();
  batch->records.resize(total);
  InterruptFlag interrupt;
  ProgressBar bar;
  ZRKMainQueue& queue = ZRKMainQueue::mainQueue();
  const auto begun = Clock::now();

  // Scans started without a token would each fetch one: fetch it once first.
  ZRKApiAuthToken::refresh([batch](bool, std::optional<ZRKError>) {
    ZRKMainQueue::mainQueue().async([batch] { batch->tokenStepDone = true; });
  });

  auto start = [&](std::size_t index) {
    Record& record = batch->records[index];
    record.state = State::running;
    record.started = Clock::now();
    ++batch->running;
    auto completion = [batch, index](std::shared_ptr<ZRKScanAPIResponse> scan, std::optional<ZRKError> error) {
      if (batch->records[index].state != State::running) return;  // given up at its time-out
      if (error) {
        batch->finish(index, State::failed, errorSummary(*error));
      } else if (scan) {
        batch->records[index].scan = std::move(scan);
        const bool matched = batch->records[index].scan->triggerId() || batch->records[index].scan->triggerName();
        batch->finish(index, matched ? State::matched : State::unmatched);
      } else {
        batch->finish(index, State::silent, "the answer held neither a scan nor an error");
      }
    };
    const ScanSource& source = plan.sources[index];
    if (source.url) {
      client->scanWithUrl(source.url, in.collection, std::move(completion));
    } else if (auto image = ZRKImage::imageWithContentsOfFile(source.name)) {
      client->scanWithImage(std::move(image), in.collection, std::move(completion));
    } else {
      batch->finish(index, State::failed, "not a readable JPEG or PNG file");
    }
  };

  std::size_t next = 0, printed = 0;
  bool stopping = false;
  for (;;) {
    const auto now = Clock::now();
    if (!stopping && interrupt.fired()) {
      stopping = true;
      bar.clear();
      console.problem("stopping: waiting for the scans in flight (" + std::to_string(batch->running) +
                      "); Ctrl-C again to quit at once");
    }
    auto wakeUp = now + std::chrono::milliseconds(bar.active() || queue.fileDescriptor() < 0 ? 100 : 1000);
    for (std::size_t i = 0; i < next; ++i) {
      const Record& record = batch->records[i];
      if (record.state != State::running) continue;
      if (now - record.started >= timeout) {
        batch->finish(i, State::silent, "no answer within " + secondsText(in.timeoutSeconds) + " s");
      } else {
        wakeUp = std::min(wakeUp, record.started + timeout);
      }
    }
    const bool tokenStepDone = batch->tokenStepDone || now - begun >= timeout;
    while (!stopping && tokenStepDone && batch->running < static_cast<std::size_t>(in.jobs) && next < total) {
      start(next++);
    }
    if (batch->running > 0) wakeUp = std::min(wakeUp, now + timeout);  // the ones just started
    for (; printed < next && done(batch->records[printed]); ++printed) {
      bar.makeRoomForOutput();
      const auto expected = plan.expectations ? plan.expectations->of(plan.sources[printed]) : std::nullopt;
      console.printLine(lineOf(plan.sources[printed], batch->records[printed], expected));
    }
    if (batch->running == 0 && (stopping || next == total)) break;
    bar.show(batch->finished, total, batch->matched, std::chrono::duration<double>(now - begun).count());

    pollfd watched[2] = {{queue.fileDescriptor(), POLLIN, 0}, {interrupt.fileDescriptor(), POLLIN, 0}};
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(wakeUp - Clock::now()).count();
    ::poll(watched, 2, static_cast<int>(std::max<long long>(wait, 0)));
    queue.drain();
  }
  bar.clear();
  const double seconds = std::chrono::duration<double>(Clock::now() - begun).count();
  console.printLine(summaryOf(plan, *batch, seconds, stopping));

  if (stopping) return kInterrupted;
  const auto any = [&](State state) {
    return std::ranges::any_of(batch->records, [state](const Record& record) { return record.state == state; });
  };
  if (any(State::failed)) return kServiceError;
  if (any(State::silent)) return kNoAnswer;
  return kSuccess;
}

}  // namespace zrk::tool
