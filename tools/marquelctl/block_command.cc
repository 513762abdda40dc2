// marquelctl block dump: the tags of a stored data block, as text or JSON.
//
//   block dump FILE [--json]
//
// FILE holds a block in its stored form (header, tag-id, length and data streams): a
// cache file, or a block cut out of a media file; bytes after the block are ignored.
// Every CRC is checked. Text output lists each tag with its samples, one "time value"
// line each; --json prints {"tags":{"<tag id>":[[time, value], ...]}} with raw samples
// as lowercase hex strings. Exit 0 for a clean block; 1 for a rejected block (the reason
// on standard error), a missing file or one that cannot be read; 2 for a wrong command
// line.
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "command.h"
#include "platform/files.h"
#include "tags/block_format.h"
#include "tags/block_reader.h"

namespace marquel::ctl {
namespace {

struct BlockDumpArgs {
  std::string file;
  bool json = false;
};

std::string Hex(const uint8_t* bytes, int32_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(static_cast<size_t>(n) * 2);
  for (int32_t i = 0; i < n; ++i) {
    out.push_back(kDigits[bytes[i] >> 4]);
    out.push_back(kDigits[bytes[i] & 15]);
  }
  return out;
}

void PrintJson(const BlockContent& c) {
  nlohmann::ordered_json tags = nlohmann::ordered_json::object();
  for (int32_t id = 0; id < kTagIdCount; ++id) {
    const BlockTagSamples& t = c.tags[id];
    if (!t.present) continue;
    nlohmann::ordered_json samples = nlohmann::ordered_json::array();
    for (size_t i = 0; i < t.size(); ++i) {
      if (t.raw)
        samples.push_back({t.times[i], Hex(t.RawData(i), t.values[i])});
      else
        samples.push_back({t.times[i], t.values[i]});
    }
    tags[std::to_string(id)] = std::move(samples);
  }
  nlohmann::ordered_json out;
  out["tags"] = std::move(tags);
  std::cout << out.dump() << "\n";
}

void PrintText(const BlockContent& c, const BlockHeader& h, size_t size) {
  std::cout << "block " << size << " bytes: header 26, tag ids " << h.tag_id_size << ", lengths "
            << h.length_size << ", data " << h.data_size << "\n";
  for (int32_t id = 0; id < kTagIdCount; ++id) {
    const BlockTagSamples& t = c.tags[id];
    if (!t.present) continue;
    std::cout << "tag " << id << " type " << kTagDefinitions[id].nType << " bits "
              << kTagDefinitions[id].nBits;
    if (t.interval_set) std::cout << " interval " << t.interval;
    std::cout << ": " << t.size() << (t.size() == 1 ? " sample" : " samples") << "\n";
    for (size_t i = 0; i < t.size(); ++i) {
      std::cout << "  " << t.times[i] << " ";
      if (t.raw)
        std::cout << Hex(t.RawData(i), t.values[i]) << "\n";
      else
        std::cout << t.values[i] << "\n";
    }
  }
}

int RunBlockDump(const BlockDumpArgs& args) {
  const std::string prefix = "marquelctl block dump: " + args.file + ": ";
  if (!FileExists(args.file)) {
    std::cerr << prefix << "no such file\n";
    return kExitNotFound;
  }
  std::ifstream in(args.file, std::ios::binary);
  if (!in) {
    std::cerr << prefix << "cannot be read\n";
    return kExitRefused;
  }
  const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                   std::istreambuf_iterator<char>());
  auto content = std::make_unique<BlockContent>();
  BlockRejection why = BlockRejection::kNone;
  BlockReadStats stats;
  size_t used = 0;
  if (DecodeBlockBytes(bytes.data(), bytes.size(), BlockReadOptions(), content.get(), &why, &stats,
                       &used) != 1) {
    std::cerr << prefix << "rejected: " << BlockRejectionText(why) << "\n";
    return kExitNotFound;
  }
  if (used < bytes.size())
    std::cerr << prefix << (bytes.size() - used) << " bytes after the block ignored\n";
  if (stats.dropped_samples > 0)
    std::cerr << prefix << stats.dropped_samples << " samples out of time order left out\n";
  if (stats.fill_truncated) std::cerr << prefix << "state runs cut at their fill bound\n";
  if (args.json)
    PrintJson(*content);
  else
    PrintText(*content, ParseBlockHeader(bytes.data()), used);
  return kExitOk;
}

}  // namespace

void AddBlockCommand(CLI::App& app, Action& run) {
  CLI::App* block = app.add_subcommand("block", "inspect stored data blocks");
  block->require_subcommand(1);
  auto args = std::make_shared<BlockDumpArgs>();
  CLI::App* dump = block->add_subcommand("dump", "print the tags of a cache file or block");
  dump->add_option("FILE", args->file, "cache file or block")->required();
  dump->add_flag("--json", args->json, "print one JSON object");
  dump->callback([&run, args] { run = [args] { return RunBlockDump(*args); }; });
}

}  // namespace marquel::ctl
