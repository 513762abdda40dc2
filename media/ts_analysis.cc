// The analysis text of CTSSysDec: the file it goes to and the packet, adaptation-field,
// descriptor and PES lines. Every reader stays inside the bytes it was handed.
#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>

#include "media/ts_decoder.h"

namespace marquel {

namespace {

constexpr int32_t kTsPacketSize = 188;
constexpr uint32_t kSitPid = 0x1F;
constexpr uint32_t kNullPidFloor = 8190;
// Program clock references count 27 MHz ticks.
constexpr double kClockTicksPerMs = 27000.0;

// A PCR or OPCR field: 33-bit base at 90 kHz times 300 plus the 9-bit extension.
uint64_t ClockReference(const uint8_t* p) {
  const uint64_t base = (uint64_t{p[0]} << 25) | (uint64_t{p[1]} << 17) | (uint64_t{p[2]} << 9) |
                        (uint64_t{p[3]} << 1) | (p[4] >> 7);
  const uint64_t extension = ((p[4] & 1u) << 8) | p[5];
  return base * 300 + extension;
}

// A PTS or DTS field: 33 bits spread over 5 bytes with marker bits.
int64_t Timestamp(const uint8_t* p) {
  return (int64_t{(p[0] >> 1) & 0x07} << 30) | (int64_t{p[1]} << 22) | (int64_t{p[2] >> 1} << 15) |
         (int64_t{p[3]} << 7) | (p[4] >> 1);
}

const char* StartCodeName(uint8_t code) {
  switch (code) {
    case 0x00:
      return "picture_start_code";
    case 0xB3:
      return "sequence_header";
    case 0xB5:
      return "extension_start_code";
    case 0xB7:
      return "sequence_end_code";
    case 0xB8:
      return "group_start_code";
    default:
      return nullptr;  // slices and the rest are not listed
  }
}

}  // namespace

int32_t CTSSysDec::SetAnalysis(int32_t on, const char* fileName) {
  CloseAnalysis();
  analysis_ = on != 0;
  if (!analysis_ || fileName == nullptr || fileName[0] == '\0') return 1;
  analysis_file_ =
      OpenFileHandle(fileName, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                     CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, kInvalidFileHandle);
  if (analysis_file_ == kInvalidFileHandle) return -1;
  analysis_name_ = fileName;
  return 1;
}

void CTSSysDec::CloseAnalysis() {
  if (analysis_file_ != kInvalidFileHandle) CloseFileHandle(analysis_file_);
  analysis_file_ = kInvalidFileHandle;
}

int32_t CTSSysDec::Print(const char* format, ...) {
  if (analysis_file_ == kInvalidFileHandle || format == nullptr) return 0;
  char text[kTsPrintBufferSize];
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  if (n <= 0) return 0;
  const uint32_t size = static_cast<uint32_t>(std::min(n, kTsPrintBufferSize - 1));
  uint32_t written = 0;
  WriteFile(analysis_file_, text, size, &written);
  return static_cast<int32_t>(written);
}

void CTSSysDec::PrintPacketHeader(const uint8_t* packet) {
  const uint32_t pid = ((packet[1] & 0x1F) << 8) | packet[2];
  Print("Packet #%d, e=%d, si=%d, p=%d, PID=0x%x, scramble=%d, adaption=%d, cc=%d\r\n",
        static_cast<int32_t>(packet_count_), packet[1] >> 7, (packet[1] >> 6) & 1,
        (packet[1] >> 5) & 1, pid, packet[3] >> 6, (packet[3] >> 4) & 0x3, packet[3] & 0x0F);
  if (pid == 0) {
    Print("PAT :");
  } else if (pid == 1) {
    Print("CAT\t:");
  } else if (pid == kSitPid) {
    Print("SIT :");
  } else if (pid > kNullPidFloor) {
    Print("NULL Packet :");
  }
}

// The field's optional parts are printed only while they lie inside the field as its
// length byte gives it, and the field only as far as the packet reaches.
void CTSSysDec::PrintAdaptation(const uint8_t* packet) {
  const int32_t declared = packet[4];
  Print("afl = %d,", declared);
  const uint8_t* field = packet + 5;
  const int32_t length = std::min(declared, kTsPacketSize - 5);
  if (length < 1) return;
  const uint8_t flags = field[0];
  int32_t p = 1;
  if ((flags & 0x10) && p + 6 <= length) {
    Print("PCR = %10.5f msec,", static_cast<double>(ClockReference(field + p)) / kClockTicksPerMs);
    p += 6;
  }
  if ((flags & 0x08) && p + 6 <= length) {
    Print("OPCR = %10.5f msec,", static_cast<double>(ClockReference(field + p)) / kClockTicksPerMs);
    p += 6;
  }
  if ((flags & 0x04) && p + 1 <= length) {
    Print("splice_countdown = %d,", static_cast<int8_t>(field[p]));
    p += 1;
  }
  if ((flags & 0x02) && p + 1 <= length) {
    Print("private data length = %d,", field[p]);
    p += 1 + field[p];
  }
  if ((flags & 0x01) && p + 1 <= length) {
    Print("adaption field extension length %d,", field[p]);
  }
}

// Descriptors are printed, never kept. Video and audio stream descriptors (tags 2, 3)
// are spelt out, as are the component tag, DTCP, digital-copy and content-availability
// descriptors that ARIB broadcasts carry; any other tag prints its number only.
void CTSSysDec::PrintDescriptors(const uint8_t* p, int32_t length) {
  for (int32_t at = 0; at + 2 <= length;) {
    const uint8_t tag = p[at];
    const int32_t dl = p[at + 1];
    const uint8_t* d = p + at + 2;
    const int32_t have = std::min(dl, length - at - 2);  // bytes of it inside the section
    if (tag == 2 && have >= 1) {
      const int32_t mpeg1_only = (d[0] >> 2) & 1;
      Print("DI=2, DL=%d, MF=%d, FR=0x%x, M1O=%d, Cons=%d, SP=%d\r\n", dl, d[0] >> 7,
            (d[0] >> 3) & 0x0F, mpeg1_only, (d[0] >> 1) & 1, d[0] & 1);
      if (!mpeg1_only && have >= 3) {
        Print("PL=%d, CF=%d, FRE=%d\r\n", d[1], d[2] >> 6, (d[2] >> 5) & 1);
      }
    } else if (tag == 3 && have >= 1) {
      Print("DI=3, DL=%d, Free=%d, ID=%d, Layer=%d, VB=%d\r\n", dl, d[0] >> 7, (d[0] >> 6) & 1,
            (d[0] >> 4) & 0x3, (d[0] >> 3) & 1);
    } else {
      Print("DI=%d\r\n", tag);
      if (tag == 0x52 && have >= 1) {
        Print("ComponentTag 0x%x\r\n", d[0]);
      } else if (tag == 0x88 && have >= 3) {
        Print("DTCPDescriptor %d, CCI %d\r\n", (d[0] << 8) | d[1], d[2] & 0x3);
      } else if (tag == 0xC1 && have >= 1) {
        Print("DigitalCopy DRC=%d, MBF=%d, CCF=%d\r\n", d[0] >> 6, (d[0] >> 5) & 1,
              (d[0] >> 4) & 1);
      } else if (tag == 0xDE && have >= 1) {
        Print("ContentAvailability CRM=%d, IEM=%d, RM=%d\r\n", (d[0] >> 5) & 1, (d[0] >> 4) & 1,
              (d[0] >> 1) & 0x7);
      }
    }
    at += 2 + dl;
  }
}

// An MPEG-2 video packet: its PES header when one starts here, then the start codes of
// the elementary data with their byte index in the packet.
void CTSSysDec::PrintVideo(const uint8_t* packet, int32_t start) {
  const uint8_t* pes = packet + start;
  const int32_t size = kTsPacketSize - start;
  int32_t data = start;
  if ((packet[1] & 0x40) && size >= 9 && pes[0] == 0 && pes[1] == 0 && pes[2] == 1) {
    const int32_t header_length = pes[8];
    data = std::min(start + 9 + header_length, kTsPacketSize);
    Print("StreamID=0x%x, PL=%d, nIndex %d\r\n", pes[3], (pes[4] << 8) | pes[5], data);
    const int32_t flags = pes[7];
    int32_t p = 9;
    const int32_t end = std::min(9 + header_length, size);
    if ((flags & 0xC0) == 0x80 && p + 5 <= end) {
      Print("PTS=%" PRId64 "\r\n", Timestamp(pes + p));
      p += 5;
    } else if ((flags & 0xC0) == 0xC0 && p + 10 <= end) {
      Print("PTS=%" PRId64 ", DTS=%" PRId64 "\r\n", Timestamp(pes + p), Timestamp(pes + p + 5));
      p += 10;
    }
    if (flags & 0x20) p += 6;  // ESCR
    if ((flags & 0x10) && p + 3 <= end) {
      const int32_t rate = ((pes[p] & 0x7F) << 15) | (pes[p + 1] << 7) | (pes[p + 2] >> 1);
      Print("es rate %d bytes /sec\r\n", rate * 50);
    }
  }
  for (int32_t i = data; i + 4 <= kTsPacketSize; ++i) {
    if (packet[i] != 0 || packet[i + 1] != 0 || packet[i + 2] != 1) continue;
    const char* name = StartCodeName(packet[i + 3]);
    if (name != nullptr) Print("%d - %s\r\n", i, name);
    if (packet[i + 3] == 0xB3 && i + 8 <= kTsPacketSize) {
      Print("width %d, height %d, aspect %d, frame rate code %d\r\n",
            (packet[i + 4] << 4) | (packet[i + 5] >> 4),
            ((packet[i + 5] & 0x0F) << 8) | packet[i + 6], packet[i + 7] >> 4,
            packet[i + 7] & 0x0F);
    }
    i += 2;
  }
}

}  // namespace marquel
