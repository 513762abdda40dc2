// Unit tests of the client library's pieces that need no bus.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "bus_client.h"
#include "marquel/marquel_client.h"

namespace marquel::client {
namespace {

std::string ReadText(const char* path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Every word that follows `marker` in `text`, in order (a word ends at a non-name
// character).
std::vector<std::string> NamesAfter(const std::string& text, const std::string& marker) {
  std::vector<std::string> names;
  for (size_t at = text.find(marker); at != std::string::npos; at = text.find(marker, at + 1)) {
    size_t begin = at + marker.size();
    size_t end = begin;
    while (end < text.size() &&
           (isalnum(static_cast<unsigned char>(text[end])) || text[end] == '_'))
      ++end;
    names.push_back(text.substr(begin, end - begin));
  }
  return names;
}

// The method names of one interface, in the order the description lists them.
std::vector<std::string> XmlMethods(const std::string& xml, const std::string& iface) {
  size_t begin = xml.find("<interface name=\"com.halvern.Marquel." + iface + "\"");
  size_t end = xml.find("</interface>", begin);
  return NamesAfter(xml.substr(begin, end - begin), "<method name=\"");
}

// The virtual methods of one class of the public header, in declaration (slot) order.
std::vector<std::string> HeaderMethods(const std::string& header, const std::string& cls) {
  size_t begin = header.find("class " + cls + " ");
  size_t end = header.find("\n};", begin);
  return NamesAfter(header.substr(begin, end - begin), "virtual HRESULT ");
}

TEST(ClientHeader, SlotOrderFollowsTheDescription) {
  std::string xml = ReadText(MARQUEL_API_XML);
  std::string header = ReadText(MARQUEL_CLIENT_HEADER);
  for (const char* iface : {"IMQInterface", "IMQInterface2", "IMarquelTool", "IMarquelEx"}) {
    auto expected = XmlMethods(xml, iface);
    EXPECT_FALSE(expected.empty()) << iface;
    EXPECT_EQ(HeaderMethods(header, iface), expected) << iface;
  }
  EXPECT_EQ(HeaderMethods(header, "IMQInterface").size(), 49u);
  EXPECT_EQ(HeaderMethods(header, "IMQInterface2").size(), 25u);
}

TEST(ClientHeader, RecordsHaveTheirBinarySizes) {
  EXPECT_EQ(sizeof(MarquelOneTag), 16u);
  EXPECT_EQ(sizeof(MarquelRawDataTag), 24u);
}

TEST(Hresult, ValuesAndNames) {
  EXPECT_EQ(S_OK, 0);
  EXPECT_EQ(S_FALSE, 1);
  EXPECT_EQ(static_cast<uint32_t>(E_FAIL), 0x80004005u);
  EXPECT_EQ(static_cast<uint32_t>(E_INVALIDARG), 0x80070057u);
  EXPECT_EQ(static_cast<uint32_t>(E_OUTOFMEMORY), 0x8007000Eu);
  EXPECT_STREQ(HresultName(E_INVALIDARG), "E_INVALIDARG");
  EXPECT_STREQ(HresultName(S_FALSE), "S_FALSE");
  EXPECT_STREQ(HresultName(12345), "unknown");
  EXPECT_TRUE(Failed(E_FAIL));
  EXPECT_TRUE(Succeeded(S_FALSE));
  EXPECT_NE(std::string(HresultText(E_OUTOFMEMORY)), HresultText(E_FAIL));
}

TEST(AbsoluteName, RelativeNamesAreJoinedToTheWorkingDirectory) {
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  EXPECT_EQ(AbsoluteName("clip.mpg"), std::string(cwd) + "/clip.mpg");
  EXPECT_EQ(AbsoluteName("./a/../clip.mpg"), std::string(cwd) + "/clip.mpg");
  EXPECT_EQ(AbsoluteName("/x/y.ts"), "/x/y.ts");
  EXPECT_EQ(AbsoluteName(""), "");
  EXPECT_EQ(AbsoluteName(nullptr), "");
}

TEST(Clamp, NeverMoreThanTheCallersCount) {
  EXPECT_EQ(Clamp(3, 2), 2u);
  EXPECT_EQ(Clamp(2, 5), 2u);
  EXPECT_EQ(Clamp(7, 0), 0u);
  EXPECT_EQ(Clamp(7, -1), 0u);
}

TEST(CopyRawSample, CopiesOnlyIntoABufferLongEnough) {
  const uint8_t bytes[4] = {1, 2, 3, 4};
  uint8_t buffer[8] = {9, 9, 9, 9, 9, 9, 9, 9};
  MarquelRawDataTag big{0, 8, buffer};
  CopyRawSample(77, bytes, 4, &big);
  EXPECT_EQ(big.llTimeCode, 77);
  EXPECT_EQ(big.nLength, 4);
  EXPECT_EQ(buffer[3], 4);
  EXPECT_EQ(buffer[4], 9);

  uint8_t small_buffer[2] = {5, 5};
  MarquelRawDataTag small{0, 2, small_buffer};
  CopyRawSample(78, bytes, 4, &small);
  EXPECT_EQ(small.llTimeCode, 78);
  EXPECT_EQ(small.nLength, 2);
  EXPECT_EQ(small_buffer[0], 5);

  MarquelRawDataTag none{0, 100, nullptr};
  CopyRawSample(79, bytes, 4, &none);
  EXPECT_EQ(none.llTimeCode, 79);
  EXPECT_EQ(none.nLength, 100);
}

}  // namespace
}  // namespace marquel::client
