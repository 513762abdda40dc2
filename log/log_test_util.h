// Shared fixture of the log tests: captures debug lines, fakes the clock, and restores
// the process-wide settings, sink and clock afterwards.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "log/log.h"

namespace marquel::log {

class LogTest : public testing::Test {
 protected:
  void SetUp() override {
    saved_settings_ = CurrentSettings();
    ApplySettings(Settings());
    lines().clear();
    previous_sink_ = SetDebugSink(&CaptureSink);
    fake_now() = StartTime();
    previous_clock_ = SetClock(&FakeClock);
  }
  void TearDown() override {
    SetDebugSink(previous_sink_);
    SetClock(previous_clock_);
    ApplySettings(saved_settings_);
  }

  static std::vector<std::string>& lines() {
    static std::vector<std::string> captured;
    return captured;
  }
  static int64_t& fake_now() {
    static int64_t now = 0;
    return now;
  }
  static void CaptureSink(const char* line, size_t length) { lines().emplace_back(line, length); }
  static int64_t FakeClock() { return fake_now(); }

  static std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

 private:
  Settings saved_settings_;
  DebugSink previous_sink_ = nullptr;
  Clock previous_clock_ = nullptr;
};

}  // namespace marquel::log
