// The transport-stream reader: fed a stream in pieces, it walks the packets, keeps the
// program list, collects the payload of one selected PID and can write an analysis text.
//
// Use: Init() or InitFromData(); optionally SetAnalysis() and SelectPid(); then Feed()
// and TakeCollected() as often as needed; Release() at the end (the destructor also
// releases). Bad data never stops the reader: units without a sync byte are dropped,
// impossible section lengths are reported in the analysis and ignored, CRC mismatches
// are only reported.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "media/stream_ring.h"
#include "media/ts_program_table.h"
#include "platform/files.h"

namespace marquel {

constexpr int32_t kTsInputRingSize = 512000;
constexpr int32_t kTsCollectRingSize = 204800;
// Units above this size are refused by Init(); real ones are 188, 192 or 204 bytes.
constexpr int32_t kTsMaxUnitSize = 65536;
// The formatting buffer of Print(); longer texts are cut to 2047 characters.
constexpr int32_t kTsPrintBufferSize = 2048;

// The stream decoder family's interface, in the order of its virtual operations.
class CTSSDec {
 public:
  virtual ~CTSSDec() = default;
  // Sets the unit size (prefix = packetSize - 188) and makes a new input ring. 1, or 0
  // when packetSize is below 188 (or above kTsMaxUnitSize) or the ring cannot be made.
  virtual int32_t Init(int32_t packetSize) = 0;
  // Finds the unit size from `data` as the file-type probe does and makes a new input
  // ring. 1, or 0 when no run of six sync bytes is found (the prefix stays unknown).
  virtual int32_t InitFromData(const uint8_t* data, int32_t length) = 0;
  // Frees the input and collect rings.
  virtual void Release() = 0;
  // Chooses the PID whose payload is collected; kTsNoPid selects none.
  virtual void SelectPid(uint32_t pid) = 0;
  // Appends `length` bytes and processes every whole unit held. Returns the number of
  // units taken (including dropped ones), or -1 before a successful Init.
  virtual int32_t Feed(const uint8_t* data, int32_t length) = 0;
  // Closes any analysis file, stores the switch and, when on with a name, creates the
  // file anew. 1, or -1 when the file cannot be created (the switch stays on, but
  // nothing is written).
  virtual int32_t SetAnalysis(int32_t on, const char* fileName) = 0;
  // printf-style text into the analysis file (at most 2047 characters, no terminator).
  // Returns the count written; 0 while no file is open.
  __attribute__((format(printf, 2, 3))) virtual int32_t Print(const char* format, ...) = 0;
  // prefix + 188, or -1 while the prefix is unknown.
  virtual int32_t GetUnitSize() = 0;
  // Index 0: moves up to `size` collected bytes into `out` and returns their count (0
  // when nothing is held); bytes that did not fit stay for the next call. Other indexes
  // answer 0.
  virtual int32_t TakeCollected(int32_t index, uint8_t* out, int32_t size) = 0;
};

class CTSSysDec : public CTSSDec {
 public:
  CTSSysDec();
  ~CTSSysDec() override;
  CTSSysDec(const CTSSysDec&) = delete;
  CTSSysDec& operator=(const CTSSysDec&) = delete;

  int32_t Init(int32_t packetSize) override;
  int32_t InitFromData(const uint8_t* data, int32_t length) override;
  void Release() override;
  void SelectPid(uint32_t pid) override;
  int32_t Feed(const uint8_t* data, int32_t length) override;
  int32_t SetAnalysis(int32_t on, const char* fileName) override;
  __attribute__((format(printf, 2, 3))) int32_t Print(const char* format, ...) override;
  int32_t GetUnitSize() override;
  int32_t TakeCollected(int32_t index, uint8_t* out, int32_t size) override;

  // The programs found so far (PAT order) with the streams of their latest PMT.
  const TsProgramTable& programs() const { return programs_; }
  // Prefix length in bytes (0, 4 or 16 for real streams), -1 until known.
  int32_t prefix() const { return prefix_; }
  // Units with a sync byte processed so far.
  uint32_t packet_count() const { return packet_count_; }
  uint32_t selected_pid() const { return selected_pid_; }
  // Collected bytes waiting for TakeCollected().
  int32_t CollectedCount() const { return collect_.Count(); }
  // Payload bytes of the selected PID that found the collect ring full and were dropped.
  int64_t collect_dropped() const { return collect_dropped_; }

 private:
  // What a PID means to this reader; one byte per PID keeps the per-packet test cheap.
  // Roles below kPat matter only while the analysis is on.
  enum PidRole : uint8_t { kNone, kCat, kSit, kVideo, kPat, kSelected, kPmt };

  void ProcessPacket(const uint8_t* packet);
  int32_t HandleAdaptation(const uint8_t* packet);
  void HandlePayload(uint32_t pid, const uint8_t* packet, int32_t start);
  void Collect(const uint8_t* payload, int32_t n);
  void RebuildRoles();

  // Table handling (ts_psi.cc).
  void HandlePat(const uint8_t* section, int32_t avail);
  void HandlePmt(int32_t program, const uint8_t* section, int32_t avail);
  void HandleSit(const uint8_t* section, int32_t avail);
  void PrintCrc(const uint8_t* section, int32_t length, int32_t avail);

  // Analysis text (ts_analysis.cc).
  void PrintPacketHeader(const uint8_t* packet);
  void PrintAdaptation(const uint8_t* packet);
  void PrintDescriptors(const uint8_t* p, int32_t length);
  void PrintVideo(const uint8_t* packet, int32_t start);
  void CloseAnalysis();

  int32_t prefix_ = -1;
  StreamRing input_;
  StreamRing collect_;
  std::vector<uint8_t> staging_;  // one unit assembled from the ring's tail and new bytes
  uint32_t selected_pid_ = kTsNoPid;
  int64_t collect_dropped_ = 0;
  TsProgramTable programs_;
  std::vector<uint8_t> roles_;
  uint32_t packet_count_ = 0;
  bool analysis_ = false;
  FileHandle analysis_file_ = kInvalidFileHandle;
  std::string analysis_name_;
};

}  // namespace marquel
