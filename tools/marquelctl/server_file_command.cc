// marquelctl file: several operations on one media file while it is held open.
//
//   file FILE [--program N] [--type N] [--write-to-cache] [--json] [--script PATH] [-- OPS]
//
// The file is opened once, the operations run in order, and the file is closed at the
// end, so that the server keeps the data in memory between them. OPS come after the file
// (after "--" when a value is negative), a --script file holds them one or more per line
// ('#' starts a comment). The script runs first, then the operations of the command line.
// Operations:
//   tags                              tag ids and sample counts
//   get TAG [FROM TO | @TIME]         samples of a tag (all, a period, or one)
//   get-raw TAG [FROM TO | @TIME]     the same for a raw-data tag (hex)
//   count TAG [FROM TO]               number of samples
//   put TAG TIME=VALUE ...            insert plain samples
//   put-raw TAG TIME=HEX ...          insert raw-data samples
//   delete FROM TO [tag=T|category=C] delete a period
//   shift OFFSET [tag=T|category=C]   subtract an offset from time codes
//   intervals TAG                     valid intervals
//   clean                             delete every sample
// The first failing operation stops the run; its HRESULT decides the exit status. With
// --json the results are printed as one array, else as text, operation by operation.
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include "command.h"
#include "server_common.h"

namespace marquel::ctl {
namespace {

const std::set<std::string> kOperations = {"tags",    "get",    "get-raw", "count",     "put",
                                           "put-raw", "delete", "shift",   "intervals", "clean"};

struct FileCommandOptions {
  FileOptions file;
  std::string script;
  std::vector<std::string> words;
};

using Words = std::vector<std::string>;

bool ToInt64(const std::string& s, int64_t* v) {
  try {
    size_t used = 0;
    *v = std::stoll(s, &used, 0);
    return used == s.size();
  } catch (const std::exception&) {
    return false;
  }
}

bool ToInt32(const std::string& s, int32_t* v) {
  int64_t wide = 0;
  if (!ToInt64(s, &wide) || wide < INT32_MIN || wide > INT32_MAX) return false;
  *v = static_cast<int32_t>(wide);
  return true;
}

// Splits words into operations: each starts with an operation's name.
bool SplitOperations(const Words& words, std::vector<Words>* ops, std::string* error) {
  for (const std::string& w : words) {
    if (kOperations.count(w)) {
      ops->push_back({w});
    } else if (ops->empty()) {
      *error = "'" + w + "' is not an operation";
      return false;
    } else {
      ops->back().push_back(w);
    }
  }
  return true;
}

bool ParseScope(const Words& op, size_t from, TagScope* scope) {
  for (size_t i = from; i < op.size(); ++i) {
    int32_t v = 0;
    if (op[i].rfind("tag=", 0) == 0 && ToInt32(op[i].substr(4), &v))
      scope->tag = v;
    else if (op[i].rfind("category=", 0) == 0 && ToInt32(op[i].substr(9), &v))
      scope->category = v;
    else
      return false;
  }
  return true;
}

// Runs one operation; E_INVALIDARG with *usage set when its words are wrong.
HRESULT RunOperation(IMarquelClient& c, int32_t h, int32_t program, const Words& op,
                     nlohmann::json* out, std::string* usage) {
  const std::string& name = op[0];
  int32_t tag = 0;
  auto bad = [&](const char* form) {
    *usage = name + ": expected '" + form + "'";
    return E_INVALIDARG;
  };
  if (name == "tags") return op.size() == 1 ? ListTags(c, h, program, out) : bad("tags");
  if (name == "clean") return op.size() == 1 ? CleanAll(c, h, out) : bad("clean");
  if (name == "get" || name == "get-raw" || name == "count") {
    if (op.size() < 2 || !ToInt32(op[1], &tag)) return bad("TAG [FROM TO | @TIME]");
    std::optional<std::pair<int64_t, int64_t>> period;
    std::optional<int64_t> at;
    int64_t a = 0, b = 0;
    if (op.size() == 3 && op[2][0] == '@' && ToInt64(op[2].substr(1), &a) && name != "count") {
      at = a;
    } else if (op.size() == 4 && ToInt64(op[2], &a) && ToInt64(op[3], &b)) {
      period = std::make_pair(a, b);
    } else if (op.size() != 2) {
      return bad("TAG [FROM TO | @TIME]");
    }
    if (name == "count") return CountSamples(c, h, program, tag, period, out);
    return GetSamples(c, h, program, tag, name == "get-raw", period, at, out);
  }
  if (name == "put" || name == "put-raw") {
    if (op.size() < 3 || !ToInt32(op[1], &tag)) return bad("TAG TIME=VALUE ...");
    std::vector<SampleText> samples;
    for (size_t i = 2; i < op.size(); ++i) {
      SampleText s;
      if (!ParseSample(op[i], &s)) return bad("TAG TIME=VALUE ...");
      samples.push_back(s);
    }
    return PutSamples(c, h, program, tag, name == "put-raw", samples, out);
  }
  if (name == "delete") {
    int64_t a = 0, b = 0;
    TagScope scope;
    if (op.size() < 3 || !ToInt64(op[1], &a) || !ToInt64(op[2], &b) || !ParseScope(op, 3, &scope))
      return bad("FROM TO [tag=T|category=C]");
    return DeletePeriod(c, h, a, b, scope, out);
  }
  if (name == "shift") {
    int64_t offset = 0;
    TagScope scope;
    if (op.size() < 2 || !ToInt64(op[1], &offset) || !ParseScope(op, 2, &scope))
      return bad("OFFSET [tag=T|category=C]");
    return ShiftTimes(c, h, offset, scope, out);
  }
  if (op.size() != 2 || !ToInt32(op[1], &tag)) return bad("TAG");
  return ListIntervals(c, h, program, tag, out);  // intervals
}

bool ReadScript(const std::string& path, Words* words, std::string* error) {
  std::ifstream in(path);
  if (!in) {
    *error = "cannot read " + path;
    return false;
  }
  std::string line;
  while (std::getline(in, line)) {
    line = line.substr(0, line.find('#'));
    std::istringstream tokens(line);
    std::string word;
    while (tokens >> word) words->push_back(word);
  }
  return true;
}

int RunFileCommand(const FileCommandOptions& o) {
  Words words;
  std::string error;
  if (!o.script.empty() && !ReadScript(o.script, &words, &error))
    return ReportError(o.file.json, "file: " + error, kExitUsage);
  words.insert(words.end(), o.words.begin(), o.words.end());
  std::vector<Words> ops;
  if (!SplitOperations(words, &ops, &error))
    return ReportError(o.file.json, "file: " + error, kExitUsage);
  if (ops.empty()) return ReportError(o.file.json, "file: no operations given", kExitUsage);
  auto client = Connect(o.file.json);
  if (!client) return kExitFailure;
  HeldFile file(*client, o.file.file, o.file.type, o.file.write_to_cache ? 1 : 0);
  if (file.OpenResult() != S_OK)
    return ReportFailure(o.file.json, "open " + o.file.file, file.OpenResult());
  nlohmann::json results = nlohmann::json::array();
  for (const Words& op : ops) {
    nlohmann::json result;
    std::string usage;
    HRESULT hr = RunOperation(*client, file.Handle(), o.file.program, op, &result, &usage);
    if (!usage.empty()) return ReportError(o.file.json, "file: " + usage, kExitUsage);
    if (hr != S_OK && hr != S_FALSE) {
      if (!o.file.json) PrintResult(false, results);
      return ReportFailure(o.file.json, op[0], hr);
    }
    results.push_back(result);
  }
  HRESULT closed = file.Close();
  if (closed != S_OK) return ReportFailure(o.file.json, "close " + o.file.file, closed);
  PrintResult(o.file.json, results);
  return kExitOk;
}

}  // namespace

void AddServerFileCommand(CLI::App& app, Action& run) {
  auto o = std::make_shared<FileCommandOptions>();
  CLI::App* sub = app.add_subcommand(
      "file", "Run several operations on one file while it is held open (see 'file --help')");
  AddFileOptions(sub, &o->file);
  sub->add_option("--script", o->script, "read operations from this file");
  sub->add_option("OPS", o->words,
                  "operations: tags | get TAG [FROM TO|@TIME] | get-raw ... | count TAG "
                  "[FROM TO] | put TAG T=V... | put-raw TAG T=HEX... | delete FROM TO "
                  "[tag=T|category=C] | shift OFFSET [tag=T|category=C] | intervals TAG | "
                  "clean");
  sub->callback([o, &run] { run = [o] { return RunFileCommand(*o); }; });
}

}  // namespace marquel::ctl
