// Fuzzes the in-file reading of a transport stream as the open does it: the information
// packet from the file's last unit, each program's MQ packets walked with their counter,
// and each block read with its CRCs (FindTsInFileData).
//
// Input: one mode byte, then bytes. Mode bits 0-1 choose the unit size (188, 192, 204).
// Bit 2 clear: the bytes are the file. Bit 2 set: the bytes are up to three blocks (bits
// 0-1 of the second byte say how many; each block's CRCs put right, split evenly) behind
// a stand-in media part of (third byte) null units; each block is packetized on the MQ
// PID, the information packet follows, and when bits 3-7 are set one byte of the MQ part
// is damaged at a place chosen by the fourth byte. Further bits of the second byte:
// bit 2 reads the file with the next unit size, bit 3 puts a null unit in place of an MQ
// packet (a hole in the counter), bit 4 ends the file a few bytes early. A block that is
// found is loaded.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_util.h"
#include "media/mq_ts_info.h"
#include "media/mq_ts_packetizer.h"
#include "persist/block_from_media.h"
#include "persist/ts_in_file_store.h"
#include "platform/files.h"
#include "tags/block_program.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes NullUnits(int32_t unit, size_t count) {
  Bytes out;
  const size_t prefix = static_cast<size_t>(marquel::TsUnitPrefixBytes(unit));
  for (size_t i = 0; i < count; ++i) {
    Bytes u(static_cast<size_t>(unit), 0xFF);
    u[prefix] = 0x47;
    u[prefix + 1] = 0x1F;
    u[prefix + 3] = 0x10;
    out.insert(out.end(), u.begin(), u.end());
  }
  return out;
}

Bytes Crafted(const uint8_t* data, size_t size, int32_t unit) {
  const size_t programs = 1 + (data[1] & 3) % 3;
  Bytes file = NullUnits(unit, data[2]);
  const size_t lead = file.size();
  Bytes rest(data + 4, data + size);
  marquel::MQTsInfo info;
  info.original_size = lead;
  info.mq_pid = 8160;
  const size_t share = rest.size() / programs;
  for (size_t i = 0; i < programs; ++i) {
    Bytes block(rest.begin() + static_cast<std::ptrdiff_t>(i * share),
                rest.begin() + static_cast<std::ptrdiff_t>((i + 1) * share));
    fuzzblock::FixCrcs(block);
    marquel::MQTsPacketizer packetizer(unit, 8160, [&file](const uint8_t* b, size_t n) {
      file.insert(file.end(), b, b + n);
      return true;
    });
    packetizer.Feed(block.data(), block.size());
    packetizer.Finish();
    // An empty block makes no packets; its end would not rise, so it ends one unit on.
    if (file.size() <=
        (info.programs.empty() ? lead : static_cast<size_t>(info.programs.back().end_offset))) {
      const Bytes filler = NullUnits(unit, 1);
      file.insert(file.end(), filler.begin(), filler.end());
    }
    info.programs.push_back({static_cast<uint16_t>(0x100 + i), static_cast<int64_t>(file.size())});
  }
  Bytes last;
  marquel::SerialiseMQTsInfo(info, unit, &last);
  file.insert(file.end(), last.begin(), last.end());
  if ((data[0] & 0xF8) != 0 && file.size() > lead)
    file[lead + (size_t{data[3]} * 131 + data[0]) % (file.size() - lead)] ^= data[0];
  const size_t units = (file.size() - lead) / static_cast<size_t>(unit);
  if ((data[1] & 8) != 0 && units > 1) {
    const Bytes null_unit = NullUnits(unit, 1);
    const size_t at = lead + (data[3] % (units - 1)) * static_cast<size_t>(unit);
    std::copy(null_unit.begin(), null_unit.end(), file.begin() + static_cast<std::ptrdiff_t>(at));
  }
  if ((data[1] & 0x10) != 0)
    file.resize(file.size() - std::min(file.size(), size_t{data[3]} % 64 + 1));
  return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  const int32_t units[] = {188, 192, 204};
  const int32_t unit = units[(data[0] & 3) % 3];
  const bool crafted = (data[0] & 4) != 0;
  const Bytes bytes = crafted ? Crafted(data, size, unit) : Bytes(data + 1, data + size);
  // A file read with another unit size than it was written with.
  const int32_t read_unit =
      crafted && (data[1] & 4) != 0 ? units[((data[0] & 3) % 3 + 1) % 3] : unit;
  marquel::FileHandle f = fuzzblock::FreshFile("mq_ts_packets_fuzzer", "media", bytes);
  if (f == marquel::kInvalidFileHandle) return 0;
  marquel::MQTsInfo info;
  std::vector<marquel::InFileProgram> programs;
  if (marquel::FindTsInFileData(f, read_unit, 0, 0, &info, &programs)) {
    for (const marquel::InFileProgram& p : programs) {
      marquel::MQOneProgram program(0);
      if (marquel::ReadBlockFromTransportStream(program, f, read_unit, p.start, p.data_pid, 0) == 1)
        marquel::LoadProgramBlock(program, nullptr, nullptr, 1 << 16);
    }
  }
  marquel::CloseFileHandle(f);
  return 0;
}
