// File type detection: classifies a media file into one of the format codes below, and
// finds the packet layout of a transport stream.
//
// Detection looks at the content first (RIFF AVI header, transport-stream sync bytes,
// MPEG pack header) and falls back on the file name's extension for the formats whose
// content is not examined. A file that none of these steps recognises is then tried
// against the magic numbers of the newer containers and raw video streams (codes 17 and
// up), so every file that had a code before they were added keeps it. Detection never
// reports an error of its own: every failed or short read is a negative answer of the
// probe that made it, and detection goes on.
#pragma once

#include <cstdint>
#include <string>

#include "media/probe_source.h"
#include "platform/files.h"

namespace marquel {

// Format codes; GetFormatName() gives the name of each.
constexpr uint32_t MQ_FORMAT_NONE = 0;    // not recognised
constexpr uint32_t MQ_FORMAT_MPEG1 = 1;   // MPEG-1 system stream
constexpr uint32_t MQ_FORMAT_MPEG2 = 2;   // MPEG-2 program stream
constexpr uint32_t MQ_FORMAT_VCD = 3;     // MPEG-1 with the Video CD mux rate
constexpr uint32_t MQ_FORMAT_SVCD = 4;    // MPEG-2 in 2324-byte packs, SVCD picture sizes
constexpr uint32_t MQ_FORMAT_MPEG4 = 5;   // ".mp4", or MPEG-4 visual inside packs
constexpr uint32_t MQ_FORMAT_VOB = 6;     // DVD-Video (navigation pack present)
constexpr uint32_t MQ_FORMAT_VRO = 7;     // DVD video recording (RDI pack present)
constexpr uint32_t MQ_FORMAT_AVI = 8;     // RIFF AVI
constexpr uint32_t MQ_FORMAT_DV = 9;      // named only; detection never answers it
constexpr uint32_t MQ_FORMAT_TS = 10;     // transport stream, 188/192/204-byte packets
constexpr uint32_t MQ_FORMAT_DVRMS = 11;  // ".dvr-ms"
constexpr uint32_t MQ_FORMAT_WMV = 12;    // ".wmv"
constexpr uint32_t MQ_FORMAT_ASF = 13;    // ".asf"
constexpr uint32_t MQ_FORMAT_MOV = 14;    // ".mov"
constexpr uint32_t MQ_FORMAT_MTS = 15;    // ".mts", ".m2ts", ".tod", ".mod"
constexpr uint32_t MQ_FORMAT_TIVO = 16;   // ".tivo"
// Recognised by their first bytes when no step above answers.
constexpr uint32_t MQ_FORMAT_MKV = 17;         // EBML header, DocType "matroska" (or none)
constexpr uint32_t MQ_FORMAT_WEBM = 18;        // EBML header, DocType "webm"
constexpr uint32_t MQ_FORMAT_FLV = 19;         // "FLV" version 1
constexpr uint32_t MQ_FORMAT_ISOBMFF = 20;     // "ftyp" box (MP4, M4V, QuickTime ...), or
                                               // a QuickTime file led by moov/mdat/wide/pnot
constexpr uint32_t MQ_FORMAT_3GP = 21;         // "ftyp" box with a 3gp*/3g2* major brand
constexpr uint32_t MQ_FORMAT_OGG = 22;         // "OggS" beginning-of-stream page
constexpr uint32_t MQ_FORMAT_H264 = 23;        // raw H.264 (Annex B), SPS/AUD/SEI first
constexpr uint32_t MQ_FORMAT_HEVC = 24;        // raw HEVC (Annex B), VPS/SPS/PPS/AUD/SEI first
constexpr uint32_t MQ_FORMAT_MPEGVIDEO = 25;   // raw MPEG-1/2 video, sequence header first
constexpr uint32_t MQ_FORMAT_MPEG4VIDEO = 26;  // raw MPEG-4 part 2 video
constexpr uint32_t kFormatCount = 27;

// Transport-stream layout found by detection.
struct TsLayout {
  uint32_t packet_size = 0;          // 188, 192 or 204
  uint32_t first_packet_offset = 0;  // where the first whole packet unit begins
};

// The name of a format code ("MQ_FORMAT_NONE" ... "MQ_FORMAT_MPEG4VIDEO"); "MQ_FORMAT_NONE"
// for a code out of range.
const char* GetFormatName(uint32_t code);

// True exactly for the formats whose tags live in the other-formats cache: the codes
// recognised by extension plus MPEG-4 (5, 11 to 16), and every code from 17 up.
bool IsOtherFormat(uint32_t code);

// True for the codes from 17 up, which files had as 0 before they were recognised.
bool IsMagicNumberFormat(uint32_t code);

// The extension of a file name as a path splitter gives it: the last component's text
// from its last period on, period included ("" when there is none). Both "/" and "\"
// separate components.
std::string FileNameExtension(const std::string& name);

// Classifies the file open on `source` (or `handle`) whose narrow name is `name`. When
// the transport-stream probe runs, its packet size and offset (0 and 0 when it finds
// nothing) are written to *layout (which may be null). Leaves the read position wherever
// the last probe left it.
uint32_t DetectFileType(TsLayout* layout, ProbeSource& source, const std::string& name);
uint32_t DetectFileType(TsLayout* layout, FileHandle handle, const std::string& name);

// RIFF at 0 and "avih" at 24: MQ_FORMAT_AVI, else 0. Leaves the position at 0.
uint32_t ProbeAviFile(ProbeSource& source);
uint32_t ProbeAviFile(FileHandle handle);

// Six sync bytes 0x47 in a row at steps of 188, 192 or 204 within the first 512,000
// bytes: MQ_FORMAT_TS, else 0. Either out-argument may be null; both are set to 0 first.
uint32_t ProbeTransportStream(ProbeSource& source, uint32_t* packet_size,
                              uint32_t* first_packet_offset);
uint32_t ProbeTransportStream(FileHandle handle, uint32_t* packet_size,
                              uint32_t* first_packet_offset);
// The same scan over bytes already read.
uint32_t ProbeTransportStreamBuffer(const uint8_t* data, size_t size, uint32_t* packet_size,
                                    uint32_t* first_packet_offset);

// A pack start code at the first start-code prefix of the first 2048 bytes, then the
// MPEG-1 check (MQ_FORMAT_MPEG1 or MQ_FORMAT_VCD) or the MPEG-2 check (MQ_FORMAT_SVCD,
// MPEG4, VOB, VRO, MPEG2, or 0). 0 when there is no pack start code.
uint32_t ProbeProgramStream(ProbeSource& source);
uint32_t ProbeProgramStream(FileHandle handle);

// The first 256 bytes against the magic numbers of codes 17 to 26: the code found, or 0.
uint32_t ProbeMagicNumbers(ProbeSource& source);

}  // namespace marquel
