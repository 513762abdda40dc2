// The server's status as one JSON text.
#include "status_report.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

namespace marquel::host {
namespace {

// Adds entries to `list` while they fit in *budget; false once one did not.
bool Append(nlohmann::json& list, nlohmann::json entry, size_t* budget) {
  const size_t size =
      entry.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).size() + 1;
  if (size > *budget) return false;
  *budget -= size;
  list.push_back(std::move(entry));
  return true;
}

nlohmann::json FileEntry(const OpenFileFacts& f) {
  nlohmann::json programs = nlohmann::json::array();
  for (size_t i = 0; i < f.pmt_pids.size(); ++i)
    programs.push_back({{"index", i}, {"pmt_pid", f.pmt_pids[i]}});
  return {{"handle", f.handle}, {"name", f.name}, {"programs", programs}, {"memory", f.memory}};
}

// The pending files: the controller's list, then what only the store still keeps.
std::vector<nlohmann::json> PendingEntries(const StatusFacts& facts) {
  const std::set<std::string> saved(facts.saved.begin(), facts.saved.end());
  const std::set<std::string> listed(facts.listed.begin(), facts.listed.end());
  std::vector<nlohmann::json> entries;
  for (const std::string& file : facts.listed)
    entries.push_back({{"file", file},
                       {"state", file == facts.working ? "moving" : "cached"},
                       {"listed", true},
                       {"saved", saved.count(file) > 0}});
  for (const std::string& file : facts.saved)
    if (listed.count(file) == 0)
      entries.push_back({{"file", file}, {"state", "cached"}, {"listed", false}, {"saved", true}});
  return entries;
}

}  // namespace

std::string StatusJson(const StatusFacts& facts, size_t max_bytes) {
  const std::vector<nlohmann::json> pending = PendingEntries(facts);
  nlohmann::json status = {
      {"pid", facts.pid},
      {"mode", facts.service ? "service" : "on demand"},
      {"version", facts.version},
      {"uptime_seconds", facts.uptime_seconds},
      {"memory", {{"figure", facts.memory}, {"resident", facts.resident_bytes}, {"unit", "bytes"}}},
      {"open_file_count", facts.files.size()},
      {"open_files", nlohmann::json::array()},
      {"pending_count", pending.size()},
      {"pending", nlohmann::json::array()},
      {"truncated", true}};
  // What is left for the entries once the fixed part (at its longest) is written.
  const size_t fixed = status.dump().size();
  if (fixed >= max_bytes) return "{\"truncated\":true}";
  size_t budget = max_bytes - fixed;
  bool whole = true;
  for (const OpenFileFacts& f : facts.files)
    if (!(whole = Append(status["open_files"], FileEntry(f), &budget))) break;
  if (whole)
    for (const nlohmann::json& p : pending)
      if (!(whole = Append(status["pending"], p, &budget))) break;
  status["truncated"] = !whole;
  // Invalid UTF-8 in a name (a Linux path may hold any bytes) is replaced, not thrown.
  return status.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

int64_t ResidentBytes() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::stoll(line.substr(6)) * 1024;
  return -1;
}

}  // namespace marquel::host
