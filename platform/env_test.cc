#include "platform/env.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "fat_kind.h"
#include "platform/files.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

class FakeVolumeEnv : public Env {
 public:
  explicit FakeVolumeEnv(std::string name) : name_(std::move(name)) {}
  std::string FileSystemName(const std::string& path) override {
    last_path_ = path;
    return name_;
  }
  std::string last_path_;

 private:
  std::string name_;
};

// Installs an Env for one test and restores the real one afterwards.
class ScopedEnv {
 public:
  explicit ScopedEnv(Env* env) { SetEnvForTesting(env); }
  ~ScopedEnv() { SetEnvForTesting(nullptr); }
};

TEST(EnvTest, FakeFat32VolumeIsSeenByGetFileSystemName) {
  FakeVolumeEnv fake("FAT32");
  ScopedEnv scoped(&fake);
  std::string name = "stale";
  EXPECT_TRUE(GetFileSystemName("/media/stick/video.mpg", &name));
  EXPECT_EQ(name, "FAT32");
  EXPECT_EQ(fake.last_path_, "/media/stick/video.mpg");
  EXPECT_TRUE(CurrentEnv()->IsCaseInsensitiveVolume("/media/stick/video.mpg"));
}

TEST(EnvTest, NullRestoresTheRealEnv) {
  {
    FakeVolumeEnv fake("FAT16");
    ScopedEnv scoped(&fake);
    EXPECT_EQ(CurrentEnv(), &fake);
  }
  EXPECT_EQ(CurrentEnv(), Env::Default());
  std::string name;
  EXPECT_TRUE(GetFileSystemName(test::TestDir(), &name));
  EXPECT_NE(name, "FAT16");
}

TEST(EnvTest, FailingVolumeGivesEmptyName) {
  FakeVolumeEnv fake("");
  ScopedEnv scoped(&fake);
  std::string name = "stale";
  EXPECT_FALSE(GetFileSystemName("/x", &name));
  EXPECT_EQ(name, "");
}

TEST(EnvTest, OnlyTheFatFamilyIgnoresCase) {
  for (const char* n : {"FAT16", "FAT32", "exfat", "vfat", "msdos"}) {
    FakeVolumeEnv fake(n);
    EXPECT_TRUE(fake.IsCaseInsensitiveVolume("/v")) << n;
  }
  // NTFS keeps "A" and "a" apart on Linux, and fuseblk may be NTFS too.
  for (const char* n : {"ntfs", "ntfs3", "fuseblk", "ext4", "btrfs", "xfs", "tmpfs", ""}) {
    FakeVolumeEnv fake(n);
    EXPECT_FALSE(fake.IsCaseInsensitiveVolume("/v")) << n;
  }
}

TEST(EnvTest, FatKindFollowsTheClusterCount) {
  EXPECT_EQ(FatKindName(0), "FAT16");
  EXPECT_EQ(FatKindName(65524), "FAT16");
  EXPECT_EQ(FatKindName(65525), "FAT32");
  EXPECT_EQ(FatKindName(1u << 28), "FAT32");
}

TEST(EnvTest, RealVolumeOfAMissingFileIsThatOfItsFolder) {
  const std::string folderName = Env::Default()->FileSystemName(test::TestDir());
  ASSERT_FALSE(folderName.empty());
  EXPECT_EQ(Env::Default()->FileSystemName(test::TestPath("not/yet/there.ts")), folderName);
  EXPECT_EQ(Env::Default()->FileSystemName("/proc/self"), "proc");
}

TEST(EnvTest, FoldersComeFromTheEnvironmentEachTime) {
  Env* env = Env::Default();
  EXPECT_EQ(env->AppDataFolder(), test::TestPath("data"));
  EXPECT_EQ(env->TempFolder(), test::TestPath("tmp"));
  setenv("TMPDIR", (test::TestDir() + "/other//").c_str(), 1);
  EXPECT_EQ(env->TempFolder(), test::TestPath("other"));
  unsetenv("TMPDIR");
  EXPECT_EQ(env->TempFolder(), "/tmp");
  unsetenv("XDG_DATA_HOME");
  EXPECT_EQ(env->AppDataFolder(), test::TestDir() + "/.local/share");
  setenv("XDG_DATA_HOME", "relative/path", 1);  // ignored, as the XDG rules say
  EXPECT_EQ(env->AppDataFolder(), test::TestDir() + "/.local/share");
}

TEST(EnvTest, FakeFoldersReachTheWrappers) {
  class FakeFolders : public Env {
   public:
    std::string AppDataFolder() override { return test::TestPath("fake-data"); }
    std::string TempFolder() override { return test::TestPath("fake-tmp"); }
  } fake;
  ScopedEnv scoped(&fake);
  std::string out;
  EXPECT_TRUE(GetSpecialFolder(&out, CSIDL_APPDATA, true));
  EXPECT_EQ(out, test::TestPath("fake-data"));
  ASSERT_TRUE(MakeFolder(test::TestPath("fake-tmp")));
  EXPECT_NE(GetTempFolderFileName("mq", 0, &out), 0u);
  EXPECT_EQ(out.rfind(test::TestPath("fake-tmp/mq"), 0), 0u);
}

}  // namespace
}  // namespace marquel
