// The thread's store connection: kept between objects, given up when the store's location,
// file or process changes; and finding sub-keys by a value's contents.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <random>

#include "platform/access_reg.h"
#include "store.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

constexpr const char* kKey = "Software\\Halvern\\Reuse";

std::string StorePath() {
  return test::TestPath("data/Halvern/registry.db");
}

// Makes kKey holding N = `value` in the current store.
void MakeStoreWith(uint32_t value) {
  AccessReg reg;
  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, kKey));
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, kKey));
  ASSERT_TRUE(reg.SetDword("N", value));
}

uint32_t ReadN() {
  AccessReg reg;
  uint32_t value = 0;
  if (!reg.Open(HKEY_CURRENT_USER, kKey) || !reg.QueryDword("N", &value)) return 0xFFFFFFFFu;
  return value;
}

bool StoreHasValueIndex(const std::string& path) {
  sqlite3* db = nullptr;
  bool found = false;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db, "SELECT 1 FROM sqlite_master WHERE name = 'vals_by_small_data'", -1, &s,
                       nullptr);
    found = sqlite3_step(s) == SQLITE_ROW;
    sqlite3_finalize(s);
  }
  sqlite3_close(db);
  return found;
}

TEST(StoreReuse, ASecondObjectOnTheSameThreadReusesTheConnection) {
  MakeStoreWith(7);
  AccessReg first(HKEY_CURRENT_USER, kKey);
  ASSERT_TRUE(first.IsOpen());
  const uint64_t opened = store::ConnectionsOpened();
  AccessReg second(HKEY_CURRENT_USER, kKey);
  ASSERT_TRUE(second.IsOpen());
  first.Close();
  second.Close();
  EXPECT_EQ(ReadN(), 7u);
  EXPECT_EQ(store::ConnectionsOpened(), opened);
}

TEST(StoreReuse, WritesOfAnotherObjectAreSeenThroughAKeptConnection) {
  MakeStoreWith(1);
  AccessReg reader(HKEY_CURRENT_USER, kKey);
  AccessReg writer(HKEY_CURRENT_USER, kKey);
  ASSERT_TRUE(writer.SetDword("N", 2));
  uint32_t value = 0;
  ASSERT_TRUE(reader.QueryDword("N", &value));
  EXPECT_EQ(value, 2u);
}

TEST(StoreReuse, AChangedStorePathOpensTheNewStore) {
  MakeStoreWith(1);
  ASSERT_EQ(ReadN(), 1u);
  const std::string other = test::TestPath("other-data");
  setenv("XDG_DATA_HOME", other.c_str(), 1);
  EXPECT_EQ(ReadN(), 0xFFFFFFFFu);
  EXPECT_EQ(StoreLastError(), ERROR_FILE_NOT_FOUND);
  MakeStoreWith(2);
  EXPECT_EQ(ReadN(), 2u);
  setenv("XDG_DATA_HOME", test::TestPath("data").c_str(), 1);
  EXPECT_EQ(ReadN(), 1u);
  EXPECT_TRUE(std::filesystem::exists(other + "/Halvern/registry.db"));
}

TEST(StoreReuse, AForkedChildDoesNotUseTheParentsConnection) {
  MakeStoreWith(5);
  AccessReg held(HKEY_CURRENT_USER, kKey);  // the parent's connection stays in use
  ASSERT_TRUE(held.IsOpen());
  pid_t pid = fork();
  if (pid == 0) {
    const uint64_t before = store::ConnectionsOpened();
    AccessReg reg(HKEY_CURRENT_USER, kKey);
    uint32_t value = 0;
    const bool read = reg.QueryDword("N", &value) && value == 5;
    const bool wrote = reg.SetDword("N", 6);
    _exit(read && wrote && store::ConnectionsOpened() == before + 1 ? 0 : 1);
  }
  ASSERT_GT(pid, 0);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  uint32_t value = 0;
  EXPECT_TRUE(held.QueryDword("N", &value));
  EXPECT_EQ(value, 6u);
  EXPECT_TRUE(held.SetDword("N", 8));
  EXPECT_EQ(ReadN(), 8u);
}

TEST(StoreReuse, AReplacedStoreFileIsNoticed) {
  const std::string aside = test::TestPath("aside");
  setenv("XDG_DATA_HOME", aside.c_str(), 1);
  MakeStoreWith(2);
  setenv("XDG_DATA_HOME", test::TestPath("data").c_str(), 1);
  MakeStoreWith(1);
  ASSERT_EQ(ReadN(), 1u);  // the thread now keeps a connection to the first file
  const uint64_t opened = store::ConnectionsOpened();
  ASSERT_EQ(std::rename((aside + "/Halvern/registry.db").c_str(), StorePath().c_str()), 0);
  EXPECT_EQ(ReadN(), 2u);
  EXPECT_GT(store::ConnectionsOpened(), opened);
}

TEST(StoreReuse, ADeletedStoreFileIsNoticed) {
  MakeStoreWith(1);
  ASSERT_EQ(ReadN(), 1u);
  ASSERT_TRUE(std::filesystem::remove(StorePath()));
  AccessReg reg;
  EXPECT_FALSE(reg.Open(HKEY_CURRENT_USER, kKey));
  EXPECT_EQ(reg.LastError(), ERROR_FILE_NOT_FOUND);
}

// Sub-key names holding value V with `value` among `count` random ones.
std::vector<std::string> ByScan(const char* path, uint32_t value) {
  AccessReg base(HKEY_CURRENT_USER, path);
  std::vector<std::string> names;
  char name[64];
  for (uint32_t i = 0; base.EnumKey(i, name, sizeof name); ++i) {
    AccessReg sub(HKEY_CURRENT_USER, (std::string(path) + "\\" + name).c_str());
    uint32_t v = 0;
    if (sub.QueryDword("v", &v) && v == value) names.emplace_back(name);
  }
  return names;
}

TEST(StoreReuse, LookingUpByValueFindsWhatAScanFinds) {
  std::mt19937 random(20261125);
  AccessReg reg;
  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, kKey));
  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, "Software\\Elsewhere\\x"));
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, "Software\\Elsewhere\\x"));
  ASSERT_TRUE(reg.SetDword("v", 3));  // same value under another parent: never found
  for (int i = 0; i < 60; ++i) {
    const std::string sub = std::string(kKey) + "\\k" + std::to_string(random() % 40);
    ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, sub.c_str()));
    ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, sub.c_str()));
    const uint32_t value = random() % 6;
    if (random() % 5 == 0) {
      ASSERT_TRUE(reg.SetValue("v", &value, REG_BINARY, 2));  // a shorter value never matches
    } else {
      ASSERT_TRUE(reg.SetDword(random() % 2 ? "v" : "V", value));
    }
    if (random() % 7 == 0) reg.DeleteValue("v");
    if (random() % 9 == 0) {
      reg.Close();
      reg.DeleteKey(HKEY_CURRENT_USER, sub.c_str());
    }
  }
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, kKey));
  for (uint32_t value = 0; value < 7; ++value) {
    std::vector<std::string> found;
    ASSERT_TRUE(reg.FindSubKeysByValue("V", &value, 4, &found));
    EXPECT_EQ(found, ByScan(kKey, value)) << value;
  }
  std::vector<std::string> found;
  uint8_t tooLong[17] = {};
  EXPECT_FALSE(reg.FindSubKeysByValue("v", tooLong, sizeof tooLong, &found));
  EXPECT_EQ(StoreLastError(), ERROR_INVALID_PARAMETER);
}

TEST(StoreReuse, AStoreWithoutTheValueIndexGetsItAndAnswersTheSame) {
  MakeStoreWith(4);
  ASSERT_TRUE(AccessReg().CreateKey(HKEY_CURRENT_USER, (std::string(kKey) + "\\sub").c_str()));
  {
    AccessReg sub(HKEY_CURRENT_USER, (std::string(kKey) + "\\sub").c_str());
    ASSERT_TRUE(sub.SetDword("N", 9));
  }
  ASSERT_TRUE(StoreHasValueIndex(StorePath()));
  // A store as the previous version made it: the same schema without the index.
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(StorePath().c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "DROP INDEX vals_by_small_data", nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  ASSERT_FALSE(StoreHasValueIndex(StorePath()));

  AccessReg reg(HKEY_CURRENT_USER, kKey);
  ASSERT_TRUE(reg.IsOpen());
  std::vector<std::string> found;
  const uint32_t nine = 9;
  ASSERT_TRUE(reg.FindSubKeysByValue("N", &nine, 4, &found));
  EXPECT_EQ(found, std::vector<std::string>{"sub"});
  reg.Close();
  EXPECT_TRUE(StoreHasValueIndex(StorePath()));
  EXPECT_EQ(ReadN(), 4u);
}

}  // namespace
}  // namespace marquel
