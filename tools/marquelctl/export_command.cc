// marquelctl export: a media file's tags as CSV, JSON or SRT subtitles.
//
//   export FILE --format csv|json|srt [--tag N ...] [-o OUT] [--program N]
//
// The file is opened read-only. JSON is the one form of sample_json.h; CSV has a header
// line "tag,time,value" and times as --time-format says; SRT makes each sample a cue
// ("tag N: VALUE") that lasts until the tag's next sample, at most kCueTicks, so that a
// player shows the tags over the picture. Samples before 0 have no place in SRT and are
// left out. Without -o the text goes to standard output; with -o it replaces OUT only
// once all of it is written.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include "command.h"
#include "file_programs.h"
#include "server_common.h"
#include "time_text.h"

namespace marquel::ctl {
namespace {

// How long a cue without a close next sample stays on screen: two seconds.
constexpr int64_t kCueTicks = 20000000;

struct ExportOptions {
  FileOptions file;
  std::string format;
  std::vector<int32_t> tags;
  std::string out;
};

// The tags of the program, each with its samples, in the one JSON form.
HRESULT CollectTags(IMarquelClient& c, int32_t h, int32_t program, const ExportOptions& o,
                    nlohmann::json* tags) {
  nlohmann::json listed;
  HRESULT hr = ListTags(c, h, program, &listed, false);
  if (hr != S_OK) return hr;
  *tags = nlohmann::json::array();
  for (const auto& t : listed["tags"]) {
    const int32_t id = t["id"].get<int32_t>();
    if (!o.tags.empty() && std::find(o.tags.begin(), o.tags.end(), id) == o.tags.end()) continue;
    const bool raw = t["raw"].get<bool>();
    nlohmann::json got;
    if ((hr = GetSamples(c, h, program, id, raw, std::nullopt, std::nullopt, &got)) != S_OK)
      return hr;
    tags->push_back({{"id", id}, {"raw", raw}, {"samples", got["samples"]}});
  }
  return S_OK;
}

std::string ValueText(const nlohmann::json& sample) {
  return sample.contains("data") ? sample["data"].get<std::string>()
                                 : std::to_string(sample["value"].get<int64_t>());
}

std::string Csv(const nlohmann::json& tags) {
  std::ostringstream out;
  out << "tag,time,value\n";
  for (const auto& t : tags)
    for (const auto& s : t["samples"])
      out << t["id"].get<int32_t>() << ','
          << FormatTime(s["time"].get<int64_t>(), OutputTimeFormat()) << ',' << ValueText(s)
          << '\n';
  return out.str();
}

// SRT's hh:mm:ss,mmm.
std::string SrtTime(int64_t ticks) {
  const int64_t ms = ticks / 10000;
  char text[48];
  snprintf(text, sizeof text, "%02lld:%02lld:%02lld,%03lld", static_cast<long long>(ms / 3600000),
           static_cast<long long>(ms / 60000 % 60), static_cast<long long>(ms / 1000 % 60),
           static_cast<long long>(ms % 1000));
  return text;
}

struct Cue {
  int64_t start = 0;
  int64_t end = 0;
  std::string text;
};

std::string Srt(const nlohmann::json& tags) {
  std::vector<Cue> cues;
  for (const auto& t : tags) {
    const auto& samples = t["samples"];
    for (size_t i = 0; i < samples.size(); ++i) {
      const int64_t start = samples[i]["time"].get<int64_t>();
      if (start < 0) continue;
      int64_t end = start > INT64_MAX - kCueTicks ? INT64_MAX : start + kCueTicks;
      if (i + 1 < samples.size()) end = std::min(end, samples[i + 1]["time"].get<int64_t>());
      // A cue shorter than a millisecond would vanish; give it one.
      end = std::max(end, start + 10000);
      cues.push_back(
          {start, end,
           "tag " + std::to_string(t["id"].get<int32_t>()) + ": " + ValueText(samples[i])});
    }
  }
  std::stable_sort(cues.begin(), cues.end(),
                   [](const Cue& a, const Cue& b) { return a.start < b.start; });
  std::ostringstream out;
  for (size_t i = 0; i < cues.size(); ++i)
    out << i + 1 << '\n'
        << SrtTime(cues[i].start) << " --> " << SrtTime(cues[i].end) << '\n'
        << cues[i].text << "\n\n";
  return out.str();
}

// Writes the text to OUT (through a temporary name, so that a failed write leaves an
// earlier OUT as it was) or to standard output.
int Emit(const ExportOptions& o, const std::string& text) {
  if (o.out.empty() || o.out == "-") {
    std::cout << text << std::flush;
    return std::cout ? kExitOk : ReportError(o.file.json, "export: cannot write", kExitRefused);
  }
  const std::string temp = o.out + ".part";
  std::ofstream file(temp, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  if (!file || std::rename(temp.c_str(), o.out.c_str()) != 0) {
    std::remove(temp.c_str());
    return ReportError(o.file.json, "export: cannot write " + o.out, kExitRefused);
  }
  return kExitOk;
}

int RunExport(const ExportOptions& o) {
  int status = kExitOk;
  if (!CheckMediaFile(o.file, o.file.file, &status)) return status;
  auto client = Connect(o.file.json);
  if (!client) return kExitUnreachable;
  HeldFile file(*client, o.file.file, o.file.type, 0, true);
  if (file.OpenResult() != S_OK)
    return ReportFailure(o.file.json, "open " + o.file.file, file.OpenResult());
  int32_t program = 0;
  if (!OpenProgram(*client, file.Handle(), o.file, &program, &status)) return status;
  nlohmann::json tags;
  HRESULT hr = CollectTags(*client, file.Handle(), program, o, &tags);
  if (hr != S_OK) return ReportFailure(o.file.json, "export", hr);
  if ((hr = file.Close()) != S_OK) return ReportFailure(o.file.json, "close " + o.file.file, hr);
  if (o.format == "csv") return Emit(o, Csv(tags));
  if (o.format == "srt") return Emit(o, Srt(tags));
  nlohmann::json doc = {{"file", o.file.file},
                        {"programs", {{{"program", o.file.program}, {"tags", tags}}}}};
  return Emit(o, doc.dump(2) + "\n");
}

}  // namespace

void AddExportCommand(CLI::App& app, Action& run) {
  auto o = std::make_shared<ExportOptions>();
  CLI::App* sub = app.add_subcommand("export", "Write a media file's tags as CSV, JSON or SRT");
  AddFileOptions(sub, &o->file);
  sub->add_option("--format", o->format, "csv, json or srt")
      ->required()
      ->check(CLI::IsMember({"csv", "json", "srt"}));
  sub->add_option("--tag", o->tags, "only this tag (repeatable)")
      ->transform(DecimalNumber())
      ->check(TagIdRange());
  sub->add_option("-o,--output", o->out, "write to this file instead of standard output");
  sub->callback([o, &run] { run = [o] { return RunExport(*o); }; });
}

}  // namespace marquel::ctl
