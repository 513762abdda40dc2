// WriteToFile's open modes and fallback, and ForceDeleteCacheData.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "persist/cache_entry.h"
#include "persist/result_codes.h"
#include "platform/access_reg.h"
#include "session_test_util.h"
#include "tags/block_program.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using cachetest::CacheFolder;
using cachetest::CopyMedia;
using cachetest::FolderFiles;
using cachetest::LogCapture;
using sessiontest::InsertSamples;
using sessiontest::OpenSession;

// A session of type `type` for a file that does not exist at open.
std::unique_ptr<MarquelOneFile> Recording(const std::string& path, int32_t type) {
  return OpenSession(path, type);
}

// A socket in the file system: it exists, but no file open of it succeeds, even as root.
int MakeSocket(const std::string& path) {
  int sock = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  return sock;
}

TEST(WriteToFile, NothingToWriteIsASuccess) {
  auto f = OpenSession(CopyMedia("mpeg1.mpg", "a.mpg"));
  LogCapture log;
  EXPECT_EQ(f->WriteToFile(1), 1);
  EXPECT_TRUE(log.Has("[3] WriteToFile(1)"));
  EXPECT_TRUE(log.Has("[3] return success but nothing done"));
  EXPECT_TRUE(ListCacheEntries(CacheKind::kTemp).empty());
}

TEST(WriteToFile, CacheBranchWritesTheTempCacheWithTheContentWords) {
  std::string path = CopyMedia("mpeg1.mpg", "a.mpg");
  auto f = OpenSession(path);
  InsertSamples(*f, 0, 1, 5);
  LogCapture log;
  EXPECT_EQ(f->WriteToFile(1), 1);
  auto entries = ListCacheEntries(CacheKind::kTemp);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_TRUE(log.Has("[3] create temp file success (" + entries[0].temp.cache_path + ")"));
  ContentSample sample = ReadContentSample(path);
  EXPECT_EQ(entries[0].temp.content_word, sample.first_word);
  EXPECT_EQ(entries[0].temp.content_crc, sample.crc);
  EXPECT_EQ(entries[0].content, sample.crc);
  EXPECT_EQ(entries[0].temp.original_size, f->OriginalSize());
  EXPECT_EQ(f->MQStartAddress(), static_cast<int64_t>(f->OriginalSize()))
      << "a file without MQ data starts its data at its end";
}

// A file that ends two bytes after 3172: the record keeps the count of bytes read as its
// content word, and no checksum.
TEST(WriteToFile, ShortFileKeepsTheCountOfBytesReadAsItsContentWord) {
  std::string path = test::TestPath("short.mpg");
  cachetest::Bytes head = cachetest::ReadAll(cachetest::MediaSource("mpeg1.mpg"));
  head.resize(3174);
  cachetest::WriteAll(path, head);
  auto f = OpenSession(path);
  ASSERT_LE(f->FileType(), 1);
  InsertSamples(*f, 0, 1, 5);
  EXPECT_EQ(f->WriteToFile(1), 1);
  auto entries = ListCacheEntries(CacheKind::kTemp);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].temp.content_word, 2u);
  EXPECT_EQ(entries[0].temp.content_crc, 0u);
  EXPECT_EQ(entries[0].temp.original_size, 3174u);
}

TEST(WriteToFile, DirectWritePutsTheDataIntoTheMediaFile) {
  std::string path = CopyMedia("mpeg2ps.mpg", "a.mpg");
  auto f = OpenSession(path);
  InsertSamples(*f, 0, 1, 5);
  f->Program(0)->FlushAllMemoryBlocks();
  ASSERT_EQ(WriteProgramBlock(*f->Program(0)), 1);
  LogCapture log;
  EXPECT_EQ(f->WriteToFile(0), 1);
  EXPECT_TRUE(log.Has("[3] WriteMPEGFile return 1"));
  EXPECT_TRUE(ListCacheEntries(CacheKind::kTemp).empty());
  auto g = OpenSession(path);
  EXPECT_EQ(g->DataSource(), kSourceMediaFile);
  EXPECT_EQ(sessiontest::PlainSamples(*g, 0), sessiontest::Expected(1, 5));
}

TEST(WriteToFile, DirectWriteWithoutABlockFails) {
  auto f = OpenSession(CopyMedia("mpeg2ps.mpg", "a.mpg"));
  InsertSamples(*f, 0, 1, 5);
  LogCapture log;
  EXPECT_EQ(f->WriteToFile(0), -1);
  EXPECT_TRUE(log.Has("[3] WriteMPEGFile return 0"));
  EXPECT_TRUE(ListCacheEntries(CacheKind::kTemp).empty());
}

// Root may write a file whatever its mode. While this lives, the calling thread's effective
// set lacks that override, so a read-only mode refuses root as it refuses anyone. The
// permitted set keeps it, and the destructor raises it again. Nothing here depends on the
// kernel refusing writes for some other reason, such as a running program's image.
class WithoutWriteOverride {
 public:
  WithoutWriteOverride() {
    header_.version = _LINUX_CAPABILITY_VERSION_3;
    header_.pid = 0;
    if (syscall(SYS_capget, &header_, saved_) != 0) return;
    __user_cap_data_struct lowered[2] = {saved_[0], saved_[1]};
    lowered[CAP_TO_INDEX(CAP_DAC_OVERRIDE)].effective &= ~CAP_TO_MASK(CAP_DAC_OVERRIDE);
    lowered_ = syscall(SYS_capset, &header_, lowered) == 0;
  }
  ~WithoutWriteOverride() {
    if (lowered_) syscall(SYS_capset, &header_, saved_);
  }

 private:
  __user_cap_header_struct header_{};
  __user_cap_data_struct saved_[2]{};
  bool lowered_ = false;
};

bool OpensForWriting(const std::string& path) {
  int fd = open(path.c_str(), O_RDWR);
  if (fd >= 0) close(fd);
  return fd >= 0;
}

TEST(WriteToFile, FileThatCannotBeWrittenFallsBackToReadAndTheCache) {
  std::string path = CopyMedia("mpeg1.mpg", "a.mpg");
  auto f = OpenSession(path);
  ASSERT_EQ(f->FileType(), 1);
  InsertSamples(*f, 0, 1, 5);
  ASSERT_EQ(chmod(path.c_str(), 0444), 0);
  WithoutWriteOverride no_override;
  ASSERT_FALSE(OpensForWriting(path));
  LogCapture log;
  EXPECT_EQ(f->WriteToFile(0), 2);
  EXPECT_TRUE(log.Has("[3] can not open as read/write for '" + path + "', force read"));
  EXPECT_TRUE(log.Has("[3] WriteToTempRegistry return 1"));
  EXPECT_EQ(ListCacheEntries(CacheKind::kTemp).size(), 1u);
}

TEST(WriteToFile, FileThatCannotBeOpenedAtAllFails) {
  std::string path = test::TestPath("sock.mpg");
  auto f = Recording(path, 1);
  InsertSamples(*f, 0, 1, 5);
  int sock = MakeSocket(path);
  LogCapture log;
  EXPECT_EQ(f->WriteToFile(1), -1);
  EXPECT_TRUE(log.Has("[3] open '" + path + "' as read but failed"));
  EXPECT_EQ(f->WriteToFile(0), -1);
  EXPECT_TRUE(log.Has("[3] force read still fail for '" + path + "'"));
  close(sock);
  EXPECT_TRUE(ListCacheEntries(CacheKind::kTemp).empty());
}

TEST(WriteToFile, OnlyProgramStreamsAreWritten) {
  std::string path = CopyMedia("avi.avi", "a.avi");
  auto f = OpenSession(path);
  ASSERT_EQ(f->FileType(), 8);
  InsertSamples(*f, 0, 1, 5);
  EXPECT_EQ(f->WriteToFile(1), -1);
  EXPECT_TRUE(FolderFiles(CacheFolder()).empty());
}

TEST(WriteToFile, MissingFileHasNoStatus) {
  auto f = Recording(test::TestPath("never.mpg"), 1);
  InsertSamples(*f, 0, 1, 5);
  EXPECT_EQ(f->WriteToFile(1), -1);
}

// --- ForceDeleteCacheData --------------------------------------------------------------

TEST(ForceDelete, RemovesTempAndTSEntriesWithTheirFiles) {
  std::string mpg = CopyMedia("mpeg1.mpg", "a.mpg");
  std::string ts = CopyMedia("ts188.ts", "a.ts");
  auto f = OpenSession(mpg);
  InsertSamples(*f, 0, 1, 5);
  ASSERT_EQ(f->CloseFile(1), MQ_SUCCESS);
  auto t = OpenSession(ts);
  int32_t index;
  t->InsertNewProgram(0x300, &index);
  InsertSamples(*t, 0, 1, 5);
  InsertSamples(*t, 1, 2, 5);
  ASSERT_EQ(t->CloseFile(1), MQ_SUCCESS);
  ASSERT_EQ(FolderFiles(CacheFolder()).size(), 3u);

  MarquelOneFile s;  // a fresh session, as the monitor makes one
  s.SetHandle(MarquelOneFile::kDetachedSessionNumber);
  LogCapture log;
  EXPECT_EQ(s.ForceDeleteCacheData(mpg), 1) << "no entry key: 1 after deleting what it found";
  EXPECT_TRUE(log.Has("ForceDeleteCacheData(" + mpg + ")"));
  EXPECT_EQ(s.FileName(), mpg);
  EXPECT_TRUE(ListCacheEntries(CacheKind::kTemp).empty());
  EXPECT_EQ(s.ForceDeleteCacheData(ts), 1);
  EXPECT_TRUE(ListCacheEntries(CacheKind::kTS).empty());
  EXPECT_TRUE(FolderFiles(CacheFolder()).empty());
  EXPECT_EQ(s.ForceDeleteCacheData(test::TestPath("none.mpg")), 1);
}

TEST(ForceDelete, TheEntryKeyGoesWithItsCacheFile) {
  std::filesystem::create_directories(test::TestPath("disc/VIDEO_TS"));
  std::string vob = CopyMedia("dvd.vob", "disc/VIDEO_TS/A.VOB");
  {
    auto f = OpenSession(vob);
    InsertSamples(*f, 0, 1, 5);
    ASSERT_EQ(f->CloseFile(1), MQ_SUCCESS);
  }
  auto f = OpenSession(vob);
  ASSERT_FALSE(f->CacheEntryKey().empty());
  std::string cache = f->CacheFilePath();
  ASSERT_TRUE(FileExists(cache));
  EXPECT_EQ(f->ForceDeleteCacheData(vob), 1);
  EXPECT_TRUE(ListCacheEntries(CacheKind::kVR).empty());
  EXPECT_FALSE(FileExists(cache));
  EXPECT_EQ(f->ForceDeleteCacheData(vob), 1) << "a key that cannot be opened: 1";
}

TEST(ForceDelete, AKeyThatCannotBeDeletedFails) {
  MarquelOneFile s;
  AccessReg reg;
  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, "Software\\Halvern\\Test\\Entry\\Child"));
  s.SetCacheEntryKey("Software\\Halvern\\Test\\Entry");
  EXPECT_EQ(s.ForceDeleteCacheData(test::TestPath("x.mpg")), -1) << "it has a sub-key";
  ASSERT_TRUE(reg.DeleteKey(HKEY_CURRENT_USER, "Software\\Halvern\\Test\\Entry\\Child"));
  EXPECT_EQ(s.ForceDeleteCacheData(test::TestPath("x.mpg")), 1);
  EXPECT_FALSE(reg.Open(HKEY_CURRENT_USER, "Software\\Halvern\\Test\\Entry"));
}

}  // namespace
}  // namespace marquel
