// A program-stream merge's roll-back record and backups as a killed server leaves them,
// made by hand, for the tests of the start-up clean-up and of the controller.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "media/mqinfo_temp.h"
#include "platform/access_reg.h"
#include "platform/text.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {

// A merge's roll-back record as a killed server leaves it: the file's old bytes [1000,
// 4000) and [4000, 6000) kept aside, and the file rewritten from 1000 on.
struct UnfinishedMerge {
  std::string old_bytes;
  std::string media = TestPath("clip.mpg");
  std::string packs, tail;
  std::string key = "Software\\Halvern\\Marquel\\RollBack\\clip";

  void Make() {
    old_bytes.resize(6000);
    for (size_t i = 0; i < old_bytes.size(); ++i) old_bytes[i] = static_cast<char>('a' + i % 26);
    std::ofstream(media, std::ios::binary) << old_bytes.substr(0, 1000) << std::string(9000, 'x');
    ASSERT_NE(GetMQInfoTempFileName("MQ", 0, &packs), 0u);
    ASSERT_NE(GetMQInfoTempFileName("MQ", 0, &tail), 0u);
    std::ofstream(packs, std::ios::binary) << old_bytes.substr(1000, 3000);
    std::ofstream(tail, std::ios::binary) << old_bytes.substr(4000);
    std::vector<uint8_t> buf(1056, 0);
    char16_t units[260];
    ASSERT_TRUE(CopyToWideRecord(tail, units, 260));
    std::memcpy(buf.data(), units, sizeof units);
    ASSERT_TRUE(CopyToWideRecord(packs, units, 260));
    std::memcpy(buf.data() + 520, units, sizeof units);
    const int64_t offset = 1000;
    std::memcpy(buf.data() + 1040, &offset, sizeof offset);
    AccessReg reg;
    ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, key.c_str()));
    ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, key.c_str()));
    ASSERT_TRUE(reg.SetValue("BUF", buf.data(), REG_BINARY, 1056));
    ASSERT_TRUE(reg.SetString("PATH", media.c_str()));
    ASSERT_TRUE(reg.SetDword("TYPE", 1));
  }
  // Adds the record's STATE as a merge writes it: the file's size and time before the
  // merge, when the writing began, and the largest size the merge could leave.
  void SetState(int64_t size, int64_t mtime, int64_t began, int64_t largest) {
    const int64_t state[4] = {size, mtime, began, largest};
    AccessReg reg;
    ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, key.c_str()));
    ASSERT_TRUE(reg.SetValue("STATE", state, REG_BINARY, sizeof state));
  }
  std::string MediaBytes() const {
    std::ifstream in(media, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), {});
  }
  bool RecordThere() {
    AccessReg reg;
    return reg.Open(HKEY_CURRENT_USER, key.c_str());
  }
};

}  // namespace marquel::test
