// A store record that names a file outside the cache folder (a damaged or hand-made
// entry) never costs that file: not when the ring of ids evicts the entry on a close
// through the bus, and not when "marquelctl cache delete" (ForceDeleteCacheData) removes
// it. The cache file the entry named before is swept at the next start instead.
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "bus_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

constexpr char kAviCache[] = "Software\\Halvern\\Marquel\\AVICache";
constexpr size_t kCachePathOffset = 536;  // in the 1056-byte file record
constexpr size_t kPathBytes = 520;

std::string Ctl(const std::vector<std::string>& args, int* status = nullptr) {
  std::vector<std::string> argv = {MarquelctlPath()};
  argv.insert(argv.end(), args.begin(), args.end());
  std::string out;
  int rc = RunProgram(argv, &out);
  if (status != nullptr) *status = rc;
  return out;
}

// The full key of the only entry of the AVI cache.
std::string OnlyEntryKey() {
  std::istringstream lines(Ctl({"reg", "list", kAviCache}));
  std::string line;
  while (std::getline(lines, line)) {
    if (!line.empty() && line.back() == '\\')
      return std::string(kAviCache) + "\\" + line.substr(0, line.size() - 1);
  }
  return std::string();
}

// Rewrites the entry's file record so that its cache file is `path`.
void PointCachePathAt(const std::string& key, const std::string& path) {
  nlohmann::json value = nlohmann::json::parse(Ctl({"reg", "get", "--json", key, "FILEINFO"}));
  std::string hex = value["value"];
  ASSERT_EQ(hex.size(), 2 * 1056u);
  std::string field(2 * kPathBytes, '0');
  static const char kDigits[] = "0123456789abcdef";
  for (size_t i = 0; i < path.size(); ++i) {  // ASCII paths: one UTF-16LE unit each
    field[4 * i] = kDigits[static_cast<uint8_t>(path[i]) >> 4];
    field[4 * i + 1] = kDigits[static_cast<uint8_t>(path[i]) & 15];
  }
  hex.replace(2 * kCachePathOffset, field.size(), field);
  int status = -1;
  Ctl({"reg", "set", key, "FILEINFO", "--binary", hex}, &status);
  ASSERT_EQ(status, 0);
}

std::vector<std::string> CachedMediaFiles() {
  nlohmann::json listing = nlohmann::json::parse(Ctl({"cache", "list", "--json"}));
  std::vector<std::string> files;
  for (const auto& entry : listing["entries"]) files.push_back(entry["file"]);
  return files;
}

using ForeignCachePath = BusTest;

// A media file of its own content: the AVI test file with `extra` bytes added.
std::string AviFile(const std::string& name, size_t extra) {
  std::string path = TestPath(name);
  std::filesystem::copy_file(std::string(MARQUEL_TEST_MEDIA_DIR) + "/avi.avi", path);
  std::ofstream(path, std::ios::app) << std::string(extra, '\0');
  return path;
}

void TagAndClose(IMarquelClient& c, const std::string& path) {
  int32_t h = -1;
  ASSERT_EQ(c.InitialFile(path.c_str(), 0, 0, &h), S_OK);
  ASSERT_EQ(c.InsertDataOne(h, 19, 1000, 7), S_OK);
  ASSERT_EQ(c.CloseFile(h, 0), S_OK);
}

TEST_F(ForeignCachePath, EvictionOnACloseKeepsAFileOutsideTheCacheFolder) {
  const std::string first = AviFile("a.avi", 0);
  TagAndClose(*client_, first);
  const std::string key = OnlyEntryKey();
  ASSERT_FALSE(key.empty());
  const std::string precious = TestPath("precious.txt");
  std::ofstream(precious) << "not a cache file";
  PointCachePathAt(key, precious);
  int status = -1;
  Ctl({"reg", "set", kAviCache, "NextID", "--dword", "0"}, &status);  // the next entry takes id 0
  ASSERT_EQ(status, 0);

  TagAndClose(*client_, AviFile("b.avi", 4096));
  EXPECT_EQ(CachedMediaFiles(), std::vector<std::string>{TestPath("b.avi")}) << "a.avi was evicted";
  EXPECT_TRUE(std::filesystem::exists(precious));

  // a.avi's own cache file, which no entry names any more, goes at the next start.
  client_.reset();
  StopServer();
  client_ = Connect();
  int32_t memory = 0;
  ASSERT_EQ(client_->QueryAllMemory(&memory), S_OK);
  size_t cache_files = 0;
  for (const auto& e : std::filesystem::directory_iterator(std::string(getenv("XDG_DATA_HOME")) +
                                                           "/Halvern/MQInfo")) {
    cache_files += e.path().filename().string().rfind("MQ", 0) == 0;
  }
  EXPECT_EQ(cache_files, 1u);
  EXPECT_TRUE(std::filesystem::exists(precious));
}

TEST_F(ForeignCachePath, CacheDeleteKeepsAFileOutsideTheCacheFolder) {
  const std::string media = AviFile("c.avi", 0);
  TagAndClose(*client_, media);
  const std::string precious = TestPath("thesis.odt");
  std::ofstream(precious) << "not a cache file";
  PointCachePathAt(OnlyEntryKey(), precious);
  int status = -1;
  Ctl({"cache", "delete", media}, &status);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(CachedMediaFiles().empty());
  EXPECT_TRUE(std::filesystem::exists(precious));
}

}  // namespace
}  // namespace marquel::test
