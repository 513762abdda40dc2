// Reading a transport stream's programs with the media layer's reader, and finding them
// on the server.
#include "file_programs.h"

#include <algorithm>
#include <memory>

#include "media/file_type.h"
#include "media/ts_decoder.h"
#include "platform/files.h"

namespace marquel::ctl {
namespace {

constexpr uint32_t kChunk = 65536;
// Pieces no larger than the reader's input ring takes at once.
constexpr int32_t kFeedPiece = 4096;

// Whether every program of the table has had its PMT (then reading further adds nothing
// a short file would not show).
bool AllPmtsSeen(const TsProgramTable& table) {
  if (!table.seen()) return false;
  for (int32_t i = 0; i < table.count(); ++i)
    if (table.program(i).stream_count == 0) return false;
  return true;
}

bool ScanTransportStream(FileHandle h, const TsLayout& layout, FilePrograms* out) {
  auto dec = std::make_unique<CTSSysDec>();
  if (dec->Init(static_cast<int32_t>(layout.packet_size)) != 1) return false;
  if (SeekFile(h, layout.first_packet_offset, FILE_BEGIN) != layout.first_packet_offset)
    return false;
  std::vector<uint8_t> buffer(kChunk);
  for (int64_t read = 0; read < kProgramScanBytes && !AllPmtsSeen(dec->programs());) {
    uint32_t got = 0;
    if (!ReadFile(h, buffer.data(), kChunk, &got)) return false;
    if (got == 0) break;
    read += got;
    for (uint32_t at = 0; at < got; at += kFeedPiece)
      dec->Feed(buffer.data() + at, static_cast<int32_t>(std::min<uint32_t>(kFeedPiece, got - at)));
  }
  const TsProgramTable& table = dec->programs();
  for (int32_t i = 0; i < table.count(); ++i) {
    FileProgram p;
    p.pmt_pid = table.program(i).pmt_pid;
    for (int32_t s = 0; s < table.program(i).stream_count; ++s)
      p.streams.emplace_back(table.program(i).streams[s].kind, table.program(i).streams[s].pid);
    out->programs.push_back(std::move(p));
  }
  return true;
}

}  // namespace

bool ReadFilePrograms(const std::string& path, FilePrograms* out, std::string* error) {
  *out = FilePrograms();
  const FileHandle h =
      OpenFileHandle(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                     FILE_ATTRIBUTE_NORMAL, kInvalidFileHandle);
  if (h == kInvalidFileHandle) {
    *error = path + ": cannot be read";
    return false;
  }
  TsLayout layout;
  out->transport_stream = DetectFileType(&layout, h, path) == MQ_FORMAT_TS;
  const bool ok = !out->transport_stream || ScanTransportStream(h, layout, out);
  CloseFileHandle(h);
  if (!ok) *error = path + ": read failed";
  return ok;
}

const char* StreamKindName(int32_t kind) {
  switch (kind) {
    case kTsKindMpeg2Video:
      return "mpeg2-video";
    case kTsKindH264Video:
      return "h264-video";
    case kTsKindAc3Audio:
      return "ac3-audio";
    case kTsKindAacAudio:
      return "aac-audio";
    case kTsKindMpeg1Audio:
      return "mpeg1-audio";
    case kTsKindMpeg2Audio:
      return "mpeg2-audio";
    default:
      return "other";
  }
}

HRESULT ServerProgramIndex(IMarquelClient& client, int32_t handle, const std::string& path,
                           int32_t program, int32_t* index, std::string* error) {
  *index = 0;
  if (program == 0) return S_OK;
  FilePrograms found;
  if (!ReadFilePrograms(path, &found, error)) return E_FAIL;
  if (program < 0 || static_cast<size_t>(program) >= found.programs.size()) {
    const size_t n = found.programs.size();
    *error = path + " has no program " + std::to_string(program) + " (" +
             (!found.transport_stream ? "it is not a transport stream; its one program is 0"
              : n <= 1                ? "its one program is 0"
                                      : "its programs are 0 to " + std::to_string(n - 1)) +
             ")";
    return E_FAIL;
  }
  HRESULT hr =
      client.InsertNewProgram(handle, static_cast<int32_t>(found.programs[program].pmt_pid), index);
  if (hr != S_OK) *error = "the server did not take program " + std::to_string(program);
  return hr;
}

}  // namespace marquel::ctl
