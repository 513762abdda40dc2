// marquelctl delete | shift | copy | move: editing periods of a media file's tags.
//
//   delete FILE --from A --to B [--tag T | --category C] [--dry-run] [--json]
//   shift FILE --by OFFSET [--tag T | --category C] [--dry-run] [--json]  (subtracts OFFSET)
//   copy SOURCE TARGET --from A --to B --at T [--tag T | --category C] [--stretch N/D]
//   move SOURCE TARGET ... (as copy, and deletes the period from SOURCE)
//
// Copied samples get the time (T - A + t) * N / D, computed as the server does. Each
// command reports what it did, counted by reading the files before and after the change;
// --dry-run opens them read-only, counts what the change would touch and sends nothing
// that changes. Every file is closed before success is reported, and a failed close fails
// the command.
#include <climits>
#include <memory>

#include "command.h"
#include "sample_check.h"
#include "server_common.h"
#include "time_text.h"

namespace marquel::ctl {
namespace {

struct PeriodOptions {
  FileOptions file;
  std::string target;
  int64_t from = 0, to = -1, at = 0, by = 0;
  std::optional<int32_t> tag, category;
  std::string stretch = "1/1";
  bool dry_run = false;
};

using Period = std::optional<std::pair<int64_t, int64_t>>;

void AddScope(CLI::App* sub, PeriodOptions* o) {
  auto* tag = sub->add_option("--tag", o->tag, "only this tag id")
                  ->transform(DecimalNumber())
                  ->check(TagIdRange());
  sub->add_option("--category", o->category, "only the tags of this category (0-3)")
      ->transform(DecimalNumber())
      ->check(CLI::Range(0, 3))
      ->excludes(tag);
  sub->add_flag("--dry-run", o->dry_run, "show what would change; open read-only, change nothing");
}

bool ParseStretch(const std::string& text, int32_t* numerator, int32_t* denominator) {
  size_t slash = text.find('/');
  int64_t n = 0, d = 1;
  if (!ParseDecimal(text.substr(0, slash), &n) ||
      (slash != std::string::npos && !ParseDecimal(text.substr(slash + 1), &d)))
    return false;
  if (n < INT32_MIN || n > INT32_MAX || d <= 0 || d > INT32_MAX) return false;
  *numerator = static_cast<int32_t>(n);
  *denominator = static_cast<int32_t>(d);
  return true;
}

// The samples in scope, or after reporting the failure, nullopt (*status set).
std::optional<int64_t> Counted(IMarquelClient& c, int32_t h, const PeriodOptions& o,
                               const Period& period, const std::string& what, int* status) {
  int64_t n = 0;
  HRESULT hr = CountInScope(c, h, TagScope{o.tag, o.category}, period, &n);
  if (hr == S_OK) return n;
  *status = ReportFailure(o.file.json, what, hr);
  return std::nullopt;
}

std::string Samples(int64_t n) {
  return std::to_string(n) + (n == 1 ? " sample" : " samples");
}

// Closes every held file; false after reporting the first close that failed.
bool CloseAll(const PeriodOptions& o,
              std::initializer_list<std::pair<HeldFile*, std::string>> files, int* status) {
  bool ok = true;
  for (const auto& [file, path] : files) {
    HRESULT hr = file->Close();
    if (hr != S_OK && ok) {
      *status = ReportFailure(o.file.json, "close " + path, hr);
      ok = false;
    }
  }
  return ok;
}

void Finish(const PeriodOptions& o, nlohmann::json result, const std::string& text) {
  if (o.tag) result["scope"]["tag"] = *o.tag;
  if (o.category) result["scope"]["category"] = *o.category;
  result["dry_run"] = o.dry_run;
  result["summary"] = text;
  if (o.file.json)
    PrintResult(true, result);
  else
    std::cout << text << '\n';
}

// One edit of one open file: what it needs to count and to report a failure.
struct OneFileEdit {
  IMarquelClient& c;
  int32_t h;
  const PeriodOptions& o;
  std::string what;
  int status = kExitOk;
  std::optional<int64_t> Count(const Period& period) {
    return Counted(c, h, o, period, what, &status);
  }
  bool Failed(HRESULT hr) {
    status = ReportFailure(o.file.json, what, hr);
    return false;
  }
};

// Samples at t < by land before 0 (the server drops them): [lowest, by) for a positive
// offset, else the ones below 0 less those in [by, 0).
std::optional<int64_t> LandingBelowZero(OneFileEdit& e) {
  const int64_t by = e.o.by;
  if (by > 0) return e.Count(std::make_pair(INT64_MIN, by));
  auto below = e.Count(std::make_pair(INT64_MIN, int64_t{0}));
  auto kept = by < 0 ? e.Count(std::make_pair(by, int64_t{0})) : std::optional<int64_t>(0);
  if (!below || !kept) return std::nullopt;
  return *below - *kept;
}

bool Shift(OneFileEdit& e, int64_t before, nlohmann::json* result, std::string* text) {
  const bool dry = e.o.dry_run;
  int64_t shifted = 0, dropped = 0;
  if (dry) {
    auto below = LandingBelowZero(e);
    if (!below) return false;
    dropped = *below;
    shifted = before - dropped;
  } else {
    nlohmann::json ignored;
    HRESULT hr = ShiftTimes(e.c, e.h, e.o.by, TagScope{e.o.tag, e.o.category}, &ignored);
    if (hr != S_OK) return e.Failed(hr);
    auto after = e.Count(std::nullopt);
    if (!after) return false;
    shifted = *after;
    dropped = before - *after;
  }
  (*result)["offset"] = e.o.by;
  (*result)["shifted"] = shifted;
  (*result)["dropped"] = dropped;
  *text = (dry ? "would shift " : "shifted ") + Samples(shifted);
  if (dropped > 0)
    *text += (dry ? ", would drop " : ", dropped ") + std::to_string(dropped) +
             (dry ? " that fall before 0" : " that fell before 0");
  return true;
}

bool Delete(OneFileEdit& e, int64_t before, nlohmann::json* result, std::string* text) {
  int64_t deleted = 0;
  if (e.o.dry_run) {
    auto in_period = e.Count(std::make_pair(e.o.from, e.o.to));
    if (!in_period) return false;
    deleted = *in_period;
  } else {
    nlohmann::json ignored;
    HRESULT hr =
        DeletePeriod(e.c, e.h, e.o.from, e.o.to, TagScope{e.o.tag, e.o.category}, &ignored);
    if (hr != S_OK) return e.Failed(hr);
    auto after = e.Count(std::nullopt);
    if (!after) return false;
    deleted = before - *after;
  }
  (*result)["from"] = e.o.from;
  (*result)["to"] = e.o.to;
  (*result)["deleted"] = deleted;
  *text = (e.o.dry_run ? "would delete " : "deleted ") + Samples(deleted);
  return true;
}

// Delete and shift work on one open file.
int OneFile(const PeriodOptions& o, bool shift) {
  int status = kExitOk;
  if (!CheckMediaFile(o.file, o.file.file, &status)) return status;
  auto client = Connect(o.file.json);
  if (!client) return kExitUnreachable;
  HeldFile file(*client, o.file.file, o.file.type, o.file.write_to_cache ? 1 : 0, o.dry_run);
  if (file.OpenResult() != S_OK)
    return ReportFailure(o.file.json, "open " + o.file.file, file.OpenResult());
  OneFileEdit edit{*client, file.Handle(), o, shift ? "shift" : "delete"};
  auto before = edit.Count(std::nullopt);
  if (!before) return edit.status;
  nlohmann::json result = {{"operation", edit.what}, {"file", o.file.file}};
  std::string text;
  if (!(shift ? Shift : Delete)(edit, *before, &result, &text)) return edit.status;
  if (!CloseAll(o, {{&file, o.file.file}}, &status)) return status;
  Finish(o, result, text);
  return kExitOk;
}

HRESULT Transfer(IMarquelClient& c, const PeriodOptions& o, bool move, int32_t t, int32_t s,
                 int32_t n, int32_t d) {
  if (o.tag)
    return move ? c.MoveDataPeriodForOneTag(t, s, *o.tag, o.at, o.from, o.to, n, d)
                : c.CopyDataPeriodForOneTag(t, s, *o.tag, o.at, o.from, o.to, n, d);
  if (o.category)
    return move ? c.MoveDataPeriodForOneCategory(t, s, *o.category, o.at, o.from, o.to, n, d)
                : c.CopyDataPeriodForOneCategory(t, s, *o.category, o.at, o.from, o.to, n, d);
  return move ? c.MoveDataPeriod(t, s, o.at, o.from, o.to, n, d)
              : c.CopyDataPeriod(t, s, o.at, o.from, o.to, n, d);
}

// Copy and move work on two open files.
int TwoFiles(const PeriodOptions& o, bool move) {
  const std::string what = move ? "move" : "copy";
  int32_t n = 1, d = 1;
  if (!ParseStretch(o.stretch, &n, &d))
    return ReportError(o.file.json, what + ": --stretch wants N/D (D above 0)", kExitUsage);
  int status = kExitOk;
  if (!CheckMediaFile(o.file, o.file.file, &status) || !CheckMediaFile(o.file, o.target, &status))
    return status;
  auto client = Connect(o.file.json);
  if (!client) return kExitUnreachable;
  const int32_t cache = o.file.write_to_cache ? 1 : 0;
  HeldFile source(*client, o.file.file, o.file.type, cache, o.dry_run);
  if (source.OpenResult() != S_OK)
    return ReportFailure(o.file.json, "open " + o.file.file, source.OpenResult());
  HeldFile target(*client, o.target, o.file.type, cache, o.dry_run);
  if (target.OpenResult() != S_OK)
    return ReportFailure(o.file.json, "open " + o.target, target.OpenResult());
  IMarquelClient& c = *client;
  const int32_t s = source.Handle(), t = target.Handle();
  nlohmann::json result = {{"operation", what}, {"file", o.file.file}, {"target", o.target},
                           {"from", o.from},    {"to", o.to},          {"at", o.at},
                           {"stretch", {n, d}}};
  std::string text;
  if (o.dry_run) {
    auto in_period = Counted(c, s, o, std::make_pair(o.from, o.to), what, &status);
    if (!in_period) return status;
    result["samples"] = *in_period;
    text = "would " + what + " " + Samples(*in_period);
  } else {
    auto source_before = Counted(c, s, o, std::nullopt, what, &status);
    auto target_before = Counted(c, t, o, std::nullopt, what, &status);
    if (!source_before || !target_before) return status;
    HRESULT hr = Transfer(c, o, move, t, s, n, d);
    if (hr != S_OK) return ReportFailure(o.file.json, what, hr);
    auto source_after = Counted(c, s, o, std::nullopt, what, &status);
    auto target_after = Counted(c, t, o, std::nullopt, what, &status);
    if (!source_after || !target_after) return status;
    result["target_gained"] = *target_after - *target_before;
    result["source_lost"] = *source_before - *source_after;
    text = (move ? "moved: " : "copied: ") + o.target + " gained " +
           Samples(*target_after - *target_before);
    if (move) text += ", " + o.file.file + " lost " + Samples(*source_before - *source_after);
  }
  if (!CloseAll(o, {{&target, o.target}, {&source, o.file.file}}, &status)) return status;
  Finish(o, result, text);
  return kExitOk;
}

void AddPeriod(CLI::App* sub, PeriodOptions* o, const char* what) {
  sub->add_option("--from", o->from, std::string(what) + " start")
      ->required()
      ->transform(TimeValue());
  sub->add_option("--to", o->to, std::string(what) + " end, exclusive; below 0: to the last sample")
      ->transform(TimeValue());
}

}  // namespace

void AddServerPeriodCommands(CLI::App& app, Action& run) {
  {
    auto o = std::make_shared<PeriodOptions>();
    CLI::App* sub = app.add_subcommand("delete", "Delete a period of samples");
    AddFileOptions(sub, &o->file);
    AddPeriod(sub, o.get(), "period");
    sub->get_option("--to")->required();
    AddScope(sub, o.get());
    sub->callback([o, &run] { run = [o] { return OneFile(*o, false); }; });
  }
  {
    auto o = std::make_shared<PeriodOptions>();
    CLI::App* sub = app.add_subcommand("shift", "Subtract an offset from time codes");
    AddFileOptions(sub, &o->file);
    sub->add_option("--by", o->by, "the offset to subtract (a time)")
        ->required()
        ->transform(TimeValue());
    AddScope(sub, o.get());
    sub->callback([o, &run] { run = [o] { return OneFile(*o, true); }; });
  }
  for (bool move : {false, true}) {
    auto o = std::make_shared<PeriodOptions>();
    CLI::App* sub = app.add_subcommand(
        move ? "move" : "copy",
        move ? "Move a period of samples into another file" : "Copy a period into another file");
    AddFileOptions(sub, &o->file);
    sub->add_option("TARGET", o->target, "the file that receives the samples")->required();
    AddPeriod(sub, o.get(), "source period");
    sub->add_option("--at", o->at, "where the period starts in the target")
        ->required()
        ->transform(TimeValue());
    sub->add_option("--stretch", o->stretch, "time stretch N/D (default 1/1)");
    AddScope(sub, o.get());
    sub->callback([o, move, &run] { run = [o, move] { return TwoFiles(*o, move); }; });
  }
}

}  // namespace marquel::ctl
