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
#include "testsupport/unfinished_merge.h"

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

TEST(StartupCleanup, LeavesAnUnfinishedMergeWithItsBackupsForTheController) {
  test::UnfinishedMerge m;
  m.Make();
  RemoveLeftoversOfKilledProcesses();
  std::ifstream in(m.media, std::ios::binary);
  const std::string now((std::istreambuf_iterator<char>(in)), {});
  EXPECT_EQ(now, m.old_bytes.substr(0, 1000) + std::string(9000, 'x'))
      << "the controller's first round rolls it back";
  EXPECT_TRUE(m.RecordThere());
  EXPECT_TRUE(FileExists(m.packs)) << "the record names them: the sweep keeps them";
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
