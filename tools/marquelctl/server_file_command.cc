// marquelctl file: several operations on one media file while it is held open.
//
//   file FILE [--program N] [--type N] [--write-to-cache] [--json] [--script PATH] [-- OPS]
//
// The file is opened once, the operations run in order, and the file is closed at the
// end, so that the server keeps the data in memory between them. OPS come after the file
// (after "--" when a value is negative), a --script file holds them one or more per line
// ('#' starts a comment; "--script -" reads standard input). The script runs first, then
// the operations of the command line. Every operation is checked before the file is
// opened; an error names the script line. Times take every form of time_text.h.
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
#include <iostream>
#include <memory>
#include <set>
#include <sstream>

#include "command.h"
#include "file_programs.h"
#include "sample_check.h"
#include "server_common.h"
#include "time_text.h"

namespace marquel::ctl {
namespace {

const std::set<std::string> kOperations = {"tags",    "get",    "get-raw", "count",     "put",
                                           "put-raw", "delete", "shift",   "intervals", "clean"};
// The most words a script and command line may give together.
constexpr size_t kMaxScriptWords = 1 << 20;

struct FileCommandOptions {
  FileOptions file;
  std::string script;
  std::vector<std::string> words;
};

using Words = std::vector<std::string>;

// One operation's words and where they came from (a script line, or 0: the command line).
struct OperationWords {
  Words words;
  int line = 0;
};

// An operation checked and ready to run on the open file.
using Operation = FileOperation;

bool ToInt32(const std::string& s, int32_t* v) {
  int64_t wide = 0;
  if (!ParseDecimal(s, &wide) || wide < INT32_MIN || wide > INT32_MAX) return false;
  *v = static_cast<int32_t>(wide);
  return true;
}

bool ToTime(const std::string& s, int64_t* v) {
  std::string ignored;
  return ParseTime(s, v, &ignored);
}

// Splits words into operations: each starts with an operation's name.
bool SplitOperations(const std::vector<std::pair<std::string, int>>& words,
                     std::vector<OperationWords>* ops, std::string* error) {
  for (const auto& [w, line] : words) {
    if (kOperations.count(w)) {
      ops->push_back({{w}, line});
    } else if (ops->empty()) {
      *error = (line > 0 ? "line " + std::to_string(line) + ": " : "") + "'" + w +
               "' is not an operation";
      return false;
    } else {
      ops->back().words.push_back(w);
    }
  }
  return true;
}

bool ParseScope(const Words& op, size_t from, TagScope* scope) {
  std::string ignored;
  for (size_t i = from; i < op.size(); ++i) {
    int32_t v = 0;
    if (op[i].rfind("tag=", 0) == 0 && ToInt32(op[i].substr(4), &v) && CheckTagId(v, &ignored))
      scope->tag = v;
    else if (op[i].rfind("category=", 0) == 0 && ToInt32(op[i].substr(9), &v))
      scope->category = v;
    else
      return false;
  }
  return true;
}

// Reads a tag id word; false with *usage set when it is not one.
bool TagWord(const std::string& word, int32_t* tag, std::string* usage) {
  int64_t id = 0;
  if (!ParseDecimal(word, &id)) {
    *usage = "'" + word + "' is not a tag id";
    return false;
  }
  *tag = static_cast<int32_t>(id);
  return CheckTagId(id, usage);
}

// Checks one operation's words and builds it; null with *usage set when they are wrong.
Operation ParseOperation(const Words& op, std::string* usage) {
  const std::string& name = op[0];
  int32_t tag = 0;
  auto bad = [&](const char* form) {
    if (usage->empty()) *usage = std::string("expected '") + form + "'";
    *usage = name + ": " + *usage;
    return Operation();
  };
  if (name == "tags" || name == "clean") {
    if (op.size() != 1) return bad(name == "tags" ? "tags" : "clean");
    if (name == "clean")
      return [](IMarquelClient& c, int32_t h, int32_t, nlohmann::json* out) {
        return CleanAll(c, h, out);
      };
    return [](IMarquelClient& c, int32_t h, int32_t program, nlohmann::json* out) {
      return ListTags(c, h, program, out);
    };
  }
  if (name == "get" || name == "get-raw" || name == "count") {
    if (op.size() < 2 || !TagWord(op[1], &tag, usage)) return bad("TAG [FROM TO | @TIME]");
    std::optional<std::pair<int64_t, int64_t>> period;
    std::optional<int64_t> at;
    int64_t a = 0, b = 0;
    if (op.size() == 3 && op[2][0] == '@' && ToTime(op[2].substr(1), &a) && name != "count") {
      at = a;
    } else if (op.size() == 4 && ToTime(op[2], &a) && ToTime(op[3], &b)) {
      period = std::make_pair(a, b);
    } else if (op.size() != 2) {
      return bad("TAG [FROM TO | @TIME]");
    }
    if (name == "get-raw" && !CheckRawLength(tag, 1, usage)) return bad("");
    if (name == "count")
      return [=](IMarquelClient& c, int32_t h, int32_t program, nlohmann::json* out) {
        return CountSamples(c, h, program, tag, period, out);
      };
    const bool raw = name == "get-raw";
    return [=](IMarquelClient& c, int32_t h, int32_t program, nlohmann::json* out) {
      return GetSamples(c, h, program, tag, raw, period, at, out);
    };
  }
  if (name == "put" || name == "put-raw") {
    if (op.size() < 3 || !TagWord(op[1], &tag, usage)) return bad("TAG TIME=VALUE ...");
    std::vector<SampleText> given;
    for (size_t i = 2; i < op.size(); ++i) {
      SampleText s;
      if (!ParseSample(op[i], &s, usage)) return bad("");
      given.push_back(s);
    }
    auto samples = std::make_shared<CheckedSamples>();
    if (!CheckSamples(tag, name == "put-raw", false, given, samples.get(), usage)) return bad("");
    return [=](IMarquelClient& c, int32_t h, int32_t program, nlohmann::json* out) {
      return PutSamples(c, h, program, tag, *samples, out);
    };
  }
  if (name == "delete") {
    int64_t a = 0, b = 0;
    TagScope scope;
    if (op.size() < 3 || !ToTime(op[1], &a) || !ToTime(op[2], &b) || !ParseScope(op, 3, &scope))
      return bad("FROM TO [tag=T|category=C]");
    return [=](IMarquelClient& c, int32_t h, int32_t, nlohmann::json* out) {
      return DeletePeriod(c, h, a, b, scope, out);
    };
  }
  if (name == "shift") {
    int64_t offset = 0;
    TagScope scope;
    if (op.size() < 2 || !ToTime(op[1], &offset) || !ParseScope(op, 2, &scope))
      return bad("OFFSET [tag=T|category=C]");
    return [=](IMarquelClient& c, int32_t h, int32_t, nlohmann::json* out) {
      return ShiftTimes(c, h, offset, scope, out);
    };
  }
  if (op.size() != 2 || !TagWord(op[1], &tag, usage)) return bad("TAG");
  return [=](IMarquelClient& c, int32_t h, int32_t program, nlohmann::json* out) {
    return ListIntervals(c, h, program, tag, out);
  };
}

// Reads the script's words with their line numbers; "-" is standard input.
bool ReadScript(const std::string& path, std::vector<std::pair<std::string, int>>* words,
                std::string* error) {
  std::ifstream file;
  if (path != "-") file.open(path, std::ios::binary);
  std::istream& source = path == "-" ? std::cin : file;
  std::string content;
  if (!source) {
    *error = "cannot read " + path;
    return false;
  }
  if (!ReadBounded(source, &content)) {
    *error = path + ": more than " + std::to_string(kMaxInputBytes) + " bytes";
    return false;
  }
  std::istringstream in(content);
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    line = line.substr(0, line.find('#'));
    std::istringstream tokens(line);
    std::string word;
    while (tokens >> word) {
      if (words->size() >= kMaxScriptWords) {
        *error = path + ":" + std::to_string(number) + ": more than " +
                 std::to_string(kMaxScriptWords) + " words";
        return false;
      }
      words->emplace_back(word, number);
    }
  }
  return true;
}

// With --json every outcome is one array: the results so far, then the failure.
int FailUsage(const FileCommandOptions& o, const std::string& message, int status) {
  if (!o.file.json) return ReportError(false, message, status);
  std::cout << nlohmann::json::array({ErrorJson(message)}).dump(2) << '\n';
  return status;
}

int FailCall(const FileCommandOptions& o, nlohmann::json results, const std::string& what,
             HRESULT hr) {
  if (!o.file.json) {
    PrintResult(false, results);
    return ReportFailure(false, what, hr);
  }
  results.push_back(FailureJson(what, hr));
  std::cout << results.dump(2) << '\n';
  return ExitStatusFor(hr);
}

// Checks every operation before the file is opened, so that a mistake late in a script
// changes nothing; false after reporting the first wrong one.
bool ParseAll(const FileCommandOptions& o, std::vector<OperationWords>* split,
              std::vector<Operation>* ops, int* status) {
  std::vector<std::pair<std::string, int>> words;
  std::string error;
  if (!o.script.empty() && !ReadScript(o.script, &words, &error)) {
    *status = FailUsage(o, "file: " + error, kExitUsage);
    return false;
  }
  for (const std::string& w : o.words) words.emplace_back(w, 0);
  split->clear();
  if (!SplitOperations(words, split, &error)) {
    *status = FailUsage(o, "file: " + error, kExitUsage);
    return false;
  }
  if (split->empty()) {
    *status = FailUsage(o, "file: no operations given", kExitUsage);
    return false;
  }
  ops->clear();
  for (const OperationWords& op : *split) {
    std::string usage;
    ops->push_back(ParseOperation(op.words, &usage));
    if (!ops->back()) {
      const std::string where = op.line > 0 ? o.script + ":" + std::to_string(op.line) + ": " : "";
      *status = FailUsage(o, "file: " + where + usage, kExitUsage);
      return false;
    }
  }
  return true;
}

int RunFileCommand(const FileCommandOptions& o) {
  std::vector<OperationWords> split;
  std::vector<Operation> ops;
  int status = kExitOk;
  if (!ParseAll(o, &split, &ops, &status)) return status;
  const std::string problem = MediaFileProblem(o.file, o.file.file, &status);
  if (!problem.empty()) return FailUsage(o, problem, status);
  std::string error;
  auto client = CreateMarquelClient(&error);
  if (!client) return FailUsage(o, "cannot reach the session bus: " + error, kExitUnreachable);
  HeldFile file(*client, o.file.file, o.file.type, o.file.write_to_cache ? 1 : 0);
  if (file.OpenResult() != S_OK)
    return FailCall(o, nlohmann::json::array(), "open " + o.file.file, file.OpenResult());
  int32_t program = 0;
  HRESULT hr =
      ServerProgramIndex(*client, file.Handle(), o.file.file, o.file.program, &program, &error);
  if (hr != S_OK) return FailUsage(o, error, hr == E_FAIL ? kExitRefused : ExitStatusFor(hr));
  nlohmann::json results = nlohmann::json::array();
  for (size_t i = 0; i < ops.size(); ++i) {
    nlohmann::json result;
    hr = ops[i](*client, file.Handle(), program, &result);
    if (result.contains("program")) result["program"] = o.file.program;
    if (hr != S_OK && hr != S_FALSE) return FailCall(o, results, split[i].words[0], hr);
    results.push_back(result);
  }
  HRESULT closed = file.Close();
  // In text a failed close shows no results: what they changed was not kept.
  if (closed != S_OK)
    return FailCall(o, o.file.json ? results : nlohmann::json::array(), "close " + o.file.file,
                    closed);
  PrintResult(o.file.json, results);
  return kExitOk;
}

}  // namespace

void AddServerFileCommand(CLI::App& app, Action& run) {
  auto o = std::make_shared<FileCommandOptions>();
  CLI::App* sub = app.add_subcommand(
      "file", "Run several operations on one file while it is held open (see 'file --help')");
  AddFileOptions(sub, &o->file);
  sub->add_option("--script", o->script, "read operations from this file ('-': standard input)");
  sub->add_option("OPS", o->words,
                  "operations: tags | get TAG [FROM TO|@TIME] | get-raw ... | count TAG "
                  "[FROM TO] | put TAG T=V... | put-raw TAG T=HEX... | delete FROM TO "
                  "[tag=T|category=C] | shift OFFSET [tag=T|category=C] | intervals TAG | "
                  "clean");
  sub->callback([o, &run] { run = [o] { return RunFileCommand(*o); }; });
}

}  // namespace marquel::ctl
