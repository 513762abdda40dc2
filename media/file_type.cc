// Format names, the extension rules and the order of the probes.
#include "media/file_type.h"

#include <strings.h>

#include <initializer_list>

namespace marquel {
namespace {

constexpr const char* kFormatNames[kFormatCount] = {
    "MQ_FORMAT_NONE",    "MQ_FORMAT_MPEG1",     "MQ_FORMAT_MPEG2",     "MQ_FORMAT_VCD",
    "MQ_FORMAT_SVCD",    "MQ_FORMAT_MPEG4",     "MQ_FORMAT_VOB",       "MQ_FORMAT_VRO",
    "MQ_FORMAT_AVI",     "MQ_FORMAT_DV",        "MQ_FORMAT_TS",        "MQ_FORMAT_DVRMS",
    "MQ_FORMAT_WMV",     "MQ_FORMAT_ASF",       "MQ_FORMAT_MOV",       "MQ_FORMAT_MTS",
    "MQ_FORMAT_TIVO",    "MQ_FORMAT_MKV",       "MQ_FORMAT_WEBM",      "MQ_FORMAT_FLV",
    "MQ_FORMAT_ISOBMFF", "MQ_FORMAT_3GP",       "MQ_FORMAT_OGG",       "MQ_FORMAT_H264",
    "MQ_FORMAT_HEVC",    "MQ_FORMAT_MPEGVIDEO", "MQ_FORMAT_MPEG4VIDEO"};

bool ExtensionIs(const std::string& extension, std::initializer_list<const char*> names) {
  for (const char* name : names) {
    if (strcasecmp(extension.c_str(), name) == 0) return true;
  }
  return false;
}

// Step 5 of detection: the formats known by their extension alone, in this order.
uint32_t FormatByExtension(const std::string& extension) {
  if (ExtensionIs(extension, {".dvr-ms"})) return MQ_FORMAT_DVRMS;
  if (ExtensionIs(extension, {".mp4"})) return MQ_FORMAT_MPEG4;
  if (ExtensionIs(extension, {".wmv"})) return MQ_FORMAT_WMV;
  if (ExtensionIs(extension, {".asf"})) return MQ_FORMAT_ASF;
  if (ExtensionIs(extension, {".mov"})) return MQ_FORMAT_MOV;
  if (ExtensionIs(extension, {".tivo"})) return MQ_FORMAT_TIVO;
  return MQ_FORMAT_NONE;
}

uint32_t DetectByContentAndName(TsLayout* layout, ProbeSource& source,
                                const std::string& extension) {
  if (ProbeAviFile(source) == MQ_FORMAT_AVI) return MQ_FORMAT_AVI;
  // Camcorder and Blu-ray names are decided before the content probes, so such a file
  // is never classed as a plain transport stream even when its packets are valid.
  if (ExtensionIs(extension, {".mts", ".m2ts", ".tod", ".mod"})) return MQ_FORMAT_MTS;
  uint32_t packet_size = 0;
  uint32_t offset = 0;
  const uint32_t ts = ProbeTransportStream(source, &packet_size, &offset);
  if (layout != nullptr) {
    layout->packet_size = packet_size;
    layout->first_packet_offset = offset;
  }
  if (ts != MQ_FORMAT_NONE) return ts;
  const uint32_t ps = ProbeProgramStream(source);
  if (ps != MQ_FORMAT_NONE) return ps;
  const uint32_t named = FormatByExtension(extension);
  if (named != MQ_FORMAT_NONE) return named;
  return ProbeMagicNumbers(source);
}

}  // namespace

const char* GetFormatName(uint32_t code) {
  return code < kFormatCount ? kFormatNames[code] : kFormatNames[MQ_FORMAT_NONE];
}

bool IsOtherFormat(uint32_t code) {
  switch (code) {
    case MQ_FORMAT_MPEG4:
    case MQ_FORMAT_DVRMS:
    case MQ_FORMAT_WMV:
    case MQ_FORMAT_ASF:
    case MQ_FORMAT_MOV:
    case MQ_FORMAT_MTS:
    case MQ_FORMAT_TIVO:
      return true;
    default:
      return IsMagicNumberFormat(code);
  }
}

bool IsMagicNumberFormat(uint32_t code) {
  return code >= MQ_FORMAT_MKV && code < kFormatCount;
}

std::string FileNameExtension(const std::string& name) {
  const size_t slash = name.find_last_of("/\\");
  const size_t component = slash == std::string::npos ? 0 : slash + 1;
  const size_t dot = name.find_last_of('.');
  if (dot == std::string::npos || dot < component) return "";
  return name.substr(dot);
}

uint32_t DetectFileType(TsLayout* layout, ProbeSource& source, const std::string& name) {
  const std::string extension = FileNameExtension(name);
  uint32_t code = DetectByContentAndName(layout, source, extension);
  // DVD material named as a plain MPEG file is handled as an MPEG-2 program stream.
  if ((code == MQ_FORMAT_VOB || code == MQ_FORMAT_VRO) &&
      ExtensionIs(extension, {".mpg", ".mpeg"})) {
    code = MQ_FORMAT_MPEG2;
  }
  return code;
}

uint32_t DetectFileType(TsLayout* layout, FileHandle handle, const std::string& name) {
  FileProbeSource source(handle);
  return DetectFileType(layout, source, name);
}

}  // namespace marquel
