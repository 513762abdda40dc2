// TransportStreamStore::Check: the information packet at the file's end, each program's
// run of MQ packets, and each program's block read with its CRCs.
#include <cinttypes>
#include <vector>

#include "log/log.h"
#include "media/file_type.h"
#include "media/mq_ts_info.h"
#include "media/mq_ts_packetizer.h"
#include "persist/block_from_media.h"
#include "persist/marquel_one_file.h"
#include "tags/block_format.h"
#include "ts_in_file_store.h"

namespace marquel {
namespace {

// Units read per step of the walk.
constexpr int64_t kWalkUnits = 256;

// Checks one MQ packet header (after the unit's prefix). Returns its counter, or -1.
int32_t MQPacketCounter(const uint8_t* p) {
  if ((p[1] & 0xC0) != 0x40 || (p[3] & 0xF0) != 0x10 || p[4] != 0x00) return -1;
  return p[3] & 0x0F;
}

// Where program 0's walk begins. The interleave never starts below half of the file as
// it was before, which was at least its original size; earlier units are never looked at.
int64_t FirstWalkBegin(const MQTsInfo& info, int64_t first_offset, int32_t unit) {
  const int64_t floor =
      std::max<int64_t>(first_offset, static_cast<int64_t>(info.original_size / 2));
  // On the grid of the first program's end.
  const int64_t end = info.programs[0].end_offset;
  if (floor >= end) return end;
  return end - (end - floor) / unit * unit;
}

// Whether the packet's payload opens a block header, CRC right, whose block fills exactly
// `packets` packets of payload.
bool OpensBlockOf(const uint8_t* payload, int64_t packets) {
  if (!BlockHeaderCrcOk(payload)) return false;
  const BlockHeader h = ParseBlockHeader(payload);
  const uint64_t total = uint64_t{kBlockHeaderSize} + h.tag_id_size + h.length_size + h.data_size;
  return (total + kMQTsPayloadBytes - 1) / kMQTsPayloadBytes == static_cast<uint64_t>(packets);
}

}  // namespace

bool FindMQTsRunStart(FileHandle file, int32_t unit_size, int64_t floor, int64_t end, uint16_t pid,
                      int64_t* start, std::string* why) {
  const int32_t prefix = TsUnitPrefixBytes(unit_size);
  *why = "bad range";
  if (prefix < 0 || floor < 0 || end < floor || (end - floor) % unit_size != 0) return false;
  int32_t next = -1;  // the counter of the packet after this one
  std::vector<uint8_t> chunk(static_cast<size_t>(kWalkUnits * unit_size));
  int64_t packets = 0;
  for (int64_t at = end; at > floor;) {
    const int64_t units = std::min<int64_t>(kWalkUnits, (at - floor) / unit_size);
    const int64_t from = at - units * unit_size;
    if (!ReadAllAt(file, static_cast<uint64_t>(from), chunk.data(),
                   static_cast<size_t>(units * unit_size))) {
      *why = "read failed";
      return false;
    }
    for (int64_t u = units - 1; u >= 0; --u) {
      const uint8_t* p = chunk.data() + u * unit_size + prefix;
      if (p[0] != 0x47 || (((p[1] & 0x1F) << 8) | p[2]) != pid) continue;
      const int32_t counter = MQPacketCounter(p);
      if (counter < 0 || (next >= 0 && counter != ((next + 15) & 0x0F))) {
        *why = counter < 0 ? "bad packet header" : "continuity counter hole";
        return false;
      }
      next = counter;
      ++packets;
      if (counter == 0 && OpensBlockOf(p + 5, packets)) {
        *start = from + u * unit_size;
        return true;
      }
    }
    at = from;
  }
  *why = packets == 0 ? "no packets" : "no block start";
  return false;
}

bool WalkMQTsPackets(FileHandle file, int32_t unit_size, int64_t begin, int64_t end, uint16_t pid,
                     MQTsPacketRun* run, std::string* why) {
  const int32_t prefix = TsUnitPrefixBytes(unit_size);
  *run = MQTsPacketRun{};
  if (prefix < 0 || begin < 0 || end < begin || (end - begin) % unit_size != 0) {
    *why = "bad range";
    return false;
  }
  std::vector<uint8_t> chunk(static_cast<size_t>(kWalkUnits * unit_size));
  int32_t expected = 0;
  for (int64_t at = begin; at < end;) {
    const int64_t units = std::min<int64_t>(kWalkUnits, (end - at) / unit_size);
    const size_t bytes = static_cast<size_t>(units * unit_size);
    if (!ReadAllAt(file, static_cast<uint64_t>(at), chunk.data(), bytes)) {
      *why = "read failed";
      return false;
    }
    for (int64_t u = 0; u < units; ++u, at += unit_size) {
      const uint8_t* p = chunk.data() + u * unit_size + prefix;
      if (p[0] != 0x47 || (((p[1] & 0x1F) << 8) | p[2]) != pid) continue;
      const int32_t counter = MQPacketCounter(p);
      if (counter != expected) {
        *why = counter < 0 ? "bad packet header" : "continuity counter hole";
        return false;
      }
      if (run->packets++ == 0) run->start = at;
      expected = (expected + 1) & 0x0F;
    }
  }
  if (run->packets == 0) {
    *why = "no packets";
    return false;
  }
  return true;
}

bool FindTsInFileData(FileHandle file, int32_t unit, int64_t first_offset, int32_t session,
                      MQTsInfo* info_out, std::vector<InFileProgram>* programs,
                      std::vector<std::vector<uint8_t>>* headers) {
  programs->clear();
  if (headers != nullptr) headers->clear();
  const int64_t size = GetFileSize64(file);
  if (TsUnitPrefixBytes(unit) < 0 || size < unit) return false;
  // The information packet is the file's last unit, read in one go.
  std::vector<uint8_t> last(static_cast<size_t>(unit));
  const int64_t info_at = size - unit;
  if (!ReadAllAt(file, static_cast<uint64_t>(info_at), last.data(), last.size())) return false;
  std::optional<MQTsInfo> info = ParseMQTsInfo(last.data(), unit, info_at, size);
  if (!info) {
    const uint8_t* p = last.data() + TsUnitPrefixBytes(unit);
    if (p[0] == 0x47 && (((p[1] & 0x1F) << 8) | p[2]) == kMQInfoPid)
      MQ_LOG("[%d] MQ information packet in the file is damaged, ignored", session);
    return false;
  }
  int64_t begin = FirstWalkBegin(*info, first_offset, unit);
  for (size_t i = 0; i < info->programs.size(); ++i) {
    const MQTsInfoProgram& p = info->programs[i];
    MQTsPacketRun run;
    std::string why;
    int64_t start = -1;
    if (!FindMQTsRunStart(file, unit, begin, p.end_offset, info->mq_pid, &start, &why) ||
        !WalkMQTsPackets(file, unit, start, p.end_offset, info->mq_pid, &run, &why)) {
      MQ_LOG("[%d] MQ packets of program %d in the file are damaged (%s), ignored", session,
             static_cast<int32_t>(i), why.c_str());
      programs->clear();
      return false;
    }
    // Only a block whose CRCs all hold counts as data in the file; the open reads it again
    // into the program it makes.
    MQOneProgram scratch(static_cast<int32_t>(i));
    if (ReadBlockFromTransportStream(scratch, file, unit, run.start, info->mq_pid, session) != 1) {
      MQ_LOG("[%d] MQ data of program %d in the file at %" PRId64 " is damaged, ignored", session,
             static_cast<int32_t>(i), run.start);
      programs->clear();
      return false;
    }
    if (headers != nullptr) {
      const ProgramBuffer* h = scratch.HeaderBuffer();
      headers->emplace_back(h->bytes.begin(), h->bytes.begin() + kBlockHeaderSize);
    }
    InFileProgram program;
    program.pmt_pid = p.pmt_pid;
    program.data_pid = info->mq_pid;
    program.start = run.start;
    programs->push_back(program);
    begin = p.end_offset;
  }
  *info_out = *info;
  return true;
}

MQDataInFile TransportStreamStore::Check(MarquelOneFile& f, FileHandle file) {
  MQDataInFile result;
  if (f.file_type_ != static_cast<int32_t>(MQ_FORMAT_TS)) return result;
  MQTsInfo info;
  if (!FindTsInFileData(file, static_cast<int32_t>(f.ts_packet_size_), f.ts_first_packet_offset_,
                        f.handle_, &info, &result.programs))
    return result;
  result.has_data = true;
  result.start_address = result.programs[0].start;
  result.identity[0] = info.original_size;
  result.identity[1] = static_cast<uint64_t>(info.original_mtime);
  return result;
}

}  // namespace marquel
