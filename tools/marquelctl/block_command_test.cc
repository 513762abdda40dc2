// marquelctl block dump, run as a user would on small hand-made blocks.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ctl_test_util.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using ctltest::Bytes;
using DumpRun = ctltest::CtlRun;

DumpRun Dump(const std::vector<std::string>& args) {
  return ctltest::Ctl(args);
}

std::string WriteBlock(const std::string& name, const Bytes& bytes) {
  std::string path = test::TestPath(name);
  ctltest::WriteBytes(path, bytes);
  return path;
}

// Tag 16 = 0x1234 at time 100 (see the block codec's golden tests for every byte).
const Bytes kOneValue = {
    0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00,
    0x00, 0x00, 0x09, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x01, 0x00,
    0x23, 0xC8, 0xAC, 0x65, 0x01, 0x10, 0x45, 0x75, 0x33, 0xDA,  // tag ids
    0x80, 0x3F, 0xBA, 0x6C, 0xAD,                                // lengths
    0x64, 0x00, 0x00, 0x12, 0x34, 0xF3, 0xD0, 0xA2, 0xF6,        // data
};

// Raw tags: 29 = DE AD at 50, 31 = 01 02 03 at 50, 32 = FF at 60.
const Bytes kRaw = {
    0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00, 0x17, 0x00, 0x00,
    0x00, 0x09, 0x00, 0x00, 0x01, 0x00, 0x78, 0x50, 0xCE, 0x99, 0x01, 0x1D, 0x1F, 0x01, 0x20, 0x6C,
    0x3E, 0xA4, 0x2B, 0x81, 0x3C, 0x4C, 0x2E, 0xC7, 0x72, 0x32, 0x00, 0x00, 0x00, 0x02, 0xDE, 0xAD,
    0x30, 0x10, 0x20, 0x30, 0xA0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x7F, 0xC0, 0x4A, 0x1A, 0x3D, 0xBA,
};

TEST(BlockDumpCommand, PrintsTagsAsText) {
  DumpRun r = Dump({"block", "dump", WriteBlock("one.blk", kOneValue)});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "block 46 bytes: header 26, tag ids 6, lengths 5, data 9\n"
            "tag 16 type 0 bits 16: 1 sample\n"
            "  100 4660\n");
}

TEST(BlockDumpCommand, PrintsJsonWithRawSamplesInHex) {
  DumpRun r = Dump({"block", "dump", "--json", WriteBlock("raw.blk", kRaw)});
  ASSERT_EQ(r.status, 0) << r.err;
  nlohmann::json j = nlohmann::json::parse(r.out);
  EXPECT_EQ(j, nlohmann::json::parse(
                   R"({"tags":{"29":[[50,"dead"]],"31":[[50,"010203"]],"32":[[60,"ff"]]}})"));
  DumpRun plain = Dump({"block", "dump", "--json", WriteBlock("one.blk", kOneValue)});
  EXPECT_EQ(plain.out, "{\"tags\":{\"16\":[[100,4660]]}}\n");
}

TEST(BlockDumpCommand, RejectedBlockExitsOneWithTheReason) {
  Bytes damaged = kOneValue;
  damaged[34] ^= 0x01;  // the length stream's CRC
  DumpRun r = Dump({"block", "dump", WriteBlock("bad.blk", damaged)});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(r.out.empty());
  EXPECT_NE(r.err.find("rejected: length stream CRC mismatch"), std::string::npos) << r.err;
  DumpRun cut =
      Dump({"block", "dump", WriteBlock("cut.blk", Bytes(kOneValue.begin(), kOneValue.end() - 1))});
  EXPECT_EQ(cut.status, 1);
  EXPECT_NE(cut.err.find("shorter than its header"), std::string::npos) << cut.err;
}

TEST(BlockDumpCommand, BytesAfterTheBlockAreIgnoredWithANote) {
  Bytes more = kOneValue;
  more.insert(more.end(), {0x00, 0x00, 0x01, 0xFF});
  DumpRun r = Dump({"block", "dump", WriteBlock("more.blk", more)});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.err.find("4 bytes after the block ignored"), std::string::npos) << r.err;
  EXPECT_NE(r.out.find("  100 4660\n"), std::string::npos);
}

TEST(BlockDumpCommand, MissingFileAndUsage) {
  DumpRun missing = Dump({"block", "dump", test::TestPath("none.blk")});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("no such file"), std::string::npos);
  EXPECT_EQ(Dump({"block", "dump"}).status, 2);
  EXPECT_EQ(Dump({"block"}).status, 2);
  EXPECT_EQ(Dump({"block", "dump", "a", "b"}).status, 2);
}

}  // namespace
}  // namespace marquel
