// Planning the in-place merge: where it starts, and the stream's clock and mux rate there.
#include <algorithm>
#include <cmath>
#include <memory>

#include "log/log.h"
#include "media/mpeg_system_dec.h"
#include "media/ps_pack_walker.h"
#include "ps_merge.h"

namespace marquel {
namespace {

// Bytes per stream pack assumed for the first window; a window that holds too few packs
// is doubled until it reaches the file's start.
constexpr int64_t kAssumedPackBytes = 2324;

// Stream packs over which the stream's byte rate is measured.
constexpr int64_t kRatePacks = 256;

struct StreamPacks {
  std::vector<int64_t> starts;  // of the stream packs, in order
  int64_t last_end = 0;         // end of the last one
  int64_t bytes = 0;            // of the stream packs after the first
  uint64_t ticks = 0;           // 27 MHz clock advance over them; restarts count as 0
};

bool CollectStreamPacks(FileHandle media, bool mpeg1, int64_t from, int64_t to,
                        StreamPacks* packs) {
  PsPackWalker walker(media, from, to, mpeg1);
  PackSpan span;
  uint64_t previous = 0;
  while (walker.Next(&span)) {
    if (span.own_data) continue;
    if (!packs->starts.empty()) {
      packs->bytes += span.length;
      if (span.clock.Full() > previous) packs->ticks += span.clock.Full() - previous;
    }
    previous = span.clock.Full();
    packs->starts.push_back(span.offset);
    packs->last_end = span.offset + span.length;
  }
  return !walker.failed();
}

// The stream's bytes per second near the end, from the packs' clocks; 0 when unknown.
double StreamRate(FileHandle media, bool mpeg1, int64_t keep, int64_t size) {
  StreamPacks packs;
  const int64_t from = std::max<int64_t>(0, keep - kRatePacks * kAssumedPackBytes);
  if (!CollectStreamPacks(media, mpeg1, from, std::min(size, keep + kAssumedPackBytes), &packs) ||
      packs.ticks == 0)
    return 0;
  return static_cast<double>(packs.bytes) * 27e6 / static_cast<double>(packs.ticks);
}

std::unique_ptr<CMpegMuxDec> MakeDecoder(bool mpeg1) {
  if (mpeg1) return std::make_unique<MPEG1SystemDec_c>();
  return std::make_unique<MPEG2SystemDec_c>();
}

// Feeds [before - kMergeClockLookBack, before) through the system decoder.
std::unique_ptr<CMpegMuxDec> DecodeBefore(FileHandle media, bool mpeg1, int64_t before) {
  std::unique_ptr<CMpegMuxDec> dec = MakeDecoder(mpeg1);
  dec->Reset();
  const int64_t from = std::max<int64_t>(0, before - kMergeClockLookBack);
  std::vector<uint8_t> bytes(static_cast<size_t>(before - from));
  if (!bytes.empty() && ReadAllAt(media, static_cast<uint64_t>(from), bytes.data(), bytes.size()))
    dec->Feed(bytes.data(), static_cast<int32_t>(bytes.size()));
  return dec;
}

}  // namespace

uint32_t StreamPacksPerGroup(double streamRate, double muxRate) {
  if (streamRate <= 0 || muxRate <= streamRate) return kMergeMaxStreamPacks;
  const double room = muxRate / streamRate - 1;
  const double packs = std::ceil(1 / room);
  return packs >= kMergeMaxStreamPacks ? kMergeMaxStreamPacks
                                       : std::max<uint32_t>(1, static_cast<uint32_t>(packs));
}

uint32_t StreamMuxRate(FileHandle media, bool mpeg1, int64_t before) {
  return DecodeBefore(media, mpeg1, before)->GetMuxRate();
}

bool PlanMerge(const PsMergeRequest& r, MergePlan* plan) {
  const int64_t size = GetFileSize64(r.media);
  if (size <= 0 || plan == nullptr) return false;
  const int64_t groups =
      (r.data_pack_count + kMergeGroupDataPacks - 1) / static_cast<int64_t>(kMergeGroupDataPacks);
  const int64_t keep = std::clamp<int64_t>(r.keep_before, 0, size);
  // Mux rates count in units of 50 bytes/s.
  plan->group_stream_packs =
      StreamPacksPerGroup(StreamRate(r.media, r.mpeg1, keep, size),
                          50.0 * StreamMuxRate(r.media, r.mpeg1, keep));
  const int64_t wanted = std::max<int64_t>(1, groups * plan->group_stream_packs);
  int64_t from = std::max<int64_t>(0, keep - (wanted + 16) * kAssumedPackBytes);
  StreamPacks packs;
  for (;;) {
    packs = StreamPacks{};
    if (!CollectStreamPacks(r.media, r.mpeg1, from, size, &packs)) {
      MQ_LOG("[%d] ProcessMQInterLeave: can not read the packs of '%s'", r.session,
             r.media_path.c_str());
      return false;
    }
    // Stream packs at or after the merge start: those from the wanted one on.
    const bool enough = static_cast<int64_t>(packs.starts.size()) >= wanted &&
                        packs.starts[packs.starts.size() - wanted] <= keep;
    if (enough || from == 0) break;
    from = std::max<int64_t>(0, keep - 2 * (size - from));
  }
  if (packs.starts.empty()) {
    MQ_LOG("[%d] ProcessMQInterLeave: no pack in '%s'", r.session, r.media_path.c_str());
    return false;
  }
  // The latest start that leaves `wanted` stream packs after it, and is not after `keep`.
  size_t first = packs.starts.size() >= static_cast<size_t>(wanted)
                     ? packs.starts.size() - static_cast<size_t>(wanted)
                     : 0;
  while (first > 0 && packs.starts[first] > keep) --first;
  plan->start = std::min(packs.starts[first], keep);
  plan->packs_end = std::max(packs.last_end, plan->start);
  plan->file_size = size;
  plan->stream_packs = static_cast<int64_t>(packs.starts.size() - first);
  uint64_t base = 0;
  uint32_t ext = 0;
  DecodeBefore(r.media, r.mpeg1, plan->start)->GetLastClock(&base, &ext);
  plan->clock_before = PackClock{base, ext};
  return true;
}

}  // namespace marquel
