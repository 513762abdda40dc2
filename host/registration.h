// Registration of the server: the bus activation file, the class entries in the store and,
// for a service, the systemd user unit.
#pragma once

#include <cstdint>
#include <string>

namespace marquel::host {

// $XDG_DATA_HOME/dbus-1/services/com.halvern.Marquel64.service (read on each call).
std::string ActivationFilePath();
// $XDG_DATA_HOME/systemd/user/marquel64.service, a folder of the systemd user search path.
std::string UnitFilePath();

// The text of the activation file for the executable `exe`; a service names its unit.
std::string ActivationFileText(const std::string& exe, bool service);
// The text of the systemd user unit (Type=dbus) that runs `exe`.
std::string UnitFileText(const std::string& exe);

// "RegServer" (service false) and "Service" (service true): removes an installed unit,
// writes the application entries, deletes "LocalService", for a service writes
// "LocalService" and "ServiceParameters" and the unit, then writes the class entries and
// the activation file. Returns 0, or the status code of the step that failed.
int RegisterServer(const std::string& exe, bool service);

// "UnregServer": removes the unit, the activation file, and the class and application
// entries (with "LocalService"). Returns 0, or the status code of the step that failed.
int UnregisterServer();

// How the server is to run: reads "LocalService" of the application key. Returns
// ERROR_SUCCESS and sets *service when the value is a terminated text of at most 260
// bytes; the error of opening the key when it cannot be opened.
uint32_t ReadServiceMode(bool* service);

// The path of the running executable.
std::string ExecutablePath();

}  // namespace marquel::host
