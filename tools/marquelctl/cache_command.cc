// marquelctl cache: the per-user caches of the current user.
//
//   cache list [--kind KIND] [--json]
//   cache show FILE [--kind KIND] [--json]
//   cache delete FILE
//
// list prints one line per entry: kind, id, media file, then each cache file with its
// size in bytes ("-" when it is missing). show decodes the cache files of FILE's entries
// and prints their tags per program, with --json in the form put reads back
// (sample_json.h); errors are then JSON on standard output too. delete removes FILE's cache
// data the way the server does (ForceDeleteCacheData), including the entry of a DVD,
// AVI or other-format file. KIND is VRCache, TSCache, OtherCache, AVICache or TempCache.
// Exit 0; 1 when there is no entry, a cache file is damaged, or the store or a file
// fails; 2 for a wrong command line.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cache_lookup.h"
#include "command.h"
#include "json_output.h"
#include "persist/cache_entry.h"
#include "persist/marquel_one_file.h"
#include "tags/block_reader.h"

namespace marquel::ctl {
namespace {

using Json = nlohmann::ordered_json;

struct CacheArgs {
  std::string file;
  std::string kind;
  bool json = false;
};

// The kinds the command looks at: the one named, or all. False for an unknown name.
bool Kinds(const CacheArgs& args, std::vector<CacheKind>* kinds) {
  if (args.kind.empty()) {
    *kinds = AllCacheKinds();
    return true;
  }
  CacheKind kind;
  if (!CacheKindFromName(args.kind, &kind)) return false;
  kinds->push_back(kind);
  return true;
}

// Reports an error: as before on standard error, or with --json as a JSON error object on
// standard output, as every command does.
int Fail(const CacheArgs& args, const std::string& message, int status) {
  if (args.json) return ReportError(true, message, status);
  std::cerr << "marquelctl " << message << "\n";
  return status;
}

// The cache files of an entry with the PMT PID of each (0 outside transport streams).
std::vector<CacheProgramRecord> Programs(const CacheEntry& e) {
  if (!e.programs.empty()) return e.programs;
  std::vector<CacheProgramRecord> out;
  for (const std::string& f : e.CacheFiles()) out.push_back({f, 0});
  return out;
}

Json EntryJson(const CacheEntry& e) {
  Json j;
  j["kind"] = CacheKindName(e.kind);
  j["file"] = e.MediaPath();
  j["id"] = e.has_id ? Json(e.id) : Json(nullptr);
  Json files = Json::array();
  for (const CacheProgramRecord& p : Programs(e)) {
    FileStatusRecord st;
    bool there = FileStatus(p.cache_path, &st) == 0;
    files.push_back({{"path", p.cache_path},
                     {"size", there ? Json(st.size) : Json(nullptr)},
                     {"pmt_pid", p.pmt_pid}});
  }
  j["cache_files"] = std::move(files);
  return j;
}

void PrintEntryLine(const CacheEntry& e) {
  std::cout << CacheKindName(e.kind) << "\t" << (e.has_id ? std::to_string(e.id) : "-") << "\t"
            << e.MediaPath();
  for (const CacheProgramRecord& p : Programs(e)) {
    FileStatusRecord st;
    bool there = FileStatus(p.cache_path, &st) == 0;
    std::cout << "\t" << p.cache_path << "\t" << (there ? std::to_string(st.size) : "-");
  }
  std::cout << "\n";
}

int RunList(const CacheArgs& args) {
  std::vector<CacheKind> kinds;
  if (!Kinds(args, &kinds)) return Fail(args, "cache list: unknown kind " + args.kind, kExitUsage);
  Json all = Json::array();
  for (CacheKind kind : kinds) {
    for (const CacheEntry& e : ListCacheEntries(kind)) {
      if (args.json)
        all.push_back(EntryJson(e));
      else
        PrintEntryLine(e);
    }
  }
  if (args.json) std::cout << Json{{"entries", all}}.dump() << "\n";
  return kExitOk;
}

// Decodes one cache file; false (reason in *why) when it cannot be read or is rejected.
bool DecodeCacheFile(const std::string& path, BlockContent* content, std::string* why) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *why = "cannot be read";
    return false;
  }
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
  BlockRejection reason = BlockRejection::kNone;
  if (DecodeBlockBytes(bytes.data(), bytes.size(), BlockReadOptions(), content, &reason) != 1) {
    *why = std::string("rejected: ") + BlockRejectionText(reason);
    return false;
  }
  return true;
}

// The tags of a decoded block in the form get and export print and put reads back.
Json TagsJson(const BlockContent& c) {
  Json tags = Json::array();
  for (int32_t id = 0; id < kTagIdCount; ++id) {
    const BlockTagSamples& t = c.tags[id];
    if (!t.present) continue;
    Json samples = Json::array();
    for (size_t i = 0; i < t.size(); ++i) {
      if (t.raw)
        samples.push_back({{"time", t.times[i]}, {"data", Hex(t.RawData(i), t.values[i])}});
      else
        samples.push_back({{"time", t.times[i]}, {"value", t.values[i]}});
    }
    tags.push_back({{"id", id}, {"raw", t.raw}, {"samples", std::move(samples)}});
  }
  return tags;
}

void PrintTags(const Json& tags) {
  for (const Json& tag : tags) {
    const Json& samples = tag["samples"];
    std::cout << "  tag " << tag["id"] << ": " << samples.size()
              << (samples.size() == 1 ? " sample" : " samples") << "\n";
    for (const Json& s : samples)
      std::cout << "    " << s["time"] << " "
                << (s.contains("data") ? s["data"] : s["value"]).dump() << "\n";
  }
}

int RunShow(const CacheArgs& args) {
  std::vector<CacheKind> kinds;
  if (!Kinds(args, &kinds)) return Fail(args, "cache show: unknown kind " + args.kind, kExitUsage);
  const std::string file = Absolute(args.file);
  std::vector<CacheEntry> entries = EntriesOf(file, kinds);
  if (entries.empty()) return Fail(args, "cache show: " + file + ": no cache entry", kExitNotFound);
  int status = kExitOk;
  Json out = Json::array();
  for (const CacheEntry& e : entries) {
    Json j = EntryJson(e);
    if (!args.json) PrintEntryLine(e);
    Json programs = Json::array();
    for (const CacheProgramRecord& p : Programs(e)) {
      auto content = std::make_unique<BlockContent>();
      std::string why;
      Json program = {{"pmt_pid", p.pmt_pid}, {"path", p.cache_path}};
      if (!DecodeCacheFile(p.cache_path, content.get(), &why)) {
        std::cerr << "marquelctl cache show: " << p.cache_path << ": " << why << "\n";
        status = kExitNotFound;
        program["error"] = why;
      } else {
        program["tags"] = TagsJson(*content);
      }
      if (!args.json) {
        std::cout << "program pmt " << p.pmt_pid << " (" << p.cache_path << ")\n";
        if (program.contains("tags")) PrintTags(program["tags"]);
      }
      programs.push_back(std::move(program));
    }
    j["programs"] = std::move(programs);
    out.push_back(std::move(j));
  }
  if (args.json) std::cout << Json{{"entries", out}}.dump() << "\n";
  return status;
}

int RunDelete(const CacheArgs& args) {
  const std::string file = Absolute(args.file);
  std::vector<CacheKind> all;
  Kinds(CacheArgs{}, &all);
  std::vector<CacheEntry> entries = EntriesOf(file, all);
  if (entries.empty()) {
    std::cerr << "marquelctl cache delete: " << file << ": no cache entry\n";
    return kExitNotFound;
  }
  MarquelOneFile session;
  session.SetHandle(MarquelOneFile::kDetachedSessionNumber);
  // The temp and TS entries go by the file's name; any other entry by its key.
  for (const CacheEntry& e : entries) {
    if (e.kind != CacheKind::kTemp && e.kind != CacheKind::kTS)
      session.SetCacheEntryKey(e.KeyPath());
  }
  if (session.ForceDeleteCacheData(file) != 1 || !EntriesOf(file, all).empty()) {
    std::cerr << "marquelctl cache delete: " << file << ": the entry could not be deleted\n";
    return kExitRefused;
  }
  return kExitOk;
}

}  // namespace

void AddCacheCommand(CLI::App& app, Action& run) {
  CLI::App* cache = app.add_subcommand("cache", "list, show and delete the per-user caches");
  cache->require_subcommand(1);
  auto list_args = std::make_shared<CacheArgs>();
  CLI::App* list = cache->add_subcommand("list", "list the cache entries");
  list->add_option("--kind", list_args->kind, "VRCache, TSCache, OtherCache, AVICache, TempCache");
  list->add_flag("--json", list_args->json, "print one JSON object");
  list->callback([&run, list_args] { run = [list_args] { return RunList(*list_args); }; });

  auto show_args = std::make_shared<CacheArgs>();
  CLI::App* show = cache->add_subcommand("show", "print the tags cached for a media file");
  show->add_option("FILE", show_args->file, "media file")->required();
  show->add_option("--kind", show_args->kind, "only this cache kind");
  show->add_flag("--json", show_args->json, "print one JSON object");
  show->callback([&run, show_args] { run = [show_args] { return RunShow(*show_args); }; });

  auto delete_args = std::make_shared<CacheArgs>();
  CLI::App* del = cache->add_subcommand("delete", "delete the cache data of a media file");
  del->add_option("FILE", delete_args->file, "media file")->required();
  del->callback([&run, delete_args] { run = [delete_args] { return RunDelete(*delete_args); }; });
}

}  // namespace marquel::ctl
