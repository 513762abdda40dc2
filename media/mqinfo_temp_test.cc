#include "media/mqinfo_temp.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "platform/files.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

TEST(MQInfoTemp, MakesTheFoldersAndAnEmptyUniqueFile) {
  std::string name;
  const uint32_t number = GetMQInfoTempFileName("MQ", 0, &name);
  ASSERT_NE(number, 0u);
  const std::string folder = test::TestPath("data") + "/Halvern/MQInfo";
  EXPECT_EQ(name.rfind(folder + "/MQ", 0), 0u) << name;
  EXPECT_EQ(name.substr(name.size() - 4), ".tmp");
  FileStatusRecord status;
  ASSERT_EQ(FileStatus(name, &status), 0);
  EXPECT_EQ(status.size, 0);
  std::string second;
  ASSERT_NE(GetMQInfoTempFileName("MQ", 0, &second), 0u);
  EXPECT_NE(second, name);
  std::string got;
  EXPECT_TRUE(GetMQInfoFolder(&got));
  EXPECT_EQ(got, folder);
}

TEST(MQInfoTemp, GivenNumberMakesNoFile) {
  std::string name;
  EXPECT_EQ(GetMQInfoTempFileName("MQ", 0x1A2B, &name), 0x1A2Bu);
  EXPECT_EQ(name, test::TestPath("data") + "/Halvern/MQInfo/MQ1A2B.tmp");
  EXPECT_FALSE(FileExists(name));
  EXPECT_EQ(GetMQInfoTempFileName("MQ", 0, nullptr), 0u);
}

TEST(MQInfoTemp, FailsWhenTheFolderCannotBeMade) {
  // Application data below a regular file cannot be created.
  const std::string blocker = test::TestPath("blocker");
  const FileHandle h =
      OpenFileHandle(blocker, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, kInvalidFileHandle);
  CloseFileHandle(h);
  setenv("XDG_DATA_HOME", (blocker + "/data").c_str(), 1);
  std::string name = "unchanged";
  EXPECT_EQ(GetMQInfoTempFileName("MQ", 0, &name), 0u);
  EXPECT_EQ(name, "unchanged");
}

TEST(TempFolderTemp, UsesTmpdirAndRefusesLongPaths) {
  std::string name;
  ASSERT_NE(GetTempFolderTempFileName("TTag", 0, &name), 0u);
  EXPECT_EQ(name.rfind(test::TestPath("tmp") + "/TTag", 0), 0u) << name;
  EXPECT_TRUE(FileExists(name));
  const std::string deep = test::TestPath("tmp") + "/" + std::string(255, 'd');
  ASSERT_TRUE(MakeFolder(deep));
  setenv("TMPDIR", deep.c_str(), 1);
  std::string refused = "unchanged";
  EXPECT_EQ(GetTempFolderTempFileName("TTag", 0, &refused), 0u);
  EXPECT_EQ(refused, "unchanged");
}

}  // namespace
}  // namespace marquel
