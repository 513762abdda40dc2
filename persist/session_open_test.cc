// The session's open: data sources, bLoad and bQueryOnly, damaged cache files.
#include <gtest/gtest.h>
#include <utime.h>

#include <algorithm>
#include <cstdio>

#include "block_media_test_util.h"
#include "persist/cache_entry.h"
#include "persist/result_codes.h"
#include "session_test_util.h"
#include "tags/block_format.h"
#include "tags/block_writer.h"

namespace marquel {
namespace {

using cachetest::Bytes;
using cachetest::CopyMedia;
using cachetest::LogCapture;
using cachetest::ReadAll;
using sessiontest::Expected;
using sessiontest::HasRawSample;
using sessiontest::InsertSamples;
using sessiontest::kPlainTag;
using sessiontest::kRawTag;
using sessiontest::OpenSession;
using sessiontest::PlainSamples;

// A session whose in-file check answers what the test says.
class InFileSession : public MarquelOneFile {
 public:
  MQDataInFile in_file;
  MQDataInFile RealCheck(FileHandle file) { return MarquelOneFile::CheckMQDataInFile(file); }

 protected:
  MQDataInFile CheckMQDataInFile(FileHandle) override { return in_file; }
};

// Closes a session of `path` with samples (seed, count) into the cache.
void CacheSamples(const std::string& path, int32_t seed, int32_t count) {
  auto f = OpenSession(path);
  InsertSamples(*f, 0, seed, count);
  int32_t r = f->CloseFile(1);
  ASSERT_EQ(r, MQ_SUCCESS);
}

std::string OnlyEntryCacheFile(CacheKind kind) {
  auto entries = ListCacheEntries(kind);
  EXPECT_EQ(entries.size(), 1u);
  return entries.empty() ? std::string() : entries[0].FirstCacheFile();
}

TEST(SessionOpen, InFileCheckOfAStreamWithoutDataAnswersNone) {
  std::string path = CopyMedia("mpeg2ps.mpg", "a.mpg");
  InFileSession f;
  f.SetFileName(path);
  ASSERT_EQ(f.Open(0, 0, 0), 1);
  ASSERT_EQ(f.FileType(), 2);
  FileHandle h = OpenFileHandle(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0,
                                kInvalidFileHandle);
  ASSERT_NE(h, kInvalidFileHandle);
  MQDataInFile found = f.RealCheck(h);
  CloseFileHandle(h);
  EXPECT_FALSE(found.has_data);
  EXPECT_FALSE(found.block_in_buffers);
  EXPECT_EQ(found.start_address, -1);
  EXPECT_TRUE(found.programs.empty());
}

TEST(SessionOpen, UnknownFormatWithoutAnEntryTakesItsAttributes) {
  std::string path = cachetest::MakeFile("notes.txt", 5000, 1);
  LogCapture log;
  int r = 0;
  auto f = OpenSession(path, 0, 3, &r);
  EXPECT_EQ(r, 1);
  EXPECT_EQ(f->FileType(), 0);
  EXPECT_EQ(f->OriginalSize(), 5000u);
  EXPECT_EQ(f->MQStartAddress(), -1);
  EXPECT_EQ(f->DataSource(), 0);
  EXPECT_TRUE(log.Has("[3] open with type MQ_FORMAT_NONE"));
  EXPECT_TRUE(log.Has("[3] check temp cache 0"));
  EXPECT_FALSE(log.Has("check MQ data")) << "such a file holds no data of its own";
}

TEST(SessionOpen, UnknownFormatReadsItsTagsBackFromTheTempCache) {
  std::string path = cachetest::MakeFile("clip.bin", 5000, 1);
  CacheSamples(path, 4, 7);
  ASSERT_EQ(ListCacheEntries(CacheKind::kTemp).size(), 1u);
  LogCapture log;
  auto f = OpenSession(path);
  EXPECT_EQ(f->FileType(), 0);
  EXPECT_EQ(f->m_bMQExisted, 1);
  EXPECT_EQ(f->DataSource(), 2);
  EXPECT_EQ(PlainSamples(*f, 0), Expected(4, 7));
  EXPECT_TRUE(log.Has("[3] check temp cache 1"));
  // Tags added now are kept with the old ones, in the same entry.
  InsertSamples(*f, 0, 100, 2);
  ASSERT_EQ(f->CloseFile(0), MQ_SUCCESS);
  EXPECT_EQ(ListCacheEntries(CacheKind::kTemp).size(), 1u);
  EXPECT_EQ(PlainSamples(*OpenSession(path), 0).size(), 9u);
}

// The client named the type of a file not made yet; the file never looked like it.
TEST(SessionOpen, UnknownFormatFindsTheCacheOfTheTypeItsClientNamed) {
  std::string path = test::TestPath("rec.mkv");
  {
    auto f = OpenSession(path, 17);
    InsertSamples(*f, 0, 3, 4);
    cachetest::WriteAll(path, Bytes(3000, 0));
    ASSERT_EQ(f->CloseFile(0), MQ_SUCCESS);
  }
  ASSERT_EQ(ListCacheEntries(CacheKind::kOther).size(), 1u);
  auto g = OpenSession(path);
  EXPECT_EQ(g->FileType(), 0);
  EXPECT_EQ(g->m_bMQExisted, 1);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(3, 4));
}

// An older version had no code for Matroska and kept such a file's tags in the temp
// cache; they come back, and the next close moves them into the other cache.
TEST(SessionOpen, NewlyRecognisedFormatFindsItsTempEntryAndMovesIt) {
  std::string path = cachetest::MakeFile("clip.mkv", 5000, 0);
  CacheSamples(path, 6, 5);  // format 0 now: the temp cache, as before
  const std::string old_file = OnlyEntryCacheFile(CacheKind::kTemp);
  const Bytes matroska = {0x1A, 0x45, 0xDF, 0xA3, 0x84, 0x42, 0x82, 0x81, 'x'};
  Bytes content = ReadAll(path);
  std::copy(matroska.begin(), matroska.end(), content.begin());
  content[8] = 0;  // an empty DocType (not "matroska") ...
  cachetest::WriteAll(path, content);
  EXPECT_EQ(OpenSession(path)->FileType(), 0) << "... is not Matroska";
  content[4] = 0x83;  // no DocType at all: Matroska by default
  content[5] = 0x42;
  content[6] = 0x86;
  content[7] = 0x80;
  content.resize(6000, 0);
  cachetest::WriteAll(path, content);

  auto f = OpenSession(path);
  ASSERT_EQ(f->FileType(), 17);
  EXPECT_EQ(f->m_bMQExisted, 1);
  EXPECT_EQ(PlainSamples(*f, 0), Expected(6, 5));
  EXPECT_EQ(f->OriginalSize(), 6000u) << "the file's own identity, as other formats have";
  InsertSamples(*f, 0, 50, 1);
  ASSERT_EQ(f->CloseFile(0), MQ_SUCCESS);
  EXPECT_TRUE(ListCacheEntries(CacheKind::kTemp).empty()) << "the old entry is gone";
  EXPECT_FALSE(FileExists(old_file));
  ASSERT_EQ(ListCacheEntries(CacheKind::kOther).size(), 1u);
  auto g = OpenSession(path);
  EXPECT_EQ(g->m_bMQExisted, 1);
  EXPECT_EQ(PlainSamples(*g, 0).size(), 6u);
}

TEST(SessionOpen, TempEntryStaysWhenTheOtherCacheCannotBeWritten) {
  std::string path = cachetest::MakeFile("clip.flv", 5000, 0);
  CacheSamples(path, 6, 5);
  const Bytes flv = {'F', 'L', 'V', 1, 5, 0, 0, 0, 9};
  Bytes content = ReadAll(path);
  std::copy(flv.begin(), flv.end(), content.begin());
  cachetest::WriteAll(path, content);
  auto f = OpenSession(path);
  ASSERT_EQ(f->FileType(), 19);
  ASSERT_EQ(f->m_bMQExisted, 1);
  // The cache folder cannot take a new file: a plain file stands in its place.
  const std::string folder = CurrentEnv()->AppDataFolder() + "/Halvern/MQInfo";
  ASSERT_EQ(rename(folder.c_str(), (folder + ".away").c_str()), 0);
  cachetest::WriteAll(folder, Bytes{0});
  const int32_t r = f->CloseFile(0);
  ASSERT_TRUE(RemoveFile(folder));
  ASSERT_EQ(rename((folder + ".away").c_str(), folder.c_str()), 0);
  EXPECT_EQ(r, MQ_ERR);
  EXPECT_TRUE(ListCacheEntries(CacheKind::kOther).empty());
  ASSERT_EQ(ListCacheEntries(CacheKind::kTemp).size(), 1u) << "the tags are still there";
  EXPECT_EQ(PlainSamples(*OpenSession(path), 0), Expected(6, 5));
}

TEST(SessionOpen, UnrecognisedFileIsCachedAndComesBackOnceRecognised) {
  // A recording that has no pack header yet when it is opened and closed.
  std::string path = cachetest::MakeFile("rec.mpg", 100, 0);
  {
    auto f = OpenSession(path);
    ASSERT_EQ(f->FileType(), 0);
    InsertSamples(*f, 0, 8, 6);
    LogCapture log;
    EXPECT_EQ(f->CloseFile(0), MQ_SUCCESS);
    EXPECT_TRUE(log.Has("[3] close with type MQ_FORMAT_NONE"));
    EXPECT_TRUE(log.Has("[3] always write to cache 1"));
  }
  ASSERT_EQ(ListCacheEntries(CacheKind::kTemp).size(), 1u);
  EXPECT_EQ(OpenSession(path)->m_bMQExisted, 1) << "a file of no format finds its entry too";
  // The recording has become an MPEG-1 stream; its original size and time are kept.
  Bytes content = ReadAll(cachetest::MediaSource("mpeg1.mpg"));
  cachetest::WriteAll(path, content);
  auto g = OpenSession(path);
  EXPECT_EQ(g->FileType(), 1);
  EXPECT_EQ(g->m_bMQExisted, 1);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(8, 6));
  EXPECT_EQ(g->OriginalSize(), 100u) << "the identity words come from the entry";
}

TEST(SessionOpen, QueryOnlyKeepsTheDataButForgetsPositionAndIdentity) {
  std::string path = CopyMedia("mpeg1.mpg", "a.mpg");
  CacheSamples(path, 2, 10);
  auto f = std::make_unique<MarquelOneFile>();
  f->SetFileName(path);
  EXPECT_EQ(f->Open(0, 1, 1), 1);
  EXPECT_EQ(f->m_bMQExisted, 1);
  EXPECT_EQ(f->MQStartAddress(), -1);
  EXPECT_EQ(f->OriginalSize(), 0u);
  EXPECT_EQ(f->OriginalMTime(), 0);
  EXPECT_NE(f->Program(0)->m_ptpHeader, nullptr) << "the block is kept";
  EXPECT_EQ(f->Program(0)->QueryTagCount(), 0) << "but not converted";
}

TEST(SessionOpen, WithoutLoadTheIdentityComesFromTheEntry) {
  std::string path = CopyMedia("mpeg1.mpg", "a.mpg");
  FileStatusRecord before;
  ASSERT_EQ(FileStatus(path, &before), 0);
  CacheSamples(path, 2, 10);
  // The file changes afterwards: the entry still knows the original size and time.
  Bytes content = ReadAll(path);
  content.resize(content.size() + 4096, 0);
  cachetest::WriteAll(path, content);
  utimbuf later{before.mtime + 100, before.mtime + 100};
  ASSERT_EQ(utime(path.c_str(), &later), 0);
  auto f = std::make_unique<MarquelOneFile>();
  f->SetFileName(path);
  EXPECT_EQ(f->Open(0, 0, 0), 1);
  EXPECT_EQ(f->m_bMQExisted, 0);
  EXPECT_EQ(f->DataSource(), 2);
  EXPECT_EQ(f->OriginalSize(), static_cast<uint64_t>(before.size));
  EXPECT_EQ(f->OriginalMTime(), before.mtime);
  EXPECT_EQ(f->Program(0)->QueryTagCount(), 0);
}

TEST(SessionOpen, VRIdentityIsTheFilesOwn) {
  std::string path = CopyMedia("dvd.vob", "a.vob");
  FileStatusRecord st;
  ASSERT_EQ(FileStatus(path, &st), 0);
  auto f = std::make_unique<MarquelOneFile>();
  f->SetFileName(path);
  EXPECT_EQ(f->Open(0, 0, 0), 1);
  EXPECT_EQ(f->OriginalSize(), static_cast<uint64_t>(st.size));
  EXPECT_EQ(f->OriginalMTime(), st.mtime);
}

// Opens a cached file (plain tag and raw tag) with a selection of the plain tag only.
std::unique_ptr<MarquelOneFile> OpenSelectingThePlainTag(int32_t readOnly) {
  std::string path = CopyMedia("mpeg1.mpg", "a.mpg");
  CacheSamples(path, 3, 10);
  auto f = std::make_unique<MarquelOneFile>();
  f->SetFileName(path);
  int32_t wanted = kPlainTag;
  f->SetTagSelection(readOnly, 1, &wanted);
  EXPECT_EQ(f->Open(0, 1, 0), 1);
  EXPECT_EQ(PlainSamples(*f, 0), Expected(3, 10));
  return f;
}

TEST(SessionOpen, TagSelectionLimitsWhatAReadOnlyOpenLoads) {
  auto f = OpenSelectingThePlainTag(1);
  EXPECT_EQ(f->Program(0)->QueryOneTagSize(kRawTag), 0);
}

TEST(SessionOpen, AWritableOpenLoadsEveryTagWhateverItSelects) {
  auto f = OpenSelectingThePlainTag(0);
  EXPECT_EQ(f->Program(0)->QueryOneTagSize(kRawTag), 1) << "the raw sample is loaded too";
}

// --- Damaged or missing cache files ----------------------------------------------------

void Corrupt(const std::string& file, size_t at) {
  Bytes bytes = ReadAll(file);
  ASSERT_LT(at, bytes.size());
  bytes[at] ^= 0x5A;
  cachetest::WriteAll(file, bytes);
}

TEST(SessionOpenDamaged, BadHeaderCrcOpensEmptyAndSaysSo) {
  std::string path = CopyMedia("mpeg1.mpg", "a.mpg");
  CacheSamples(path, 1, 10);
  Corrupt(OnlyEntryCacheFile(CacheKind::kTemp), 5);
  LogCapture log;
  int r = 0;
  auto f = OpenSession(path, 0, 3, &r);
  EXPECT_EQ(r, 1);
  EXPECT_EQ(f->m_bMQExisted, 0);
  EXPECT_EQ(f->Program(0)->QueryTagCount() + f->Program(0)->QueryRawDataTagCount(), 0);
  EXPECT_EQ(f->Program(0)->m_ptpHeader, nullptr) << "nothing of the block is kept";
  EXPECT_TRUE(log.Has("MQOneProgram: [0] Read from temp file check crc header failed"));
  EXPECT_TRUE(log.Has("MarquelOneFile: [3] Read from registry 0"));
  EXPECT_TRUE(log.Has("[3] read from registry 0"));
}

TEST(SessionOpenDamaged, BadTagIdOrLengthCrcIsRejected) {
  std::string path = CopyMedia("mpeg1.mpg", "a.mpg");
  CacheSamples(path, 1, 10);
  std::string cache = OnlyEntryCacheFile(CacheKind::kTemp);
  Bytes good = ReadAll(cache);
  Corrupt(cache, 26);  // the first byte of the tag-id stream
  {
    LogCapture log;
    auto f = OpenSession(path);
    EXPECT_EQ(f->m_bMQExisted, 0);
    EXPECT_TRUE(log.Has("check crc tagid failed"));
    EXPECT_EQ(f->Program(0)->QueryTagCount(), 0);
  }
  cachetest::WriteAll(cache, good);
  uint32_t tag_id_size = LoadBigEndian32(good.data() + 14);
  Corrupt(cache, 26 + tag_id_size);  // the first byte of the length stream
  LogCapture log;
  auto f = OpenSession(path);
  EXPECT_EQ(f->m_bMQExisted, 0);
  EXPECT_TRUE(log.Has("check crc length failed"));
  EXPECT_EQ(f->Program(0)->QueryTagCount(), 0);
}

TEST(SessionOpenDamaged, BadDataCrcFailsTheConversionAndKeepsNothing) {
  std::string path = CopyMedia("mpeg1.mpg", "a.mpg");
  CacheSamples(path, 1, 10);
  std::string cache = OnlyEntryCacheFile(CacheKind::kTemp);
  Corrupt(cache, ReadAll(cache).size() - 6);  // inside the data stream
  LogCapture log;
  int r = -9;
  auto f = OpenSession(path, 0, 3, &r);
  EXPECT_EQ(r, 0) << "the conversion's result";
  EXPECT_TRUE(log.Has("[3] open done, convert file to memory 0"));
  EXPECT_EQ(f->Program(0)->QueryTagCount() + f->Program(0)->QueryRawDataTagCount(), 0);
}

TEST(SessionOpenDamaged, ShortOrMissingCacheFileOpensEmpty) {
  std::string path = CopyMedia("mpeg1.mpg", "a.mpg");
  CacheSamples(path, 1, 10);
  std::string cache = OnlyEntryCacheFile(CacheKind::kTemp);
  Bytes bytes = ReadAll(cache);
  ASSERT_GT(bytes.size(), 10u);
  bytes.erase(bytes.end() - 10, bytes.end());
  cachetest::WriteAll(cache, bytes);
  auto f = OpenSession(path);
  EXPECT_EQ(f->m_bMQExisted, 0);
  EXPECT_EQ(f->Program(0)->QueryTagCount(), 0);
  RemoveFile(cache);
  LogCapture log;
  auto g = OpenSession(path);
  EXPECT_EQ(g->m_bMQExisted, 0);
  EXPECT_EQ(g->DataSource(), 2) << "the entry was found";
  EXPECT_TRUE(log.Has("MarquelOneFile: [3] Read from registry 0"));
}

TEST(SessionOpenDamaged, DamagedSecondTSProgramKeepsNoProgramsData) {
  std::string path = CopyMedia("ts188.ts", "a.ts");
  {
    auto f = OpenSession(path);
    int32_t index;
    ASSERT_EQ(f->InsertNewProgram(0x200, &index), 1);
    InsertSamples(*f, 0, 1, 10);
    InsertSamples(*f, 1, 2, 10);
    ASSERT_EQ(f->CloseFile(1), MQ_SUCCESS);
  }
  auto entries = ListCacheEntries(CacheKind::kTS);
  ASSERT_EQ(entries.size(), 1u);
  ASSERT_EQ(entries[0].programs.size(), 2u);
  Corrupt(entries[0].programs[1].cache_path, 3);
  LogCapture log;
  auto g = OpenSession(path, 0, 7);
  EXPECT_TRUE(log.Has("[7] read from registry, program 1, m_bMQExisted = 0"));
  EXPECT_EQ(g->m_bMQExisted, 0);
  EXPECT_EQ(g->Program(0)->QueryTagCount(), 0);
  EXPECT_EQ(g->Program(0)->m_ptpHeader, nullptr);
}

// --- The source choice with data in the media file -------------------------------------

// An MPEG-2 file that carries the block of `seed` after its own content; *start is where.
std::string MediaWithBlock(int32_t seed, int64_t* start) {
  BlockContent content;
  for (auto [t, v] : Expected(seed, 12)) content.tags[kPlainTag].AddPlain(t, v);
  Bytes block = EncodeBlockBytes(content);
  Bytes media = ReadAll(cachetest::MediaSource("mpeg2ps.mpg"));
  size_t at = 0;
  Bytes tail = mediatest::ProgramStream(block, false, 0, &at);
  *start = static_cast<int64_t>(media.size() + at);
  media.insert(media.end(), tail.begin(), tail.end());
  std::string path = test::TestPath("inside.mpg");
  cachetest::WriteAll(path, media);
  return path;
}

// A session whose in-file check answers data at `start`, with the end record's time
// `record_time`, which is what the open compares with the registry's time.
std::unique_ptr<InFileSession> OpenWithInFile(const std::string& path, int64_t start,
                                              int64_t record_time = 1234) {
  auto f = std::make_unique<InFileSession>();
  f->SetHandle(6);
  f->SetFileName(path);
  f->in_file.has_data = true;
  f->in_file.start_address = start;
  f->in_file.identity[0] = static_cast<uint64_t>(start);
  f->in_file.identity[1] = static_cast<uint64_t>(record_time);
  EXPECT_GE(f->Open(0, 1, 0), 0);
  return f;
}

// A temp entry for `path` whose original modification time is `mtime`.
void TempEntryAt(const std::string& path, int32_t seed, int64_t mtime) {
  BlockContent content;
  for (auto [t, v] : Expected(seed, 7)) content.tags[kPlainTag].AddPlain(t, v);
  TempCacheRecord r;
  r.media_path = path;
  r.original_size = 77;
  r.original_mtime = mtime;
  ASSERT_TRUE(MakeCacheFile(&r.cache_path));
  cachetest::WriteAll(r.cache_path, EncodeBlockBytes(content));
  ASSERT_EQ(WriteTempCacheEntry(r, 0), 1);
}

void SetMTime(const std::string& path, int64_t t) {
  utimbuf times{t, t};
  ASSERT_EQ(utime(path.c_str(), &times), 0);
}

TEST(SessionOpenSources, FileOnlyIsReadFromTheFile) {
  int64_t start = 0;
  std::string path = MediaWithBlock(21, &start);
  LogCapture log;
  auto f = OpenWithInFile(path, start);
  EXPECT_TRUE(log.Has("[6] check MQ data: org file 1, registry 0"));
  EXPECT_TRUE(log.Has("[6] read from file 1"));
  EXPECT_EQ(f->DataSource(), 1);
  EXPECT_EQ(PlainSamples(*f, 0), Expected(21, 12));
  EXPECT_EQ(f->MQStartAddress(), start);
  EXPECT_EQ(f->OriginalMTime(), 1234) << "identity words from the file's data";
}

TEST(SessionOpenSources, NewerFileWinsOverTheRegistry) {
  int64_t start = 0;
  std::string path = MediaWithBlock(21, &start);
  TempEntryAt(path, 30, 1900000000);
  LogCapture log;
  auto f = OpenWithInFile(path, start, 2000000000);
  EXPECT_TRUE(log.Has("[6] check MQ data: org file 1, registry 1"));
  EXPECT_TRUE(log.Has("[6] Check file time 2000000000, reg time 1900000000"));
  EXPECT_EQ(f->DataSource(), 1);
  EXPECT_EQ(PlainSamples(*f, 0), Expected(21, 12));
}

TEST(SessionOpenSources, EqualTimesKeepSourceFileButLoadTheRegistry) {
  int64_t start = 0;
  std::string path = MediaWithBlock(21, &start);
  SetMTime(path, 2100000000);  // the file's own time, changed by the write, does not count
  TempEntryAt(path, 30, 1900000000);
  LogCapture log;
  auto f = OpenWithInFile(path, start, 1900000000);
  EXPECT_EQ(f->DataSource(), 1);
  EXPECT_FALSE(log.Has("read from file"));
  EXPECT_TRUE(log.Has("[6] read from registry 1"));
  EXPECT_EQ(PlainSamples(*f, 0), Expected(30, 7));
}

TEST(SessionOpenSources, OlderFileLeavesItToTheRegistry) {
  int64_t start = 0;
  std::string path = MediaWithBlock(21, &start);
  TempEntryAt(path, 30, 1900000000);
  auto f = OpenWithInFile(path, start, 1800000000);
  EXPECT_EQ(f->DataSource(), 2);
  EXPECT_EQ(PlainSamples(*f, 0), Expected(30, 7));
  EXPECT_EQ(f->MQStartAddress(), start) << "the position still comes from the file";
}

TEST(SessionOpenSources, UnreadableBlockInTheFileFallsBackToTheRegistry) {
  int64_t start = 0;
  std::string path = MediaWithBlock(21, &start);
  TempEntryAt(path, 30, 1900000000);
  // Damage the tag-id stream: after the pack header (14), the packet header (9) and the
  // block header (26).
  Bytes media = ReadAll(path);
  media[static_cast<size_t>(start) + 14 + 9 + 26] ^= 0xFF;
  cachetest::WriteAll(path, media);
  LogCapture log;
  auto f = OpenWithInFile(path, start, 2000000000);
  EXPECT_TRUE(log.Has("[6] read from file 0"));
  EXPECT_TRUE(log.Has("[6] read from registry 1"));
  EXPECT_EQ(PlainSamples(*f, 0), Expected(30, 7));
}

}  // namespace
}  // namespace marquel
