// The store as a whole: where it lives, what it does with missing folders and damaged
// files, and that its writes survive a killed writer and concurrent users.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "platform/access_reg.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteAll(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

uint32_t ModeOf(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? (st.st_mode & 0777) : 0xFFFFFFFFu;
}

TEST(StoreTest, MissingStoreFolderIsLeftAloneByReads) {
  const std::string data = test::TestPath("absent/share");
  setenv("XDG_DATA_HOME", data.c_str(), 1);
  AccessReg reg;
  EXPECT_FALSE(reg.Open(HKEY_CURRENT_USER, "Software\\Halvern"));
  EXPECT_EQ(reg.LastError(), ERROR_FILE_NOT_FOUND);
  EXPECT_FALSE(reg.DeleteKey(HKEY_CURRENT_USER, "Software\\Halvern"));
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, ""));
  char name[16];
  EXPECT_FALSE(reg.EnumKey(0, name, sizeof name));
  EXPECT_FALSE(reg.DeleteValue("x"));
  reg.Close();
  EXPECT_FALSE(std::filesystem::exists(test::TestPath("absent")));

  // The first write makes the folder, private to the user, and the store file.
  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, "Software\\Halvern"));
  EXPECT_EQ(ModeOf(data + "/Halvern"), 0700u);
  EXPECT_EQ(ModeOf(data + "/Halvern/registry.db"), 0600u);
  EXPECT_TRUE(reg.Open(HKEY_CURRENT_USER, "Software\\Halvern"));
}

TEST(StoreTest, MachineStoreNeverMakesFolders) {
  const std::string path = test::TestPath("etc/halvern/registry.db");
  setenv("MARQUEL_MACHINE_STORE", path.c_str(), 1);
  AccessReg reg;
  EXPECT_FALSE(reg.CreateKey(HKEY_LOCAL_MACHINE, "Software\\Halvern\\Common\\Marquel"));
  EXPECT_EQ(StoreLastError(), ERROR_PATH_NOT_FOUND);
  EXPECT_NE(StoreLastMessage().find(test::TestPath("etc/halvern")), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(test::TestPath("etc")));

  ASSERT_TRUE(std::filesystem::create_directories(test::TestPath("etc/halvern")));
  ASSERT_TRUE(reg.CreateKey(HKEY_LOCAL_MACHINE, "Software\\Halvern\\Common\\Marquel"));
  EXPECT_EQ(ModeOf(path), 0644u);  // every user reads the log settings from it
  ASSERT_TRUE(reg.Open(HKEY_LOCAL_MACHINE, "Software\\Halvern\\Common\\Marquel"));
  ASSERT_TRUE(reg.SetDword("DumpMQInfo2", 1));
  reg.Close();
  EXPECT_FALSE(std::filesystem::exists(test::TestPath("data/Halvern")));
}

TEST(StoreTest, EnvironmentIsReadOnEveryOpen) {
  AccessReg reg;
  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, "Software\\First"));
  const std::string other = test::TestPath("second-user");
  setenv("XDG_DATA_HOME", other.c_str(), 1);
  EXPECT_FALSE(reg.Open(HKEY_CURRENT_USER, "Software\\First"));
  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, "Software\\Second"));
  EXPECT_TRUE(std::filesystem::exists(other + "/Halvern/registry.db"));
  setenv("XDG_DATA_HOME", test::TestPath("data").c_str(), 1);
  EXPECT_TRUE(reg.Open(HKEY_CURRENT_USER, "Software\\First"));
  EXPECT_FALSE(reg.Open(HKEY_CURRENT_USER, "Software\\Second"));
}

TEST(StoreTest, CorruptStoreFileFailsClearlyAndIsLeftAsItWas) {
  const std::string path = test::TestPath("data/Halvern/registry.db");
  ASSERT_TRUE(std::filesystem::create_directories(test::TestPath("data/Halvern")));
  std::string garbage;
  for (int i = 0; i < 8192; ++i) garbage.push_back(static_cast<char>((i * 131) ^ (i >> 3)));
  WriteAll(path, garbage);

  AccessReg reg;
  EXPECT_FALSE(reg.Open(HKEY_CURRENT_USER, "Software\\Halvern"));
  EXPECT_EQ(reg.LastError(), ERROR_BADDB);
  EXPECT_NE(StoreLastMessage().find(path), std::string::npos);
  EXPECT_NE(StoreLastMessage().find("left unchanged"), std::string::npos);
  EXPECT_FALSE(reg.Open(HKEY_CURRENT_USER, ""));  // not even the root
  EXPECT_FALSE(reg.CreateKey(HKEY_CURRENT_USER, "Software\\Halvern"));
  EXPECT_EQ(StoreLastError(), ERROR_BADDB);
  EXPECT_FALSE(reg.DeleteKey(HKEY_CURRENT_USER, "Software\\Halvern"));
  EXPECT_EQ(ReadAll(path), garbage);

  WriteAll(path, "short garbage");
  EXPECT_FALSE(reg.CreateKey(HKEY_CURRENT_USER, "Software\\Halvern"));
  EXPECT_EQ(StoreLastError(), ERROR_BADDB);
  EXPECT_EQ(ReadAll(path), "short garbage");
}

TEST(StoreTest, DamageInsideAValidStoreIsReportedNotCrashed) {
  AccessReg reg;
  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, "Software\\Halvern\\Marquel\\TempCache"));
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, "Software\\Halvern\\Marquel\\TempCache"));
  for (int i = 0; i < 50; ++i) ASSERT_TRUE(reg.SetDword(("v" + std::to_string(i)).c_str(), i));
  reg.Close();
  const std::string path = test::TestPath("data/Halvern/registry.db");
  std::string bytes = ReadAll(path);
  ASSERT_GT(bytes.size(), 4096u * 2);
  for (size_t i = 4096; i < bytes.size(); ++i) bytes[i] = static_cast<char>(0xA5 ^ i);
  WriteAll(path, bytes);

  bool failedClearly = false;
  if (!reg.Open(HKEY_CURRENT_USER, "Software\\Halvern\\Marquel\\TempCache")) {
    failedClearly = reg.LastError() == ERROR_BADDB;
  } else {
    uint32_t value;
    failedClearly = !reg.QueryDword("v1", &value) && StoreLastError() == ERROR_BADDB;
  }
  EXPECT_TRUE(failedClearly) << StoreLastError() << " " << StoreLastMessage();
  EXPECT_EQ(ReadAll(path), bytes);
}

TEST(StoreTest, DatabaseOfAnotherProgramIsRefused) {
  const std::string path = test::TestPath("machine/registry.db");
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE songs(title TEXT)", nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  const std::string before = ReadAll(path);
  AccessReg reg;
  EXPECT_FALSE(reg.CreateKey(HKEY_LOCAL_MACHINE, "Software"));
  EXPECT_EQ(StoreLastError(), ERROR_BADDB);
  EXPECT_FALSE(reg.Open(HKEY_LOCAL_MACHINE, ""));
  EXPECT_EQ(ReadAll(path), before);
}

TEST(StoreTest, EmptyFileIsAnEmptyStore) {
  ASSERT_TRUE(std::filesystem::create_directories(test::TestPath("data/Halvern")));
  WriteAll(test::TestPath("data/Halvern/registry.db"), "");
  AccessReg reg;
  EXPECT_FALSE(reg.Open(HKEY_CURRENT_USER, "Software"));
  EXPECT_EQ(reg.LastError(), ERROR_FILE_NOT_FOUND);
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, ""));
  ASSERT_TRUE(reg.SetDword("First", 1));
  EXPECT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, "Software"));
}

TEST(StoreTest, WritesAreSeenAtOnceByOtherObjects) {
  AccessReg maker;
  ASSERT_TRUE(maker.CreateKey(HKEY_CURRENT_USER, "Software\\Shared"));
  AccessReg writer(HKEY_CURRENT_USER, "Software\\Shared");
  AccessReg reader(HKEY_CURRENT_USER, "Software\\Shared");
  uint32_t value = 0;
  EXPECT_FALSE(reader.QueryDword("N", &value));
  ASSERT_TRUE(writer.SetDword("N", 41));
  EXPECT_TRUE(reader.QueryDword("N", &value));
  EXPECT_EQ(value, 41u);
}

TEST(StoreTest, ThreadsWriteAtTheSameTime) {
  AccessReg maker;
  ASSERT_TRUE(maker.CreateKey(HKEY_CURRENT_USER, "Software\\Threads"));
  constexpr int kThreads = 3;
  constexpr int kEach = 40;
  int failures[kThreads] = {};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &failures] {
      for (int i = 0; i < kEach; ++i) {
        AccessReg reg;
        const std::string key = "Software\\Threads\\T" + std::to_string(t);
        if (!reg.CreateKey(HKEY_CURRENT_USER, key.c_str()) ||
            !reg.Open(HKEY_CURRENT_USER, key.c_str()) ||
            !reg.SetDword(("v" + std::to_string(i)).c_str(), i)) {
          ++failures[t];
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(failures[t], 0);
    AccessReg reg(HKEY_CURRENT_USER, ("Software\\Threads\\T" + std::to_string(t)).c_str());
    char name[16];
    uint32_t n = 0;
    while (reg.EnumValue(n, name, sizeof name)) ++n;
    EXPECT_EQ(n, static_cast<uint32_t>(kEach));
  }
}

// Runs the writer helper, kills it once it has reported `killAfter` writes, and returns
// every write it reported as done.
std::vector<long> RunAndKillWriter(int killAfter, bool* killed) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], STDOUT_FILENO);
    close(fds[0]);
    close(fds[1]);
    execl(STORE_WRITER_PATH, STORE_WRITER_PATH, "1000000", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  std::string received;
  char buf[4096];
  int lines = 0;
  bool sent = false;
  ssize_t got;
  while ((got = read(fds[0], buf, sizeof buf)) > 0) {
    received.append(buf, static_cast<size_t>(got));
    for (ssize_t i = 0; i < got; ++i) lines += buf[i] == '\n';
    if (!sent && lines >= killAfter) {
      kill(pid, SIGKILL);  // mid-loop: the writer may be inside a commit right now
      sent = true;
    }
  }
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  *killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
  std::vector<long> done;
  std::istringstream in(received.substr(0, received.rfind('\n') + 1));
  long n;
  while (in >> n) done.push_back(n);
  return done;
}

TEST(StoreTest, EveryReportedWriteSurvivesAKilledWriter) {
  bool killed = false;
  const std::vector<long> done = RunAndKillWriter(150, &killed);
  ASSERT_TRUE(killed);
  ASSERT_GE(done.size(), 150u);
  AccessReg reg(HKEY_CURRENT_USER, "Software\\Halvern\\Durability");
  ASSERT_TRUE(reg.IsOpen()) << StoreLastMessage();
  for (long i : done) {
    uint32_t value = 0;
    ASSERT_TRUE(reg.QueryDword(("v" + std::to_string(i)).c_str(), &value)) << i;
    EXPECT_EQ(value, static_cast<uint32_t>(i * 3 + 1));
  }
  // At most the one write in flight may have landed beyond the reported ones.
  char name[32];
  uint32_t count = 0;
  while (reg.EnumValue(count, name, sizeof name)) ++count;
  EXPECT_GE(count, done.size());
  EXPECT_LE(count, done.size() + 1);
  // The store stays usable for writing.
  EXPECT_TRUE(reg.SetDword("after", 1));
}

}  // namespace
}  // namespace marquel
