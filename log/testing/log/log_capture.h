// A test helper: turns the log on into a captured list of debug lines while it lives,
// and restores the settings and the sink afterwards. Tests of every layer above the log
// use it to check the exact lines the system writes.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "log/log.h"

namespace marquel::log {

class LogCapture {
 public:
  LogCapture() : saved_(CurrentSettings()) {
    Captured().clear();
    previous_ = SetDebugSink(&Capture);
    Settings on;
    on.enabled = 1;
    ApplySettings(on);
  }
  ~LogCapture() {
    ApplySettings(saved_);
    SetDebugSink(previous_);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The lines as written, each with its "[Marquel2.0] " prefix and line feed.
  const std::vector<std::string>& Lines() const { return Captured(); }
  // The lines without the prefix and the line feed.
  std::vector<std::string> Messages() const {
    std::vector<std::string> out;
    for (const std::string& l : Captured()) {
      size_t from = l.rfind(kPrefix, 0) == 0 ? kPrefix.size() : 0;
      size_t to = !l.empty() && l.back() == '\n' ? l.size() - 1 : l.size();
      out.push_back(l.substr(from, to - from));
    }
    return out;
  }
  // Whether a line contains `text`.
  bool Has(const std::string& text) const {
    for (const std::string& l : Captured())
      if (l.find(text) != std::string::npos) return true;
    return false;
  }
  // Whether a line reads exactly "[Marquel2.0] <message>".
  bool HasMessage(const std::string& message) const {
    for (const std::string& l : Captured())
      if (l == kPrefix + message + "\n") return true;
    return false;
  }
  void Clear() { Captured().clear(); }

 private:
  inline static const std::string kPrefix = "[Marquel2.0] ";

  static std::vector<std::string>& Captured() {
    static std::vector<std::string> lines;
    return lines;
  }
  static void Capture(const char* line, size_t n) { Captured().emplace_back(line, n); }

  Settings saved_;
  DebugSink previous_;
};

}  // namespace marquel::log
