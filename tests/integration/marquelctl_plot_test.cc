// marquelctl plot against the test's server: what it reads, what it writes, what it refuses.
#include <nlohmann/json.hpp>

#include <filesystem>
#include <regex>

#include "bus_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

class MarquelctlPlot : public BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    file_ = MediaFile("clip.mpg");
    ASSERT_EQ(client_->InitialFile(file_.c_str(), 0, 0, &handle_), S_OK);
  }
  int Plot(std::vector<std::string> args, std::string* out) {
    args.insert(args.begin(), {MarquelctlPath(), "plot"});
    return RunProgram(args, out);
  }
  // The rows of a picture as "program/tag/kind".
  static std::vector<std::string> Rows(const std::string& svg) {
    std::vector<std::string> rows;
    const std::regex row(R"re(data-program="(\d+)" data-tag="(\d+)" data-kind="(\w+)")re");
    for (auto it = std::sregex_iterator(svg.begin(), svg.end(), row); it != std::sregex_iterator();
         ++it)
      rows.push_back((*it)[1].str() + "/" + (*it)[2].str() + "/" + (*it)[3].str());
    return rows;
  }

  std::string file_;
  int32_t handle_ = -1;
};

TEST_F(MarquelctlPlot, EveryTagGetsARowOfItsKindAndTheFileKeepsItsSamples) {
  ASSERT_EQ(client_->InsertDataOne(handle_, 40, 1000, 7), S_OK);
  ASSERT_EQ(client_->InsertDataOne(handle_, 17, 2000, 1), S_OK);
  const uint8_t bytes[2] = {1, 2};
  ASSERT_EQ(client_->InsertRawDataOne(handle_, 29, 3000, 2, bytes), S_OK);
  const std::string picture = TestPath("timeline.svg");
  std::string out;
  ASSERT_EQ(Plot({file_, "-o", picture, "--json"}, &out), 0) << out;
  const nlohmann::json result = nlohmann::json::parse(out);
  EXPECT_EQ(result["rows"], 3);
  EXPECT_EQ(result["bytes"], std::filesystem::file_size(picture));
  const std::string svg = ReadFile(picture);
  EXPECT_EQ(Rows(svg), (std::vector<std::string>{"0/17/state", "0/40/plain", "0/29/raw"}));
  EXPECT_NE(svg.find(">clip.mpg</text>"), std::string::npos);
  // The plot's read-only open left the session as it was.
  int32_t value = 0;
  EXPECT_EQ(client_->GetDataOne(handle_, 40, 1000, &value), S_OK);
  EXPECT_EQ(value, 7);
}

TEST_F(MarquelctlPlot, ProgramPicksOneProgramOfTheFile) {
  int32_t second = -1;
  ASSERT_EQ(client_->InsertNewProgram(handle_, 0x1001, &second), S_OK);
  ASSERT_EQ(client_->InsertDataOne2(handle_, 0, 40, 1000, 1), S_OK);
  ASSERT_EQ(client_->InsertDataOne2(handle_, second, 41, 1000, 2), S_OK);
  std::string out;
  ASSERT_EQ(Plot({file_, "-o", TestPath("all.svg")}, &out), 0) << out;
  EXPECT_NE(out.find("2 tags"), std::string::npos) << out;
  EXPECT_EQ(Rows(ReadFile(TestPath("all.svg"))),
            (std::vector<std::string>{"0/40/plain", "1/41/plain"}));
  ASSERT_EQ(Plot({file_, "-o", TestPath("one.svg"), "--program", "1"}, &out), 0) << out;
  EXPECT_EQ(Rows(ReadFile(TestPath("one.svg"))), (std::vector<std::string>{"1/41/plain"}));
}

TEST_F(MarquelctlPlot, AWidthOutsideItsRangeIsAUsageError) {
  std::string out;
  EXPECT_EQ(Plot({file_, "-o", TestPath("x.svg"), "--width", "100"}, &out), 2);
  EXPECT_NE(out.find("--width 100 is outside 400-4000 pixels"), std::string::npos) << out;
  EXPECT_EQ(Plot({file_, "-o", TestPath("x.svg"), "--width", "4001", "--json"}, &out), 2);
  EXPECT_NE(out.find("\"error\""), std::string::npos) << out;
  EXPECT_EQ(Plot({file_}, &out), 2) << "the picture's path is required";
  EXPECT_FALSE(std::filesystem::exists(TestPath("x.svg")));
}

TEST_F(MarquelctlPlot, MoreTagsThanAPictureHoldsAreRefusedBeforeAnythingIsRead) {
  // Five programs of 250 plain tags each: 1250 rows.
  for (int32_t p = 1; p < 5; ++p) {
    int32_t index = -1;
    ASSERT_EQ(client_->InsertNewProgram(handle_, 0x1000 + p, &index), S_OK);
  }
  for (int32_t p = 0; p < 5; ++p)
    for (int32_t tag = 2; tag < 252; ++tag) {
      if (tag == 17 || tag == 29 || tag == 30 || tag == 31 || tag == 32 || tag == 67 || tag == 68 ||
          (tag >= 112 && tag <= 141))
        continue;
      ASSERT_EQ(client_->InsertDataOne2(handle_, p, tag, 1000, 1), S_OK) << tag;
    }
  std::string out;
  EXPECT_EQ(Plot({file_, "-o", TestPath("big.svg")}, &out), 2);
  EXPECT_NE(out.find("a picture holds at most 1024"), std::string::npos) << out;
  EXPECT_FALSE(std::filesystem::exists(TestPath("big.svg")));
  // One program fits.
  EXPECT_EQ(Plot({file_, "-o", TestPath("big.svg"), "--program", "4"}, &out), 0) << out;
}

TEST_F(MarquelctlPlot, APictureThatCannotBeWrittenFails) {
  ASSERT_EQ(client_->InsertDataOne(handle_, 40, 1000, 7), S_OK);
  std::string out;
  EXPECT_EQ(Plot({file_, "-o", TestPath("no-such-folder/x.svg")}, &out), 1);
  EXPECT_NE(out.find("cannot write"), std::string::npos) << out;
}

}  // namespace
}  // namespace marquel::test
