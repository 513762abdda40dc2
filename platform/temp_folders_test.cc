// Per-process temporary folders: the own folder is locked, ended processes' folders go,
// live ones stay, and a normal exit leaves nothing.
#include "platform/temp_folders.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "platform/files.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

std::string FolderOf(pid_t pid) {
  return TempFoldersRoot() + "/" + std::to_string(pid);
}

// Runs `body` in a child process that ends with _exit (no exit handlers) and waits for it.
template <typename Body>
int InChild(Body body) {
  pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A child that makes its folder and a file in it, then ends without any clean-up (as a
// killed process does). Returns its pid.
pid_t EndedChildWithAFile() {
  pid_t pid = fork();
  if (pid == 0) {
    std::string folder = ProcessTempFolder();
    std::ofstream(folder + "/MQT1.tmp") << "records";
    _exit(folder.empty() ? 1 : 0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  return pid;
}

TEST(ProcessTempFolders, TheOwnFolderIsNamedByThePidAndLockedForTheProcesssLife) {
  const std::string folder = ProcessTempFolder();
  ASSERT_EQ(folder, FolderOf(getpid()));
  EXPECT_EQ(ProcessTempFolder(), folder) << "made once";
  struct stat st;
  ASSERT_EQ(stat(TempFoldersRoot().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 077, 0u) << "the per-user folder is closed to others";
  int fd = open((folder + "/lock").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  EXPECT_NE(flock(fd, LOCK_EX | LOCK_NB), 0) << "another opener cannot take the lock";
  close(fd);
  EXPECT_EQ(RemoveEndedProcessTempFolders(), 0);
  EXPECT_TRUE(FileExists(folder + "/lock")) << "the own folder is never removed";
}

TEST(ProcessTempFolders, AFolderOfAnEndedProcessIsRemovedWithItsFiles) {
  const pid_t ended = EndedChildWithAFile();
  ASSERT_TRUE(FileExists(FolderOf(ended) + "/MQT1.tmp"));
  EXPECT_EQ(RemoveEndedProcessTempFolders(), 1);
  EXPECT_FALSE(FileExists(FolderOf(ended)));
}

TEST(ProcessTempFolders, AFolderOfALiveProcessIsKept) {
  int ready[2], release[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(release), 0);
  pid_t pid = fork();
  if (pid == 0) {
    std::string folder = ProcessTempFolder();
    std::ofstream(folder + "/MQT2.tmp") << "records";
    char c = 1;
    if (write(ready[1], &c, 1) != 1) _exit(1);
    (void)read(release[0], &c, 1);  // until the parent lets go
    _exit(0);
  }
  char c;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  EXPECT_EQ(RemoveEndedProcessTempFolders(), 0);
  EXPECT_TRUE(FileExists(FolderOf(pid) + "/MQT2.tmp"));
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  EXPECT_EQ(RemoveEndedProcessTempFolders(), 1);
  EXPECT_FALSE(FileExists(FolderOf(pid)));
  for (int fd : {ready[0], ready[1], release[0], release[1]}) close(fd);
}

TEST(ProcessTempFolders, OnlyFoldersNamedByANumberAreTouched) {
  ProcessTempFolder();
  const std::string root = TempFoldersRoot();
  ASSERT_TRUE(MakeFolder(root + "/notes"));
  std::ofstream(root + "/notes/keep.txt") << "mine";
  std::ofstream(root + "/123") << "a file, not a folder";
  // A folder without a lock whose process is gone: died before it made its lock.
  const pid_t ended = fork();
  if (ended == 0) _exit(0);
  waitpid(ended, nullptr, 0);
  ASSERT_TRUE(MakeFolder(FolderOf(ended)));
  EXPECT_EQ(RemoveEndedProcessTempFolders(), 1);
  EXPECT_FALSE(FileExists(FolderOf(ended)));
  EXPECT_TRUE(FileExists(root + "/notes/keep.txt"));
  EXPECT_TRUE(FileExists(root + "/123"));
}

TEST(ProcessTempFolders, AFolderLeftUnderTheOwnNumberIsEmptiedBeforeUse) {
  // The child plays a process that got the number of one that was killed.
  EXPECT_EQ(InChild([] {
              const std::string folder = FolderOf(getpid());
              mkdir(TempFoldersRoot().c_str(), 0700);
              mkdir(folder.c_str(), 0700);
              std::ofstream(folder + "/MQT3.tmp") << "stale";
              if (ProcessTempFolder() != folder) return 1;
              return FileExists(folder + "/MQT3.tmp") ? 2 : 0;
            }),
            0);
}

TEST(ProcessTempFolders, ANormalExitLeavesNothingBehind) {
  pid_t pid = fork();
  if (pid == 0) {
    ProcessTempFolder();
    std::exit(0);  // runs the exit handlers
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_FALSE(FileExists(FolderOf(pid)));
}

TEST(ProcessTempFolders, AForkedChildGetsAFolderOfItsOwn) {
  const std::string parent = ProcessTempFolder();
  EXPECT_EQ(InChild([&parent] {
              const std::string own = ProcessTempFolder();
              return own == FolderOf(getpid()) && own != parent ? 0 : 1;
            }),
            0);
}

TEST(ProcessTempFolders, AnEmptyFolderOfAnEarlierTempFolderIsLetGo) {
  const std::string first = ProcessTempFolder();
  const std::string busy_root = test::TestPath("busy");
  ASSERT_TRUE(MakeFolder(busy_root));
  setenv("TMPDIR", busy_root.c_str(), 1);
  const std::string busy = ProcessTempFolder();
  std::ofstream(busy + "/MQT4.tmp") << "in use";
  ASSERT_TRUE(MakeFolder(test::TestPath("later")));
  setenv("TMPDIR", test::TestPath("later").c_str(), 1);
  ProcessTempFolder();
  EXPECT_FALSE(FileExists(first)) << "nothing in it: removed";
  EXPECT_TRUE(FileExists(busy + "/MQT4.tmp"));
  int fd = open((busy + "/lock").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  EXPECT_NE(flock(fd, LOCK_EX | LOCK_NB), 0) << "a folder with files keeps its lock";
  close(fd);
}

TEST(ProcessTempFolders, APerUserFolderOpenToOthersIsNotUsed) {
  const std::string root = TempFoldersRoot();
  ASSERT_EQ(mkdir(root.c_str(), 0777), 0);
  ASSERT_EQ(chmod(root.c_str(), 0777), 0);
  EXPECT_EQ(ProcessTempFolder(), "");
  EXPECT_EQ(RemoveEndedProcessTempFolders(), 0);
}

}  // namespace
}  // namespace marquel
