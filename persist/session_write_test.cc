// WriteToFile's open modes and fallback, and ForceDeleteCacheData.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "persist/cache_entry.h"
#include "persist/result_codes.h"
#include "platform/access_reg.h"
#include "session_test_util.h"
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

TEST(WriteToFile, DirectWriteIsLeftToTheInFileWriters) {
  auto f = OpenSession(CopyMedia("mpeg2ps.mpg", "a.mpg"));
  InsertSamples(*f, 0, 1, 5);
  LogCapture log;
  EXPECT_EQ(f->WriteToFile(0), -1);
  EXPECT_TRUE(log.Has("[3] WriteMPEGFile return 0"));
  EXPECT_TRUE(ListCacheEntries(CacheKind::kTemp).empty());
}

// A copy of a small system program, running while the test lasts: Linux refuses to open
// a running program for writing (ETXTBSY), even to root. Its bytes do not depend on this
// build, so detection sees the same file in every build.
class BusyProgram {
 public:
  BusyProgram() : path_(test::TestPath("busy-program")) {
    std::filesystem::copy_file("/bin/sleep", path_);
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all);
    pid_ = fork();
    if (pid_ == 0) {
      execl(path_.c_str(), "busy-program", "60", static_cast<char*>(nullptr));
      _exit(127);
    }
    // Wait until the program runs, which is when writing starts to be refused.
    for (int i = 0; i < 500 && !Busy(); ++i) usleep(10000);
  }
  ~BusyProgram() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  const std::string& path() const { return path_; }
  bool Busy() const {
    int fd = open(path_.c_str(), O_WRONLY);
    if (fd >= 0) close(fd);
    return fd < 0 && errno == ETXTBSY;
  }

 private:
  std::string path_;
  pid_t pid_ = -1;
};

TEST(WriteToFile, FileThatCannotBeWrittenFallsBackToReadAndTheCache) {
  BusyProgram program;
  ASSERT_TRUE(program.Busy());
  const std::string& path = program.path();
  auto f = OpenSession(path);
  ASSERT_EQ(f->FileType(), 0) << "kept as MPEG-1 is";
  InsertSamples(*f, 0, 1, 5);
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
