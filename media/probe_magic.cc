// The magic-number probe: containers and raw video streams that are told apart by the
// first bytes of the file (Matroska/WebM, FLV, the MPEG-4 family, Ogg, H.264, HEVC,
// MPEG-1/2 and MPEG-4 part 2 video). It runs after every older step of detection, so a
// file that had a code before keeps it.
#include <cstring>
#include <string_view>

#include "media/file_type.h"

namespace marquel {
namespace {

// Enough for any EBML header a muxer writes; a longer one is not looked into.
constexpr uint32_t kMagicBytes = 256;

struct Head {
  uint8_t bytes[kMagicBytes] = {};
  size_t size = 0;

  bool StartsWith(const char* text, size_t n) const {
    return size >= n && std::memcmp(bytes, text, n) == 0;
  }
  uint32_t Be32(size_t at) const {
    return (uint32_t{bytes[at]} << 24) | (uint32_t{bytes[at + 1]} << 16) |
           (uint32_t{bytes[at + 2]} << 8) | bytes[at + 3];
  }
};

// An EBML variable-length number at `at`: its length (1-8) and value, the length marker
// removed when `strip` (sizes) and kept otherwise (element ids). False past the end or
// for a first byte of 0.
bool ReadVint(const Head& h, size_t at, bool strip, size_t* length, uint64_t* value) {
  if (at >= h.size || h.bytes[at] == 0) return false;
  const uint8_t first = h.bytes[at];
  size_t n = 1;
  while ((first & (0x80 >> (n - 1))) == 0) ++n;
  if (at + n > h.size) return false;
  uint64_t v = strip ? (first & (0xFF >> n)) : first;
  for (size_t i = 1; i < n; ++i) v = (v << 8) | h.bytes[at + i];
  *length = n;
  *value = v;
  return true;
}

// The EBML header's DocType decides: "webm" is WebM; "matroska", or no DocType (its
// default), is Matroska; any other document type is not a video container we know.
uint32_t ProbeEbml(const Head& h) {
  if (!h.StartsWith("\x1A\x45\xDF\xA3", 4)) return MQ_FORMAT_NONE;
  size_t n = 0;
  uint64_t header_size = 0;
  if (!ReadVint(h, 4, true, &n, &header_size)) return MQ_FORMAT_NONE;
  const size_t begin = 4 + n;
  if (header_size > h.size - begin) return MQ_FORMAT_NONE;
  const size_t end = begin + static_cast<size_t>(header_size);
  for (size_t at = begin; at < end;) {
    uint64_t id = 0;
    uint64_t size = 0;
    size_t id_length = 0;
    size_t size_length = 0;
    if (!ReadVint(h, at, false, &id_length, &id)) return MQ_FORMAT_NONE;
    if (!ReadVint(h, at + id_length, true, &size_length, &size)) return MQ_FORMAT_NONE;
    at += id_length + size_length;
    if (size > end - at) return MQ_FORMAT_NONE;
    if (id == 0x4282) {
      std::string_view type(reinterpret_cast<const char*>(h.bytes + at), size);
      type = type.substr(0, type.find('\0'));
      if (type == "webm") return MQ_FORMAT_WEBM;
      return type == "matroska" ? MQ_FORMAT_MKV : MQ_FORMAT_NONE;
    }
    at += static_cast<size_t>(size);
  }
  return MQ_FORMAT_MKV;
}

// "FLV", version 1, flags with only the audio and video bits, a header of 9 bytes or more.
uint32_t ProbeFlv(const Head& h) {
  if (h.size < 9 || !h.StartsWith("FLV\x01", 4)) return MQ_FORMAT_NONE;
  if ((h.bytes[4] & 0xFA) != 0 || h.Be32(5) < 9) return MQ_FORMAT_NONE;
  return MQ_FORMAT_FLV;
}

// The MPEG-4 family: a first box "ftyp" (3GPP and 3GPP2 by their major brand), or a
// QuickTime file without one, which starts with one of its top-level atoms.
uint32_t ProbeIsoMedia(const Head& h) {
  if (h.size < 12 || h.Be32(0) < 8) return MQ_FORMAT_NONE;
  const char* type = reinterpret_cast<const char*>(h.bytes + 4);
  if (std::memcmp(type, "ftyp", 4) == 0) {
    if (h.Be32(0) < 16) return MQ_FORMAT_NONE;
    const char* brand = reinterpret_cast<const char*>(h.bytes + 8);
    const bool third_generation =
        std::memcmp(brand, "3gp", 3) == 0 || std::memcmp(brand, "3g2", 3) == 0;
    return third_generation ? MQ_FORMAT_3GP : MQ_FORMAT_ISOBMFF;
  }
  for (const char* atom : {"moov", "mdat", "wide", "pnot"}) {
    if (std::memcmp(type, atom, 4) == 0) return MQ_FORMAT_ISOBMFF;
  }
  return MQ_FORMAT_NONE;
}

// An Ogg page: "OggS", stream structure version 0, the first page flagged as a beginning.
uint32_t ProbeOgg(const Head& h) {
  if (h.size < 27 || !h.StartsWith("OggS\0", 5)) return MQ_FORMAT_NONE;
  return (h.bytes[5] & 0x02) != 0 ? MQ_FORMAT_OGG : MQ_FORMAT_NONE;
}

// Raw video: a start code at the very first byte (00 00 01, or 00 00 00 01 for the NAL
// unit streams), and then a unit that only that kind of stream begins with.
uint32_t ProbeElementaryStream(const Head& h) {
  size_t at = 0;
  if (h.StartsWith("\0\0\0\x01", 4)) {
    at = 4;
  } else if (h.StartsWith("\0\0\x01", 3)) {
    at = 3;
  } else {
    return MQ_FORMAT_NONE;
  }
  if (at + 2 > h.size) return MQ_FORMAT_NONE;
  const uint8_t b0 = h.bytes[at];
  const uint8_t b1 = h.bytes[at + 1];
  if (at == 3) {
    // 00 00 01 B3: an MPEG-1/2 sequence header; B0: an MPEG-4 visual object sequence;
    // 00-1F and then 00 00 01 20-2F: an MPEG-4 video object and its object layer.
    if (b0 == 0xB3) return MQ_FORMAT_MPEGVIDEO;
    if (b0 == 0xB0) return MQ_FORMAT_MPEG4VIDEO;
    if (b0 <= 0x1F && h.size >= 8 && std::memcmp(h.bytes + 4, "\0\0\x01", 3) == 0 &&
        (h.bytes[7] & 0xF0) == 0x20) {
      return MQ_FORMAT_MPEG4VIDEO;
    }
  }
  // H.264: a sequence parameter set (type 7), an access unit delimiter (type 9), or
  // SEI (type 6, which never has a reference index).
  const uint8_t avc_type = b0 & 0x1F;
  if ((b0 & 0x80) == 0 && (avc_type == 7 || avc_type == 9 || b0 == 0x06)) {
    return MQ_FORMAT_H264;
  }
  // HEVC: a two-byte header with layer 0 and a temporal id of 1 or more, of a video,
  // sequence or picture parameter set, an access unit delimiter or a prefix SEI.
  const uint8_t hevc_type = (b0 >> 1) & 0x3F;
  if ((b0 & 0x81) == 0 && (b1 & 0xF8) == 0 && (b1 & 0x07) != 0 &&
      ((hevc_type >= 32 && hevc_type <= 35) || hevc_type == 39)) {
    return MQ_FORMAT_HEVC;
  }
  return MQ_FORMAT_NONE;
}

}  // namespace

uint32_t ProbeMagicNumbers(ProbeSource& source) {
  Head h;
  if (source.Seek(0) != 0) return MQ_FORMAT_NONE;
  const int64_t n = source.Read(h.bytes, kMagicBytes);
  if (n <= 0) return MQ_FORMAT_NONE;
  h.size = static_cast<size_t>(n);
  for (uint32_t (*probe)(const Head&) :
       {ProbeEbml, ProbeFlv, ProbeIsoMedia, ProbeOgg, ProbeElementaryStream}) {
    const uint32_t code = probe(h);
    if (code != MQ_FORMAT_NONE) return code;
  }
  return MQ_FORMAT_NONE;
}

}  // namespace marquel
