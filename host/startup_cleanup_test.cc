// The start-up clean-up removes what ended processes left and nothing a live one uses.
#include "startup_cleanup.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "media/mqinfo_temp.h"
#include "persist/cache_sweep.h"
#include "platform/access_reg.h"
#include "platform/files.h"
#include "platform/temp_folders.h"
#include "platform/text.h"
#include "testsupport/fresh_home.h"

namespace marquel::host {
namespace {

TEST(StartupCleanup, RemovesAnEndedProcesssFolderAndUnnamedCacheFilesOnly) {
  pid_t child = fork();
  if (child == 0) {
    std::ofstream(ProcessTempFolder() + "/MQT1.tmp") << "records";
    _exit(0);  // as killed: no exit handlers
  }
  waitpid(child, nullptr, 0);
  const std::string ended = TempFoldersRoot() + "/" + std::to_string(child);
  ASSERT_TRUE(FileExists(ended + "/MQT1.tmp"));
  const std::string own = ProcessTempFolder();
  std::ofstream(own + "/MQT2.tmp") << "in use";
  std::string orphan;
  ASSERT_NE(GetMQInfoTempFileName("MQ", 0, &orphan), 0u);
  std::string folder;
  ASSERT_TRUE(GetMQInfoFolder(&folder));
  std::ofstream(folder + "/readme.txt") << "not a cache file";

  RemoveLeftoversOfKilledProcesses();
  EXPECT_FALSE(FileExists(ended));
  EXPECT_FALSE(FileExists(orphan));
  EXPECT_TRUE(FileExists(own + "/MQT2.tmp"));
  EXPECT_TRUE(FileExists(folder + "/readme.txt"));
}

// A merge's roll-back record as a killed server leaves it: the file's old bytes [1000,
// 4000) and [4000, 6000) kept aside, and the file rewritten from 1000 on.
struct UnfinishedMerge {
  std::string old_bytes;
  std::string media = test::TestPath("clip.mpg");
  std::string packs, tail;
  std::string key = "Software\\Halvern\\Marquel\\RollBack\\clip";

  void Make() {
    old_bytes.resize(6000);
    for (size_t i = 0; i < old_bytes.size(); ++i) old_bytes[i] = static_cast<char>('a' + i % 26);
    std::ofstream(media, std::ios::binary) << old_bytes.substr(0, 1000) << std::string(9000, 'x');
    ASSERT_NE(GetMQInfoTempFileName("MQ", 0, &packs), 0u);
    ASSERT_NE(GetMQInfoTempFileName("MQ", 0, &tail), 0u);
    std::ofstream(packs, std::ios::binary) << old_bytes.substr(1000, 3000);
    std::ofstream(tail, std::ios::binary) << old_bytes.substr(4000);
    std::vector<uint8_t> buf(1056, 0);
    char16_t units[260];
    ASSERT_TRUE(CopyToWideRecord(tail, units, 260));
    std::memcpy(buf.data(), units, sizeof units);
    ASSERT_TRUE(CopyToWideRecord(packs, units, 260));
    std::memcpy(buf.data() + 520, units, sizeof units);
    const int64_t offset = 1000;
    std::memcpy(buf.data() + 1040, &offset, sizeof offset);
    AccessReg reg;
    ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, key.c_str()));
    ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, key.c_str()));
    ASSERT_TRUE(reg.SetValue("BUF", buf.data(), REG_BINARY, 1056));
    ASSERT_TRUE(reg.SetString("PATH", media.c_str()));
    ASSERT_TRUE(reg.SetDword("TYPE", 1));
  }
  bool RecordThere() {
    AccessReg reg;
    return reg.Open(HKEY_CURRENT_USER, key.c_str());
  }
};

TEST(StartupCleanup, PutsBackAFileWhoseMergeAKilledServerLeftUnfinished) {
  UnfinishedMerge m;
  m.Make();
  RemoveLeftoversOfKilledProcesses();
  std::ifstream in(m.media, std::ios::binary);
  const std::string now((std::istreambuf_iterator<char>(in)), {});
  EXPECT_EQ(now, m.old_bytes);
  EXPECT_FALSE(m.RecordThere());
  EXPECT_FALSE(FileExists(m.packs));
  EXPECT_FALSE(FileExists(m.tail));
}

TEST(StartupCleanup, KeepsTheRecordAndBackupsOfAFileThatIsNotThereNow) {
  UnfinishedMerge m;
  m.Make();
  ASSERT_TRUE(RemoveFile(m.media));  // on a volume that is not mounted
  RemoveLeftoversOfKilledProcesses();
  EXPECT_TRUE(m.RecordThere());
  EXPECT_TRUE(FileExists(m.packs)) << "the only copy of the old bytes";
  EXPECT_TRUE(FileExists(m.tail));
}

TEST(StartupCleanup, LeavesAFileBeingWrittenAlone) {
  std::string being_written;
  ASSERT_NE(GetMQInfoTempFileName("MQ", 0, &being_written), 0u);
  CacheWriteLock writing;  // as a close in another process holds it
  RemoveLeftoversOfKilledProcesses();
  EXPECT_TRUE(FileExists(being_written));
}

}  // namespace
}  // namespace marquel::host
