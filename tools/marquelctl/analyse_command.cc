// marquelctl analyse: writes the readable analysis of a media file's stream.
//
//   analyse FILE [--out DIR]
//
// The decoder follows the detected format: MPEG-1 system streams and Video CDs go to
// "M1SAna.txt", MPEG-2 program streams (SVCD, DVD and DVD recordings included) to
// "M2SAna.txt", transport streams to "TSAna.txt", each in DIR (default: the current
// folder). An earlier analysis file of that name is replaced. Exit 0; 1 when FILE does
// not exist, the format has no stream analysis or the file cannot be read; 2 for a wrong
// command line.
#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "media/file_type.h"
#include "media/mpeg_system_dec.h"
#include "media/ts_decoder.h"
#include "platform/files.h"

namespace marquel::ctl {
namespace {

constexpr uint32_t kChunk = 65536;

struct AnalyseArgs {
  std::string file;
  std::string out;
};

std::string InFolder(const std::string& folder, const char* name) {
  return folder.empty() ? std::string(name) : folder + "/" + name;
}

// Feeds the file from `offset` to its end through `feed`; false when a read fails.
template <class Feed>
bool FeedFile(FileHandle h, int64_t offset, Feed feed) {
  std::vector<uint8_t> buffer(kChunk);
  if (SeekFile(h, offset, FILE_BEGIN) != offset) return false;
  for (;;) {
    uint32_t got = 0;
    if (!ReadFile(h, buffer.data(), kChunk, &got)) return false;
    if (got == 0) return true;
    feed(buffer.data(), static_cast<int32_t>(got));
  }
}

int AnalyseProgramStream(FileHandle h, bool mpeg1, const std::string& folder) {
  std::unique_ptr<CMpegMuxDec> dec;
  if (mpeg1) {
    dec = std::make_unique<MPEG1SystemDec_c>();
  } else {
    dec = std::make_unique<MPEG2SystemDec_c>();
  }
  const std::string path = InFolder(folder, mpeg1 ? "M1SAna.txt" : "M2SAna.txt");
  RemoveFile(path);
  dec->Reset();
  dec->SetAnalysis(1, folder);
  if (!FeedFile(h, 0, [&](const uint8_t* p, int32_t n) { dec->Feed(p, n); })) {
    std::cerr << "marquelctl analyse: read failed\n";
    return kExitRefused;
  }
  uint64_t base = 0;
  uint32_t ext = 0;
  dec->GetLastClock(&base, &ext);
  std::cout << "wrote " << path << ": " << dec->PackCount() << " packs, " << dec->PacketCount()
            << " packets, last SCR " << base << "/" << ext << ", mux rate " << dec->GetMuxRate()
            << (dec->HasError() ? ", errors" : "") << "\n";
  return kExitOk;
}

int AnalyseTransportStream(FileHandle h, const TsLayout& layout, const std::string& folder) {
  CTSSysDec dec;
  const std::string path = InFolder(folder, "TSAna.txt");
  if (dec.Init(static_cast<int32_t>(layout.packet_size)) != 1 ||
      dec.SetAnalysis(1, path.c_str()) != 1) {
    std::cerr << "marquelctl analyse: cannot write " << path << "\n";
    return kExitRefused;
  }
  // Pieces no larger than the reader's input ring can take at once.
  const bool ok = FeedFile(h, layout.first_packet_offset, [&](const uint8_t* p, int32_t n) {
    for (int32_t at = 0; at < n; at += 4096) dec.Feed(p + at, std::min(4096, n - at));
  });
  if (!ok) {
    std::cerr << "marquelctl analyse: read failed\n";
    return kExitRefused;
  }
  std::cout << "wrote " << path << ": " << dec.packet_count() << " packets, "
            << dec.programs().count() << " programs\n";
  return kExitOk;
}

int RunAnalyse(const AnalyseArgs& args) {
  if (!FileExists(args.file)) {
    std::cerr << "marquelctl analyse: " << args.file << ": no such file\n";
    return kExitNotFound;
  }
  const FileHandle h =
      OpenFileHandle(args.file, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                     OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, kInvalidFileHandle);
  if (h == kInvalidFileHandle) {
    std::cerr << "marquelctl analyse: " << args.file << ": cannot be read\n";
    return kExitRefused;
  }
  TsLayout layout;
  const uint32_t code = DetectFileType(&layout, h, args.file);
  int status = kExitRefused;
  switch (code) {
    case MQ_FORMAT_MPEG1:
    case MQ_FORMAT_VCD:
      status = AnalyseProgramStream(h, true, args.out);
      break;
    case MQ_FORMAT_MPEG2:
    case MQ_FORMAT_SVCD:
    case MQ_FORMAT_VOB:
    case MQ_FORMAT_VRO:
      status = AnalyseProgramStream(h, false, args.out);
      break;
    case MQ_FORMAT_TS:
      status = AnalyseTransportStream(h, layout, args.out);
      break;
    default:
      std::cerr << "marquelctl analyse: " << GetFormatName(code) << " has no stream analysis\n";
  }
  CloseFileHandle(h);
  return status;
}

}  // namespace

void AddAnalyseCommand(CLI::App& app, Action& run) {
  auto args = std::make_shared<AnalyseArgs>();
  CLI::App* sub = app.add_subcommand("analyse", "write the stream analysis of a media file");
  sub->add_option("FILE", args->file, "media file")->required();
  sub->add_option("--out", args->out, "folder for the analysis file (default: current)");
  sub->callback([&run, args] { run = [args] { return RunAnalyse(*args); }; });
}

}  // namespace marquel::ctl
