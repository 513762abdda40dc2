// marquelctl tags | get | intervals: reading a media file's tags through the server.
//
//   tags FILE [--program N] [--json]               tag ids with sample counts
//   get FILE --tag T [--from A --to B | --at T] [--raw] [--program N] [--json]
//   intervals FILE --tag T [--program N] [--json]  valid intervals of a tag
//
// Times take every form of time_text.h and are printed as --time-format says; a period is
// [A, B), B below 0 meaning up to the last sample.
#include <memory>

#include "command.h"
#include "sample_check.h"
#include "server_common.h"
#include "time_text.h"

namespace marquel::ctl {
namespace {

struct GetOptions {
  FileOptions file;
  int32_t tag = 0;
  std::optional<int64_t> from, to, at;
  bool raw = false;
};

void AddTags(CLI::App& app, Action& run) {
  auto o = std::make_shared<FileOptions>();
  CLI::App* sub = app.add_subcommand("tags", "List the tags of a media file with their counts");
  AddFileOptions(sub, o.get());
  sub->footer(std::string(TimeFormsHelp()) + "\n" + TagRulesHelp());
  sub->callback([o, &run] {
    run = [o] {
      return RunOnFile(*o, "tags",
                       [](IMarquelClient& c, int32_t h, int32_t program, nlohmann::json* out) {
                         return ListTags(c, h, program, out);
                       });
    };
  });
}

void AddGet(CLI::App& app, Action& run) {
  auto o = std::make_shared<GetOptions>();
  CLI::App* sub = app.add_subcommand("get", "Print the samples of one tag");
  AddFileOptions(sub, &o->file);
  AddTagOption(sub, &o->tag);
  sub->add_option("--from", o->from, "period start (with --to)")->transform(TimeValue());
  sub->add_option("--to", o->to, "period end, exclusive; below 0: to the last sample")
      ->transform(TimeValue());
  sub->add_option("--at", o->at, "the one sample at this time code")->transform(TimeValue());
  sub->add_flag("--raw", o->raw, "the tag holds raw data (printed as hex)");
  sub->callback([o, &run] {
    run = [o] {
      if (o->at && (o->from || o->to))
        return ReportError(o->file.json, "get: --at goes without --from and --to", kExitUsage);
      std::string error;
      if (o->raw && !CheckRawLength(o->tag, 1, &error))
        return ReportError(o->file.json, "get: " + error, kExitUsage);
      std::optional<std::pair<int64_t, int64_t>> period;
      if (o->from || o->to) period = std::make_pair(o->from.value_or(0), o->to.value_or(-1));
      return RunOnFile(
          o->file, "get",
          [o, period](IMarquelClient& c, int32_t h, int32_t program, nlohmann::json* out) {
            return GetSamples(c, h, program, o->tag, o->raw, period, o->at, out);
          });
    };
  });
}

void AddIntervals(CLI::App& app, Action& run) {
  auto o = std::make_shared<GetOptions>();
  CLI::App* sub = app.add_subcommand("intervals", "Print the valid intervals of one tag");
  AddFileOptions(sub, &o->file);
  AddTagOption(sub, &o->tag);
  sub->callback([o, &run] {
    run = [o] {
      return RunOnFile(o->file, "intervals",
                       [o](IMarquelClient& c, int32_t h, int32_t program, nlohmann::json* out) {
                         return ListIntervals(c, h, program, o->tag, out);
                       });
    };
  });
}

}  // namespace

void AddServerQueryCommands(CLI::App& app, Action& run) {
  AddTags(app, run);
  AddGet(app, run);
  AddIntervals(app, run);
}

}  // namespace marquel::ctl
