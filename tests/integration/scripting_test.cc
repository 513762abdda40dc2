// Calling the server by name from scripts: busctl and gdbus, one process per call, and
// introspection.
#include <sstream>

#include "bus_fixture.h"

namespace marquel::test {
namespace {

using Scripting = BusTest;

const std::string kDest = "com.halvern.Marquel64";
const std::string kPath = "/com/halvern/Marquel64/MQInterface";
const std::string kIface = "com.halvern.Marquel.IMQInterface";

std::string Busctl(std::vector<std::string> args) {
  std::vector<std::string> argv = {"/usr/bin/busctl", "--user"};
  argv.insert(argv.end(), args.begin(), args.end());
  std::string out;
  EXPECT_EQ(RunProgram(argv, &out), 0) << out;
  return out;
}

// busctl and gdbus each call in a process of their own, which ends after the call; the
// test keeps the file open through the library so that the handle lives on between calls.
TEST_F(Scripting, BusctlAndGdbusCallByName) {
  std::string file = MediaFile("script.mpg");
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(file.c_str(), 0, 0, &h), S_OK);
  ASSERT_EQ(h, 0);
  EXPECT_EQ(Busctl({"call", kDest, kPath, kIface, "InitialFile", "sii", file, "0", "0"}),
            "ii 0 0\n");
  EXPECT_EQ(
      Busctl({"call", kDest, kPath, kIface, "InsertDataOne", "iixi", "0", "40", "1000", "77"}),
      "i 0\n");
  EXPECT_EQ(Busctl({"call", kDest, kPath, kIface, "QueryOneTagSize", "ii", "0", "40"}), "ii 0 1\n");
  std::string out;
  ASSERT_EQ(RunProgram({"/usr/bin/gdbus", "call", "--session", "--dest", kDest, "--object-path",
                        kPath, "--method", kIface + ".GetDataOne", "0", "40", "1000"},
                       &out),
            0)
      << out;
  EXPECT_EQ(out, "(0, 77)\n");
  ASSERT_EQ(RunProgram({"/usr/bin/gdbus", "call", "--session", "--dest", kDest, "--object-path",
                        kPath, "--method", kIface + ".InsertDataOne", "0", "40", "2000", "78"},
                       &out),
            0);
  int32_t size = 0;
  EXPECT_EQ(client_->QueryOneTagSize(h, 40, &size), S_OK);
  EXPECT_EQ(size, 2);
  // The scripts' own opens ended with their processes: one reference is left.
  EXPECT_EQ(client_->CloseFile(h, 0), S_OK);
  int32_t count = 0;
  EXPECT_EQ(client_->QueryFileCount(&count), E_FAIL);
}

TEST_F(Scripting, IntrospectionListsTheInterfacesAndMethods) {
  int32_t count = 0;
  client_->QueryFileCount(&count);  // the server is up
  std::string out = Busctl({"introspect", kDest, kPath});
  for (const char* name : {"com.halvern.Marquel.IMQInterface", "com.halvern.Marquel.IMQInterface2",
                           "com.halvern.Marquel.IMarquelTool", "com.halvern.Marquel.IMarquelEx",
                           "com.halvern.Marquel.IMarquelBulk"})
    EXPECT_NE(out.find(std::string(name) + " "), std::string::npos) << name;
  EXPECT_NE(out.find(".GetDataAll "), std::string::npos);
  EXPECT_NE(out.find(".MinustTimeOffsetForOneTag "), std::string::npos);
  EXPECT_NE(out.find(".ExecuteCmd "), std::string::npos);
  // Argument names reach introspection as well.
  std::string xml;
  ASSERT_EQ(RunProgram({"/usr/bin/gdbus", "introspect", "--session", "--dest", kDest,
                        "--object-path", kPath, "--xml"},
                       &xml),
            0);
  EXPECT_NE(xml.find("name=\"nFileHandle\""), std::string::npos);
  EXPECT_NE(xml.find("name=\"llTimeCode\""), std::string::npos);
  int methods = 0;
  for (size_t p = xml.find("<method name=\"Query"); p != std::string::npos;
       p = xml.find("<method name=\"Query", p + 1))
    ++methods;
  EXPECT_GT(methods, 20);
}

}  // namespace
}  // namespace marquel::test
