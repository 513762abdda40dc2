// Checks the bus interface description: interfaces, method counts, slot order, argument
// types, and the `hr` first output of every method.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "api/marquel_adaptor.h"

namespace marquel {
namespace {

struct Arg {
  std::string name, type, direction;
};
struct Method {
  std::string name;
  std::vector<Arg> args;
  std::vector<Arg> Ins() const { return Filter("in"); }
  std::vector<Arg> Outs() const { return Filter("out"); }
  std::vector<Arg> Filter(const std::string& dir) const {
    std::vector<Arg> out;
    for (const Arg& a : args)
      if (a.direction == dir) out.push_back(a);
    return out;
  }
};
using Interfaces = std::map<std::string, std::vector<Method>>;

// The value of attribute `name` in one element's text, or "".
std::string Attr(const std::string& tag, const std::string& name) {
  std::string key = " " + name + "=\"";
  size_t at = tag.find(key);
  if (at == std::string::npos) return std::string();
  size_t begin = at + key.size();
  return tag.substr(begin, tag.find('"', begin) - begin);
}

// A reader for the subset of introspection XML the file uses: interface, method and arg
// elements, comments skipped.
Interfaces Parse(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  std::string text = ss.str();
  Interfaces result;
  std::string iface;
  for (size_t lt = text.find('<'); lt != std::string::npos; lt = text.find('<', lt + 1)) {
    if (text.compare(lt, 4, "<!--") == 0) {
      lt = text.find("-->", lt);
      continue;
    }
    std::string tag = text.substr(lt, text.find('>', lt) - lt);
    if (tag.rfind("<interface ", 0) == 0) {
      iface = Attr(tag, "name");
      result[iface];
    } else if (tag.rfind("<method ", 0) == 0) {
      result[iface].push_back(Method{Attr(tag, "name"), {}});
    } else if (tag.rfind("<arg ", 0) == 0) {
      result[iface].back().args.push_back(
          Arg{Attr(tag, "name"), Attr(tag, "type"), Attr(tag, "direction")});
    }
  }
  return result;
}

const Interfaces& Xml() {
  static const Interfaces parsed = Parse(MARQUEL_API_XML);
  return parsed;
}

const std::vector<Method>& Of(const std::string& short_name) {
  return Xml().at("com.halvern.Marquel." + short_name);
}

std::vector<std::string> Names(const std::vector<Method>& methods) {
  std::vector<std::string> names;
  for (const Method& m : methods) names.push_back(m.name);
  return names;
}

TEST(MarquelXml, HasTheFourInterfacesAndTheBulkOne) {
  EXPECT_EQ(Xml().size(), 5u);
  EXPECT_EQ(Of("IMQInterface").size(), 49u);
  EXPECT_EQ(Of("IMQInterface2").size(), 25u);
  EXPECT_EQ(Of("IMarquelTool").size(), 3u);
  EXPECT_EQ(Of("IMarquelEx").size(), 2u);
  EXPECT_EQ(Of("IMarquelBulk").size(), 6u);
}

// The order is the binary slot order of the client library's classes (slots 7 to 80).
TEST(MarquelXml, MethodsAreInSlotOrder) {
  std::vector<std::string> first = {"InitialFile",
                                    "CloseFile",
                                    "GetDataOne",
                                    "QueryOneTagPeriodSize",
                                    "GetDataPeriod",
                                    "QueryOneTagSize",
                                    "GetDataAll",
                                    "InsertDataOne",
                                    "InsertDataPeriod",
                                    "QueryFileCount",
                                    "QueryAllFileHandles",
                                    "QueryAllMemory",
                                    "QueryOneFileMemory",
                                    "QueryFilename",
                                    "QueryOneFileTagCount",
                                    "QueryOneFileTagList",
                                    "QueryMQExisted",
                                    "CleanFile",
                                    "GetMQDataStartAddress",
                                    "GetMQInfo",
                                    "SetMQInfo",
                                    "MoveDataPeriod",
                                    "CopyDataPeriod",
                                    "DeleteDataPeriod",
                                    "MoveDataPeriodForOneTag",
                                    "CopyDataPeriodForOneTag",
                                    "DeleteDataPeriodForOneTag",
                                    "CloseVOBFile",
                                    "QueryNowMQDataFileSize",
                                    "MoveDataPeriodForOneCategory",
                                    "CopyDataPeriodForOneCategory",
                                    "DeleteDataPeriodForOneCategory",
                                    "QueryValidIntervalSize",
                                    "QueryValidInterval",
                                    "GetRawDataOne",
                                    "InsertRawDataOne",
                                    "QueryOneFileRawDataTagList",
                                    "QueryOneFileRawDataTagCount",
                                    "GetRawDataAll",
                                    "GetRawDataPeriod",
                                    "QueryNowMQDataPeriodSize",
                                    "FileRename",
                                    "QueryOriginalFileSizeAndMTime",
                                    "CloseVCDORSVCDFile",
                                    "SetMinTimeInterval",
                                    "MinusTimeOffset",
                                    "MinusTimeOffsetForOneCategory",
                                    "MinustTimeOffsetForOneTag",
                                    "SetTimeIntervalForTag"};
  std::vector<std::string> second = {"InitialFile2",
                                     "QueryRawDataTagSampleSize",
                                     "QueryOneFileRawDataTagList2",
                                     "GetMQProgramCounts",
                                     "GetMQPMTPIDS",
                                     "InsertNewProgram",
                                     "SetPMTPID",
                                     "InsertDataOne2",
                                     "InsertDataPeriod2",
                                     "GetDataOne2",
                                     "QueryOneTagPeriodSize2",
                                     "GetDataPeriod2",
                                     "QueryOneTagSize2",
                                     "GetDataAll2",
                                     "InsertRawDataOne2",
                                     "GetRawDataOne2",
                                     "QueryOneFileTagList2",
                                     "QueryOneFileTagCount2",
                                     "QueryValidIntervalSize2",
                                     "QueryValidInterval2",
                                     "QueryOneFileRawDataTagCount2",
                                     "GetRawDataPeriod2",
                                     "SetTimeIntervalForTag2",
                                     "QueryMQDataStatus",
                                     "GetRawDataAll2"};
  EXPECT_EQ(Names(Of("IMQInterface")), first);
  EXPECT_EQ(Names(Of("IMQInterface2")), second);
  EXPECT_EQ(Names(Of("IMarquelTool")),
            (std::vector<std::string>{"QueryOrgFileSizeAndMTime", "CacheRename",
                                      "MoveCacheDataToOrgFile"}));
  EXPECT_EQ(Names(Of("IMarquelEx")), (std::vector<std::string>{"IsWriteToFileDone", "ExecuteCmd"}));
}

TEST(MarquelXml, EveryMethodAnswersHrFirst) {
  for (const auto& [iface, methods] : Xml()) {
    for (const Method& m : methods) {
      auto outs = m.Outs();
      ASSERT_FALSE(outs.empty()) << iface << "." << m.name;
      EXPECT_EQ(outs[0].name, "hr") << iface << "." << m.name;
      EXPECT_EQ(outs[0].type, "i") << iface << "." << m.name;
      for (size_t i = 1; i < outs.size(); ++i) EXPECT_NE(outs[i].name, "hr");
    }
  }
}

TEST(MarquelXml, ArgumentTypesAreTheAgreedOnes) {
  const std::set<std::string> allowed = {"i",  "x",  "t",     "s",      "v",   "ay",
                                         "ai", "ax", "a(xi)", "a(xay)", "(xi)"};
  for (const auto& [iface, methods] : Xml()) {
    for (const Method& m : methods) {
      for (const Arg& a : m.args) {
        EXPECT_TRUE(allowed.count(a.type)) << iface << "." << m.name << " " << a.name;
        EXPECT_TRUE(a.direction == "in" || a.direction == "out") << m.name << " " << a.name;
        EXPECT_FALSE(a.name.empty()) << m.name;
      }
    }
  }
}

// A method of IMQInterface2 whose name is an IMQInterface name plus "2" has the same
// arguments with nProgramIndex inserted as the second input.
TEST(MarquelXml, TwinsTakeTheProgramIndexSecond) {
  std::map<std::string, Method> first;
  for (const Method& m : Of("IMQInterface")) first[m.name] = m;
  int twins = 0;
  for (const Method& m : Of("IMQInterface2")) {
    if (m.name.back() != '2' || m.name == "InitialFile2") continue;
    auto it = first.find(m.name.substr(0, m.name.size() - 1));
    ASSERT_NE(it, first.end()) << m.name;
    ++twins;
    auto ins = it->second.Ins();
    auto twin_ins = m.Ins();
    ASSERT_EQ(twin_ins.size(), ins.size() + 1) << m.name;
    EXPECT_EQ(twin_ins[0].name, ins[0].name);
    EXPECT_EQ(twin_ins[1].name, "nProgramIndex") << m.name;
    EXPECT_EQ(twin_ins[1].type, "i");
    for (size_t i = 1; i < ins.size(); ++i) {
      EXPECT_EQ(twin_ins[i + 1].name, ins[i].name) << m.name;
      EXPECT_EQ(twin_ins[i + 1].type, ins[i].type) << m.name;
    }
    auto outs = it->second.Outs();
    auto twin_outs = m.Outs();
    ASSERT_EQ(twin_outs.size(), outs.size()) << m.name;
    for (size_t i = 0; i < outs.size(); ++i) EXPECT_EQ(twin_outs[i].type, outs[i].type);
  }
  EXPECT_EQ(twins, 18);
}

TEST(MarquelXml, RecordsUseTheirBusShapes) {
  std::map<std::string, Method> all;
  for (const auto& [iface, methods] : Xml())
    for (const Method& m : methods) all[m.name] = m;
  EXPECT_EQ(all["GetDataAll"].Outs()[1].type, "a(xi)");
  EXPECT_EQ(all["InsertDataPeriod"].Ins()[2].type, "a(xi)");
  EXPECT_EQ(all["GetRawDataAll"].Outs()[1].type, "a(xay)");
  EXPECT_EQ(all["GetMQInfo"].Ins()[1].type, "v");
  EXPECT_EQ(all["QueryOrgFileSizeAndMTime"].Outs()[1].type, "t");
  EXPECT_EQ(all["InitialFile"].Ins()[0].type, "s");
}

// The generated adaptor names the interfaces exactly as the description does.
TEST(MarquelXml, GeneratedAdaptorMatches) {
  EXPECT_STREQ(com::halvern::Marquel::IMQInterface_adaptor::INTERFACE_NAME,
               "com.halvern.Marquel.IMQInterface");
  EXPECT_STREQ(com::halvern::Marquel::IMarquelEx_adaptor::INTERFACE_NAME,
               "com.halvern.Marquel.IMarquelEx");
}

}  // namespace
}  // namespace marquel
