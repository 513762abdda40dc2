#include "platform/files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

FileHandle Create(const std::string& path) {
  return OpenFileHandle(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                        FILE_ATTRIBUTE_NORMAL, kInvalidFileHandle);
}

TEST(FilesTest, UseWideApiDecidesOnceForTheUtf8Interface) {
  EXPECT_EQ(UseWideApi(), 1);
  EXPECT_EQ(UseWideApi(), 1);
}

TEST(FilesTest, InvalidHandleHasAllBitsSet) {
  EXPECT_EQ(static_cast<uint32_t>(kInvalidFileHandle), 0xFFFFFFFFu);
}

TEST(FilesTest, WriteReadSeekAndSize) {
  const std::string path = test::TestPath("a.bin");
  FileHandle h = Create(path);
  ASSERT_NE(h, kInvalidFileHandle);
  uint32_t done = 0;
  ASSERT_TRUE(WriteFile(h, "0123456789", 10, &done));
  EXPECT_EQ(done, 10u);
  EXPECT_EQ(GetFileSize64(h), 10);
  EXPECT_EQ(SeekFile(h, 2, FILE_BEGIN), 2);
  EXPECT_EQ(SeekFile(h, 3, FILE_CURRENT), 5);
  EXPECT_EQ(SeekFile(h, -4, FILE_END), 6);
  char buf[16] = {};
  ASSERT_TRUE(ReadFile(h, buf, sizeof buf, &done));
  EXPECT_EQ(done, 4u);  // fewer bytes at the end of the file is still success
  EXPECT_EQ(std::string(buf, done), "6789");
  ASSERT_TRUE(ReadFile(h, buf, sizeof buf, &done));
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(SeekFile(h, -1, FILE_BEGIN), -1);
  EXPECT_EQ(SeekFile(h, 0, 7), -1);
  EXPECT_EQ(SeekFile(h, 4, FILE_BEGIN), 4);
  ASSERT_TRUE(SetEndOfFile(h));
  EXPECT_EQ(GetFileSize64(h), 4);
  EXPECT_TRUE(CloseFileHandle(h));
  EXPECT_FALSE(CloseFileHandle(kInvalidFileHandle));
  EXPECT_EQ(GetFileSize64(kInvalidFileHandle), -1);
  EXPECT_FALSE(ReadFile(kInvalidFileHandle, buf, 1, &done));
  EXPECT_EQ(done, 0u);
}

TEST(FilesTest, SeekToTheEndOfAFiveGigabyteFile) {
  const std::string path = test::TestPath("big.ts");
  FileHandle h = Create(path);
  ASSERT_NE(h, kInvalidFileHandle);
  ASSERT_EQ(ftruncate(h, 5368709120LL), 0);  // sparse: no disk space is used
  EXPECT_EQ(SeekFile(h, 0, FILE_END), 5368709120LL);
  EXPECT_EQ(GetFileSize64(h), 5368709120LL);
  EXPECT_EQ(SeekFile(h, -188, FILE_CURRENT), 5368709120LL - 188);
  EXPECT_EQ(SeekFile(h, 4294967296LL + 7, FILE_BEGIN), 4294967303LL);
  CloseFileHandle(h);
}

TEST(FilesTest, Dispositions) {
  const std::string path = test::TestPath("d.bin");
  auto open = [&](uint32_t access, uint32_t disposition) {
    return OpenFileHandle(path, access, 0, nullptr, disposition, 0, kInvalidFileHandle);
  };
  EXPECT_EQ(open(GENERIC_READ, OPEN_EXISTING), kInvalidFileHandle);
  EXPECT_EQ(open(GENERIC_WRITE, TRUNCATE_EXISTING), kInvalidFileHandle);
  FileHandle h = open(GENERIC_WRITE, CREATE_NEW);
  ASSERT_NE(h, kInvalidFileHandle);
  uint32_t done;
  WriteFile(h, "abc", 3, &done);
  CloseFileHandle(h);
  EXPECT_EQ(open(GENERIC_WRITE, CREATE_NEW), kInvalidFileHandle);
  EXPECT_EQ(open(GENERIC_READ, TRUNCATE_EXISTING), kInvalidFileHandle);  // needs write access
  h = open(GENERIC_READ, OPEN_ALWAYS);
  ASSERT_NE(h, kInvalidFileHandle);
  EXPECT_EQ(GetFileSize64(h), 3);
  EXPECT_FALSE(WriteFile(h, "x", 1, &done));  // opened for reading only
  CloseFileHandle(h);
  h = open(GENERIC_WRITE, TRUNCATE_EXISTING);
  ASSERT_NE(h, kInvalidFileHandle);
  EXPECT_EQ(GetFileSize64(h), 0);
  CloseFileHandle(h);
  EXPECT_EQ(OpenFileHandle(test::TestDir(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0,
                           kInvalidFileHandle),
            kInvalidFileHandle);  // a folder is not a file
  EXPECT_EQ(open(GENERIC_READ, 99), kInvalidFileHandle);
}

TEST(FilesTest, FileStatusGivesSizeTimeAndOwnerWriteBit) {
  const std::string path = test::TestPath("s.bin");
  FileStatusRecord st;
  EXPECT_EQ(FileStatus(path, &st), -1);
  FileHandle h = Create(path);
  uint32_t done;
  WriteFile(h, "12345", 5, &done);
  CloseFileHandle(h);
  ASSERT_EQ(FileStatus(path, &st), 0);
  EXPECT_EQ(st.size, 5);
  EXPECT_GT(st.mtime, 1600000000);
  EXPECT_NE(st.mode & kOwnerWriteBit, 0u);
  chmod(path.c_str(), 0444);
  ASSERT_EQ(FileStatus(path, &st), 0);
  EXPECT_EQ(st.mode & kOwnerWriteBit, 0u);
  EXPECT_TRUE(FileExists(path));
  EXPECT_TRUE(FileExists(test::TestDir()));
  EXPECT_FALSE(FileExists(test::TestPath("nope")));
}

TEST(FilesTest, MakeTempFileNameCreatesAUniqueFileWhenAskedForNumberZero) {
  const std::string folder = test::TestPath("tmp");
  std::string first, second;
  const uint32_t a = MakeTempFileName(folder, "MQ", 0, &first);
  const uint32_t b = MakeTempFileName(folder, "MQ", 0, &second);
  ASSERT_NE(a, 0u);
  ASSERT_NE(b, 0u);
  EXPECT_NE(first, second);
  const std::string prefix = folder + "/MQ";
  ASSERT_EQ(first.rfind(prefix, 0), 0u);
  ASSERT_GT(first.size(), prefix.size() + 4);
  const std::string digits = first.substr(prefix.size(), first.size() - prefix.size() - 4);
  EXPECT_EQ(digits.find_first_not_of("0123456789ABCDEF"), std::string::npos);
  EXPECT_EQ(first.substr(first.size() - 4), ".tmp");
  char hex[16];
  snprintf(hex, sizeof hex, "%X", a);
  EXPECT_EQ(first, folder + "/MQ" + hex + ".tmp");
  FileStatusRecord st;
  ASSERT_EQ(FileStatus(first, &st), 0);
  EXPECT_EQ(st.size, 0);
}

TEST(FilesTest, MakeTempFileNameWithANumberOnlyNames) {
  std::string name;
  EXPECT_EQ(MakeTempFileName(test::TestPath("tmp"), "ab", 0x1ABCD, &name), 0x1ABCDu);
  EXPECT_EQ(name, test::TestPath("tmp/abABCD.tmp"));  // the low 16 bits
  EXPECT_FALSE(FileExists(name));
  EXPECT_EQ(MakeTempFileName(test::TestPath("no-such-folder"), "ab", 0, &name), 0u);
}

TEST(FilesTest, TempFolderFileNameUsesTmpdir) {
  std::string name;
  ASSERT_NE(GetTempFolderFileName("tg", 0, &name), 0u);
  EXPECT_EQ(name.rfind(test::TestPath("tmp/tg"), 0), 0u);
  EXPECT_TRUE(FileExists(name));
  EXPECT_TRUE(RemoveFile(name));
  EXPECT_FALSE(RemoveFile(name));
}

TEST(FilesTest, MakeFolderIsFalseWhenTheFolderExists) {
  const std::string path = test::TestPath("newdir");
  EXPECT_TRUE(MakeFolder(path));
  EXPECT_FALSE(MakeFolder(path));
  EXPECT_FALSE(MakeFolder(test::TestPath("a/b")));  // parent missing
  EXPECT_FALSE(RemoveFile(path));                   // folders are not removed as files
}

TEST(FilesTest, ApplicationDataFolderIsXdgDataHome) {
  std::string out;
  ASSERT_TRUE(GetSpecialFolder(&out, CSIDL_APPDATA, false));
  EXPECT_EQ(out, test::TestPath("data"));
  EXPECT_FALSE(GetSpecialFolder(&out, 5, true));

  const std::string fresh = test::TestPath("elsewhere/share");
  setenv("XDG_DATA_HOME", fresh.c_str(), 1);
  EXPECT_FALSE(GetSpecialFolder(&out, CSIDL_APPDATA, false));
  EXPECT_FALSE(FileExists(fresh));  // not made without `create`
  ASSERT_TRUE(GetSpecialFolder(&out, CSIDL_APPDATA, true));
  EXPECT_EQ(out, fresh);
  EXPECT_TRUE(FileExists(fresh));
}

TEST(FilesTest, NormalizeMixedSeparatorsBothWays) {
  std::string path = "C:\\Video/sub\\dir/clip.ts";
  NormalizePathSeparators(path, true);
  EXPECT_EQ(path, "C:\\Video\\sub\\dir\\clip.ts");
  EXPECT_EQ(path.find('/'), std::string::npos);
  path = "/home\\ann/Videos\\a/b.ts";
  NormalizePathSeparators(path, false);
  EXPECT_EQ(path, "/home/ann/Videos/a/b.ts");
  EXPECT_EQ(path.find('\\'), std::string::npos);
}

TEST(FilesTest, LongPathsAreNeverCut) {
  // A name far beyond 260 characters is used whole or fails; it is not shortened.
  std::string dir = test::TestDir();
  for (int i = 0; i < 12; ++i) {
    dir += "/" + std::string(40, static_cast<char>('a' + i));
    ASSERT_TRUE(MakeFolder(dir));
  }
  std::string name;
  ASSERT_NE(MakeTempFileName(dir, "long", 0, &name), 0u);
  EXPECT_GT(name.size(), 500u);
  EXPECT_EQ(name.rfind(dir, 0), 0u);
  EXPECT_TRUE(FileExists(name));
}

// --- Files that are not regular files --------------------------------------------------

TEST(OpenRegularFile, OpensARegularFileForReadingAndForWriting) {
  const std::string path = test::TestPath("media.ts");
  CloseFileHandle(Create(path));
  FileHandle h = OpenRegularFile(path, GENERIC_READ);
  ASSERT_NE(h, kInvalidFileHandle);
  uint32_t written = 0;
  EXPECT_FALSE(WriteFile(h, "x", 1, &written)) << "read only";
  CloseFileHandle(h);
  h = OpenRegularFile(path, GENERIC_READ | GENERIC_WRITE);
  ASSERT_NE(h, kInvalidFileHandle);
  EXPECT_TRUE(WriteFile(h, "x", 1, &written));
  CloseFileHandle(h);
  EXPECT_TRUE(IsRegularFile(path));
  EXPECT_EQ(OpenRegularFile(test::TestPath("missing.ts"), GENERIC_READ), kInvalidFileHandle);
}

TEST(OpenRegularFile, RefusesAFifoAtOnceWithoutAWriter) {
  const std::string fifo = test::TestPath("pipe.ts");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  errno = 0;
  EXPECT_EQ(OpenRegularFile(fifo, GENERIC_READ), kInvalidFileHandle);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(OpenRegularFile(fifo, GENERIC_READ | GENERIC_WRITE), kInvalidFileHandle);
  EXPECT_FALSE(IsRegularFile(fifo));
}

TEST(OpenRegularFile, RefusesDevicesAndFolders) {
  EXPECT_EQ(OpenRegularFile("/dev/null", GENERIC_READ), kInvalidFileHandle);
  EXPECT_EQ(OpenRegularFile("/dev/zero", GENERIC_READ), kInvalidFileHandle);
  errno = 0;
  EXPECT_EQ(OpenRegularFile(test::TestDir(), GENERIC_READ), kInvalidFileHandle);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_FALSE(IsRegularFile("/dev/zero"));
  EXPECT_FALSE(IsRegularFile(test::TestDir()));
}

TEST(FilesTest, OpeningAFifoNeverWaitsForItsPeer) {
  const std::string fifo = test::TestPath("pipe");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  FileHandle h =
      OpenFileHandle(fifo, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, kInvalidFileHandle);
  ASSERT_NE(h, kInvalidFileHandle) << "reading opens at once";
  uint32_t got = 1;
  char c;
  EXPECT_TRUE(ReadFile(h, &c, 1, &got)) << "no writer: the end at once";
  EXPECT_EQ(got, 0u);
  CloseFileHandle(h);
  errno = 0;
  EXPECT_EQ(OpenFileHandle(fifo, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, kInvalidFileHandle),
            kInvalidFileHandle);
  EXPECT_EQ(errno, ENXIO) << "writing without a reader fails instead of waiting";
}

}  // namespace
}  // namespace marquel
