// Every method of the bus interfaces, called with handles and counts at and past their
// limits and with empty arrays: each answers with an HRESULT and the server lives on.
#include <climits>
#include <sstream>

#include "bus_fixture.h"

namespace marquel::test {
namespace {

struct MethodSpec {
  std::string iface, name, inputs;
};

std::string Attr(const std::string& tag, const std::string& name) {
  std::string key = " " + name + "=\"";
  size_t at = tag.find(key);
  if (at == std::string::npos) return std::string();
  size_t begin = at + key.size();
  return tag.substr(begin, tag.find('"', begin) - begin);
}

// The methods and their input signatures, from the interface description.
std::vector<MethodSpec> Methods() {
  std::string xml = ReadFile(MARQUEL_API_XML);
  std::vector<MethodSpec> methods;
  std::string iface;
  for (size_t lt = xml.find('<'); lt != std::string::npos; lt = xml.find('<', lt + 1)) {
    if (xml.compare(lt, 4, "<!--") == 0) {
      lt = xml.find("-->", lt);
      continue;
    }
    std::string tag = xml.substr(lt, xml.find('>', lt) - lt);
    if (tag.rfind("<interface ", 0) == 0)
      iface = Attr(tag, "name");
    else if (tag.rfind("<method ", 0) == 0)
      methods.push_back({iface, Attr(tag, "name"), ""});
    else if (tag.rfind("<arg ", 0) == 0 && Attr(tag, "direction") == "in")
      methods.back().inputs += Attr(tag, "type") + ";";
  }
  return methods;
}

// Appends one argument of D-Bus type `type` carrying the edge value `v`.
void Append(sdbus::MethodCall& call, const std::string& type, int64_t v, const std::string& file) {
  if (type == "i")
    call << static_cast<int32_t>(v);
  else if (type == "x")
    call << v;
  else if (type == "t")
    call << static_cast<uint64_t>(v);
  else if (type == "s")
    call << (v == 0 ? std::string("relative.mpg") : file);
  else if (type == "v")
    call << sdbus::Variant(static_cast<int32_t>(v));
  else if (type == "ay")
    call << std::vector<uint8_t>{};
  else if (type == "ai")
    call << std::vector<int32_t>{};
  else if (type == "ax")
    call << std::vector<int64_t>{};
  else if (type == "a(xi)")
    call << std::vector<sdbus::Struct<int64_t, int32_t>>{};
  else
    FAIL() << "unexpected type " << type;
}

using Robustness = BusTest;

TEST_F(Robustness, EveryMethodSurvivesEdgeHandlesCountsAndEmptyArrays) {
  std::string file = MediaFile("open.mpg");
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(file.c_str(), 0, 0, &h), S_OK);  // handle 0 is open
  pid_t server = ServerPid();
  ASSERT_GT(server, 0);
  auto connection = sdbus::createSessionBusConnection();
  auto proxy = RawProxy(*connection);
  std::vector<MethodSpec> methods = Methods();
  ASSERT_EQ(methods.size(), 85u);
  int calls = 0;
  for (int64_t v : {int64_t{-1}, int64_t{0}, int64_t{2048}, int64_t{INT_MAX}}) {
    for (const MethodSpec& m : methods) {
      // Closing handle 0 with the value 0 would end the open file; keep it open.
      if (v == 0 && m.name.find("Close") == 0) continue;
      auto call = proxy->createMethodCall(m.iface, m.name);
      std::stringstream types(m.inputs);
      std::string type;
      while (std::getline(types, type, ';')) Append(call, type, v, file);
      int32_t hr = 0;
      try {
        auto reply = proxy->callMethod(call);
        reply >> hr;
      } catch (const sdbus::Error& e) {
        ADD_FAILURE() << m.name << "(" << v << "): " << e.getName() << " " << e.getMessage();
      }
      ++calls;
    }
  }
  EXPECT_GT(calls, 300);
  EXPECT_EQ(ServerPid(), server);
  int32_t memory = 0;
  EXPECT_EQ(client_->QueryAllMemory(&memory), S_OK);
  int32_t count = 0;
  EXPECT_EQ(client_->QueryFileCount(&count), S_OK);
  EXPECT_EQ(count, 1);
}

// The library's own checks of caller memory, with the same edge values.
TEST_F(Robustness, TheLibraryChecksCallerMemory) {
  MarquelOneTag tags[4];
  MarquelRawDataTag raw[4] = {};
  int32_t ids[4] = {0};
  EXPECT_EQ(client_->GetDataAll(0, 40, 4, nullptr), E_INVALIDARG);
  EXPECT_EQ(client_->GetDataAll(0, 40, 0, tags), E_INVALIDARG);
  EXPECT_EQ(client_->GetDataAll(0, 40, -1, tags), E_INVALIDARG);
  EXPECT_EQ(client_->GetDataAll(0, 40, INT_MAX, tags), E_OUTOFMEMORY);
  EXPECT_EQ(client_->GetDataPeriod(2048, 40, 0, -1, INT_MAX, tags), E_OUTOFMEMORY);
  EXPECT_EQ(client_->InsertDataPeriod(0, 40, nullptr, 3), E_INVALIDARG);
  EXPECT_EQ(client_->InsertDataPeriod(0, 40, tags, 0), E_INVALIDARG);
  EXPECT_EQ(client_->GetRawDataAll(0, 29, 0, raw), E_INVALIDARG);
  EXPECT_EQ(client_->GetRawDataAll(0, 29, 4, nullptr), E_INVALIDARG);
  EXPECT_EQ(client_->GetRawDataAll(INT_MAX, 29, INT_MAX, raw), E_OUTOFMEMORY);
  EXPECT_EQ(client_->QueryOneFileRawDataTagList(0, 4, ids, nullptr), E_INVALIDARG);
  EXPECT_EQ(client_->QueryOneFileRawDataTagList2(0, 0, 4, nullptr, ids), E_INVALIDARG);
  EXPECT_EQ(client_->QueryOneFileTagCount(0, nullptr), E_FAIL);
  EXPECT_EQ(client_->GetMQDataStartAddress(0, nullptr), E_FAIL);
  EXPECT_EQ(client_->GetMQProgramCounts(0, nullptr), E_INVALIDARG);
  EXPECT_EQ(client_->GetMQPMTPIDS(0, 1, nullptr), E_INVALIDARG);
  EXPECT_EQ(client_->InsertNewProgram(0, 1, nullptr), E_INVALIDARG);
  EXPECT_EQ(client_->QueryRawDataTagSampleSize(0, 0, 29, nullptr), E_INVALIDARG);
  int32_t length = 4;
  uint8_t out[4];
  EXPECT_EQ(client_->ExecuteCmd(1, nullptr, 8, out, &length), E_FAIL);
  EXPECT_EQ(client_->ExecuteCmd(1, out, INT_MAX, out, &length), E_FAIL);
  EXPECT_EQ(client_->ExecuteCmd(1, nullptr, 0, nullptr, &length), E_FAIL);
  EXPECT_EQ(client_->ExecuteCmd(1, nullptr, 0, out, nullptr), E_FAIL);
  // Out arguments the interface writes without a test are skipped when missing.
  EXPECT_EQ(client_->QueryMQExisted(0, nullptr), S_OK);
  EXPECT_EQ(client_->QueryValidIntervalSize(0, 40, nullptr), S_OK);
  int32_t all[2048];
  EXPECT_EQ(client_->QueryAllFileHandles(INT_MAX, all), E_FAIL);
  EXPECT_EQ(client_->QueryAllFileHandles(-1, all), E_FAIL);
  int32_t memory = 0;
  EXPECT_EQ(client_->QueryAllMemory(&memory), S_OK);
}

}  // namespace
}  // namespace marquel::test
