// marquelctl status: the server's open files and the moves still to be done.
//
//   status [FILE ...] [--json]
//       open files, their handles and memory figures, the table's memory figure, whether
//       each FILE still waits for its data to be written into it, and the moves the
//       server saved in the store for later
#include <chrono>
#include <iostream>
#include <memory>
#include <thread>

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

int Status(const StatusOptions& o) {
  auto client = Connect(o.json);
  if (!client) return kExitUnreachable;
  nlohmann::json result = {{"operation", "status"},
                           {"files", nlohmann::json::array()},
                           {"pending", nlohmann::json::array()}};
  int32_t count = 0;
  HRESULT hr = client->QueryFileCount(&count);
  if (hr == E_FAIL)
    count = 0;  // no file open
  else if (hr != S_OK)
    return ReportFailure(o.json, "status", hr);
  result["open_files"] = count;
  std::vector<int32_t> handles(2048);
  client->QueryAllFileHandles(count, handles.data());
  handles.resize(std::min(count, 2048));
  result["handles"] = handles;
  int32_t memory = 0;
  if ((hr = client->QueryAllMemory(&memory)) != S_OK) return ReportFailure(o.json, "status", hr);
  result["memory"] = memory;
  for (int32_t h : handles) {
    int32_t file_memory = 0;
    client->QueryOneFileMemory(h, &file_memory);
    result["files"].push_back({{"handle", h}, {"memory", file_memory}});
  }
  for (const std::string& file : o.files) {
    int32_t done = 1;
    if ((hr = client->IsWriteToFileDone(file.c_str(), &done)) != S_OK)
      return ReportFailure(o.json, "status " + file, hr);
    result["pending"].push_back({{"file", file}, {"done", done != 0}});
  }
  result["saved_pending"] = SavedPending();
  PrintResult(o.json, result);
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
