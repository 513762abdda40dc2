// A media file's programs as marquelctl numbers them, and how a --program number reaches
// the server.
//
// Program N is the N-th program of a transport stream's PAT, read from the file itself;
// any other format has one program, 0. The server keeps its program list per open
// handle and numbers a program by when it learnt it, so a command resolves N to the
// program's PMT PID and asks the server for its index (InsertNewProgram, which answers the
// index already held or adds the program). Program 0 is the server's first program.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "marquel/marquel_client.h"

namespace marquel::ctl {

// One program of a file: its PMT PID and the stream kinds and PIDs of its PMT.
struct FileProgram {
  uint32_t pmt_pid = 0;
  std::vector<std::pair<int32_t, uint32_t>> streams;  // {kind, pid}
};

struct FilePrograms {
  bool transport_stream = false;
  std::vector<FileProgram> programs;  // PAT order; empty when not a transport stream
};

// The most bytes of a transport stream read to find its tables.
constexpr int64_t kProgramScanBytes = int64_t{16} << 20;

// Reads the program tables of the file at `path` (at most kProgramScanBytes); false with
// *error when the file cannot be read.
bool ReadFilePrograms(const std::string& path, FilePrograms* out, std::string* error);

// A stream kind's name ("mpeg2-video", "ac3-audio", ... "other").
const char* StreamKindName(int32_t kind);

// The server's index, on `handle`, of program `program` of the file at `path`. Program 0
// is 0 without a look. Returns S_OK, or E_FAIL with *error set: a number the file does
// not have (refused, the message names the programs it has) or a file that cannot be
// read; or the HRESULT of InsertNewProgram.
HRESULT ServerProgramIndex(IMarquelClient& client, int32_t handle, const std::string& path,
                           int32_t program, int32_t* index, std::string* error);

}  // namespace marquel::ctl
