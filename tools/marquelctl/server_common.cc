// marquelctl's server subcommands: connection, held files, results, parsing.
#include "server_common.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "command.h"
#include "file_programs.h"
#include "sample_check.h"
#include "sample_json.h"
#include "time_text.h"

namespace marquel::ctl {
namespace {

std::string HexCode(HRESULT hr) {
  char text[16];
  snprintf(text, sizeof text, "0x%08X", static_cast<uint32_t>(hr));
  return text;
}

std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(" \t\r\n");
  return s.substr(b, e - b + 1);
}

std::string Time(const nlohmann::json& ticks) {
  return FormatTime(ticks.get<int64_t>(), OutputTimeFormat());
}

// The text form of one result object.
void PrintText(const nlohmann::json& r) {
  std::string op = r.value("operation", "");
  if (op == "tags") {
    for (const auto& t : r["tags"]) {
      std::cout << t["id"].get<int>() << '\t' << t["count"].get<int64_t>() << '\t'
                << (t["raw"].get<bool>()      ? "raw"
                    : t.value("state", false) ? "state"
                                              : "plain");
      std::cout << '\t'
                << (t.contains("sample_size") ? std::to_string(t["sample_size"].get<int>()) : "-");
      for (const char* end : {"first", "last"})
        std::cout << '\t' << (t.value(end, nlohmann::json()).is_null() ? "-" : Time(t[end]));
      std::cout << '\n';
    }
  } else if (op == "get") {
    for (const auto& s : r["samples"]) {
      std::cout << Time(s["time"]) << '\t';
      if (s.contains("data"))
        std::cout << s["data"].get<std::string>() << '\n';
      else
        std::cout << s["value"].get<int64_t>() << '\n';
    }
  } else if (op == "count") {
    std::cout << r["count"].get<int64_t>() << '\n';
  } else if (op == "put") {
    std::cout << "inserted " << r["inserted"].get<int64_t>() << '\n';
  } else if (op == "intervals") {
    for (const auto& i : r["intervals"])
      std::cout << Time(i["start"]) << '\t' << Time(i["end"]) << '\n';
  } else if (op == "wait") {
    std::cout << (r["done"].get<bool>()      ? "written"
                  : r.value("cached", false) ? "kept in the cache"
                                             : "still pending")
              << '\t' << r["file"].get<std::string>() << '\n';
  } else if (op == "mv") {
    std::cout << "renamed " << r["file"].get<std::string>() << " to "
              << r["target"].get<std::string>() << "; its tags went with it\n";
  } else {
    std::cout << op << ": done\n";
  }
}

}  // namespace

int ExitStatusFor(HRESULT hr) {
  if (hr == S_OK || hr == S_FALSE) return kExitOk;
  // The input was checked here before it was sent: what the server then refuses, even as
  // E_INVALIDARG, is a refusal and not a wrong command line.
  if (hr == E_SERVER_UNAVAILABLE) return kExitUnreachable;
  return kExitRefused;
}

nlohmann::json FailureJson(const std::string& what, HRESULT hr) {
  return {{"operation", what},
          {"error",
           {{"hresult", HresultName(hr)},
            {"code", hr},
            {"hex", HexCode(hr)},
            {"message", HresultText(hr)}}}};
}

int ReportFailure(bool json, const std::string& what, HRESULT hr) {
  if (json) {
    std::cout << FailureJson(what, hr).dump(2) << '\n';
  } else {
    std::cerr << "marquelctl: " << what << ": " << HresultName(hr) << " (" << HexCode(hr)
              << "): " << HresultText(hr) << '\n';
  }
  return ExitStatusFor(hr);
}

void PrintResult(bool json, const nlohmann::json& result) {
  if (json) {
    std::cout << result.dump(2) << '\n';
    return;
  }
  if (result.is_array()) {
    for (const auto& r : result) PrintText(r);
  } else {
    PrintText(result);
  }
}

std::unique_ptr<IMarquelClient> Connect(bool json) {
  std::string error;
  auto client = CreateMarquelClient(&error);
  if (!client) ReportError(json, "cannot reach the session bus: " + error, kExitUnreachable);
  return client;
}

HeldFile::HeldFile(IMarquelClient& client, const std::string& path, int32_t type,
                   int32_t write_to_cache, bool read_only)
    : client_(client), write_to_cache_(write_to_cache) {
  open_hr_ = read_only ? client_.InitialFile2(path.c_str(), type, 0, 0, nullptr, 1, 0, -1, &handle_)
                       : client_.InitialFile(path.c_str(), type, 0, &handle_);
  if (open_hr_ != S_OK) handle_ = -1;
}

HeldFile::~HeldFile() {
  Close();
}

HRESULT HeldFile::Close() {
  if (handle_ < 0) return S_OK;
  HRESULT hr = client_.CloseFile(handle_, write_to_cache_);
  handle_ = -1;
  return hr;
}

void AddFileOptions(CLI::App* sub, FileOptions* options) {
  sub->footer(TimeFormsHelp());
  sub->add_option("FILE", options->file, "the media file")->required();
  sub->add_option("--program", options->program, "program index (default 0)")
      ->transform(DecimalNumber());
  sub->add_option("--type", options->type, "file type code for opening (default 0: detect)")
      ->transform(DecimalNumber());
  sub->add_option_function<std::string>(
      "--time-format",
      [](const std::string& form) {
        TimeFormat format;
        if (!ParseTimeFormat(form, &format))
          throw CLI::ValidationError("--time-format", "ticks, seconds or hms");
        SetOutputTimeFormat(format);
      },
      "how times are printed: ticks (default, 100 ns), seconds (62.5s) or hms (0:01:02.5)");
  sub->add_flag("--write-to-cache", options->write_to_cache,
                "close with bWriteToCache 1 (the data stays in the cache)");
  sub->add_flag("--json", options->json, "print the result as JSON");
}

void AddTagOption(CLI::App* sub, int32_t* tag) {
  sub->add_option("--tag", *tag, "tag id (0-255)")
      ->required()
      ->transform(DecimalNumber())
      ->check(TagIdRange());
}

CLI::Validator TagIdRange() {
  return CLI::Validator(
      [](std::string& value) -> std::string {
        int64_t tag = 0;
        std::string error;
        if (ParseDecimal(value, &tag) && !CheckTagId(tag, &error)) return error;
        return "";
      },
      "0-255");
}

std::string MediaFileProblem(const FileOptions& options, const std::string& path, int* status) {
  std::error_code ec;
  const auto st = std::filesystem::status(path, ec);
  // A given --type may name a file the server creates; detection needs the file itself.
  if (!std::filesystem::exists(st)) {
    if (options.type != 0) return "";
    *status = kExitNotFound;
    return "no such file: " + path;
  }
  if (!std::filesystem::is_regular_file(st)) {
    *status = kExitRefused;
    return "not a regular file: " + path;
  }
  return "";
}

bool CheckMediaFile(const FileOptions& options, const std::string& path, int* status) {
  const std::string problem = MediaFileProblem(options, path, status);
  if (problem.empty()) return true;
  ReportError(options.json, problem, *status);
  return false;
}

bool OpenProgram(IMarquelClient& client, int32_t handle, const FileOptions& options, int32_t* index,
                 int* status) {
  std::string error;
  HRESULT hr = ServerProgramIndex(client, handle, options.file, options.program, index, &error);
  if (hr == S_OK) return true;
  *status = ReportError(options.json, error, hr == E_FAIL ? kExitRefused : ExitStatusFor(hr));
  return false;
}

int RunOnFile(const FileOptions& options, const std::string& what, const FileOperation& op) {
  int status = kExitOk;
  if (!CheckMediaFile(options, options.file, &status)) return status;
  auto client = Connect(options.json);
  if (!client) return kExitUnreachable;
  HeldFile file(*client, options.file, options.type, options.write_to_cache ? 1 : 0);
  if (file.OpenResult() != S_OK)
    return ReportFailure(options.json, "open " + options.file, file.OpenResult());
  int32_t program = 0;
  int status_of_program = kExitOk;
  if (!OpenProgram(*client, file.Handle(), options, &program, &status_of_program))
    return status_of_program;
  nlohmann::json result;
  HRESULT hr = op(*client, file.Handle(), program, &result);
  if (hr != S_OK && hr != S_FALSE) return ReportFailure(options.json, what, hr);
  result["file"] = options.file;
  if (result.contains("program")) result["program"] = options.program;
  HRESULT closed = file.Close();
  if (closed != S_OK) return ReportFailure(options.json, "close " + options.file, closed);
  PrintResult(options.json, result);
  return kExitOk;
}

bool ReadBounded(std::istream& in, std::string* text) {
  char chunk[65536];
  text->clear();
  while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
    text->append(chunk, static_cast<size_t>(in.gcount()));
    if (text->size() > kMaxInputBytes) return false;
  }
  return true;
}

bool ParseSample(const std::string& text, SampleText* out, std::string* error) {
  size_t eq = text.find('=');
  if (eq == std::string::npos) {
    *error = "'" + text + "' is not TIME=VALUE";
    return false;
  }
  out->value = Trim(text.substr(eq + 1));
  if (out->value.empty()) {
    *error = "'" + text + "' has no value after '='";
    return false;
  }
  return ParseTime(Trim(text.substr(0, eq)), &out->time, error);
}

bool ReadSampleFile(const std::string& path, bool json_file, std::vector<SampleText>* out,
                    std::string* error, int64_t tag, int32_t program) {
  std::ifstream file(path, std::ios::binary);
  std::string content;
  if (!file) {
    *error = "cannot read " + path;
    return false;
  }
  if (!ReadBounded(file, &content)) {
    *error = path + ": more than " + std::to_string(kMaxInputBytes) + " bytes";
    return false;
  }
  if (json_file) {
    nlohmann::json doc = nlohmann::json::parse(content, nullptr, false);
    if (doc.is_discarded() || !SamplesFromJson(doc, tag, program, out, error)) {
      *error = path + ": " + (doc.is_discarded() ? "not JSON" : *error);
      return false;
    }
    return true;
  }
  std::istringstream in(content);
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    line = Trim(line);
    if (line.empty() || line[0] == '#') continue;
    const std::string where = path + ":" + std::to_string(number) + ": ";
    size_t comma = line.find_first_of(",;\t");
    SampleText s;
    std::string why;
    if (comma == std::string::npos || !ParseTime(Trim(line.substr(0, comma)), &s.time, &why)) {
      if (out->empty() && number == 1) continue;  // a header line
      *error = where + (why.empty() ? "expected TIME,VALUE" : why);
      return false;
    }
    s.value = Trim(line.substr(comma + 1));
    if (s.value.empty()) {
      *error = where + "expected TIME,VALUE";
      return false;
    }
    s.line = number;
    out->push_back(s);
    if (out->size() > kMaxPutSamples) {
      *error = where + "more than " + std::to_string(kMaxPutSamples) + " samples";
      return false;
    }
  }
  return true;
}

bool CheckSamples(int64_t tag, bool raw, bool truncate, const std::vector<SampleText>& samples,
                  CheckedSamples* out, std::string* error) {
  if (!CheckTagId(tag, error)) return false;
  if (samples.empty()) {
    *error = "no samples given";
    return false;
  }
  if (samples.size() > kMaxPutSamples) {
    *error = "more than " + std::to_string(kMaxPutSamples) + " samples";
    return false;
  }
  const int32_t id = static_cast<int32_t>(tag);
  for (const SampleText& s : samples) {
    const std::string where = s.line > 0 ? "line " + std::to_string(s.line) + ": " : "";
    std::string why;
    if (raw) {
      std::vector<uint8_t> bytes;
      if (s.value.size() > 2 * static_cast<size_t>(kMaxRawSampleBytes) + 2 ||
          !ParseHex(s.value, &bytes)) {
        *error = where + "'" + s.value + "' is not hex bytes";
        return false;
      }
      if (!CheckRawLength(id, static_cast<int64_t>(bytes.size()), &why)) {
        *error = where + why;
        return false;
      }
      out->raw.emplace_back(s.time, std::move(bytes));
      continue;
    }
    int64_t value = 0;
    int32_t stored = 0;
    if (s.raw_data) {
      *error = where + "'" + s.value + "' is raw data; use --raw";
      return false;
    }
    if (!ParseDecimal(s.value, &value)) {
      *error = where + "'" + s.value + "' is not a decimal number";
      return false;
    }
    if (!CheckPlainValue(id, value, truncate, &stored, &why)) {
      *error = where + why;
      return false;
    }
    out->plain.push_back(MarquelOneTag{s.time, stored});
  }
  std::vector<std::pair<int64_t, int64_t>> steps;
  for (const MarquelOneTag& s : out->plain) steps.emplace_back(s.llTimeCode, s.value);
  return CheckDeltaSteps(id, std::move(steps), error);
}

bool ParseHex(const std::string& text, std::vector<uint8_t>* out) {
  if (text.size() % 2 != 0) return false;
  out->clear();
  for (size_t i = 0; i < text.size(); i += 2) {
    int hi = isxdigit(static_cast<unsigned char>(text[i]))
                 ? std::stoi(text.substr(i, 1), nullptr, 16)
                 : -1;
    int lo = isxdigit(static_cast<unsigned char>(text[i + 1]))
                 ? std::stoi(text.substr(i + 1, 1), nullptr, 16)
                 : -1;
    if (hi < 0 || lo < 0) return false;
    out->push_back(static_cast<uint8_t>(hi * 16 + lo));
  }
  return true;
}

}  // namespace marquel::ctl
