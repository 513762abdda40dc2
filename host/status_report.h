// The server's status as one JSON text: what com.halvern.Marquel.Status1.Status answers.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace marquel::host {

// The ceiling of the answer. Entries past it are left out, the totals still count them,
// and "truncated" says so.
constexpr size_t kMaxStatusBytes = 1 << 20;

struct OpenFileFacts {
  int32_t handle = -1;
  std::string name;
  std::vector<int32_t> pmt_pids;  // one per program, in program order
  int64_t memory = 0;             // the memory figure, bytes
};

// What the status is made of, gathered on the server's loop.
struct StatusFacts {
  pid_t pid = 0;
  bool service = false;
  std::string version;
  int64_t uptime_seconds = 0;
  int64_t memory = 0;           // the table's memory figure (QueryAllMemory), bytes
  int64_t resident_bytes = -1;  // the process's resident memory, -1 when unknown
  std::vector<OpenFileFacts> files;
  std::vector<std::string> listed;  // the controller's pending list, in order
  std::string working;              // the listed file being moved now, or ""
  std::vector<std::string> saved;   // the pending list as the store keeps it
};

// The JSON text: pid, mode ("on demand" or "service"), version, uptime_seconds, memory
// {figure, resident, unit "bytes"}, open_file_count, open_files [{handle, name, programs
// [{index, pmt_pid}], memory}], pending_count, pending [{file, state, listed, saved}],
// truncated. A pending file's state is "moving" while the monitor works on it and
// "cached" while it waits for a round; the listed files come first, then those only the
// store keeps. Never longer than max_bytes.
std::string StatusJson(const StatusFacts& facts, size_t max_bytes = kMaxStatusBytes);

// VmRSS of /proc/self/status in bytes, or -1.
int64_t ResidentBytes();

}  // namespace marquel::host
