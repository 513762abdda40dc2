// Tags survive a session's close and the next session's open, for every kind of media.
#include <gtest/gtest.h>

#include "media/file_type.h"
#include "persist/cache_entry.h"
#include "persist/result_codes.h"
#include "session_test_util.h"

namespace marquel {
namespace {

using cachetest::CopyMedia;
using cachetest::LogCapture;
using sessiontest::Expected;
using sessiontest::HasRawSample;
using sessiontest::InsertSamples;
using sessiontest::OpenSession;
using sessiontest::PlainSamples;

struct RoundTripCase {
  const char* media;
  const char* as;
  int32_t type;
  CacheKind kind;
  int32_t close_result;  // of CloseFile(0)
};

class SessionRoundTrip : public ::testing::TestWithParam<RoundTripCase> {};

TEST_P(SessionRoundTrip, EverySampleComesBack) {
  const RoundTripCase& c = GetParam();
  ASSERT_TRUE(MakeFolder(test::TestPath("disc")));
  ASSERT_TRUE(MakeFolder(test::TestPath("disc/media")));
  std::string path = CopyMedia(c.media, std::string("disc/media/") + c.as);
  {
    LogCapture log;
    int opened = 0;
    auto f = OpenSession(path, 0, 3, &opened);
    EXPECT_EQ(opened, 1);
    EXPECT_EQ(f->FileType(), c.type);
    EXPECT_TRUE(log.Has(std::string("[3] open with type ") + GetFormatName(c.type)));
    EXPECT_EQ(f->DataSource(), 0);
    InsertSamples(*f, 0, 11, 50);
    EXPECT_EQ(f->CloseFile(0), c.close_result);
    EXPECT_TRUE(log.Has(std::string("[3] close with type ") + GetFormatName(c.type)));
  }
  ASSERT_EQ(ListCacheEntries(c.kind).size(), 1u);
  LogCapture log;
  int opened = 0;
  auto g = OpenSession(path, 0, 4, &opened);
  EXPECT_EQ(opened, 1);
  EXPECT_EQ(g->m_bMQExisted, 1);
  EXPECT_EQ(g->DataSource(), 2);
  EXPECT_FALSE(g->CacheFilePath().empty());
  EXPECT_EQ(PlainSamples(*g, 0), Expected(11, 50));
  EXPECT_TRUE(HasRawSample(*g, 0, 11));
  EXPECT_TRUE(log.Has("MarquelOneFile: [4] Read from registry 1"));
  EXPECT_TRUE(log.Has("[4] open done, convert file to memory 1"));
}

INSTANTIATE_TEST_SUITE_P(
    Formats, SessionRoundTrip,
    ::testing::Values(RoundTripCase{"mpeg1.mpg", "a.mpg", 1, CacheKind::kTemp, MQ_SUCCESS},
                      // ffmpeg's Video CD has another mux rate: detection calls it MPEG-1.
                      RoundTripCase{"vcd.mpg", "a.dat", 1, CacheKind::kTemp, MQ_SUCCESS},
                      RoundTripCase{"svcd.mpg", "a.mpg", 4, CacheKind::kTemp, MQ_AUTOPROCESSFAIL},
                      RoundTripCase{"mpeg2ps.mpg", "a.mpg", 2, CacheKind::kTemp,
                                    MQ_AUTOPROCESSFAIL},
                      RoundTripCase{"dvd.vob", "VTS_01_1.VOB", 6, CacheKind::kVR, MQ_SUCCESS},
                      RoundTripCase{"ts188.ts", "a.ts", 10, CacheKind::kTS, MQ_AUTOPROCESSFAIL},
                      RoundTripCase{"avi.avi", "a.avi", 8, CacheKind::kAVI, MQ_SUCCESS},
                      RoundTripCase{"mp4.mp4", "a.mp4", 5, CacheKind::kOther, MQ_SUCCESS},
                      RoundTripCase{"wmv.wmv", "a.wmv", 12, CacheKind::kOther, MQ_SUCCESS}),
    [](const ::testing::TestParamInfo<RoundTripCase>& info) {
      std::string name = info.param.media;
      return name.substr(0, name.find('.'));
    });

TEST(SessionRoundTripTS, TwoProgramsComeBackWithTheirPMTPIDs) {
  std::string path = CopyMedia("ts2prog.ts", "two.ts");
  {
    auto f = OpenSession(path);
    ASSERT_EQ(f->FileType(), 10);
    f->SetPMTPID(0, 0x1000);
    int32_t index = -1;
    ASSERT_EQ(f->InsertNewProgram(0x1001, &index), 1);
    ASSERT_EQ(index, 1);
    InsertSamples(*f, 0, 1, 30);
    InsertSamples(*f, 1, 2, 40);
    EXPECT_EQ(f->CloseFile(0), MQ_AUTOPROCESSFAIL);
  }
  LogCapture log;
  auto g = OpenSession(path, 0, 5);
  ASSERT_EQ(g->ProgramCount(), 2);
  int32_t pids[2];
  ASSERT_EQ(g->GetPMTPIDs(2, pids), 1);
  EXPECT_EQ(pids[0], 0x1000);
  EXPECT_EQ(pids[1], 0x1001);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(1, 30));
  EXPECT_EQ(PlainSamples(*g, 1), Expected(2, 40));
  EXPECT_TRUE(HasRawSample(*g, 1, 2));
  EXPECT_EQ(g->TsProgramsKnown(), 1);
  EXPECT_TRUE(log.Has("[5] check from file, bHasMQ = 0, nTotalPMT1 = 0"));
  EXPECT_TRUE(log.Has("[5] check from registry, bHasMQ1 = 1, nTotalPMT2 = 2"));
  EXPECT_TRUE(log.Has("[5] read from registry, m_bMQExisted = 1"));
  EXPECT_TRUE(log.Has("[5] read from registry, program 1, m_bMQExisted = 1"));
}

TEST(SessionRoundTripPS, ProgramStreamLogsItsSourceChoice) {
  std::string path = CopyMedia("mpeg2ps.mpg", "a.mpg");
  {
    LogCapture log;
    auto f = OpenSession(path);
    EXPECT_TRUE(log.Has("[3] check MQ data: org file 0, registry 0"));
    InsertSamples(*f, 0, 5, 10);
    f->CloseFile(1);
  }
  LogCapture log;
  auto g = OpenSession(path);
  EXPECT_TRUE(log.Has("[3] check MQ data: org file 0, registry 1"));
  EXPECT_TRUE(log.Has("[3] read from registry 1"));
  EXPECT_FALSE(log.Has("read from file"));
}

TEST(SessionRoundTripVR, RenamedDvdFileKeepsItsTags) {
  ASSERT_TRUE(MakeFolder(test::TestPath("disc")));
  ASSERT_TRUE(MakeFolder(test::TestPath("disc/VIDEO_TS")));
  std::string path = CopyMedia("dvd.vob", "disc/VIDEO_TS/VTS_01_1.VOB");
  {
    auto f = OpenSession(path);
    InsertSamples(*f, 0, 9, 20);
    EXPECT_EQ(f->CloseFile(1), MQ_SUCCESS);
  }
  std::string moved = test::TestPath("moved.vob");
  ASSERT_EQ(std::rename(path.c_str(), moved.c_str()), 0);
  auto g = OpenSession(moved);
  EXPECT_EQ(g->m_bMQExisted, 1);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(9, 20));
  EXPECT_EQ(g->CloseFile(1), MQ_SUCCESS);
  auto entries = ListCacheEntries(CacheKind::kVR);
  ASSERT_EQ(entries.size(), 1u) << "the entry moved to the new name";
  EXPECT_EQ(entries[0].MediaPath(), moved);
}

TEST(SessionRoundTripPS, RenamedProgramStreamNeedsCacheRename) {
  std::string path = CopyMedia("mpeg1.mpg", "a.mpg");
  {
    auto f = OpenSession(path);
    InsertSamples(*f, 0, 4, 5);
    f->CloseFile(1);
  }
  std::string moved = test::TestPath("b.mpg");
  ASSERT_EQ(std::rename(path.c_str(), moved.c_str()), 0);
  EXPECT_EQ(OpenSession(moved)->m_bMQExisted, 0) << "the temp cache is looked up by name";
  ASSERT_EQ(CacheRename(path, moved, 1), 1);
  auto g = OpenSession(moved);
  EXPECT_EQ(g->m_bMQExisted, 1);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(4, 5));
}

}  // namespace
}  // namespace marquel
