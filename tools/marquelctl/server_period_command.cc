// marquelctl delete | shift | copy | move: editing periods of a media file's tags.
//
//   delete FILE --from A --to B [--tag T | --category C] [--json]
//   shift FILE --by OFFSET [--tag T | --category C] [--json]   (subtracts OFFSET)
//   copy SOURCE TARGET --from A --to B --at T [--tag T | --category C] [--stretch N/D]
//   move SOURCE TARGET ... (as copy, and deletes the period from SOURCE)
//
// Copied samples get the time (T - A + t) * N / D, computed as the server does.
#include <memory>

#include "command.h"
#include "server_common.h"

namespace marquel::ctl {
namespace {

struct PeriodOptions {
  FileOptions file;
  std::string target;
  int64_t from = 0, to = -1, at = 0, by = 0;
  std::optional<int32_t> tag, category;
  std::string stretch = "1/1";
};

void AddScope(CLI::App* sub, PeriodOptions* o) {
  auto* tag = sub->add_option("--tag", o->tag, "only this tag id");
  sub->add_option("--category", o->category, "only the tags of this category")->excludes(tag);
}

bool ParseStretch(const std::string& text, int32_t* numerator, int32_t* denominator) {
  size_t slash = text.find('/');
  try {
    *numerator = std::stoi(text.substr(0, slash));
    *denominator = slash == std::string::npos ? 1 : std::stoi(text.substr(slash + 1));
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

// Copy and move work on two open files.
int TwoFiles(const PeriodOptions& o, bool move) {
  const char* what = move ? "move" : "copy";
  int32_t n = 1, d = 1;
  if (!ParseStretch(o.stretch, &n, &d))
    return ReportError(o.file.json, std::string(what) + ": --stretch wants N/D", kExitUsage);
  auto client = Connect(o.file.json);
  if (!client) return kExitFailure;
  HeldFile source(*client, o.file.file, o.file.type, o.file.write_to_cache ? 1 : 0);
  if (source.OpenResult() != S_OK)
    return ReportFailure(o.file.json, "open " + o.file.file, source.OpenResult());
  HeldFile target(*client, o.target, o.file.type, o.file.write_to_cache ? 1 : 0);
  if (target.OpenResult() != S_OK)
    return ReportFailure(o.file.json, "open " + o.target, target.OpenResult());
  int32_t t = target.Handle(), s = source.Handle();
  HRESULT hr;
  if (o.tag)
    hr = move ? client->MoveDataPeriodForOneTag(t, s, *o.tag, o.at, o.from, o.to, n, d)
              : client->CopyDataPeriodForOneTag(t, s, *o.tag, o.at, o.from, o.to, n, d);
  else if (o.category)
    hr = move ? client->MoveDataPeriodForOneCategory(t, s, *o.category, o.at, o.from, o.to, n, d)
              : client->CopyDataPeriodForOneCategory(t, s, *o.category, o.at, o.from, o.to, n, d);
  else
    hr = move ? client->MoveDataPeriod(t, s, o.at, o.from, o.to, n, d)
              : client->CopyDataPeriod(t, s, o.at, o.from, o.to, n, d);
  if (hr != S_OK) return ReportFailure(o.file.json, what, hr);
  nlohmann::json result = {{"operation", what}, {"file", o.file.file}, {"target", o.target},
                           {"from", o.from},    {"to", o.to},          {"at", o.at},
                           {"stretch", {n, d}}};
  if (o.tag) result["scope"]["tag"] = *o.tag;
  if (o.category) result["scope"]["category"] = *o.category;
  PrintResult(o.file.json, result);
  return kExitOk;
}

}  // namespace

void AddServerPeriodCommands(CLI::App& app, Action& run) {
  {
    auto o = std::make_shared<PeriodOptions>();
    CLI::App* sub = app.add_subcommand("delete", "Delete a period of samples");
    AddFileOptions(sub, &o->file);
    sub->add_option("--from", o->from, "period start")->required();
    sub->add_option("--to", o->to, "period end, exclusive; below 0: to the last sample")
        ->required();
    AddScope(sub, o.get());
    sub->callback([o, &run] {
      run = [o] {
        return RunOnFile(o->file, "delete", [o](IMarquelClient& c, int32_t h, nlohmann::json* out) {
          return DeletePeriod(c, h, o->from, o->to, TagScope{o->tag, o->category}, out);
        });
      };
    });
  }
  {
    auto o = std::make_shared<PeriodOptions>();
    CLI::App* sub = app.add_subcommand("shift", "Subtract an offset from time codes");
    AddFileOptions(sub, &o->file);
    sub->add_option("--by", o->by, "the offset to subtract")->required();
    AddScope(sub, o.get());
    sub->callback([o, &run] {
      run = [o] {
        return RunOnFile(o->file, "shift", [o](IMarquelClient& c, int32_t h, nlohmann::json* out) {
          return ShiftTimes(c, h, o->by, TagScope{o->tag, o->category}, out);
        });
      };
    });
  }
  for (bool move : {false, true}) {
    auto o = std::make_shared<PeriodOptions>();
    CLI::App* sub = app.add_subcommand(
        move ? "move" : "copy",
        move ? "Move a period of samples into another file" : "Copy a period into another file");
    AddFileOptions(sub, &o->file);
    sub->add_option("TARGET", o->target, "the file that receives the samples")->required();
    sub->add_option("--from", o->from, "source period start")->required();
    sub->add_option("--to", o->to, "source period end, exclusive; below 0: to the last sample");
    sub->add_option("--at", o->at, "where the period starts in the target")->required();
    sub->add_option("--stretch", o->stretch, "time stretch N/D (default 1/1)");
    AddScope(sub, o.get());
    sub->callback([o, move, &run] { run = [o, move] { return TwoFiles(*o, move); }; });
  }
}

}  // namespace marquel::ctl
