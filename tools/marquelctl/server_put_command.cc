// marquelctl put: inserting samples into a media file's tag through the server.
//
//   put FILE --tag T [--raw] [--program N] [--json]
//       (--sample TIME=VALUE ... | --csv PATH | --json-file PATH)
//
// VALUE is a 32-bit number, or hex bytes with --raw. A CSV file holds TIME,VALUE lines; a
// JSON file an array of {"time": T, "value": V} objects or [T, V] pairs.
#include <memory>

#include "command.h"
#include "server_common.h"

namespace marquel::ctl {
namespace {

struct PutOptions {
  FileOptions file;
  int32_t tag = 0;
  bool raw = false;
  std::vector<std::string> samples;
  std::string csv, json_file;
};

// Gathers the samples from the arguments and the files; false after reporting why not.
bool CollectSamples(const PutOptions& o, std::vector<SampleText>* out) {
  for (const std::string& text : o.samples) {
    SampleText s;
    if (!ParseSample(text, &s)) {
      ReportError(o.file.json, "put: '" + text + "' is not TIME=VALUE", kExitUsage);
      return false;
    }
    out->push_back(s);
  }
  std::string error;
  if ((!o.csv.empty() && !ReadSampleFile(o.csv, false, out, &error)) ||
      (!o.json_file.empty() && !ReadSampleFile(o.json_file, true, out, &error))) {
    ReportError(o.file.json, "put: " + error, kExitUsage);
    return false;
  }
  if (out->empty()) {
    ReportError(o.file.json, "put: no samples given", kExitUsage);
    return false;
  }
  return true;
}

}  // namespace

void AddServerPutCommand(CLI::App& app, Action& run) {
  auto o = std::make_shared<PutOptions>();
  CLI::App* sub = app.add_subcommand("put", "Insert samples into one tag");
  AddFileOptions(sub, &o->file);
  sub->add_option("--tag", o->tag, "tag id (0-255)")->required();
  sub->add_flag("--raw", o->raw, "raw-data samples: VALUE is hex bytes");
  sub->add_option("--sample", o->samples, "a sample TIME=VALUE (repeatable)");
  sub->add_option("--csv", o->csv, "read TIME,VALUE lines from a CSV file");
  sub->add_option("--json-file", o->json_file, "read samples from a JSON file");
  sub->callback([o, &run] {
    run = [o] {
      std::vector<SampleText> samples;
      if (!CollectSamples(*o, &samples)) return kExitUsage;
      return RunOnFile(o->file, "put",
                       [o, &samples](IMarquelClient& c, int32_t h, nlohmann::json* out) {
                         return PutSamples(c, h, o->file.program, o->tag, o->raw, samples, out);
                       });
    };
  });
}

}  // namespace marquel::ctl
