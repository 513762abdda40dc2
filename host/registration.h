// Registration of the server: the bus activation file, the class entries in the store and,
// for a service, the systemd user unit.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace marquel::host {

// $XDG_DATA_HOME/dbus-1/services/com.halvern.Marquel64.service (read on each call).
std::string ActivationFilePath();
// $XDG_DATA_HOME/systemd/user/marquel64.service, a folder of the systemd user search path.
std::string UnitFilePath();

// The text of the activation file for the executable `exe`; a service names its unit.
std::string ActivationFileText(const std::string& exe, bool service);
// The text of the systemd user unit (Type=dbus) that runs `exe`: the template
// host/marquel64.service.in with the executable's path in ExecStart.
std::string UnitFileText(const std::string& exe);

// How "UnregServer" reaches systemd. `available` tells whether a systemd user manager
// runs for this user; `run` runs a command (program and arguments) and returns its exit
// status. Tests replace both to see the commands without a systemd.
struct ServiceControl {
  std::function<bool()> available;
  std::function<int(const std::vector<std::string>&)> run;
};
// The default: a user manager is there when its socket $XDG_RUNTIME_DIR/systemd/private
// exists; commands run as child processes, waited for.
ServiceControl DefaultServiceControl();
// Installs `control` for the switches and returns the one it replaces.
ServiceControl SetServiceControl(ServiceControl control);
// The command that stops the running unit: systemctl --user stop marquel64.service.
std::vector<std::string> StopUnitCommand();

// "RegServer" (service false) and "Service" (service true): removes an installed unit,
// writes the application entries, deletes "LocalService", for a service writes
// "LocalService" and "ServiceParameters" and the unit, then writes the class entries and
// the activation file. Touches only files and the store, so it works while a server
// runs. Returns 0, or the status code of the step that failed. *report (when given) gets
// one line saying what was written where.
int RegisterServer(const std::string& exe, bool service, std::string* report = nullptr);

// "UnregServer": under a systemd user manager first stops the running unit, then removes
// the unit, the activation file, and the class and application entries (with
// "LocalService"), and has the manager reload its units. Returns 0, or the status code of
// the step that failed. *report (when given) gets one line saying what was removed where.
int UnregisterServer(std::string* report = nullptr);

// How the server is to run: reads "LocalService" of the application key. Returns
// ERROR_SUCCESS and sets *service when the value is a terminated text of at most 260
// bytes; the error of opening the key when it cannot be opened.
uint32_t ReadServiceMode(bool* service);

// The path of the running executable.
std::string ExecutablePath();

}  // namespace marquel::host
