// Stored samples that the server can no longer read are a failed read through the bus,
// never a shorter answer that passes for the whole tag.
#include <filesystem>
#include <string>
#include <vector>

#include "bus_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

constexpr int32_t kPlainTag = 19;  // 16-bit values

// Cuts every record file of the running server's temporary folder to nothing.
int CutServerRecordFiles() {
  const std::string server = std::to_string(ServerPid());
  int cut = 0;
  for (const auto& e : std::filesystem::recursive_directory_iterator(getenv("TMPDIR"))) {
    if (!e.is_regular_file() || e.path().parent_path().filename() != server ||
        e.path().filename().string().rfind("MQT", 0) != 0)
      continue;
    std::filesystem::resize_file(e.path(), 0);
    ++cut;
  }
  return cut;
}

class UnreadableStore : public BusTest {};

TEST_F(UnreadableStore, ARecordFileThatCannotBeReadFailsTheReadInsteadOfAnsweringFewerSamples) {
  const std::string path = MediaFile("clip.dat");
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  std::vector<MarquelOneTag> tags;
  for (int32_t i = 0; i < 5000; ++i) tags.push_back({int64_t{i} * 10, i & 0xFFFF});
  ASSERT_EQ(client_->InsertDataPeriod(h, kPlainTag, tags.data(), 5000), S_OK);
  std::vector<MarquelOneTag> out(5000);
  ASSERT_EQ(client_->GetDataAll2(h, 0, kPlainTag, 5000, out.data()), S_OK)
      << "read once: the samples are in the record file now";
  ASSERT_GT(CutServerRecordFiles(), 0);
  EXPECT_EQ(client_->GetDataAll2(h, 0, kPlainTag, 5000, out.data()), E_FAIL);
  EXPECT_EQ(client_->GetDataPeriod2(h, 0, kPlainTag, 0, 20000, 5000, out.data()), E_FAIL);
  client_->CloseFile(h, 1);
}

}  // namespace
}  // namespace marquel::test
