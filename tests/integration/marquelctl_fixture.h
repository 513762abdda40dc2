// The fixture of the tests that run marquelctl as a user does against the test's server.
//
// The test holds clip.mpg open through its own client, so that the data a marquelctl run
// inserts is still there for the next run.
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "bus_fixture.h"

namespace marquel::test {

class Marquelctl : public BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    file_ = MediaFile("clip.mpg");
    ASSERT_EQ(client_->InitialFile(file_.c_str(), 0, 0, &handle_), S_OK);
  }

  // Runs marquelctl; returns its exit status and its standard output and error.
  int Ctl(std::vector<std::string> args, std::string* out = nullptr) {
    args.insert(args.begin(), MarquelctlPath());
    std::string text;
    int status = RunProgram(args, &text);
    if (out) *out = text;
    return status;
  }
  nlohmann::json CtlJson(std::vector<std::string> args, int expected_status = 0) {
    std::string out;
    EXPECT_EQ(Ctl(args, &out), expected_status) << out;
    try {
      return nlohmann::json::parse(out);
    } catch (const std::exception& e) {
      ADD_FAILURE() << "not JSON: " << out;
      return nullptr;
    }
  }

  std::string file_;
  int32_t handle_ = -1;
};

}  // namespace marquel::test
