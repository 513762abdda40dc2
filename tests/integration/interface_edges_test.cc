// The client interface's edge cases, through the bus and the client library.
#include <cstring>
#include <filesystem>

#include "bus_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

constexpr int32_t kPlainTag = 40;
constexpr int32_t kRawTag = 29;

using InterfaceEdges = BusTest;

TEST_F(InterfaceEdges, InfoMethodsAnswerOkAndLeaveTheVariant) {
  MarquelVariant variant = std::string("keep me");
  EXPECT_EQ(client_->GetMQInfo(3, &variant), S_OK);
  EXPECT_EQ(std::get<std::string>(variant), "keep me");
  variant = int32_t{17};
  EXPECT_EQ(client_->SetMQInfo(-1, &variant), S_OK);
  EXPECT_EQ(std::get<int32_t>(variant), 17);
  EXPECT_EQ(client_->GetMQInfo(0, nullptr), S_OK);
  EXPECT_EQ(client_->SetMinTimeInterval(0, 1000), S_OK);
  EXPECT_EQ(client_->SetMinTimeInterval(-1, -1), S_OK);
}

// The server sends back the variant it received, unchanged, as scripting callers see it.
TEST_F(InterfaceEdges, GetMQInfoEchoesTheVariantOnTheBus) {
  auto connection = sdbus::createSessionBusConnection();
  auto proxy = RawProxy(*connection);
  int32_t hr = -1;
  sdbus::Variant back;
  proxy->callMethod("GetMQInfo")
      .onInterface("com.halvern.Marquel.IMQInterface")
      .withArguments(int32_t{5}, sdbus::Variant(std::string("abc")))
      .storeResultsTo(hr, back);
  EXPECT_EQ(hr, S_OK);
  EXPECT_EQ(back.get<std::string>(), "abc");
}

TEST_F(InterfaceEdges, QueryFilenameAnswersOkForAnyHandleAndCopiesNothing) {
  char name[16] = "unchanged";
  for (int32_t h : {0, -1, 5, 2048, 2147483647}) {
    EXPECT_EQ(client_->QueryFilename(h, name), S_OK) << h;
    EXPECT_STREQ(name, "unchanged");
  }
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(MediaFile("a.mpg").c_str(), 0, 0, &h), S_OK);
  EXPECT_EQ(client_->QueryFilename(h, name), S_OK);
  EXPECT_STREQ(name, "unchanged");
}

TEST_F(InterfaceEdges, QueryFileCountWithNoFileOpenFails) {
  int32_t count = 99;
  EXPECT_EQ(client_->QueryFileCount(&count), E_FAIL);
  EXPECT_EQ(count, 99);
}

TEST_F(InterfaceEdges, InsertDataOneOnAClosedHandleSucceeds) {
  EXPECT_EQ(client_->InsertDataOne(3, kPlainTag, 100, 1), S_OK);
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(MediaFile("a.mpg").c_str(), 0, 0, &h), S_OK);
  ASSERT_EQ(client_->CloseFile(h, 0), S_OK);
  EXPECT_EQ(client_->InsertDataOne(h, kPlainTag, 100, 1), S_OK);
}

// The server lists all three handles; the library writes only the caller's two elements
// (the third element of the array stays as it was) and the answer is E_FAIL.
TEST_F(InterfaceEdges, QueryAllFileHandlesWithMTwoAndThreeOpenFiles) {
  int32_t h = -1;
  for (const char* name : {"a.mpg", "b.mpg", "c.mpg"})
    ASSERT_EQ(client_->InitialFile(MediaFile(name).c_str(), 0, 0, &h), S_OK);
  int32_t handles[3] = {-7, -7, -7};
  EXPECT_EQ(client_->QueryAllFileHandles(2, handles), E_FAIL);
  EXPECT_EQ(handles[0], 0);
  EXPECT_EQ(handles[1], 1);
  EXPECT_EQ(handles[2], -7);

  auto connection = sdbus::createSessionBusConnection();
  auto proxy = RawProxy(*connection);
  int32_t hr = 0;
  std::vector<int32_t> listed;
  proxy->callMethod("QueryAllFileHandles")
      .onInterface("com.halvern.Marquel.IMQInterface")
      .withArguments(int32_t{2})
      .storeResultsTo(hr, listed);
  EXPECT_EQ(hr, E_FAIL);
  EXPECT_EQ(listed, (std::vector<int32_t>{0, 1, 2}));
}

TEST_F(InterfaceEdges, ExecuteCmd) {
  uint8_t out[8];
  std::memset(out, 0, sizeof out);
  int32_t length = 8;
  EXPECT_EQ(client_->ExecuteCmd(1, nullptr, 0, out, &length), S_OK);
  int32_t value = 0;
  std::memcpy(&value, out, 4);
  EXPECT_EQ(value, 20);
  EXPECT_EQ(length, 4);
  length = 8;
  EXPECT_EQ(client_->ExecuteCmd(7, nullptr, 0, out, &length), S_FALSE);
  uint8_t in[4] = {0};
  EXPECT_EQ(client_->ExecuteCmd(1, in, -1, out, &length), E_FAIL);
}

// The same three answers from the server itself, past the library's own checks.
TEST_F(InterfaceEdges, ExecuteCmdOnTheBus) {
  auto connection = sdbus::createSessionBusConnection();
  auto proxy = RawProxy(*connection);
  auto call = [&](int32_t cmd, int32_t in_length, int32_t out_length) {
    int32_t hr = 0, length = 0;
    std::vector<uint8_t> out;
    proxy->callMethod("ExecuteCmd")
        .onInterface("com.halvern.Marquel.IMarquelEx")
        .withArguments(cmd, std::vector<uint8_t>{}, in_length, out_length)
        .storeResultsTo(hr, out, length);
    return std::make_tuple(hr, out, length);
  };
  EXPECT_EQ(call(1, 0, 4), std::make_tuple(S_OK, std::vector<uint8_t>{20, 0, 0, 0}, 4));
  // A 2-byte output buffer: S_OK and length 4 as built, but only 2 bytes come back.
  EXPECT_EQ(call(1, 0, 2), std::make_tuple(S_OK, std::vector<uint8_t>{20, 0}, 4));
  EXPECT_EQ(std::get<0>(call(7, 0, 4)), S_FALSE);
  EXPECT_EQ(std::get<0>(call(1, -1, 4)), E_FAIL);
  EXPECT_EQ(std::get<0>(call(1, 5, 4)), E_FAIL);  // five bytes said, none sent
  EXPECT_EQ(std::get<0>(call(1, 0, -1)), E_FAIL);
}

// Closing a transport stream with bWriteToCache 0 caches its data and marks the move into
// the file as pending: the close reports S_OK and the name stays on the controller's list,
// so IsWriteToFileDone reports 0 until the close monitor's next round (far off in these
// tests) has moved it.
TEST_F(InterfaceEdges, CloseFileOfATransportStreamLeavesItsWritePending) {
  std::string name = TestPath("clip.ts");
  std::filesystem::copy_file(std::string(MARQUEL_TEST_MEDIA_DIR) + "/ts188.ts", name);
  int32_t h = -1, done = -1;
  ASSERT_EQ(client_->InitialFile(name.c_str(), 10, 0, &h), S_OK);
  ASSERT_EQ(client_->InsertDataOne(h, kPlainTag, 1000, 1), S_OK);
  EXPECT_EQ(client_->CloseFile(h, 0), S_OK);
  EXPECT_EQ(client_->IsWriteToFileDone(name.c_str(), &done), S_OK);
  EXPECT_EQ(done, 0);
}

// The same file closed with bWriteToCache 1 stays in the cache: nothing is pending.
TEST_F(InterfaceEdges, CloseFileToTheCacheLeavesNothingPending) {
  std::string name = TestPath("clip.ts");
  std::filesystem::copy_file(std::string(MARQUEL_TEST_MEDIA_DIR) + "/ts188.ts", name);
  int32_t h = -1, done = -1;
  ASSERT_EQ(client_->InitialFile(name.c_str(), 10, 0, &h), S_OK);
  ASSERT_EQ(client_->InsertDataOne(h, kPlainTag, 1000, 1), S_OK);
  EXPECT_EQ(client_->CloseFile(h, 1), S_OK);
  EXPECT_EQ(client_->IsWriteToFileDone(name.c_str(), &done), S_OK);
  EXPECT_EQ(done, 1);
}

TEST_F(InterfaceEdges, GetRawDataOneWithTooSmallALengthIsInvalid) {
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(MediaFile("a.mpg").c_str(), 0, 0, &h), S_OK);
  const uint8_t bytes[6] = {1, 2, 3, 4, 5, 6};
  ASSERT_EQ(client_->InsertRawDataOne(h, kRawTag, 500, 6, bytes), S_OK);
  uint8_t out[6] = {0};
  EXPECT_EQ(client_->GetRawDataOne(h, kRawTag, 500, 5, out), E_INVALIDARG);
  EXPECT_EQ(out[0], 0);
  EXPECT_EQ(client_->GetRawDataOne(h, kRawTag, 500, 6, out), S_OK);
  EXPECT_EQ(out[5], 6);
}

}  // namespace
}  // namespace marquel::test
