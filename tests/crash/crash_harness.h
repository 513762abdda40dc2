// The crash harness's world: one home with a tagged medium whose move is pending, saved
// once and put back before each run, servers started directly with a fault armed, and the
// checks that a run must pass whatever point it was cut at.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "marquel/marquel_client.h"

namespace marquel::test {

// The samples of one program; they must all come back through the bus.
struct ProgramTags {
  std::map<int32_t, std::vector<MarquelOneTag>> plain;             // by tag ID, in time order
  std::map<int32_t, std::map<int64_t, std::vector<uint8_t>>> raw;  // tag ID, time, bytes
};

// The samples a medium is tagged with, by program index.
struct TagSet {
  std::vector<ProgramTags> programs;
};

// A medium the harness moves tags into: a test clip repeated `copies` times end to end
// (a longer stream, so that the move rewrites a longer stretch), tagged in `programs`
// programs, each with about `bulk_bytes` of large raw samples besides the small ones.
struct CrashMedium {
  const char* source;
  int copies;
  int programs;
  size_t bulk_bytes;
};

// How a test's parameter prints: "<source> x<copies>, <programs> program(s), <bulk> bytes".
void PrintTo(const CrashMedium& medium, std::ostream* os);

// Two plain tags, raw samples of 1 to 120 bytes and, per program, `bulk_bytes` of raw
// samples of 64 KiB filled with a pseudo-random pattern (no codec shortens them), so that
// the move's copies write many 1 MiB pieces. Each program's values differ.
TagSet SampleTags(int programs, size_t bulk_bytes);

// Writes `copies` copies of `source` end to end into `dest`; false on a failure.
bool MakeMedium(const std::string& source, int copies, const std::string& dest);

// Inserts every sample of `tags` into the open handle `h`; the first failure as text, or "".
std::string InsertTags(IMarquelClient& client, int32_t h, const TagSet& tags);

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
// QueryMQDataStatus (1: the tags were read from the file itself). With `none_is_fine`,
// a file that holds no sample at all passes too (tags whose keeping was never promised).
std::vector<std::string> CheckTagsThroughBus(IMarquelClient& client, const std::string& path,
                                             const TagSet& tags, int32_t* from_file,
                                             bool none_is_fine = false);

}  // namespace marquel::test
