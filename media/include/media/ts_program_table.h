// The program list a transport-stream reader builds from the PAT and the PMTs.
//
// Programs are kept in the order in which the PAT announced them, one per PMT PID. Each
// program holds the elementary streams of its latest PMT as {stream kind, PID} pairs.
// The table is bounded: a PAT lists at most 253 programs per section and a PMT about 200
// streams, but real multiplexes carry a few dozen at most, so the table keeps the first
// kTsMaxPrograms programs and the first kTsMaxStreams streams of each and ignores the
// rest (nothing fails because of it).
#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace marquel {

// The value of "no PID": all bits set.
constexpr uint32_t kTsNoPid = 0xFFFFFFFFu;

constexpr int32_t kTsMaxPrograms = 64;
constexpr int32_t kTsMaxStreams = 32;

// Stream kinds, derived from a PMT's stream type by TsStreamKind().
enum : int32_t {
  kTsKindOther = 0,
  kTsKindMpeg2Video = 1,
  kTsKindH264Video = 2,
  kTsKindAc3Audio = 3,
  kTsKindAacAudio = 5,
  kTsKindMpeg1Audio = 6,
  kTsKindMpeg2Audio = 7,
};

// The kind of a PMT stream type. Only types 2 through 129 are classified; 0x02 MPEG-2
// video, 0x1B H.264, 0x81 AC-3, 0x0F AAC (ADTS), 0x03 MPEG-1 audio, 0x04 MPEG-2 audio.
// Every other type gives kTsKindOther.
int32_t TsStreamKind(int32_t stream_type);

struct TsStream {
  int32_t kind = kTsKindOther;
  uint32_t pid = 0;
};

struct TsProgram {
  uint32_t pmt_pid = 0;
  int32_t stream_count = 0;
  std::array<TsStream, kTsMaxStreams> streams{};
};

class TsProgramTable {
 public:
  TsProgramTable() = default;

  // Appends a program with no streams unless one with this PMT PID is already listed or
  // the table is full. Returns the new program's index, or -1 when nothing was added.
  int32_t Add(uint32_t pmt_pid);
  // Index of the program whose PMT PID is `pmt_pid`, or -1.
  int32_t FindPmt(uint32_t pmt_pid) const;
  // Replaces the stream list of program `index` by the first kTsMaxStreams of `count`
  // streams. Returns 1 when the list changed, 0 when it was the same or index is bad.
  int32_t SetStreams(int32_t index, const TsStream* streams, int32_t count);
  // Forgets every program.
  void Clear();

  // Number of programs held.
  int32_t count() const { return static_cast<int32_t>(programs_.size()); }
  // True once at least one program has been added.
  bool seen() const { return seen_; }
  // Program `index` (0 .. count()-1).
  const TsProgram& program(int32_t index) const { return programs_[index]; }

 private:
  std::vector<TsProgram> programs_;
  bool seen_ = false;
};

}  // namespace marquel
