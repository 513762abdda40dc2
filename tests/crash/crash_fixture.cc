// The crash tests' common fixture: the world each test starts from and the checks every
// cut-short run must pass once a clean server has finished.
#include "crash_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "testsupport/fresh_home.h"

namespace marquel::test {

const std::vector<std::string> kCrashState = {"data", "config", "cache", "tmp", "machine", "media"};

bool LongRun() {
  const char* wanted = std::getenv("MARQUEL_CRASH_POINTS");
  return wanted != nullptr && *wanted != '\0';
}

std::vector<uint64_t> ChosenPoints(uint64_t count, uint64_t short_tries) {
  const char* wanted = std::getenv("MARQUEL_CRASH_POINTS");
  uint64_t tries = short_tries;
  if (wanted != nullptr && std::string(wanted) == "all") tries = count;
  if (wanted != nullptr && std::atoi(wanted) > 0) tries = static_cast<uint64_t>(std::atoi(wanted));
  std::vector<uint64_t> points;
  if (count == 0 || tries == 0) return points;
  tries = std::min(tries, count);
  for (uint64_t i = 0; i < tries; ++i) {
    uint64_t n = tries == 1 ? count : 1 + i * (count - 1) / (tries - 1);
    if (points.empty() || points.back() != n) points.push_back(n);
  }
  return points;
}

std::string MediumName(const testing::TestParamInfo<CrashMedium>& info) {
  std::string name = info.param.source;
  std::replace(name.begin(), name.end(), '.', '_');
  return name;
}

void CrashFixture::TearDown() {
  bus_.Stop();
  unsetenv("DBUS_SESSION_BUS_ADDRESS");
  if (!snapshot_.empty()) std::filesystem::remove_all(snapshot_);
}

void CrashFixture::MakeWorld(const CrashMedium& medium) {
  home_ = TestDir();
  snapshot_ = home_ + "-saved";
  // Registered, so that the server finds its settings, but without the activation file:
  // a call while no server runs must not start one without the fault.
  ASSERT_EQ(RunProgram({Marquel64Path(), "-RegServer"}), 0);
  std::filesystem::remove_all(home_ + "/data/dbus-1/services");
  ASSERT_TRUE(bus_.Start());
  if (std::getenv("MARQUEL_CRASH_SERVER_LOG") != nullptr) {
    const std::string key = "Software\\Halvern\\Common\\Marquel";
    for (const std::vector<std::string>& value :
         {std::vector<std::string>{"DumpMQInfo2", "--dword", "1"},
          std::vector<std::string>{"DumpToFile", "--dword", "1"},
          std::vector<std::string>{"DumpFileName", "--string", Log("server")}}) {
      std::vector<std::string> argv = {MarquelctlPath(), "reg", "set", "--machine", key};
      argv.insert(argv.end(), value.begin(), value.end());
      ASSERT_EQ(RunProgram(argv), 0);
    }
  }
  std::filesystem::create_directories(home_ + "/media");
  media_ = home_ + "/media/clip" + std::filesystem::path(medium.source).extension().string();
  ASSERT_TRUE(
      MakeMedium(std::string(MARQUEL_TEST_MEDIA_DIR) + "/" + medium.source, medium.copies, media_));
  original_ = FileBytes(media_);
  tags_ = SampleTags(medium.programs, medium.bulk_bytes);
}

void CrashFixture::TagAndClose() {
  // The monitor's first round runs as the server starts; on a busy machine it may come
  // only after the close and move the file at once. Then the untagged home is put back
  // and the tagging tried again.
  SaveHome(home_, kCrashState, snapshot_);
  bool pending = false;
  for (int attempt = 0; attempt < 3 && !pending; ++attempt) {
    RestoreHome(snapshot_, kCrashState, home_);
    pid_t pid = StartServer("", "", 600000, Log("prepare"));
    ASSERT_GT(pid, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    {
      auto client = CreateMarquelClient();
      ASSERT_NE(client, nullptr);
      int32_t h = -1;
      ASSERT_EQ(client->InitialFile(media_.c_str(), 0, 0, &h), S_OK);
      ASSERT_EQ(InsertTags(*client, h, tags_), "");
      ASSERT_EQ(client->CloseFile(h, 0), S_OK);
      pending = MoveDone(*client, media_) == 0;
    }
    ASSERT_TRUE(StopServerProcess(pid));
  }
  ASSERT_TRUE(pending) << "the move waits for the next round";
  SaveHome(home_, kCrashState, snapshot_);
}

bool CrashFixture::WaitForMove(pid_t pid) {
  auto client = CreateMarquelClient();
  if (client == nullptr) return false;
  bool done = false;
  WaitUntil(
      [&] {
        if (!ProcessAlive(pid)) return true;
        done = MoveDone(*client, media_) == 1;
        return done;
      },
      std::chrono::seconds(30));
  return done;
}

std::vector<std::string> CrashFixture::StateFiles(pid_t pid) {
  // Its own temporary folder and the store's journal files come and go with the server.
  const std::string own = "/" + std::to_string(pid) + "/";
  std::vector<std::string> files;
  for (const std::string& f : ListFiles(home_, kCrashState)) {
    const bool journal = f.size() > 4 && (f.compare(f.size() - 4, 4, "-wal") == 0 ||
                                          f.compare(f.size() - 4, 4, "-shm") == 0);
    if (!journal && !(f.rfind("tmp/", 0) == 0 && f.find(own) != std::string::npos))
      files.push_back(f);
  }
  return files;
}

std::string CrashFixture::OddFiles(pid_t pid, const std::vector<std::string>& expected,
                                   bool missing_too) {
  const std::vector<std::string> files = StateFiles(pid);
  std::string odd;
  for (const std::string& f : files)
    if (!std::binary_search(expected.begin(), expected.end(), f)) odd += " +" + f;
  if (missing_too) {
    for (const std::string& f : expected)
      if (!std::binary_search(files.begin(), files.end(), f)) odd += " -" + f;
  }
  return odd;
}

void CrashFixture::CheckNoRollBackRecord(const std::string& label, std::vector<std::string>* bad) {
  // The records live in the user's store; the machine's must not hold one either.
  const int records = RollBackRecords(home_ + "/data/Halvern/registry.db");
  if (records != 0)
    bad->push_back(label + (records < 0 ? ": the user's store cannot be read"
                                        : ": a roll-back record remains"));
  if (RollBackRecords(home_ + "/machine/registry.db") > 0)
    bad->push_back(label + ": a roll-back record remains in the machine's store");
}

void CrashFixture::CleanMove(uint64_t* count) {
  const std::string count_file = home_ + "-count";
  pid_t pid = StartServer("", count != nullptr ? count_file : "", kRoundMs, Log("counting"));
  ASSERT_GT(pid, 0);
  ASSERT_TRUE(WaitForMove(pid));
  ASSERT_TRUE(StopServerProcess(pid));
  if (count != nullptr) {
    *count = std::strtoull(ReadFile(count_file).c_str(), nullptr, 10);
    ASSERT_GT(*count, 0u) << "the clean run passed no point";
  }
  clean_result_ = FileBytes(media_);
  ASSERT_NE(clean_result_, original_) << "the clean run moves the tags into the file";
  clean_prefix_ = FirstDifference(clean_result_, original_);
  pid = StartServer("", "", kRoundMs, Log("checking"));
  ASSERT_GT(pid, 0);
  ASSERT_TRUE(WaitForMove(pid));
  clean_files_ = StateFiles(pid);
  std::vector<std::string> bad;
  CheckFinal("clean run", pid, &bad);
  EXPECT_TRUE(bad.empty()) << bad.front();
  ASSERT_TRUE(StopServerProcess(pid));
}

void CrashFixture::CheckFinal(const std::string& label, pid_t pid, std::vector<std::string>* bad) {
  const std::vector<uint8_t> now = FileBytes(media_);
  const bool original = now == original_;
  if (!clean_result_.empty() && FirstDifference(now, original_) < clean_prefix_)
    bad->push_back(label + ": bytes before the merge start changed");
  if (!clean_files_.empty()) {
    const std::string odd = OddFiles(pid, clean_files_);
    if (!odd.empty()) bad->push_back(label + ": files left behind (+) or missing (-):" + odd);
  }
  CheckNoRollBackRecord(label, bad);
  auto client = CreateMarquelClient();
  int32_t from_file = -1;
  for (const std::string& v : CheckTagsThroughBus(*client, media_, tags_, &from_file))
    bad->push_back(label + ": " + v);
  if (!original && from_file != 1)
    bad->push_back(label + ": the file changed but its tags are not read from it");
}

}  // namespace marquel::test
