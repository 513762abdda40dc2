// The helpers of the cache and session tests (compiled into the test binary).
#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "cache_test_util.h"

namespace marquel::cachetest {

std::vector<std::string> FolderFiles(const std::string& folder) {
  std::vector<std::string> names;
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) return names;
  while (dirent* e = readdir(dir)) {
    std::string name = e->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

ScopedMemoryDataHome::ScopedMemoryDataHome() {
  const char* now = getenv("XDG_DATA_HOME");
  saved_ = now ? now : "";
  std::string pattern = "/dev/shm/marquel-store-XXXXXX";
  if (access("/dev/shm", W_OK) == 0 && mkdtemp(pattern.data()) != nullptr) {
    made_ = pattern;
    setenv("XDG_DATA_HOME", made_.c_str(), 1);
  }
}

ScopedMemoryDataHome::~ScopedMemoryDataHome() {
  if (made_.empty()) return;
  setenv("XDG_DATA_HOME", saved_.c_str(), 1);
  std::error_code ec;
  std::filesystem::remove_all(made_, ec);
}

std::string CopyMedia(const std::string& name, const std::string& as) {
  std::string to = test::TestPath(as);
  std::filesystem::copy_file(MediaSource(name), to,
                             std::filesystem::copy_options::overwrite_existing);
  return to;
}

TEST(CacheTestUtil, LogCaptureSeesLines) {
  LogCapture capture;
  MQ_LOG("[%d] hello %s", 3, "there");
  EXPECT_TRUE(capture.Has("[3] hello there"));
  EXPECT_FALSE(capture.Has("absent"));
}

}  // namespace marquel::cachetest
