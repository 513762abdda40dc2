// marquelctl detect: the format code of a media file, as the server decides it at open.
//
//   detect FILE [--json]
//
// Prints the code and its name, and for a transport stream the packet size and the
// offset of the first packet. Exit 0; 1 when FILE does not exist; 2 for a wrong command
// line. A file that exists but cannot be read is reported as its name decides (code 0
// unless the extension names a format known by name only).
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "command.h"
#include "media/file_type.h"
#include "platform/files.h"

namespace marquel::ctl {
namespace {

struct DetectArgs {
  std::string file;
  bool json = false;
};

int RunDetect(const DetectArgs& args) {
  if (!FileExists(args.file)) {
    std::cerr << "marquelctl detect: " << args.file << ": no such file\n";
    return kExitNotFound;
  }
  const FileHandle h =
      OpenFileHandle(args.file, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                     OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, kInvalidFileHandle);
  TsLayout layout;
  const uint32_t code = DetectFileType(&layout, h, args.file);
  if (h != kInvalidFileHandle) CloseFileHandle(h);
  if (args.json) {
    nlohmann::ordered_json out;
    out["code"] = code;
    out["name"] = GetFormatName(code);
    if (code == MQ_FORMAT_TS) {
      out["packet_size"] = layout.packet_size;
      out["first_packet_offset"] = layout.first_packet_offset;
    }
    std::cout << out.dump() << "\n";
  } else {
    std::cout << code << " " << GetFormatName(code);
    if (code == MQ_FORMAT_TS) {
      std::cout << " packet_size=" << layout.packet_size
                << " first_packet_offset=" << layout.first_packet_offset;
    }
    std::cout << "\n";
  }
  return kExitOk;
}

}  // namespace

void AddDetectCommand(CLI::App& app, Action& run) {
  auto args = std::make_shared<DetectArgs>();
  CLI::App* sub = app.add_subcommand("detect", "print the format code of a media file");
  sub->add_option("FILE", args->file, "media file")->required();
  sub->add_flag("--json", args->json, "print one JSON object");
  sub->callback([&run, args] { run = [args] { return RunDetect(*args); }; });
}

}  // namespace marquel::ctl
