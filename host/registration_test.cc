// Registration: the activation file, the store entries and the systemd user unit.
#include "registration.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

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

TEST(Registration, UnregServerThatCannotRemoveTheActivationFileSaysSo) {
  ASSERT_EQ(RegisterServer(kExe, false), 0);
  // A folder that is not empty where the activation file is cannot be removed.
  std::filesystem::remove(ActivationFilePath());
  std::filesystem::create_directories(ActivationFilePath() + "/held");
  EXPECT_NE(UnregisterServer(), 0) << "never report as removed what is still there";
  std::filesystem::remove_all(ActivationFilePath());
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
  // The manual pages come with the installed package, not with the build.
  EXPECT_EQ(Shell("systemd-analyze verify --man=no '" + good + "' 2>&1"), 0);
  // The check can fail: a unit with a relative program is refused.
  std::string bad = test::TestPath("broken.service");
  std::string broken = unit;
  broken.replace(broken.find("ExecStart=") + 10, 1, "");
  std::ofstream(bad) << broken;
  EXPECT_NE(Shell("systemd-analyze verify --man=no '" + bad + "' >/dev/null 2>&1"), 0);
}

// The unit restarts a failed server, names its manuals and runs in a sandbox that still
// reaches media anywhere the user can write.
TEST(Registration, TheUnitRestartsOnFailureAndIsSandboxed) {
  const std::string unit = UnitFileText(kExe);
  for (const char* line :
       {"Documentation=man:marquel64(1)", "Restart=on-failure\n", "NoNewPrivileges=yes\n",
        "PrivateTmp=yes\n", "ProtectSystem=full\n", "ExecStart=/opt/halvern/bin/marquel64\n"})
    EXPECT_NE(unit.find(line), std::string::npos) << line;
  EXPECT_EQ(unit.find("\nProtectSystem=strict"), std::string::npos);
  EXPECT_EQ(unit.find("MARQUEL64_EXEC"), std::string::npos);
}

// systemd rates the sandbox offline; the score is written in docs/dbus.md. It must stay
// below the "UNSAFE" band (9.0 and up) that an unsandboxed unit gets.
TEST(Registration, SystemdRatesTheUnitsExposureBelowUnsafe) {
  if (Shell("systemd-analyze security --help 2>/dev/null | grep -q -- --offline") != 0)
    GTEST_SKIP() << "systemd-analyze security --offline is not available";
  std::string path = test::TestPath("marquel64.service");
  std::ofstream(path) << UnitFileText(MARQUEL64_PATH);
  std::string out_path = test::TestPath("security.txt");
  Shell("systemd-analyze security --user --offline=yes '" + path + "' > '" + out_path + "' 2>&1");
  const std::string out = ReadText(out_path);
  const size_t at = out.find("Overall exposure level for marquel64.service: ");
  ASSERT_NE(at, std::string::npos) << out;
  const double score = std::stod(out.substr(at + 46));
  std::printf("exposure score: %.1f\n", score);
  EXPECT_LT(score, 9.0) << out;
}

// "UnregServer" stops a running unit first when a systemd user manager is there, and has
// it reload its units after the files are gone; without one it runs nothing.
TEST(Registration, UnregServerStopsTheRunningUnitUnderSystemd) {
  ASSERT_EQ(RegisterServer(kExe, true), 0);
  std::vector<std::vector<std::string>> commands;
  bool unit_there_at_stop = false;
  ServiceControl previous = SetServiceControl({[] { return true; },
                                               [&](const std::vector<std::string>& argv) {
                                                 if (commands.empty())
                                                   unit_there_at_stop = Exists(UnitFilePath());
                                                 commands.push_back(argv);
                                                 return 0;
                                               }});
  std::string report;
  EXPECT_EQ(UnregisterServer(&report), 0);
  ASSERT_EQ(commands.size(), 2u);
  EXPECT_EQ(commands[0],
            (std::vector<std::string>{"systemctl", "--user", "stop", "marquel64.service"}));
  EXPECT_EQ(commands[1], (std::vector<std::string>{"systemctl", "--user", "daemon-reload"}));
  EXPECT_TRUE(unit_there_at_stop);
  EXPECT_FALSE(Exists(UnitFilePath()));
  EXPECT_NE(report.find("stopped marquel64.service"), std::string::npos) << report;

  commands.clear();
  SetServiceControl({[] { return false; },
                     [&](const std::vector<std::string>& argv) {
                       commands.push_back(argv);
                       return 0;
                     }});
  ASSERT_EQ(RegisterServer(kExe, true), 0);
  EXPECT_EQ(UnregisterServer(&report), 0);
  EXPECT_TRUE(commands.empty());
  EXPECT_EQ(report.find("stopped"), std::string::npos) << report;
  SetServiceControl(previous);
}

// The default finds a user manager by its socket in the runtime folder.
TEST(Registration, AUserManagerIsFoundByItsSocket) {
  EXPECT_FALSE(DefaultServiceControl().available());
  std::filesystem::create_directories(test::TestDir() + "/run/systemd");
  std::ofstream(test::TestDir() + "/run/systemd/private") << "";
  EXPECT_TRUE(DefaultServiceControl().available());
}

// Each switch reports what it wrote and where.
TEST(Registration, EachSwitchReportsWhatItWroteAndWhere) {
  std::string report;
  ASSERT_EQ(RegisterServer(kExe, false, &report), 0);
  EXPECT_NE(report.find("wrote " + ActivationFilePath()), std::string::npos) << report;
  EXPECT_NE(report.find(test::TestDir() + "/data/Halvern/registry.db"), std::string::npos);
  ASSERT_EQ(RegisterServer(kExe, true, &report), 0);
  EXPECT_NE(report.find("wrote " + UnitFilePath()), std::string::npos) << report;
}

}  // namespace
}  // namespace marquel::host
