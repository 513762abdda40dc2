// marquelctl's server subcommands: connection, held files, results, parsing.
#include "server_common.h"

#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

#include "command.h"

namespace marquel::ctl {
namespace {

std::string HexCode(HRESULT hr) {
  char text[16];
  snprintf(text, sizeof text, "0x%08X", static_cast<uint32_t>(hr));
  return text;
}

bool ParseInt64(const std::string& text, int64_t* out) {
  if (text.empty()) return false;
  try {
    size_t used = 0;
    long long v = std::stoll(text, &used, 0);
    if (used != text.size()) return false;
    *out = v;
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(" \t\r\n");
  return s.substr(b, e - b + 1);
}

// The text form of one result object.
void PrintText(const nlohmann::json& r) {
  std::string op = r.value("operation", "");
  if (op == "tags") {
    for (const auto& t : r["tags"]) {
      std::cout << t["id"].get<int>() << '\t' << t["count"].get<int64_t>() << '\t'
                << (t["raw"].get<bool>() ? "raw" : "plain");
      if (t.contains("sample_size")) std::cout << '\t' << t["sample_size"].get<int>();
      std::cout << '\n';
    }
  } else if (op == "get") {
    for (const auto& s : r["samples"]) {
      std::cout << s["time"].get<int64_t>() << '\t';
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
      std::cout << i["start"].get<int64_t>() << '\t' << i["end"].get<int64_t>() << '\n';
  } else if (op == "status") {
    std::cout << "open files\t" << r["open_files"].get<int>() << '\n';
    std::cout << "memory\t" << r["memory"].get<int64_t>() << '\n';
    for (const auto& f : r["files"])
      std::cout << "handle " << f["handle"].get<int>() << "\tmemory " << f["memory"].get<int64_t>()
                << '\n';
    for (const auto& p : r["pending"])
      std::cout << (p["done"].get<bool>() ? "written\t" : "pending\t")
                << p["file"].get<std::string>() << '\n';
    for (const auto& s : r["saved_pending"])
      std::cout << "saved pending\t" << s.get<std::string>() << '\n';
  } else if (op == "wait") {
    std::cout << (r["done"].get<bool>() ? "written" : "still pending") << '\t'
              << r["file"].get<std::string>() << '\n';
  } else {
    std::cout << op << ": done\n";
  }
}

}  // namespace

int ExitStatusFor(HRESULT hr) {
  if (hr == S_OK || hr == S_FALSE) return kExitOk;
  if (hr == E_INVALIDARG) return kExitUsage;
  return kExitFailure;
}

int ReportFailure(bool json, const std::string& what, HRESULT hr) {
  if (json) {
    nlohmann::json error = {{"operation", what},
                            {"error",
                             {{"hresult", HresultName(hr)},
                              {"code", hr},
                              {"hex", HexCode(hr)},
                              {"message", HresultText(hr)}}}};
    std::cout << error.dump(2) << '\n';
  } else {
    std::cerr << "marquelctl: " << what << ": " << HresultName(hr) << " (" << HexCode(hr)
              << "): " << HresultText(hr) << '\n';
  }
  return ExitStatusFor(hr);
}

int ReportError(bool json, const std::string& message, int status) {
  if (json)
    std::cout << nlohmann::json({{"error", {{"message", message}}}}).dump(2) << '\n';
  else
    std::cerr << "marquelctl: " << message << '\n';
  return status;
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
  if (!client) ReportError(json, "cannot reach the session bus: " + error, kExitFailure);
  return client;
}

HeldFile::HeldFile(IMarquelClient& client, const std::string& path, int32_t type,
                   int32_t write_to_cache)
    : client_(client), write_to_cache_(write_to_cache) {
  open_hr_ = client_.InitialFile(path.c_str(), type, 0, &handle_);
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
  sub->add_option("FILE", options->file, "the media file")->required();
  sub->add_option("--program", options->program, "program index (default 0)");
  sub->add_option("--type", options->type, "file type code for opening (default 0: detect)");
  sub->add_flag("--write-to-cache", options->write_to_cache,
                "close with bWriteToCache 1 (the data stays in the cache)");
  sub->add_flag("--json", options->json, "print the result as JSON");
}

int RunOnFile(const FileOptions& options, const std::string& what, const FileOperation& op) {
  auto client = Connect(options.json);
  if (!client) return kExitFailure;
  HeldFile file(*client, options.file, options.type, options.write_to_cache ? 1 : 0);
  if (file.OpenResult() != S_OK)
    return ReportFailure(options.json, "open " + options.file, file.OpenResult());
  nlohmann::json result;
  HRESULT hr = op(*client, file.Handle(), &result);
  if (hr != S_OK && hr != S_FALSE) return ReportFailure(options.json, what, hr);
  result["file"] = options.file;
  HRESULT closed = file.Close();
  if (closed != S_OK) return ReportFailure(options.json, "close " + options.file, closed);
  PrintResult(options.json, result);
  return kExitOk;
}

bool ParseSample(const std::string& text, SampleText* out) {
  size_t eq = text.find('=');
  if (eq == std::string::npos) return false;
  out->value = Trim(text.substr(eq + 1));
  return ParseInt64(Trim(text.substr(0, eq)), &out->time) && !out->value.empty();
}

bool ReadSampleFile(const std::string& path, bool json_file, std::vector<SampleText>* out,
                    std::string* error) {
  std::ifstream in(path);
  if (!in) {
    *error = "cannot read " + path;
    return false;
  }
  if (json_file) {
    try {
      nlohmann::json doc = nlohmann::json::parse(in);
      for (const auto& item : doc) {
        const auto& t = item.is_array() ? item.at(0) : item.at("time");
        const auto& v = item.is_array() ? item.at(1) : item.at("value");
        out->push_back(SampleText{t.get<int64_t>(), v.is_string()
                                                        ? v.get<std::string>()
                                                        : std::to_string(v.get<int64_t>())});
      }
      return true;
    } catch (const std::exception& e) {
      *error = path + ": " + e.what();
      return false;
    }
  }
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    line = Trim(line);
    if (line.empty() || line[0] == '#') continue;
    size_t comma = line.find_first_of(",;\t");
    SampleText s;
    if (comma == std::string::npos || !ParseInt64(Trim(line.substr(0, comma)), &s.time)) {
      if (out->empty() && number == 1) continue;  // a header line
      *error = path + ":" + std::to_string(number) + ": expected TIME,VALUE";
      return false;
    }
    s.value = Trim(line.substr(comma + 1));
    out->push_back(s);
  }
  return true;
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

std::string Hex(const uint8_t* data, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    out.push_back(kDigits[data[i] >> 4]);
    out.push_back(kDigits[data[i] & 15]);
  }
  return out;
}

}  // namespace marquel::ctl
