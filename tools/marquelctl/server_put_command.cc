// marquelctl put: inserting samples into a media file's tag through the server.
//
//   put FILE --tag T [--raw] [--program N] [--json]
//       (--sample TIME=VALUE ... | --csv PATH | --json-file PATH)
//
// TIME takes every time form (time_text.h). VALUE is a decimal number that fits the tag
// (or is cut to its low bits with --truncate), or hex bytes with --raw. Everything is
// checked before the file is opened. A CSV file holds TIME,VALUE lines; a JSON file any
// form that get, export and cache show print (sample_json.h), or an array of samples.
#include <memory>

#include "command.h"
#include "sample_check.h"
#include "server_common.h"
#include "time_text.h"

namespace marquel::ctl {
namespace {

struct PutOptions {
  FileOptions file;
  int64_t tag = 0;
  bool raw = false;
  bool truncate = false;
  std::vector<std::string> samples;
  std::string csv, json_file;
};

// Gathers the samples from the arguments and the files and checks them against the tag;
// false after reporting why not.
bool CollectSamples(const PutOptions& o, CheckedSamples* out) {
  std::vector<SampleText> given;
  std::string error;
  for (const std::string& text : o.samples) {
    SampleText s;
    if (!ParseSample(text, &s, &error)) break;
    given.push_back(s);
  }
  if (error.empty() && !o.csv.empty()) ReadSampleFile(o.csv, false, &given, &error);
  if (error.empty() && !o.json_file.empty())
    ReadSampleFile(o.json_file, true, &given, &error, o.tag, o.file.program);
  if (error.empty()) CheckSamples(o.tag, o.raw, o.truncate, given, out, &error);
  if (error.empty()) return true;
  ReportError(o.file.json, "put: " + error, kExitUsage);
  return false;
}

}  // namespace

void AddServerPutCommand(CLI::App& app, Action& run) {
  auto o = std::make_shared<PutOptions>();
  CLI::App* sub = app.add_subcommand("put", "Insert samples into one tag");
  AddFileOptions(sub, &o->file);
  sub->add_option("--tag", o->tag, "tag id (0-255)")->required()->transform(DecimalNumber());
  sub->add_flag("--raw", o->raw, "raw-data samples: VALUE is hex bytes");
  sub->add_flag("--truncate", o->truncate,
                "store the low bits of a value wider than the tag instead of refusing it");
  sub->add_option("--sample", o->samples, "a sample TIME=VALUE (repeatable)");
  sub->add_option("--csv", o->csv, "read TIME,VALUE lines from a CSV file");
  sub->add_option("--json-file", o->json_file, "read samples from a JSON file");
  sub->footer(std::string(TimeFormsHelp()) + "\n" + TagRulesHelp());
  sub->callback([o, &run] {
    run = [o] {
      CheckedSamples samples;
      if (!CollectSamples(*o, &samples)) return kExitUsage;
      return RunOnFile(
          o->file, "put",
          [o, &samples](IMarquelClient& c, int32_t h, int32_t program, nlohmann::json* out) {
            return PutSamples(c, h, program, static_cast<int32_t>(o->tag), samples, out);
          });
    };
  });
}

}  // namespace marquel::ctl
