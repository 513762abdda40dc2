// The names under which the server is known: on the bus, in the store, on disk.
#pragma once

namespace marquel::host {

// The bus.
constexpr const char* kBusName = "com.halvern.Marquel64";
constexpr const char* kObjectPath = "/com/halvern/Marquel64/MQInterface";

// The service.
constexpr const char* kServiceName = "Marquel64";
constexpr const char* kDisplayName = "Halvern Marquel64 Service(HMQS)";
constexpr const char* kUnitName = "marquel64.service";

// Class registration, under the classes root of the store.
constexpr const char* kAppId = "{FAE3167C-A56C-4C47-AE4D-842F6235E477}";
constexpr const char* kClsid = "{D051E43E-7241-4654-87A4-8CF7A26E302C}";
constexpr const char* kLibId = "{3ABCBFD0-52CA-4CF5-B156-DA773E07AE8E}";
constexpr const char* kProgId = "Marquel.MQInterface.1";
constexpr const char* kVersionIndependentProgId = "Marquel.MQInterface";
constexpr const char* kClassDescription = "MQInterface Class";
constexpr const char* kTypeLibDescription = "Marquel 1.0 Type Library";
constexpr const char* kExeKey = "Marquel64.EXE";

// The four interfaces: their identifiers and their bus names.
struct InterfaceId {
  const char* name;
  const char* iid;
  const char* bus_name;
};
constexpr InterfaceId kInterfaces[] = {
    {"IMQInterface", "{A6EE10A6-50C1-439B-A98F-95BFC5E93034}", "com.halvern.Marquel.IMQInterface"},
    {"IMQInterface2", "{6A5BD0C5-0E68-4805-9695-4531C89FC33C}",
     "com.halvern.Marquel.IMQInterface2"},
    {"IMarquelTool", "{FD6C070F-9329-4714-8480-A72DB6443D3D}", "com.halvern.Marquel.IMarquelTool"},
    {"IMarquelEx", "{3EC86DFE-37C7-4D69-8523-AFDD61B76523}", "com.halvern.Marquel.IMarquelEx"},
};

// Values of the application key that make the server a service.
constexpr const char* kLocalServiceValue = "LocalService";
constexpr const char* kServiceParametersValue = "ServiceParameters";
constexpr const char* kServiceParameters = "-Service";

// Environment variable that sets how long a plain server stays up after its last client
// has gone, in milliseconds.
constexpr const char* kIdleGraceEnv = "MARQUEL_IDLE_GRACE_MS";
constexpr int kDefaultIdleGraceMs = 5000;
// Environment variable that sets the time between two rounds of the close monitor, in
// milliseconds.
constexpr const char* kMonitorIntervalEnv = "MARQUEL_MONITOR_INTERVAL_MS";
constexpr int kDefaultMonitorIntervalMs = 10000;

}  // namespace marquel::host
