// marquelctl wait: waits until the server has written a file's tags into the file.
//
//   wait FILE [--timeout SECONDS] [--interval MS] [--json]
//
// Polls IsWriteToFileDone. A missing FILE fails at once. "written" is said only when no
// move is pending and no cache entry still holds the file's tags; tags that stay in a
// cache (a format that keeps them there, or a move the server gave up on) are reported
// as "kept in the cache" with exit status 1, since waiting longer would not help. On a
// terminal a progress line is redrawn in place on standard error; elsewhere each change
// is one plain line.
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <thread>

#include "cache_lookup.h"
#include "command.h"
#include "server_common.h"
#include "time_text.h"

namespace marquel::ctl {
namespace {

struct WaitOptions {
  FileOptions file;
  double timeout_s = 60;
  int interval_ms = 500;
};

// Draws what the wait sees for people: redrawn in place on a terminal, a line per change
// anywhere else (a log or a pipe would fill with carriage returns).
class WaitProgress {
 public:
  WaitProgress(const std::string& file, bool quiet)
      : file_(file), quiet_(quiet), terminal_(isatty(STDERR_FILENO) == 1) {}
  void Pending(int seconds) {
    if (quiet_) return;
    if (terminal_) {
      std::cerr << "\rwaiting for " << file_ << ": still pending, " << seconds << " s"
                << std::flush;
    } else if (!said_pending_) {
      std::cerr << "waiting for " << file_ << ": still pending\n";
    }
    said_pending_ = true;
  }
  void End(const std::string& outcome, int64_t waited_ms) {
    if (quiet_) return;
    std::cerr << (terminal_ && said_pending_ ? "\r" : "") << "waiting for " << file_ << ": "
              << outcome << " after " << waited_ms << " ms\n";
  }

 private:
  std::string file_;
  bool quiet_;
  bool terminal_;
  bool said_pending_ = false;
};

int Wait(const WaitOptions& o) {
  int status = kExitOk;
  if (!CheckMediaFile(o.file, o.file.file, &status)) return status;
  auto client = Connect(o.file.json);
  if (!client) return kExitUnreachable;
  WaitProgress progress(o.file.file, o.file.json);
  auto start = std::chrono::steady_clock::now();
  for (;;) {
    int32_t done = 0;
    HRESULT hr = client->IsWriteToFileDone(o.file.file.c_str(), &done);
    if (hr != S_OK) return ReportFailure(o.file.json, "wait " + o.file.file, hr);
    double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const int64_t waited_ms = static_cast<int64_t>(waited * 1000);
    if (done || waited >= o.timeout_s) {
      // Nothing pending is not yet "written": the tags may sit only in a cache.
      const bool cached = done && HasCachedTags(Absolute(o.file.file));
      const char* outcome = !done ? "timed out" : cached ? "kept in the cache" : "written";
      progress.End(outcome, waited_ms);
      PrintResult(o.file.json, {{"operation", "wait"},
                                {"file", o.file.file},
                                {"done", done != 0 && !cached},
                                {"cached", cached},
                                {"waited_ms", waited_ms}});
      return done && !cached ? kExitOk : kExitRefused;
    }
    progress.Pending(static_cast<int>(waited));
    std::this_thread::sleep_for(std::chrono::milliseconds(std::max(o.interval_ms, 10)));
  }
}

}  // namespace

void AddServerWaitCommand(CLI::App& app, Action& run) {
  auto w = std::make_shared<WaitOptions>();
  CLI::App* wait = app.add_subcommand("wait", "Wait until the server has written a file's data");
  wait->add_option("FILE", w->file.file, "the media file")->required();
  wait->add_option("--timeout", w->timeout_s, "give up after this many seconds (default 60)");
  wait->add_option("--interval", w->interval_ms, "poll every this many ms (default 500)")
      ->transform(DecimalNumber())
      ->check(CLI::Range(1, 60000));
  wait->add_flag("--json", w->file.json, "print the result as JSON");
  wait->callback([w, &run] { run = [w] { return Wait(*w); }; });
}

}  // namespace marquel::ctl
