// Shared helpers of the open-file table tests: a log capture, sessions whose closes can
// be counted or made to fail, and a table that makes them.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "files/marquel_files.h"
#include "log/log.h"
#include "log/log_capture.h"

namespace marquel::testing_files {

using log::LogCapture;

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
