// marquelctl status: the server's open files and the moves still to be done.
//
//   status [FILE ...] [--json]
//       the server (pid, mode, version, uptime), open files by name with their handles,
//       programs and memory figures, the memory in bytes, every pending move with its
//       state (cached, moving), whether each FILE still waits for its data to be written
//       into it, and the moves saved in the store. Without a server: the saved moves,
//       exit status 3.
#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <thread>

#include "cache_lookup.h"
#include "command.h"
#include "files/saved_pending.h"
#include "platform/access_reg.h"
#include "platform/key_name.h"
#include "server_common.h"
#include "time_text.h"

namespace marquel::ctl {
namespace {

struct StatusOptions {
  std::vector<std::string> files;
  bool json = false;
};

// The pending moves the server saved in the store (its list outlives restarts there).
nlohmann::json SavedPending() {
  nlohmann::json list = nlohmann::json::array();
  for (const SavedPendingFile& f : SavedPendingFiles())
    list.push_back(!f.path.empty() ? f.path : PathFromKeyName(f.key_name));
  return list;
}

// The server's own status (com.halvern.Marquel.Status1); null when no server answers.
// The call starts a registered server, as every other call does.
nlohmann::json ServerStatus() {
  try {
    auto connection = sdbus::createSessionBusConnection();
    auto proxy = sdbus::createProxy(*connection, "com.halvern.Marquel64",
                                    "/com/halvern/Marquel64/MQInterface");
    std::string text;
    proxy->callMethod("Status").onInterface("com.halvern.Marquel.Status1").storeResultsTo(text);
    return nlohmann::json::parse(text);
  } catch (const std::exception&) {
    return nullptr;
  }
}

std::string Mebibytes(int64_t bytes) {
  char text[32];
  snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(bytes) / (1 << 20));
  return text;
}

void PrintStatusText(const nlohmann::json& r) {
  const nlohmann::json& s = r["server"];
  if (s.is_null()) {
    std::cout << "server\tnot running\n";
  } else {
    std::cout << "server\tpid " << s["pid"].get<int64_t>() << ", " << s["mode"].get<std::string>()
              << ", version " << s["version"].get<std::string>() << ", up "
              << s["uptime_seconds"].get<int64_t>() << " s\n";
    std::cout << "open files\t" << r["open_files"].get<int>() << '\n';
    std::cout << "memory\t" << r["memory"].get<int64_t>() << " bytes (figure), resident "
              << Mebibytes(r["resident_memory"].get<int64_t>()) << '\n';
    for (const auto& f : r["files"]) {
      std::cout << "handle " << f["handle"].get<int>() << '\t' << f.value("name", "")
                << "\tprograms " << f.value("programs", nlohmann::json::array()).size()
                << "\tmemory " << f["memory"].get<int64_t>() << " bytes\n";
    }
    for (const auto& p : r["pending_moves"])
      std::cout << p["state"].get<std::string>() << '\t' << p["file"].get<std::string>() << '\n';
  }
  for (const auto& p : r["pending"])
    std::cout << p["state"].get<std::string>() << '\t' << p["file"].get<std::string>() << '\n';
  for (const auto& saved : r["saved_pending"])
    std::cout << "saved pending\t" << saved.get<std::string>() << '\n';
}

// Where a file's tags are: the server's state of its pending move ("cached" while it
// waits, "moving"); with none pending, "cached" while a cache still holds them (the move
// has nothing to go into, or the close kept them there), "in file" when the file itself
// holds them (read-only open, QueryMQDataStatus 1), else "no tags". Nothing pending is
// never taken for "in file" on its own.
std::string FileState(IMarquelClient& client, const std::string& file, int32_t done,
                      const nlohmann::json& status) {
  const std::string absolute = Absolute(file);
  if (!done) {
    for (const auto& p : status["pending"])
      if (p.value("file", "") == absolute) return p.value("state", "cached");
    return "cached";
  }
  if (HasCachedTags(absolute)) return "cached";
  HeldFile held(client, file, 0, 0, /*read_only=*/true);
  int32_t source = 0;
  if (held.OpenResult() != S_OK || client.QueryMQDataStatus(held.Handle(), &source) != S_OK)
    return "unknown";
  return source == 1 ? "in file" : "no tags";
}

// The open files of the status with their memory figures from the standard methods, so
// that the figures of one answer agree.
int AddOpenFiles(IMarquelClient& client, const StatusOptions& o, const nlohmann::json& status,
                 nlohmann::json& result) {
  int32_t count = 0;
  HRESULT hr = client.QueryFileCount(&count);
  if (hr == E_FAIL)
    count = 0;  // no file open
  else if (hr != S_OK)
    return ReportFailure(o.json, "status", hr);
  result["open_files"] = count;
  std::vector<int32_t> handles(2048);
  client.QueryAllFileHandles(count, handles.data());
  handles.resize(std::min(count, 2048));
  result["handles"] = handles;
  int32_t memory = 0;
  if ((hr = client.QueryAllMemory(&memory)) != S_OK) return ReportFailure(o.json, "status", hr);
  result["memory"] = memory;
  for (int32_t h : handles) {
    int32_t file_memory = 0;
    client.QueryOneFileMemory(h, &file_memory);
    nlohmann::json entry = {{"handle", h}, {"memory", file_memory}};
    for (const auto& f : status["open_files"])
      if (f["handle"] == h) {
        entry["name"] = f["name"];
        entry["programs"] = f["programs"];
      }
    result["files"].push_back(entry);
  }
  return kExitOk;
}

int Status(const StatusOptions& o) {
  nlohmann::json result = {{"operation", "status"},
                           {"server", nullptr},
                           {"files", nlohmann::json::array()},
                           {"pending", nlohmann::json::array()},
                           {"pending_moves", nlohmann::json::array()}};
  const nlohmann::json status = ServerStatus();
  // Without a server the store still tells which moves wait for it.
  if (status.is_null()) {
    result["saved_pending"] = SavedPending();
    if (o.json) {
      PrintResult(true, result);
    } else {
      PrintStatusText(result);
      std::cerr << "marquelctl: the server cannot be reached\n";
    }
    return kExitUnreachable;
  }
  auto client = Connect(o.json);
  if (!client) return kExitUnreachable;
  result["server"] = {{"pid", status["pid"]},
                      {"mode", status["mode"]},
                      {"version", status["version"]},
                      {"uptime_seconds", status["uptime_seconds"]}};
  result["memory_unit"] = "bytes";
  result["resident_memory"] = status["memory"]["resident"];
  result["pending_moves"] = status["pending"];
  result["truncated"] = status["truncated"];
  if (int e = AddOpenFiles(*client, o, status, result)) return e;
  for (const std::string& file : o.files) {
    int32_t done = 1;
    HRESULT hr = client->IsWriteToFileDone(file.c_str(), &done);
    if (hr != S_OK) return ReportFailure(o.json, "status " + file, hr);
    result["pending"].push_back(
        {{"file", file}, {"done", done != 0}, {"state", FileState(*client, file, done, status)}});
  }
  result["saved_pending"] = SavedPending();
  if (o.json)
    PrintResult(true, result);
  else
    PrintStatusText(result);
  return kExitOk;
}

}  // namespace

void AddServerStatusCommands(CLI::App& app, Action& run) {
  auto s = std::make_shared<StatusOptions>();
  CLI::App* status = app.add_subcommand("status", "Show the server's open files and pending moves");
  status->add_option("FILE", s->files, "files whose pending move to report");
  status->add_flag("--json", s->json, "print the result as JSON");
  status->callback([s, &run] { run = [s] { return Status(*s); }; });
}

}  // namespace marquel::ctl
