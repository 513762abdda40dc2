// The crash harness's world: one home with a tagged medium whose move is pending, saved
// once and put back before each run, servers started directly with a fault armed, and the
// checks that a run must pass whatever point it was cut at.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "marquel/marquel_client.h"

namespace marquel::test {

// The samples a medium is tagged with; they must all come back through the bus.
struct TagSet {
  std::map<int32_t, std::vector<MarquelOneTag>> plain;             // by tag ID, in time order
  std::map<int32_t, std::map<int64_t, std::vector<uint8_t>>> raw;  // tag ID, time, bytes
};

// Several plain tags and raw samples of varied lengths, enough that a move writes a few
// hundred points.
TagSet SampleTags();

// Starts marquel64 directly (not by activation) with `fault` ("" for none, else
// "<n>:kill" or "<n>:fail") and `count_file` ("" for none) in its environment, and a
// monitor round every `interval_ms`. Returns the pid once the server owns its bus name,
// or -1 (a server that dies before that is reaped).
pid_t StartServer(const std::string& fault, const std::string& count_file, int interval_ms,
                  const std::string& log_path);
// Stops a server with SIGTERM and reaps it; false when it did not end in time (it is
// killed then).
bool StopServerProcess(pid_t pid);

// IsWriteToFileDone for `path`: 1 done, 0 pending, -1 when the call failed.
int MoveDone(IMarquelClient& client, const std::string& path);

// Copies the folders `names` of `home` into `snapshot` (replacing it), or back.
void SaveHome(const std::string& home, const std::vector<std::string>& names,
              const std::string& snapshot);
void RestoreHome(const std::string& snapshot, const std::vector<std::string>& names,
                 const std::string& home);
// Every regular file below the folders `names` of `home`, as paths relative to `home`.
std::vector<std::string> ListFiles(const std::string& home, const std::vector<std::string>& names);

// The bytes of a file (empty when it cannot be read).
std::vector<uint8_t> FileBytes(const std::string& path);
// The first offset where two byte strings differ (the shorter length when one is a prefix).
size_t FirstDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b);

// The number of roll-back records in the store file `store` (-1 when it cannot be read).
int RollBackRecords(const std::string& store);

// What a client sees of `path` after the move: every violation found, as text. Opens the
// file through the bus, reads every tag of `tags` back and compares; *from_file receives
// QueryMQDataStatus (1: the tags were read from the file itself).
std::vector<std::string> CheckTagsThroughBus(IMarquelClient& client, const std::string& path,
                                             const TagSet& tags, int32_t* from_file);

}  // namespace marquel::test
