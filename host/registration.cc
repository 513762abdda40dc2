// Registration of the server: the bus activation file, the class entries in the store and,
// for a service, the systemd user unit.
#include "registration.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <vector>

#include "host_names.h"
#include "platform/access_reg.h"
#include "platform/env.h"
#include "unit_template.h"

namespace marquel::host {
namespace {

std::string AppIdKey() {
  return std::string("AppID\\") + kAppId;
}
std::string ClsidKey() {
  return std::string("CLSID\\") + kClsid;
}

// Creates `path` under the classes root and writes its default text and named texts.
uint32_t WriteKey(const std::string& path, const char* default_text,
                  const std::vector<std::pair<const char*, std::string>>& values = {}) {
  AccessReg reg;
  if (!reg.CreateKey(HKEY_CLASSES_ROOT, path.c_str())) return StoreLastError();
  if (!reg.Open(HKEY_CLASSES_ROOT, path.c_str())) return reg.LastError();
  if (default_text && !reg.SetString(nullptr, default_text)) return reg.LastError();
  for (const auto& [name, text] : values)
    if (!reg.SetString(name, text.c_str())) return reg.LastError();
  return ERROR_SUCCESS;
}

// Deletes a key with everything below it; a missing key is no error. False when the key
// is still there afterwards.
bool DeleteTree(const std::string& path) {
  {
    AccessReg reg;
    if (!reg.Open(HKEY_CLASSES_ROOT, path.c_str())) return true;
    char name[512];
    std::vector<std::string> children;
    for (uint32_t i = 0; reg.EnumKey(i, name, sizeof name); ++i) children.push_back(name);
    reg.Close();
    for (const std::string& child : children) DeleteTree(path + "\\" + child);
  }
  AccessReg reg;
  return reg.DeleteKey(HKEY_CLASSES_ROOT, path.c_str());
}

// The application entries: the AppID key named "Marquel64" and the executable's key.
uint32_t WriteApplication() {
  if (uint32_t e = WriteKey(AppIdKey(), kServiceName)) return e;
  return WriteKey(std::string("AppID\\") + kExeKey, nullptr, {{"AppID", kAppId}});
}

// The class entries: both ProgIDs, the class key and the type library with its
// interfaces.
uint32_t WriteClass(const std::string& exe) {
  if (uint32_t e = WriteKey(kProgId, kClassDescription)) return e;
  if (uint32_t e = WriteKey(std::string(kProgId) + "\\CLSID", kClsid)) return e;
  if (uint32_t e = WriteKey(kVersionIndependentProgId, kClassDescription)) return e;
  if (uint32_t e = WriteKey(std::string(kVersionIndependentProgId) + "\\CLSID", kClsid)) return e;
  if (uint32_t e = WriteKey(std::string(kVersionIndependentProgId) + "\\CurVer", kProgId)) return e;
  DeleteTree(ClsidKey());  // ForceRemove: the class key is written afresh
  if (uint32_t e = WriteKey(ClsidKey(), kClassDescription, {{"AppID", kAppId}})) return e;
  if (uint32_t e = WriteKey(ClsidKey() + "\\ProgID", kProgId)) return e;
  if (uint32_t e = WriteKey(ClsidKey() + "\\VersionIndependentProgID", kVersionIndependentProgId))
    return e;
  if (uint32_t e = WriteKey(ClsidKey() + "\\Programmable", nullptr)) return e;
  if (uint32_t e = WriteKey(ClsidKey() + "\\LocalServer32", exe.c_str())) return e;
  if (uint32_t e = WriteKey(ClsidKey() + "\\TypeLib", kLibId)) return e;
  std::string typelib = std::string("TypeLib\\") + kLibId + "\\1.0";
  if (uint32_t e = WriteKey(typelib, kTypeLibDescription)) return e;
  // Where the type library lives on this platform: the bus service that describes itself.
  if (uint32_t e = WriteKey(typelib + "\\0\\dbus", kBusName)) return e;
  for (const InterfaceId& i : kInterfaces) {
    std::string key = std::string("Interface\\") + i.iid;
    if (uint32_t e = WriteKey(key, i.name, {{"BusInterface", i.bus_name}})) return e;
    if (uint32_t e = WriteKey(key + "\\TypeLib", kLibId)) return e;
  }
  return ERROR_SUCCESS;
}

void DeleteClass() {
  DeleteTree(ClsidKey());
  DeleteTree(kProgId);
  DeleteTree(kVersionIndependentProgId);
  DeleteTree(std::string("TypeLib\\") + kLibId);
  for (const InterfaceId& i : kInterfaces) DeleteTree(std::string("Interface\\") + i.iid);
}

bool WriteTextFile(const std::string& path, const std::string& text) {
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
  std::string tmp = path + ".tmp";
  {
    std::ofstream out(tmp, std::ios::trunc);
    out << text;
    if (!out.good()) return false;
  }
  std::filesystem::rename(tmp, path, ec);
  return !ec;
}

// True when the file is not there afterwards.
bool RemoveFileIfThere(const std::string& path) {
  std::error_code ec;
  std::filesystem::remove(path, ec);
  return !ec;
}

// The Exec line of the activation file: quoted when the path holds a space.
std::string ExecLine(const std::string& exe) {
  if (exe.find_first_of(" \t\"'\\") == std::string::npos) return exe;
  std::string quoted = "\"";
  for (char c : exe) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

constexpr uint32_t kFileWriteError = 29;  // ERROR_WRITE_FAULT

bool UserManagerRuns() {
  const char* runtime = getenv("XDG_RUNTIME_DIR");
  if (runtime == nullptr || *runtime == '\0') return false;
  std::error_code ec;
  return std::filesystem::exists(std::string(runtime) + "/systemd/private", ec);
}

// Runs argv[0] (found on PATH) and waits; its exit status, or -1.
int RunCommand(const std::vector<std::string>& argv) {
  if (argv.empty()) return -1;
  const pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

ServiceControl& CurrentControl() {
  static ServiceControl control = DefaultServiceControl();
  return control;
}

std::string UserStorePath() {
  return StoreFilePath(HKEY_CURRENT_USER);
}

}  // namespace

ServiceControl DefaultServiceControl() {
  return ServiceControl{&UserManagerRuns, &RunCommand};
}

ServiceControl SetServiceControl(ServiceControl control) {
  ServiceControl previous = CurrentControl();
  CurrentControl() = std::move(control);
  return previous;
}

std::vector<std::string> StopUnitCommand() {
  return {"systemctl", "--user", "stop", kUnitName};
}

std::string ActivationFilePath() {
  return CurrentEnv()->AppDataFolder() + "/dbus-1/services/" + kBusName + ".service";
}

std::string UnitFilePath() {
  return CurrentEnv()->AppDataFolder() + "/systemd/user/" + kUnitName;
}

std::string ActivationFileText(const std::string& exe, bool service) {
  std::string text =
      "[D-BUS Service]\nName=" + std::string(kBusName) + "\nExec=" + ExecLine(exe) + "\n";
  if (service) text += "SystemdService=" + std::string(kUnitName) + "\n";
  return text;
}

std::string UnitFileText(const std::string& exe) {
  std::string text = kUnitTemplate;
  const std::string placeholder = kUnitExecPlaceholder;
  for (size_t at = text.find(placeholder); at != std::string::npos;
       at = text.find(placeholder, at + 1))
    text.replace(at, placeholder.size(), ExecLine(exe));
  return text;
}

int RegisterServer(const std::string& exe, bool service, std::string* report) {
  RemoveFileIfThere(UnitFilePath());  // an installed service of the same name goes first
  if (uint32_t e = WriteApplication()) return static_cast<int>(e);
  {
    AccessReg app;
    if (!app.Open(HKEY_CLASSES_ROOT, AppIdKey().c_str())) return static_cast<int>(app.LastError());
    app.DeleteValue(kLocalServiceValue);
    if (service) {
      if (!app.SetString(kLocalServiceValue, kServiceName) ||
          !app.SetString(kServiceParametersValue, kServiceParameters))
        return static_cast<int>(app.LastError());
      if (!WriteTextFile(UnitFilePath(), UnitFileText(exe))) return kFileWriteError;
    }
  }
  if (uint32_t e = WriteClass(exe)) return static_cast<int>(e);
  if (!WriteTextFile(ActivationFilePath(), ActivationFileText(exe, service)))
    return kFileWriteError;
  if (report) {
    *report = service ? "registered as a service: wrote " + UnitFilePath() + ", "
                      : "registered for activation: wrote ";
    *report += ActivationFilePath() + " and the class entries in " + UserStorePath();
  }
  return 0;
}

int UnregisterServer(std::string* report) {
  const ServiceControl control = CurrentControl();
  const bool systemd = control.available && control.available();
  // The unit is stopped while its file is still there, so that systemd knows what to stop.
  const bool stopped = systemd && control.run(StopUnitCommand()) == 0;
  const bool files_gone =
      RemoveFileIfThere(UnitFilePath()) && RemoveFileIfThere(ActivationFilePath());
  DeleteClass();
  // The application key decides whether a server runs: it must be gone.
  const bool keys_gone =
      DeleteTree(AppIdKey()) && DeleteTree(std::string("AppID\\") + kExeKey);
  if (systemd) control.run({"systemctl", "--user", "daemon-reload"});
  if (!files_gone) return static_cast<int>(kFileWriteError);
  if (!keys_gone) return static_cast<int>(StoreLastError());
  if (report) {
    *report = std::string("unregistered: ") +
              (stopped ? "stopped " + std::string(kUnitName) + ", " : "") + "removed " +
              UnitFilePath() + ", " + ActivationFilePath() + " and the class entries in " +
              UserStorePath();
  }
  return 0;
}

uint32_t ReadServiceMode(bool* service) {
  *service = false;
  AccessReg app;
  if (!app.Open(HKEY_CLASSES_ROOT, AppIdKey().c_str())) return app.LastError();
  uint32_t type = 0;
  std::vector<uint8_t> data;
  if (app.QueryValue(kLocalServiceValue, &type, &data))
    *service = type == REG_SZ && !data.empty() && data.size() <= 260 && data.back() == 0;
  return ERROR_SUCCESS;
}

std::string ExecutablePath() {
  std::error_code ec;
  auto path = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::string() : path.string();
}

}  // namespace marquel::host
