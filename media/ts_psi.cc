// PAT, PMT and SIT handling of CTSSysDec.
//
// Each table is read from one packet: the section starts behind the pointer field (taken
// as 0) and only the bytes of that packet are looked at. Entries that would lie beyond
// the packet are not read, and the CRC line is printed only for a section that ends
// inside the packet.
#include <algorithm>

#include "media/ts_decoder.h"
#include "platform/crc32.h"

namespace marquel {

namespace {

// Section lengths from this value up cannot belong to a PSI section of at most 1024
// bytes; such sections are reported and ignored.
constexpr int32_t kInvalidSectionLength = 1022;
// A PMT section needs 9 bytes behind the length field and 4 of CRC.
constexpr int32_t kMinPmtSectionLength = 13;
constexpr int32_t kPmtTableId = 2;

int32_t SectionLength(const uint8_t* section) {
  return ((section[1] & 0x0F) << 8) | section[2];
}

uint32_t Be32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

}  // namespace

void CTSSysDec::HandlePat(const uint8_t* section, int32_t avail) {
  if (avail < 3) return;
  const int32_t length = SectionLength(section);
  if (analysis_ && avail >= 8) {
    Print("TI=%d, SI=%d, SL=%d, TI=0x%x, V=%d, NI=%d, SN=%d, LSN=%d\r\n", section[0],
          section[1] >> 7, length, (section[3] << 8) | section[4], (section[5] >> 1) & 0x1F,
          section[5] & 1, section[6], section[7]);
  }
  if (length >= kInvalidSectionLength) {
    if (analysis_) Print("Invalid sec length\r\n");
    return;
  }
  bool added = false;
  const int32_t entries = (length - 9) / 4;
  for (int32_t i = 0; i < entries && 8 + 4 * i + 4 <= avail; ++i) {
    const uint8_t* entry = section + 8 + 4 * i;
    const int32_t number = (entry[0] << 8) | entry[1];
    const uint32_t pid = ((entry[2] & 0x1F) << 8) | entry[3];
    if (number == 0) {
      if (analysis_) Print("PN=%d, NetPID=0x%x\r\n", number, pid);
    } else if (programs_.FindPmt(pid) < 0) {
      added = programs_.Add(pid) >= 0 || added;
      if (analysis_) Print("PN=%d, PMAPPID=0x%x\r\n", number, pid);
    }
  }
  if (added) RebuildRoles();
  PrintCrc(section, length, avail);
}

void CTSSysDec::HandlePmt(int32_t program, const uint8_t* section, int32_t avail) {
  if (program < 0 || avail < 3 || section[0] != kPmtTableId) return;
  const int32_t length = SectionLength(section);
  if (avail < 12) return;  // not even the fixed header is here
  const int32_t info_length = ((section[10] & 0x0F) << 8) | section[11];
  if (analysis_) {
    Print("TI=%d, SI=%d, SL=%d, PN=%d, V=%d, NI=%d, SN=%d, LSN=%d, PCRPID=0x%x, PIL=%d\r\n",
          section[0], section[1] >> 7, length, (section[3] << 8) | section[4],
          (section[5] >> 1) & 0x1F, section[5] & 1, section[6], section[7],
          ((section[8] & 0x1F) << 8) | section[9], info_length);
  }
  if (length >= kInvalidSectionLength || length < kMinPmtSectionLength) {
    if (analysis_) Print("Invalid sec length\r\n");
    return;
  }
  // The stream loop ends before the CRC, or at the packet's end.
  const int32_t end = std::min(3 + length - 4, avail);
  if (analysis_) PrintDescriptors(section + 12, std::max(0, std::min(info_length, end - 12)));
  TsStream streams[kTsMaxStreams];
  int32_t count = 0;
  for (int32_t p = 12 + info_length; p + 5 <= end;) {
    const int32_t type = section[p];
    const uint32_t pid = ((section[p + 1] & 0x1F) << 8) | section[p + 2];
    const int32_t es_info = ((section[p + 3] & 0x0F) << 8) | section[p + 4];
    if (analysis_) {
      Print("StreamType=0x%x, EPID=0x%x, ESIL=%d\r\n", type, pid, es_info);
      PrintDescriptors(section + p + 5, std::min(es_info, end - (p + 5)));
    }
    if (count < kTsMaxStreams) streams[count++] = TsStream{TsStreamKind(type), pid};
    p += 5 + es_info;
  }
  if (programs_.SetStreams(program, streams, count)) RebuildRoles();
  PrintCrc(section, length, avail);
}

// The selection information table: only printed.
void CTSSysDec::HandleSit(const uint8_t* section, int32_t avail) {
  if (!analysis_ || avail < 10) return;
  const int32_t length = SectionLength(section);
  if (length >= kInvalidSectionLength) {
    Print("Invalid sec length\r\n");
    return;
  }
  const int32_t end = std::min(3 + length - 4, avail);
  const int32_t info_length = ((section[8] & 0x0F) << 8) | section[9];
  int32_t p = 10;
  const int32_t info_end = std::min(p + info_length, end);
  while (p + 2 <= info_end) {
    Print("First loop : tag 0x%x, deslength %d\r\n", section[p], section[p + 1]);
    p += 2 + section[p + 1];
  }
  for (p = 10 + info_length; p + 4 <= end;) {
    const int32_t service_id = (section[p] << 8) | section[p + 1];
    const int32_t running = (section[p + 2] >> 4) & 0x7;
    const int32_t loop_length = ((section[p + 2] & 0x0F) << 8) | section[p + 3];
    Print("SID=0x%x, RS=%d, SLL=%d\r\n", service_id, running, loop_length);
    const int32_t loop_end = std::min(p + 4 + loop_length, end);
    for (int32_t d = p + 4; d + 2 <= loop_end; d += 2 + section[d + 1]) {
      Print("DTag=0x%x, DL=%d\r\n", section[d], section[d + 1]);
    }
    p += 4 + loop_length;
  }
  PrintCrc(section, length, avail);
}

// The stored CRC beside the one computed with the MPEG-2 CRC_32; a mismatch is only
// shown. Needs the whole section, CRC included, inside the packet.
void CTSSysDec::PrintCrc(const uint8_t* section, int32_t length, int32_t avail) {
  if (!analysis_ || length < 4 || 3 + length > avail) return;
  const int32_t covered = 3 + length - 4;
  Print("CRC Code 0x%x, cal one %x\r\n", Be32(section + covered), Crc32Mpeg(section, covered));
}

}  // namespace marquel
