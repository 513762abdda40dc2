// What values a client gets back after close and restart, through the real bus and
// server, and what the server's log says when the answer alone does not tell: a counter on
// the delta tag comes back past its width, a value wider than its tag comes back cut, and
// an insert into a program the file does not have stores nothing.
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "bus_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

using Pairs = std::vector<std::pair<int64_t, int32_t>>;

constexpr int32_t kDeltaTag = 254;  // type 1, 8 bits
constexpr int32_t kByteTag = 50;    // type 0, 8 bits

class TagValues : public BusTest {
 protected:
  static std::string LogPath() { return TestPath("server.log"); }

  // A copy of the MPEG-2 test media, whose close leaves its tags in the cache.
  static std::string Media() { return CopyTestMedia("mpeg2ps.mpg", "clip.mpg"); }

  Pairs Stored(int32_t h, int32_t tag) { return PlainPairs(*client_, h, tag); }

  // Inserts into program 0, closes, restarts the server and opens the file again.
  int32_t InsertAndReopen(const std::string& path, int32_t tag, const Pairs& samples) {
    int32_t h = -1;
    EXPECT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
    for (auto [t, v] : samples) EXPECT_EQ(client_->InsertDataOne2(h, 0, tag, t, v), S_OK);
    EXPECT_EQ(client_->CloseFile(h, 0), S_OK);
    client_.reset();
    StopServer();
    client_ = Connect();
    EXPECT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
    return h;
  }
};

TEST_F(TagValues, ACounterOnTheDeltaTagComesBackPastItsWidth) {
  const Pairs counter = {{100000, 100}, {200000, 300}, {300000, 500}, {400000, 700}};
  int32_t h = InsertAndReopen(Media(), kDeltaTag, counter);
  EXPECT_EQ(Stored(h, kDeltaTag), counter);
}

TEST_F(TagValues, TagsWhoseSamplesTheCloseCannotWriteRefuseThem) {
  // Ids 0 and 1 are the data block's time entries and tag 255 has no width: their samples
  // would be gone after the close, so the insert fails instead of answering S_OK.
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(Media().c_str(), 0, 0, &h), S_OK);
  for (int32_t tag : {0, 1, 255}) {
    EXPECT_EQ(client_->InsertDataOne2(h, 0, tag, 100000, 7), E_FAIL) << tag;
    EXPECT_TRUE(Stored(h, tag).empty()) << tag;
  }
  EXPECT_EQ(client_->InsertDataOne2(h, 0, 2, 100000, 7), S_OK);
  EXPECT_EQ(client_->CloseFile(h, 1), S_OK);
}

TEST_F(TagValues, AFallingDeltaValueComesBackOtherwiseAndIsLogged) {
  LogToFile(LogPath());
  int32_t h = InsertAndReopen(Media(), kDeltaTag, {{100000, 10}, {200000, 15}, {300000, 12}});
  EXPECT_EQ(Stored(h, kDeltaTag), (Pairs{{100000, 10}, {200000, 15}, {300000, 268}}));
  EXPECT_NE(ReadFile(LogPath()).find("tag 254 (delta, width 8)"), std::string::npos);
}

TEST_F(TagValues, AValueWiderThanItsTagIsKeptUntilTheCloseAndLogged) {
  LogToFile(LogPath());
  const std::string path = Media();
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  ASSERT_EQ(client_->InsertDataOne2(h, 0, kByteTag, 100000, 104999), S_OK);
  EXPECT_EQ(Stored(h, kByteTag), (Pairs{{100000, 104999}}));
  EXPECT_NE(ReadFile(LogPath()).find("tag 50 is 8 bits wide; value 104999"), std::string::npos);
  ASSERT_EQ(client_->CloseFile(h, 0), S_OK);
  client_.reset();
  StopServer();
  client_ = Connect();
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  EXPECT_EQ(Stored(h, kByteTag), (Pairs{{100000, 39}})) << "the block holds the low 8 bits";
}

TEST_F(TagValues, AStateTagValueAboveOneIsLoggedAndComesBackAsItsLowBit) {
  LogToFile(LogPath());
  int32_t h = InsertAndReopen(Media(), 17, {{100000, 2}});
  EXPECT_NE(ReadFile(LogPath()).find("tag 17 is 1 bits wide; value 2"), std::string::npos);
  int32_t value = -1;
  ASSERT_EQ(client_->GetDataOne(h, 17, 100000, &value), S_OK);
  EXPECT_EQ(value, 0) << "a state tag's block item keeps one bit";
}

TEST_F(TagValues, AnInsertIntoAMissingProgramSucceedsStoresNothingAndIsLogged) {
  LogToFile(LogPath());
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(Media().c_str(), 0, 0, &h), S_OK);
  EXPECT_EQ(client_->InsertDataOne2(h, 4, kByteTag, 100000, 7), S_OK);
  EXPECT_EQ(Stored(h, kByteTag), Pairs{});
  int32_t programs = 0;
  ASSERT_EQ(client_->GetMQProgramCounts(h, &programs), S_OK);
  EXPECT_EQ(programs, 1);
  EXPECT_NE(ReadFile(LogPath()).find("InsertDataOne: [" + std::to_string(h) +
                                     "] has no program 4; nothing stored"),
            std::string::npos);
}

TEST_F(TagValues, AnInsertIntoAClosedHandleSucceedsStoresNothingAndIsLogged) {
  LogToFile(LogPath());
  const std::string path = Media();
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  ASSERT_EQ(client_->CloseFile(h, 1), S_OK);
  EXPECT_EQ(client_->InsertDataOne2(h, 0, kByteTag, 100000, 7), S_OK);
  const uint8_t bytes[2] = {1, 2};
  EXPECT_EQ(client_->InsertRawDataOne2(h, 0, 31, 100000, 2, bytes), S_OK);
  const std::string log = ReadFile(LogPath());
  const std::string handle = "[" + std::to_string(h) + "] is not an open file; nothing stored";
  EXPECT_NE(log.find("InsertDataOne: " + handle), std::string::npos);
  EXPECT_NE(log.find("InsertRawDataOne: " + handle), std::string::npos);
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  EXPECT_EQ(Stored(h, kByteTag), Pairs{});
}

}  // namespace
}  // namespace marquel::test
