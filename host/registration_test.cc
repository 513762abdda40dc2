// Registration: the activation file, the store entries and the systemd user unit.
#include "registration.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "host_names.h"
#include "platform/access_reg.h"
#include "testsupport/fresh_home.h"

namespace marquel::host {
namespace {

const std::string kExe = "/opt/halvern/bin/marquel64";

std::string ReadText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool Exists(const std::string& path) {
  return std::filesystem::exists(path);
}

// The default text of a key under the classes root, or "<missing>".
std::string KeyText(const std::string& key, const char* value = nullptr) {
  AccessReg reg;
  if (!reg.Open(HKEY_CLASSES_ROOT, key.c_str())) return "<missing>";
  char buffer[512];
  if (!reg.QueryString(value, buffer, sizeof buffer)) return "<missing>";
  return buffer;
}

std::string AppKey() {
  return std::string("AppID\\") + kAppId;
}
std::string ClassKey() {
  return std::string("CLSID\\") + kClsid;
}

TEST(Registration, PathsFollowTheDataHome) {
  EXPECT_EQ(ActivationFilePath(),
            test::TestDir() + "/data/dbus-1/services/com.halvern.Marquel64.service");
  EXPECT_EQ(UnitFilePath(), test::TestDir() + "/data/systemd/user/marquel64.service");
}

TEST(Registration, RegServerWritesActivationFileAndClassButNoLocalService) {
  ASSERT_EQ(RegisterServer(kExe, false), 0);
  EXPECT_EQ(ReadText(ActivationFilePath()),
            "[D-BUS Service]\nName=com.halvern.Marquel64\nExec=" + kExe + "\n");
  EXPECT_FALSE(Exists(UnitFilePath()));
  EXPECT_EQ(KeyText(AppKey()), "Marquel64");
  EXPECT_EQ(KeyText(AppKey(), "LocalService"), "<missing>");
  EXPECT_EQ(KeyText(std::string("AppID\\") + kExeKey, "AppID"), kAppId);
  EXPECT_EQ(KeyText("Marquel.MQInterface.1"), "MQInterface Class");
  EXPECT_EQ(KeyText("Marquel.MQInterface.1\\CLSID"), kClsid);
  EXPECT_EQ(KeyText("Marquel.MQInterface\\CurVer"), "Marquel.MQInterface.1");
  EXPECT_EQ(KeyText(ClassKey()), "MQInterface Class");
  EXPECT_EQ(KeyText(ClassKey(), "AppID"), kAppId);
  EXPECT_EQ(KeyText(ClassKey() + "\\LocalServer32"), kExe);
  EXPECT_EQ(KeyText(ClassKey() + "\\ProgID"), "Marquel.MQInterface.1");
  EXPECT_EQ(KeyText(ClassKey() + "\\VersionIndependentProgID"), "Marquel.MQInterface");
  EXPECT_EQ(KeyText(ClassKey() + "\\TypeLib"), kLibId);
  EXPECT_EQ(KeyText(std::string("TypeLib\\") + kLibId + "\\1.0"), "Marquel 1.0 Type Library");
  bool service = true;
  EXPECT_EQ(ReadServiceMode(&service), ERROR_SUCCESS);
  EXPECT_FALSE(service);
}

TEST(Registration, ServiceWritesLocalServiceParametersAndTheUnit) {
  ASSERT_EQ(RegisterServer(kExe, true), 0);
  EXPECT_EQ(KeyText(AppKey(), "LocalService"), "Marquel64");
  EXPECT_EQ(KeyText(AppKey(), "ServiceParameters"), "-Service");
  std::string activation = ReadText(ActivationFilePath());
  EXPECT_NE(activation.find("SystemdService=marquel64.service\n"), std::string::npos);
  std::string unit = ReadText(UnitFilePath());
  EXPECT_NE(unit.find("Type=dbus\n"), std::string::npos);
  EXPECT_NE(unit.find("BusName=com.halvern.Marquel64\n"), std::string::npos);
  EXPECT_NE(unit.find("ExecStart=" + kExe + "\n"), std::string::npos);
  bool service = false;
  EXPECT_EQ(ReadServiceMode(&service), ERROR_SUCCESS);
  EXPECT_TRUE(service);
}

TEST(Registration, ServiceThenUnregServerRemovesEverything) {
  ASSERT_EQ(RegisterServer(kExe, true), 0);
  ASSERT_EQ(UnregisterServer(), 0);
  EXPECT_FALSE(Exists(ActivationFilePath()));
  EXPECT_FALSE(Exists(UnitFilePath()));
  EXPECT_EQ(KeyText(AppKey(), "LocalService"), "<missing>");
  EXPECT_EQ(KeyText(ClassKey()), "<missing>");
  EXPECT_EQ(KeyText("Marquel.MQInterface.1"), "<missing>");
  bool service = true;
  EXPECT_EQ(ReadServiceMode(&service), ERROR_FILE_NOT_FOUND);
  EXPECT_FALSE(service);
}

TEST(Registration, RegServerAfterServiceMakesAPlainServerAgain) {
  ASSERT_EQ(RegisterServer(kExe, true), 0);
  ASSERT_EQ(RegisterServer(kExe, false), 0);
  bool service = true;
  EXPECT_EQ(ReadServiceMode(&service), ERROR_SUCCESS);
  EXPECT_FALSE(service);
  EXPECT_FALSE(Exists(UnitFilePath()));
  EXPECT_EQ(ReadText(ActivationFilePath()).find("SystemdService"), std::string::npos);
}

TEST(Registration, AnUnterminatedLocalServiceIsNoService) {
  ASSERT_EQ(RegisterServer(kExe, false), 0);
  AccessReg app;
  ASSERT_TRUE(app.Open(HKEY_CLASSES_ROOT, AppKey().c_str()));
  ASSERT_TRUE(app.SetValue("LocalService", "Marquel64", REG_SZ, 9));  // no terminator
  bool service = true;
  EXPECT_EQ(ReadServiceMode(&service), ERROR_SUCCESS);
  EXPECT_FALSE(service);
  ASSERT_TRUE(app.SetDword("LocalService", 1));
  EXPECT_EQ(ReadServiceMode(&service), ERROR_SUCCESS);
  EXPECT_FALSE(service);
}

TEST(Registration, AnExecutablePathWithASpaceIsQuoted) {
  EXPECT_NE(ActivationFileText("/opt/my tools/marquel64", false)
                .find("Exec=\"/opt/my tools/marquel64\"\n"),
            std::string::npos);
}

TEST(Registration, ExecutablePathIsAbsolute) {
  std::string path = ExecutablePath();
  ASSERT_FALSE(path.empty());
  EXPECT_EQ(path[0], '/');
}

int Shell(const std::string& command) {
  int status = system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The unit is checked by systemd itself where its analyser is installed.
TEST(Registration, TheUnitPassesSystemdAnalyzeVerify) {
  if (Shell("command -v systemd-analyze >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "systemd-analyze is not installed";
  std::string unit = UnitFileText(MARQUEL64_PATH);
  std::string good = test::TestPath("marquel64.service");
  std::ofstream(good) << unit;
  EXPECT_EQ(Shell("systemd-analyze verify '" + good + "' 2>&1"), 0);
  // The check can fail: a unit with a relative program is refused.
  std::string bad = test::TestPath("broken.service");
  std::string broken = unit;
  broken.replace(broken.find("ExecStart=") + 10, 1, "");
  std::ofstream(bad) << broken;
  EXPECT_NE(Shell("systemd-analyze verify '" + bad + "' >/dev/null 2>&1"), 0);
}

}  // namespace
}  // namespace marquel::host
