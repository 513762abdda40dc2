#include "media/ts_decoder.h"

#include <algorithm>

namespace marquel {

namespace {

constexpr int32_t kTsPacketSize = 188;
constexpr uint32_t kPidCount = 8192;
constexpr uint32_t kSitPid = 0x1F;
// The sync scan needs this many bytes beyond the position it tests (5 units of 204 plus
// margin), the same bound as the file-type probe.
constexpr int32_t kSyncScanTail = 2040;

bool SyncRun(const uint8_t* data, int32_t p, int32_t step) {
  for (int32_t k = 1; k <= 5; ++k) {
    if (data[p + step * k] != 0x47) return false;
  }
  return true;
}

// The prefix length of the first run of six sync bytes in `data`, or -1. At each
// position 188-byte units are tried before 192 before 204, and a 192 or 204 unit needs
// room for its prefix before the sync byte.
int32_t FindPrefix(const uint8_t* data, int32_t length) {
  for (int32_t p = 0; p < length - kSyncScanTail; ++p) {
    if (data[p] != 0x47) continue;
    if (SyncRun(data, p, 188)) return 0;
    if (p >= 4 && SyncRun(data, p, 192)) return 4;
    if (p >= 16 && SyncRun(data, p, 204)) return 16;
  }
  return -1;
}

}  // namespace

CTSSysDec::CTSSysDec() : roles_(kPidCount, kNone) {
  RebuildRoles();
}

CTSSysDec::~CTSSysDec() {
  Release();
  CloseAnalysis();
}

int32_t CTSSysDec::Init(int32_t packetSize) {
  if (packetSize < kTsPacketSize || packetSize > kTsMaxUnitSize) return 0;
  prefix_ = packetSize - kTsPacketSize;
  staging_.assign(static_cast<size_t>(packetSize), 0);
  return input_.Create(kTsInputRingSize) ? 1 : 0;
}

int32_t CTSSysDec::InitFromData(const uint8_t* data, int32_t length) {
  if (data == nullptr) return 0;
  const int32_t prefix = FindPrefix(data, length);
  if (prefix < 0) return 0;
  return Init(kTsPacketSize + prefix);
}

void CTSSysDec::Release() {
  input_.Destroy();
  collect_.Destroy();
}

void CTSSysDec::SelectPid(uint32_t pid) {
  selected_pid_ = pid;
  RebuildRoles();
}

int32_t CTSSysDec::GetUnitSize() {
  return prefix_ < 0 ? -1 : prefix_ + kTsPacketSize;
}

// Equivalent to appending everything and then taking whole units from the ring, but
// whole units in the caller's buffer are processed where they lie: the ring only ever
// holds the tail of a unit between two calls, so no call can overrun it, whatever its
// length, and most bytes are never copied.
int32_t CTSSysDec::Feed(const uint8_t* data, int32_t length) {
  if (prefix_ < 0 || input_.capacity() == 0) return -1;
  if (data == nullptr || length <= 0) return 0;
  const int32_t unit = prefix_ + kTsPacketSize;
  int32_t units = 0;
  const int32_t held = input_.Count();
  if (held > 0) {
    const int32_t take = std::min(unit - held, length);
    input_.Append(data, take);
    data += take;
    length -= take;
    if (input_.Count() < unit) return 0;
    input_.Read(staging_.data(), unit);
    ProcessPacket(staging_.data() + prefix_);
    ++units;
  }
  for (; length >= unit; data += unit, length -= unit, ++units) {
    const uint8_t* packet = data + prefix_;
    if (packet[0] != 0x47) continue;  // no resynchronisation: the whole unit goes
    if (!analysis_ && roles_[((packet[1] & 0x1F) << 8) | packet[2]] < kPat) {
      ++packet_count_;  // nothing to do for this PID
      continue;
    }
    ProcessPacket(packet);
  }
  input_.Append(data, length);
  return units;
}

void CTSSysDec::ProcessPacket(const uint8_t* packet) {
  if (packet[0] != 0x47) return;
  const uint32_t pid = ((packet[1] & 0x1F) << 8) | packet[2];
  if (analysis_) PrintPacketHeader(packet);
  const int32_t control = (packet[3] >> 4) & 0x3;
  if (control != 0) {
    int32_t start = 4;
    if (control & 0x2) start = HandleAdaptation(packet);
    if (control & 0x1) HandlePayload(pid, packet, start);
  }
  ++packet_count_;
  if (analysis_) Print("\r\n");
}

// Prints the adaptation field when asked to and answers where the payload starts: past
// the field, or at the packet's end when the field claims more than the packet holds.
int32_t CTSSysDec::HandleAdaptation(const uint8_t* packet) {
  if (analysis_) PrintAdaptation(packet);
  return std::min(5 + packet[4], kTsPacketSize);
}

void CTSSysDec::HandlePayload(uint32_t pid, const uint8_t* packet, int32_t start) {
  const int32_t size = kTsPacketSize - start;
  if (size <= 0) return;
  const uint8_t* payload = packet + start;
  switch (roles_[pid]) {
    case kPat:
      HandlePat(payload + 1, size - 1);  // behind a pointer field taken as 0
      break;
    case kSit:
      HandleSit(payload + 1, size - 1);
      break;
    case kSelected:
      Collect(payload + 1, size - 1);
      break;
    case kPmt:
      HandlePmt(programs_.FindPmt(pid), payload + 1, size - 1);
      break;
    case kVideo:
      if (analysis_) PrintVideo(packet, start);
      break;
    default:
      break;
  }
}

// The collect ring is made on first use. Payload that finds it full is dropped rather
// than written over unread bytes; callers take the collected bytes after each Feed().
void CTSSysDec::Collect(const uint8_t* payload, int32_t n) {
  if (n <= 0) return;
  if (collect_.capacity() == 0 && !collect_.Create(kTsCollectRingSize)) {
    collect_dropped_ += n;
    return;
  }
  const int32_t fits = std::min(n, collect_.FreeSpace());
  collect_.Append(payload, fits);
  collect_dropped_ += n - fits;
}

int32_t CTSSysDec::TakeCollected(int32_t index, uint8_t* out, int32_t size) {
  if (index != 0 || out == nullptr || size <= 0) return 0;
  return collect_.Read(out, size);
}

// PMT and elementary PIDs count only once a program is known; the fixed PIDs come first,
// then the selected PID, then PMT PIDs, then MPEG-2 video streams, as the payload
// dispatch orders them.
void CTSSysDec::RebuildRoles() {
  std::fill(roles_.begin(), roles_.end(), kNone);
  if (programs_.seen()) {
    for (int32_t i = programs_.count() - 1; i >= 0; --i) {
      const TsProgram& program = programs_.program(i);
      for (int32_t s = program.stream_count - 1; s >= 0; --s) {
        if (program.streams[s].kind == kTsKindMpeg2Video && program.streams[s].pid < kPidCount) {
          roles_[program.streams[s].pid] = kVideo;
        }
      }
    }
    for (int32_t i = 0; i < programs_.count(); ++i) {
      if (programs_.program(i).pmt_pid < kPidCount) roles_[programs_.program(i).pmt_pid] = kPmt;
    }
  }
  if (selected_pid_ < kPidCount) roles_[selected_pid_] = kSelected;
  roles_[0] = kPat;
  roles_[1] = kCat;
  roles_[kSitPid] = kSit;
}

}  // namespace marquel
