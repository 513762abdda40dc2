#include "media/ts_program_table.h"

#include <algorithm>

namespace marquel {

int32_t TsStreamKind(int32_t stream_type) {
  if (stream_type < 2 || stream_type > 129) return kTsKindOther;
  switch (stream_type) {
    case 0x02:
      return kTsKindMpeg2Video;
    case 0x1B:
      return kTsKindH264Video;
    case 0x81:
      return kTsKindAc3Audio;
    case 0x0F:
      return kTsKindAacAudio;
    case 0x03:
      return kTsKindMpeg1Audio;
    case 0x04:
      return kTsKindMpeg2Audio;
    default:
      return kTsKindOther;
  }
}

int32_t TsProgramTable::Add(uint32_t pmt_pid) {
  if (FindPmt(pmt_pid) >= 0 || count() >= kTsMaxPrograms) return -1;
  TsProgram program;
  program.pmt_pid = pmt_pid;
  programs_.push_back(program);
  seen_ = true;
  return count() - 1;
}

int32_t TsProgramTable::FindPmt(uint32_t pmt_pid) const {
  for (int32_t i = 0; i < count(); ++i) {
    if (programs_[i].pmt_pid == pmt_pid) return i;
  }
  return -1;
}

int32_t TsProgramTable::SetStreams(int32_t index, const TsStream* streams, int32_t count) {
  if (index < 0 || index >= this->count()) return 0;
  count = std::clamp(count, 0, kTsMaxStreams);
  TsProgram& program = programs_[index];
  bool same = program.stream_count == count;
  for (int32_t i = 0; same && i < count; ++i) {
    same = program.streams[i].kind == streams[i].kind && program.streams[i].pid == streams[i].pid;
  }
  if (same) return 0;
  std::copy(streams, streams + count, program.streams.begin());
  program.stream_count = count;
  return 1;
}

void TsProgramTable::Clear() {
  programs_.clear();
  seen_ = false;
}

}  // namespace marquel
