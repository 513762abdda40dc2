#include "platform/access_reg.h"

#include <gtest/gtest.h>

#include <cstring>

#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

constexpr const char* kKey = "Software\\Halvern\\Marquel\\TSCache";

class AccessRegTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(AccessReg().CreateKey(HKEY_CURRENT_USER, kKey)); }

  // The names of the sub-keys of `path`, in enumeration order.
  static std::vector<std::string> SubKeys(const char* path) {
    AccessReg reg(HKEY_CURRENT_USER, path);
    std::vector<std::string> names;
    char name[300];
    for (uint32_t i = 0; reg.EnumKey(i, name, sizeof name); ++i) names.emplace_back(name);
    return names;
  }
};

TEST_F(AccessRegTest, OpenReleasesTheOldKeyEvenWhenTheNewOpenFails) {
  AccessReg reg;
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, kKey));
  EXPECT_TRUE(reg.IsOpen());
  EXPECT_FALSE(reg.Open(HKEY_CURRENT_USER, "Software\\Missing"));
  EXPECT_FALSE(reg.IsOpen());
  EXPECT_EQ(reg.LastError(), ERROR_FILE_NOT_FOUND);
  uint32_t value = 7;
  EXPECT_FALSE(reg.SetDword("NextID", 1));  // no key, so nothing is written anywhere
  EXPECT_FALSE(reg.QueryDword("NextID", &value));
  EXPECT_FALSE(reg.Close());
  EXPECT_TRUE(AccessReg(HKEY_CURRENT_USER, kKey).IsOpen());
  AccessReg check(HKEY_CURRENT_USER, kKey);
  EXPECT_FALSE(check.QueryDword("NextID", &value));
}

TEST_F(AccessRegTest, ConstructorOpensAtOnce) {
  AccessReg good(HKEY_CURRENT_USER, kKey, 1);
  EXPECT_TRUE(good.IsOpen());
  EXPECT_EQ(good.LastError(), ERROR_SUCCESS);
  EXPECT_EQ(good.IsNarrow(), 1);
  AccessReg bad(HKEY_CURRENT_USER, "Software\\Nope");
  EXPECT_FALSE(bad.IsOpen());
  EXPECT_EQ(bad.LastError(), ERROR_FILE_NOT_FOUND);
  EXPECT_TRUE(good.Close());
  EXPECT_FALSE(good.Close());
}

TEST_F(AccessRegTest, QueryBinaryWithSizeZeroDoesNotTouchTheStore) {
  AccessReg reg(HKEY_CURRENT_USER, kKey);
  const uint8_t bytes[3] = {1, 2, 3};
  ASSERT_TRUE(reg.SetValue("TSINFO", bytes, REG_BINARY, 3));
  uint32_t size = 3;
  EXPECT_NE(reg.QueryBinary("TSINFO", &size), nullptr);
  EXPECT_EQ(StoreLastError(), ERROR_SUCCESS);
  uint32_t value;
  EXPECT_FALSE(reg.QueryDword("Missing", &value));  // leaves "not found" as the thread's status
  ASSERT_EQ(StoreLastError(), ERROR_FILE_NOT_FOUND);
  size = 0;
  EXPECT_EQ(reg.QueryBinary("TSINFO", &size), nullptr);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(StoreLastError(), ERROR_FILE_NOT_FOUND);  // a store read would have reset it
  EXPECT_EQ(reg.QueryBinary("TSINFO", nullptr), nullptr);
}

TEST_F(AccessRegTest, QueryBinaryReadsExactlyTheExpectedSize) {
  AccessReg reg(HKEY_CURRENT_USER, kKey);
  uint8_t info[524];
  for (size_t i = 0; i < sizeof info; ++i) info[i] = static_cast<uint8_t>(i * 7);
  ASSERT_TRUE(reg.SetValue("TSINFO", info, REG_BINARY, sizeof info));
  uint32_t size = sizeof info;
  std::unique_ptr<uint8_t[]> got = reg.QueryBinary("TSINFO", &size);
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(size, 524u);
  EXPECT_EQ(std::memcmp(got.get(), info, sizeof info), 0);

  size = 1048;  // expecting two programs, one is stored: absent, and the stored size is told
  EXPECT_EQ(reg.QueryBinary("TSINFO", &size), nullptr);
  EXPECT_EQ(size, 524u);
  size = 100;
  EXPECT_EQ(reg.QueryBinary("TSINFO", &size), nullptr);
  EXPECT_EQ(size, 524u);
  EXPECT_EQ(StoreLastError(), ERROR_MORE_DATA);
  size = 10;
  EXPECT_EQ(reg.QueryBinary("Missing", &size), nullptr);
  EXPECT_EQ(size, 10u);
}

TEST_F(AccessRegTest, CreateKeyLeavesNoKeyOpenAndAcceptsAnExistingKey) {
  AccessReg reg;
  EXPECT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, "Software\\Halvern\\Common\\MQTemp"));
  EXPECT_FALSE(reg.IsOpen());
  EXPECT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, "Software\\Halvern\\Common\\MQTemp"));
  EXPECT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, "software\\halvern\\COMMON\\mqtemp"));
  EXPECT_FALSE(reg.IsOpen());
  EXPECT_EQ(SubKeys("Software\\Halvern\\Common"), std::vector<std::string>{"MQTemp"});

  // With a key of its own open, the object keeps that key.
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, kKey));
  EXPECT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, "Software\\Other"));
  EXPECT_TRUE(reg.IsOpen());
  ASSERT_TRUE(reg.SetDword("NextID", 3));
  AccessReg check(HKEY_CURRENT_USER, kKey);
  uint32_t value = 0;
  EXPECT_TRUE(check.QueryDword("NextID", &value));
  EXPECT_EQ(value, 3u);
}

TEST_F(AccessRegTest, QueryDwordNeedsFourBytesAndReportsTheRecordedError) {
  AccessReg reg(HKEY_CURRENT_USER, kKey);
  ASSERT_TRUE(reg.SetDword("ID", 0x12345678));
  uint32_t value = 0;
  uint32_t error = 99;
  EXPECT_TRUE(reg.QueryDword("id", &value, &error));
  EXPECT_EQ(value, 0x12345678u);
  EXPECT_EQ(error, ERROR_SUCCESS);

  ASSERT_TRUE(reg.SetValue("Three", "abc", REG_DWORD, 3));
  ASSERT_TRUE(reg.SetValue("Eight", "abcdefgh", REG_BINARY, 8));
  value = 5;
  EXPECT_FALSE(reg.QueryDword("Three", &value, &error));
  EXPECT_EQ(value, 5u);
  EXPECT_FALSE(reg.QueryDword("Eight", &value, &error));
  // The failed reads did not refresh the recorded code: it is still the last SetValue's.
  EXPECT_EQ(error, ERROR_SUCCESS);
  EXPECT_FALSE(reg.QueryDword("Missing", &value, &error));
  EXPECT_EQ(error, ERROR_SUCCESS);

  // After a failed write the recorded code is that write's, whatever QueryDword meets.
  EXPECT_FALSE(reg.SetValue(std::string(16384, 'n').c_str(), "x", REG_SZ, 2));
  EXPECT_TRUE(reg.QueryDword("ID", &value, &error));
  EXPECT_EQ(error, ERROR_INVALID_PARAMETER);
}

TEST_F(AccessRegTest, QueryStringReadsTerminatedTextOrRefuses) {
  AccessReg reg(HKEY_CURRENT_USER, kKey);
  ASSERT_TRUE(reg.SetString("File", "/home/ann/a.mq"));
  EXPECT_EQ(reg.LastSize(), 2000u);
  char buf[32];
  std::memset(buf, 'x', sizeof buf);
  uint32_t error = 99;
  ASSERT_TRUE(reg.QueryString("FILE", buf, sizeof buf, &error));
  EXPECT_STREQ(buf, "/home/ann/a.mq");
  EXPECT_EQ(error, ERROR_SUCCESS);

  char small[8];
  std::memset(small, 'x', sizeof small);
  EXPECT_FALSE(reg.QueryString("File", small, sizeof small, &error));
  EXPECT_EQ(small[0], 0);  // emptied before the read
  EXPECT_EQ(error, ERROR_MORE_DATA);
  EXPECT_EQ(reg.LastError(), ERROR_MORE_DATA);

  // Text written without a terminator gets one, if there is room for it.
  ASSERT_TRUE(reg.SetValue("Raw", "abcd", REG_SZ, 4));
  EXPECT_EQ(reg.LastError(), ERROR_SUCCESS);
  char five[5];
  ASSERT_TRUE(reg.QueryString("Raw", five, sizeof five));
  EXPECT_STREQ(five, "abcd");
  char four[4];
  EXPECT_FALSE(reg.QueryString("Raw", four, sizeof four));
  EXPECT_EQ(four[0], 0);

  EXPECT_FALSE(reg.QueryString("Missing", buf, sizeof buf, &error));
  EXPECT_EQ(error, ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(buf[0], 0);
}

TEST_F(AccessRegTest, LastSizeAfterNumberAndStringWrites) {
  AccessReg reg(HKEY_CURRENT_USER, kKey);
  EXPECT_EQ(reg.LastSize(), 0u);
  ASSERT_TRUE(reg.SetDword("A", 1));
  EXPECT_EQ(reg.LastSize(), 4u);
  ASSERT_TRUE(reg.SetString("B", "text"));
  EXPECT_EQ(reg.LastSize(), 2000u);
  uint32_t type = 0;
  std::vector<uint8_t> data;
  ASSERT_TRUE(reg.QueryValue("B", &type, &data));
  EXPECT_EQ(type, REG_SZ);
  EXPECT_EQ(data, (std::vector<uint8_t>{'t', 'e', 'x', 't', 0}));  // with its terminator
}

TEST_F(AccessRegTest, NamesCompareWithoutRegardToAsciiCase) {
  AccessReg reg(HKEY_CURRENT_USER, "SOFTWARE\\halvern\\marquel\\tscache");
  ASSERT_TRUE(reg.IsOpen());
  ASSERT_TRUE(reg.SetDword("NextID", 1));
  ASSERT_TRUE(reg.SetDword("NEXTID", 2));  // the same value
  uint32_t value = 0;
  EXPECT_TRUE(reg.QueryDword("nextid", &value));
  EXPECT_EQ(value, 2u);
  char name[32];
  uint32_t type = 0, size = 0;
  ASSERT_TRUE(reg.EnumValue(0, name, sizeof name, &type, &size));
  EXPECT_STREQ(name, "NextID");  // the first spelling is kept
  EXPECT_EQ(type, REG_DWORD);
  EXPECT_EQ(size, 4u);
  EXPECT_FALSE(reg.EnumValue(1, name, sizeof name));

  // Only A-Z fold: "É" and "é" are two keys.
  AccessReg maker;
  ASSERT_TRUE(maker.CreateKey(HKEY_CURRENT_USER, "Software\\\xC3\x89t\xC3\xA9"));
  EXPECT_FALSE(AccessReg(HKEY_CURRENT_USER, "Software\\\xC3\xA9t\xC3\xA9").IsOpen());
  EXPECT_TRUE(AccessReg(HKEY_CURRENT_USER, "SOFTWARE\\\xC3\x89T\xC3\xA9").IsOpen());
}

TEST_F(AccessRegTest, EnumerationFollowsCreationOrderAndStaysStable) {
  const char* base = "Software\\Halvern\\Common\\MQTemp";
  AccessReg reg;
  for (const char* name : {"/v/zeta.ts", "/v/alpha.ts", "/v/Mid.ts"}) {
    ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, (std::string(base) + "\\" + name).c_str()));
  }
  const std::vector<std::string> expected = {"/v/zeta.ts", "/v/alpha.ts", "/v/Mid.ts"};
  EXPECT_EQ(SubKeys(base), expected);
  EXPECT_EQ(SubKeys(base), expected);
  ASSERT_TRUE(reg.DeleteKey(HKEY_CURRENT_USER, (std::string(base) + "\\/v/alpha.ts").c_str()));
  EXPECT_EQ(SubKeys(base), (std::vector<std::string>{"/v/zeta.ts", "/v/Mid.ts"}));

  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, base));
  char name[300];
  EXPECT_FALSE(reg.EnumKey(2, name, sizeof name));
  EXPECT_EQ(StoreLastError(), ERROR_NO_MORE_ITEMS);
  char tiny[4];
  EXPECT_FALSE(reg.EnumKey(0, tiny, sizeof tiny));
  EXPECT_EQ(StoreLastError(), ERROR_MORE_DATA);
}

TEST_F(AccessRegTest, ReplacedValueKeepsItsPosition) {
  AccessReg reg(HKEY_CURRENT_USER, kKey);
  ASSERT_TRUE(reg.SetDword("ID", 1));
  ASSERT_TRUE(reg.SetDword("CONTENTINFO", 2));
  ASSERT_TRUE(reg.SetDword("id", 3));
  char name[32];
  ASSERT_TRUE(reg.EnumValue(0, name, sizeof name));
  EXPECT_STREQ(name, "ID");
  ASSERT_TRUE(reg.EnumValue(1, name, sizeof name));
  EXPECT_STREQ(name, "CONTENTINFO");
  EXPECT_TRUE(reg.DeleteValue("Id"));
  EXPECT_FALSE(reg.DeleteValue("ID"));
  ASSERT_TRUE(reg.EnumValue(0, name, sizeof name));
  EXPECT_STREQ(name, "CONTENTINFO");
}

TEST_F(AccessRegTest, KeyWithSubKeysCannotBeDeleted) {
  AccessReg reg;
  EXPECT_FALSE(reg.DeleteKey(HKEY_CURRENT_USER, "Software\\Halvern\\Marquel"));
  EXPECT_EQ(StoreLastError(), ERROR_ACCESS_DENIED);
  EXPECT_TRUE(AccessReg(HKEY_CURRENT_USER, kKey).IsOpen());
  {
    AccessReg values(HKEY_CURRENT_USER, kKey);
    ASSERT_TRUE(values.SetDword("NextID", 4));
  }
  EXPECT_TRUE(reg.DeleteKey(HKEY_CURRENT_USER, kKey));  // a leaf goes, with its values
  EXPECT_TRUE(reg.DeleteKey(HKEY_CURRENT_USER, "Software\\Halvern\\Marquel"));
  EXPECT_FALSE(reg.DeleteKey(HKEY_CURRENT_USER, "Software\\Halvern\\Marquel"));
  EXPECT_EQ(StoreLastError(), ERROR_FILE_NOT_FOUND);
  EXPECT_FALSE(reg.DeleteKey(HKEY_CURRENT_USER, ""));
  EXPECT_EQ(StoreLastError(), ERROR_ACCESS_DENIED);

  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, kKey));  // made anew, without old values
  AccessReg again(HKEY_CURRENT_USER, kKey);
  uint32_t value;
  EXPECT_FALSE(again.QueryDword("NextID", &value));
}

TEST_F(AccessRegTest, WritesThroughADeletedKeyFail) {
  AccessReg held(HKEY_CURRENT_USER, kKey);
  ASSERT_TRUE(held.IsOpen());
  AccessReg other;
  ASSERT_TRUE(other.DeleteKey(HKEY_CURRENT_USER, kKey));
  ASSERT_TRUE(other.CreateKey(HKEY_CURRENT_USER, kKey));  // same name, another key
  EXPECT_FALSE(held.SetDword("NextID", 1));
  EXPECT_EQ(held.LastError(), ERROR_KEY_DELETED);
  AccessReg fresh(HKEY_CURRENT_USER, kKey);
  uint32_t value;
  EXPECT_FALSE(fresh.QueryDword("NextID", &value));
}

TEST_F(AccessRegTest, NameLengthLimits) {
  AccessReg reg;
  const std::string longest(255, 'k');
  EXPECT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, ("Software\\" + longest).c_str()));
  EXPECT_TRUE(reg.Open(HKEY_CURRENT_USER, ("Software\\" + longest).c_str()));
  // 255 characters outside ASCII are 510 bytes, still within the limit.
  std::string wide;
  for (int i = 0; i < 255; ++i) wide += "\xC3\xA9";
  EXPECT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, ("Software\\" + wide).c_str()));

  const std::string tooLong(256, 'k');
  EXPECT_FALSE(reg.CreateKey(HKEY_CURRENT_USER, ("Software\\" + tooLong).c_str()));
  EXPECT_EQ(StoreLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(reg.Open(HKEY_CURRENT_USER, ("Software\\" + tooLong).c_str()));
  EXPECT_EQ(reg.LastError(), ERROR_INVALID_PARAMETER);

  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, kKey));
  EXPECT_TRUE(reg.SetDword(std::string(16383, 'v').c_str(), 1));
  uint32_t value = 0;
  EXPECT_TRUE(reg.QueryDword(std::string(16383, 'V').c_str(), &value));
  EXPECT_EQ(value, 1u);
  EXPECT_FALSE(reg.SetDword(std::string(16384, 'v').c_str(), 1));
  EXPECT_EQ(reg.LastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(reg.QueryDword(std::string(16384, 'v').c_str(), &value));
}

TEST_F(AccessRegTest, EmptyComponentsAreRefused) {
  AccessReg reg;
  EXPECT_FALSE(reg.Open(HKEY_CURRENT_USER, "\\Software"));
  EXPECT_EQ(reg.LastError(), ERROR_BAD_PATHNAME);
  EXPECT_FALSE(reg.CreateKey(HKEY_CURRENT_USER, "Software\\\\Halvern"));
  EXPECT_EQ(StoreLastError(), ERROR_BAD_PATHNAME);
  EXPECT_TRUE(reg.Open(HKEY_CURRENT_USER, "Software\\Halvern\\"));  // one trailing "\" is fine
}

TEST_F(AccessRegTest, RootsAreSeparate) {
  AccessReg reg;
  ASSERT_TRUE(reg.CreateKey(HKEY_CLASSES_ROOT, "Marquel.MQInterface.1\\CLSID"));
  EXPECT_TRUE(AccessReg(HKEY_CURRENT_USER, "Software\\Classes\\Marquel.MQInterface.1").IsOpen());
  EXPECT_TRUE(AccessReg(HKEY_CLASSES_ROOT, "marquel.mqinterface.1\\clsid").IsOpen());
  EXPECT_FALSE(AccessReg(HKEY_LOCAL_MACHINE, kKey).IsOpen());
  ASSERT_TRUE(reg.CreateKey(HKEY_LOCAL_MACHINE, "Software\\Halvern\\Common\\Marquel"));
  EXPECT_FALSE(AccessReg(HKEY_CURRENT_USER, "Software\\Halvern\\Common\\Marquel").IsOpen());
  EXPECT_EQ(StoreFilePath(HKEY_LOCAL_MACHINE), test::TestPath("machine/registry.db"));
  EXPECT_EQ(StoreFilePath(HKEY_CURRENT_USER), test::TestPath("data/Halvern/registry.db"));
  EXPECT_EQ(StoreFilePath(HKEY_CLASSES_ROOT), StoreFilePath(HKEY_CURRENT_USER));
}

TEST_F(AccessRegTest, UnknownRootIsRefused) {
  AccessReg reg;
  EXPECT_FALSE(reg.Open(static_cast<RegRoot>(7), "Software"));
  EXPECT_EQ(reg.LastError(), ERROR_INVALID_HANDLE);
  EXPECT_FALSE(reg.CreateKey(static_cast<RegRoot>(7), "Software"));
}

TEST_F(AccessRegTest, DefaultValueAndEmptyBinary) {
  AccessReg reg(HKEY_CURRENT_USER, kKey);
  ASSERT_TRUE(reg.SetString(nullptr, "default"));
  char buf[16];
  ASSERT_TRUE(reg.QueryString("", buf, sizeof buf));
  EXPECT_STREQ(buf, "default");
  ASSERT_TRUE(reg.SetValue("Empty", nullptr, REG_BINARY, 0));
  uint32_t type = 0;
  std::vector<uint8_t> data = {1};
  ASSERT_TRUE(reg.QueryValue("Empty", &type, &data));
  EXPECT_EQ(type, REG_BINARY);
  EXPECT_TRUE(data.empty());
  EXPECT_FALSE(reg.SetValue("Bad", nullptr, REG_BINARY, 4));
  EXPECT_EQ(reg.LastError(), ERROR_INVALID_PARAMETER);
}

TEST_F(AccessRegTest, StringListSplitsAtSemicolons) {
  AccessReg reg(HKEY_CURRENT_USER, kKey);
  ASSERT_TRUE(reg.SetString("List", "a.ts;;b.ts;c d.ts;"));
  std::vector<std::string> list;
  ASSERT_TRUE(reg.QueryStringList("List", &list));
  EXPECT_EQ(list, (std::vector<std::string>{"a.ts", "b.ts", "c d.ts"}));
  ASSERT_TRUE(reg.SetString("Long", std::string(2499, 'x').c_str()));  // 2500 with its zero
  ASSERT_TRUE(reg.QueryStringList("Long", &list));
  EXPECT_EQ(list.size(), 1u);
  ASSERT_TRUE(reg.SetString("TooLong", std::string(2500, 'x').c_str()));
  EXPECT_FALSE(reg.QueryStringList("TooLong", &list));
  EXPECT_FALSE(reg.QueryStringList("Missing", &list));
}

TEST_F(AccessRegTest, RootOpensBeforeItsStoreExists) {
  test::MakeFreshHome("no-store-yet");
  AccessReg reg(HKEY_CURRENT_USER, "");
  ASSERT_TRUE(reg.IsOpen());
  char name[64];
  EXPECT_FALSE(reg.EnumKey(0, name, sizeof name));
  uint32_t value;
  EXPECT_FALSE(reg.QueryDword("RootValue", &value));
  ASSERT_TRUE(reg.SetDword("RootValue", 9));  // the first write makes the store
  AccessReg again(HKEY_CURRENT_USER, nullptr);
  EXPECT_TRUE(again.QueryDword("RootValue", &value));
  EXPECT_EQ(value, 9u);
}

}  // namespace
}  // namespace marquel
