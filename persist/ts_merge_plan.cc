// Planning the transport-stream interleave: the MQ PID, where the rewrite starts, and
// which programs take part. Every refusal here leaves the file untouched.
#include <algorithm>
#include <bitset>
#include <cinttypes>

#include "log/log.h"
#include "media/mq_ts_info.h"
#include "media/mq_ts_packetizer.h"
#include "media/ts_pat.h"
#include "tags/block_format.h"
#include "ts_in_file_store.h"
#include "ts_merge.h"

namespace marquel {
namespace {

uint16_t UnitPid(const uint8_t* unit, int32_t prefix) {
  const uint8_t* p = unit + prefix;
  return static_cast<uint16_t>(((p[1] & 0x1F) << 8) | p[2]);
}

// The earlier data the open's check finds, if any.
bool FindEarlierData(const TsMergeInput& in, FileHandle media, TsMergePlan* plan) {
  MQTsInfo info;
  std::vector<InFileProgram> found;
  if (!FindTsInFileData(media, in.unit, in.first_offset, in.session, &info, &found)) return false;
  plan->has_data = true;
  plan->data_start = found[0].start;
  plan->mq_pid = info.mq_pid;
  return true;
}

// The programs with data, with program 0's PMT PID found in the file when it has none.
bool ChoosePrograms(const TsMergeInput& in, FileHandle media, TsMergePlan* plan) {
  for (size_t i = 0; i < in.programs.size(); ++i) {
    MQOneProgram* p = in.programs[i];
    if (p == nullptr || p->CheckBuffersForSerialise() != 1) continue;
    int32_t pmt = p->PMTPID();
    if (pmt <= 0 && i == 0) pmt = FindPmtPid(media, in.unit, in.first_offset);
    if (pmt <= 0 || pmt > 0x1FFF) {
      MQ_LOG("[%d] ProcessMQInterLeaveInTS: program %zu has no PMT PID", in.session, i);
      return false;
    }
    plan->programs.push_back(i);
    plan->pmt_pids.push_back(static_cast<uint16_t>(pmt));
  }
  // Program 0 carries the start the open finds the data by: without it nothing is merged.
  if (plan->programs.empty() || plan->programs[0] != 0) {
    MQ_LOG("[%d] ProcessMQInterLeaveInTS: program 0 holds no data", in.session);
    MQ_LOG("[%d] MergeMQAndOrgFile failed", in.session);
    return false;
  }
  if (plan->programs.size() > static_cast<size_t>(kMQInfoMaxPrograms)) {
    MQ_LOG("[%d] ProcessMQInterLeaveInTS: too many programs", in.session);
    return false;
  }
  return true;
}

}  // namespace

int64_t SerialisedBlockBytes(MQOneProgram& program) {
  return int64_t{kBlockHeaderSize} + static_cast<int64_t>(program.TagIdBuffer()->Size()) +
         static_cast<int64_t>(program.DataLengthBuffer()->Size()) +
         static_cast<int64_t>(program.DataBuffer()->Size());
}

int64_t TsMergeStart(int64_t size, int64_t blockBytes, int64_t dataStart, int32_t unit,
                     int64_t firstOffset) {
  // Rounds the packet count to the nearest, not up: one packet more than this may be
  // written, and the interleave then ends one group later.
  const int64_t mq_bytes = ((blockBytes + 94) / 183) * 188;
  int64_t s = size - mq_bytes * kTsMergeOriginalUnits / kTsMergeMQUnits;
  if (dataStart >= 0 && size - dataStart > 0)
    s -= (size - dataStart) * kTsMergeMQUnits / kTsMergeOriginalUnits;
  if (s < size / 2) return -1;
  s = s / unit * unit + firstOffset;
  // On the grid, at most at the end of the last whole unit.
  const int64_t grid_end = firstOffset + (size - firstOffset) / unit * unit;
  return std::min(s, grid_end);
}

bool FindFreeMQPid(FileHandle media, int32_t unit, int64_t from, int64_t size, uint16_t* pid,
                   std::string* why) {
  const int32_t prefix = TsUnitPrefixBytes(unit);
  std::bitset<8192> used;
  const size_t chunk_units = kTsMergeCopyBytes / static_cast<size_t>(unit);
  std::vector<uint8_t> chunk(chunk_units * static_cast<size_t>(unit));
  for (int64_t at = from; at + unit <= size;) {
    const int64_t units = std::min<int64_t>(static_cast<int64_t>(chunk_units), (size - at) / unit);
    if (!ReadAllAt(media, static_cast<uint64_t>(at), chunk.data(),
                   static_cast<size_t>(units * unit))) {
      *why = "read failed";
      return false;
    }
    for (int64_t u = 0; u < units; ++u) {
      const uint8_t* p = chunk.data() + u * unit;
      if (p[prefix] == 0x47) used.set(UnitPid(p, prefix));
    }
    at += units * unit;
  }
  for (uint16_t candidate = kTsFirstCandidatePid; candidate <= kTsLastCandidatePid; ++candidate) {
    if (!used.test(candidate)) {
      *pid = candidate;
      return true;
    }
  }
  *why = "every candidate PID is in use";
  return false;
}

bool PlanTsMerge(const TsMergeInput& in, FileHandle media, TsMergePlan* plan) {
  FileStatusRecord status;
  if (TsUnitPrefixBytes(in.unit) < 0 || in.first_offset < 0 ||
      FileStatus(in.media_path, &status) != 0) {
    MQ_LOG("[%d] ProcessMQInterLeaveInTS: no transport stream layout or file status", in.session);
    return false;
  }
  plan->size = GetFileSize64(media);
  // The information packet must be the file's last unit: a file that ends in a cut-short
  // unit is left alone rather than losing those bytes.
  if (plan->size < in.first_offset + in.unit || (plan->size - in.first_offset) % in.unit != 0) {
    MQ_LOG("[%d] ProcessMQInterLeaveInTS: the file does not end on a whole unit", in.session);
    return false;
  }
  if (!ChoosePrograms(in, media, plan)) return false;
  if (!FindEarlierData(in, media, plan)) MQ_LOG("[%d] Check no MQ data in ts file", in.session);
  plan->original_size =
      in.original_size != 0 ? in.original_size : static_cast<uint64_t>(plan->size);
  plan->original_mtime = in.original_mtime != 0 ? in.original_mtime : status.mtime;
  int64_t block_bytes = 0;
  for (size_t i : plan->programs) block_bytes += SerialisedBlockBytes(*in.programs[i]);
  plan->start = TsMergeStart(plan->size, block_bytes, plan->has_data ? plan->data_start : -1,
                             in.unit, in.first_offset);
  if (plan->start < 0) {
    MQ_LOG("[%d] ProcessMQInterLeaveInTS: %" PRId64
           " bytes of data would take over more than "
           "half of the file",
           in.session, block_bytes);
    return false;
  }
  plan->rewrite_from = plan->start;
  if (plan->has_data && plan->data_start < plan->start) {
    if ((plan->data_start - in.first_offset) % in.unit != 0) {
      MQ_LOG("[%d] ProcessMQInterLeaveInTS: the earlier data is off the unit grid", in.session);
      return false;
    }
    plan->rewrite_from = plan->data_start;
  }
  if (!plan->has_data) {
    // No unit of the rewritten stretch, nor of the file's last stretch, may use the PID.
    int64_t from = std::min(plan->start, plan->size - kTsFreePidScanBytes);
    from = std::max(in.first_offset, from);
    from = in.first_offset + (from - in.first_offset) / in.unit * in.unit;
    std::string why;
    if (!FindFreeMQPid(media, in.unit, from, plan->size, &plan->mq_pid, &why)) {
      MQ_LOG("[%d] ProcessMQInterLeaveInTS: no MQ PID (%s)", in.session, why.c_str());
      return false;
    }
  }
  return true;
}

}  // namespace marquel
