// Helpers of the CMQInterface tests: media files in the test's home and a controller whose
// sessions close the way a test wants.
#pragma once

#include <fstream>
#include <memory>
#include <string>

#include "api/mq_interface.h"
#include "persist/result_codes.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {

// Makes an empty file in the test's folder and returns its absolute path.
inline std::string MediaFile(const std::string& name) {
  std::string path = TestPath(name);
  std::ofstream(path).put('\0');
  return path;
}

// A session whose close, VOB close and VCD close answer what the test chose.
class ScriptedSession : public MarquelOneFile {
 public:
  explicit ScriptedSession(int32_t close_result, int32_t vob_result)
      : close_result_(close_result), vob_result_(vob_result) {}
  int32_t Close(int32_t) override { return close_result_; }
  int32_t CloseVOB() override { return vob_result_; }
  int32_t CloseVCDOrSVCD() override { return vob_result_; }

 private:
  int32_t close_result_;
  int32_t vob_result_;
};

// A controller whose new sessions are ScriptedSessions.
class ScriptedCtrl : public MQCtrl {
 public:
  // No monitor thread: the list changes only as the test says.
  ScriptedCtrl() : MQCtrl(MonitorOptions{std::chrono::milliseconds(10000), false}) {}
  int32_t close_result = MQ_SUCCESS;
  int32_t vob_result = 1;

 protected:
  std::unique_ptr<MarquelOneFile> MakeSession() override {
    return std::make_unique<ScriptedSession>(close_result, vob_result);
  }
};

}  // namespace marquel::test
