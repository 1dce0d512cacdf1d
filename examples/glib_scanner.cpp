// A scan from a GLib program (GTK works the same way): the main queue hands
// each wake-up to GLib, which runs it on the main loop. The program quits
// with status 0 after a successful scan and 1 after an error or a time-out.
#include <glib.h>

#include <cstdio>
#include <functional>

#include "ScanArguments.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKMainQueue.h"

namespace {

// Runs a callable posted from any thread on the GLib main loop; g_idle_add
// is safe from any thread and wakes the loop.
void postToGLib(std::function<void()> drain) {
  g_idle_add(
      [](gpointer data) -> gboolean {
        auto* callable = static_cast<std::function<void()>*>(data);
        (*callable)();
        delete callable;
        return G_SOURCE_REMOVE;
      },
      new std::function<void()>(std::move(drain)));
}

struct Run {
  GMainLoop* loop;
  int status = 1;
};

}  // namespace

int main(int argc, char** argv) {
  const auto arguments = example::parseScanArguments(argc, argv);
  if (!arguments) return 2;
  example::configureClient(*arguments);
  const auto photo = example::loadPhoto(*arguments);
  if (!photo) return 2;

  Run run{g_main_loop_new(nullptr, FALSE)};
  zrk::ZRKMainQueue::mainQueue().setExecutor(postToGLib);

  zrk::ZRKApi::sharedApiClient()->scanWithImage(photo, arguments->collection, [&run](auto scan, auto error) {
    run.status = example::reportScan(scan, error);
    g_main_loop_quit(run.loop);
  });
  g_timeout_add_seconds(
      static_cast<guint>(arguments->timeout.count()),
      [](gpointer data) -> gboolean {
        std::fprintf(stderr, "no answer in time\n");
        auto* run = static_cast<Run*>(data);
        run->status = 1;
        g_main_loop_quit(run->loop);
        return G_SOURCE_REMOVE;
      },
      &run);

  g_main_loop_run(run.loop);
  zrk::ZRKMainQueue::mainQueue().setExecutor(nullptr);
  g_main_loop_unref(run.loop);
  return run.status;
}
