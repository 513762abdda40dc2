// Shared helpers of the open-file table tests: a log capture, sessions whose closes can
// be counted or made to fail, and a table that makes them.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "files/marquel_files.h"
#include "log/log.h"

namespace marquel::testing_files {

inline std::vector<std::string>& CapturedLines() {
  static std::vector<std::string> lines;
  return lines;
}

inline void CaptureLine(const char* line, size_t n) {
  CapturedLines().emplace_back(line, n);
}

// Turns the log on into a capture while it lives.
class LogCapture {
 public:
  LogCapture() : saved_(log::CurrentSettings()) {
    CapturedLines().clear();
    previous_ = log::SetDebugSink(&CaptureLine);
    log::Settings on;
    on.enabled = 1;
    log::ApplySettings(on);
  }
  ~LogCapture() {
    log::ApplySettings(saved_);
    log::SetDebugSink(previous_);
  }
  // Whether a line reads exactly "[Marquel2.0] <message>".
  bool Saw(const std::string& message) const {
    for (const auto& line : CapturedLines()) {
      if (line == "[Marquel2.0] " + message + "\n") return true;
    }
    return false;
  }

 private:
  log::Settings saved_;
  log::DebugSink previous_;
};

// Counts the closes that reach sessions and answers them without writing anything (the
// close policy is the session's business, not the table's), and can make the VOB close
// fail.
struct CloseStats {
  int closes = 0;
  int vobCloses = 0;
  int vcdCloses = 0;
  bool failVob = false;
  int32_t closeResult = MQ_SUCCESS;
};

class CountingSession : public MarquelOneFile {
 public:
  explicit CountingSession(CloseStats* stats) : stats_(stats) {}
  int32_t Close(int32_t) override {
    ++stats_->closes;
    return stats_->closeResult;
  }
  int32_t CloseVOB() override {
    ++stats_->vobCloses;
    return stats_->failVob ? -1 : MQ_SUCCESS;
  }
  int32_t CloseVCDOrSVCD() override {
    ++stats_->vcdCloses;
    return MQ_SUCCESS;
  }

 private:
  CloseStats* stats_;
};

// The table the tests use: its sessions are CountingSessions.
class CountingFiles : public MarquelFiles {
 public:
  CloseStats stats;

 protected:
  std::unique_ptr<MarquelOneFile> MakeSession() override {
    return std::make_unique<CountingSession>(&stats);
  }
};

// The file type code the tests open missing files with (any non-zero type).
constexpr int32_t kSomeType = 1;

}  // namespace marquel::testing_files
