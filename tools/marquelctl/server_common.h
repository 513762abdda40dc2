// What the server subcommands of marquelctl share: the connection, a file held open for
// one invocation, the operations on an open file, and how results and HRESULTs are shown.
//
// Every operation produces a JSON object; with --json it is printed as it is (one object,
// or an array of them for several operations), otherwise as plain text lines.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "json_output.h"
#include "marquel/marquel_client.h"

namespace marquel::ctl {

// The exit status for an HRESULT: 0 for S_OK and S_FALSE, kExitUsage for E_INVALIDARG,
// kExitFailure for the rest.
int ExitStatusFor(HRESULT hr);

// Tells the user that `what` failed with `hr`: a line on standard error, or with `json`
// an {"error": {...}} object on standard output. Returns the exit status.
int ReportFailure(bool json, const std::string& what, HRESULT hr);
// The JSON object that prints: {"operation", "error": {hresult, code, hex, message}}.
nlohmann::json FailureJson(const std::string& what, HRESULT hr);

// Prints a result: JSON as it is, or its text form.
void PrintResult(bool json, const nlohmann::json& result);

// Connects to the server; null after reporting why not.
std::unique_ptr<IMarquelClient> Connect(bool json);

// A media file opened for the length of one invocation, closed again at the end.
class HeldFile {
 public:
  // With `read_only` the session refuses every change and writes nothing at its close.
  HeldFile(IMarquelClient& client, const std::string& path, int32_t type, int32_t write_to_cache,
           bool read_only = false);
  ~HeldFile();
  HeldFile(const HeldFile&) = delete;
  HeldFile& operator=(const HeldFile&) = delete;
  HRESULT OpenResult() const { return open_hr_; }
  int32_t Handle() const { return handle_; }
  // Closes now; the close's HRESULT (S_OK when already closed).
  HRESULT Close();

 private:
  IMarquelClient& client_;
  HRESULT open_hr_;
  int32_t handle_ = -1;
  int32_t write_to_cache_;
};

// The options of a command on one media file.
struct FileOptions {
  std::string file;
  int32_t program = 0;
  int32_t type = 0;  // the file type for InitialFile (0: detect; the file must exist)
  bool write_to_cache = false;
  bool json = false;
};
// Adds FILE, --program, --type, --write-to-cache and --json to a subcommand.
void AddFileOptions(CLI::App* sub, FileOptions* options);

// Finds program `program` of the open file on the server; false after reporting why not
// (a program the file does not have is refused, exit 1), with *status the exit status.
bool OpenProgram(IMarquelClient& client, int32_t handle, const FileOptions& options, int32_t* index,
                 int* status);

// Adds a required decimal --tag option that refuses ids outside 0-255 by name.
void AddTagOption(CLI::App* sub, int32_t* tag);
// Refuses a tag id outside 0-255 with "no such tag id N (tag ids are 0-255)".
CLI::Validator TagIdRange();

// Whether `path` is a regular file the server can open; false after reporting "no such
// file" (not found) or "not a regular file" (refused), with *status the exit status.
bool CheckMediaFile(const FileOptions& options, const std::string& path, int* status);
// What CheckMediaFile would report about `path` ("" when nothing), without reporting it.
std::string MediaFileProblem(const FileOptions& options, const std::string& path, int* status);

// An operation on an open file, given the server's index of the program to work on.
using FileOperation =
    std::function<HRESULT(IMarquelClient&, int32_t handle, int32_t program, nlohmann::json*)>;
// Connects, opens the file, finds --program on the server (file_programs.h), runs the
// operation, prints its result, closes the file. Returns the exit status.
int RunOnFile(const FileOptions& options, const std::string& what, const FileOperation& op);

// Which tags a period operation touches: all, one tag, or one category.
struct TagScope {
  std::optional<int32_t> tag;
  std::optional<int32_t> category;
};

// One sample given by the user: "TIME=VALUE" (a number, or hex bytes for raw tags).
struct SampleText {
  int64_t time = 0;
  std::string value;
  int line = 0;           // its line in a CSV file, 0 otherwise
  bool raw_data = false;  // given as JSON "data": hex bytes of a raw tag
};
// The most bytes a sample file or script may have.
constexpr size_t kMaxInputBytes = size_t{64} << 20;
// Reads all of `in` into *text; false when it holds more than kMaxInputBytes.
bool ReadBounded(std::istream& in, std::string* text);

// Parses "TIME=VALUE" (TIME in any form ParseTime takes); false with *error saying why.
bool ParseSample(const std::string& text, SampleText* out, std::string* error);
// Reads samples from a CSV file (time,value per line; '#' comments and a header line are
// skipped) or a JSON file in any form of sample_json.h (for a document of several tags,
// those of `tag` in `program`); at most kMaxPutSamples. Errors name the file and, for
// CSV, the line.
bool ReadSampleFile(const std::string& path, bool json_file, std::vector<SampleText>* out,
                    std::string* error, int64_t tag = -1, int32_t program = 0);

// Samples checked against their tag's definition, ready to send.
struct CheckedSamples {
  std::vector<MarquelOneTag> plain;
  std::vector<std::pair<int64_t, std::vector<uint8_t>>> raw;
};
// Checks the tag id and every sample (plain values against the tag's width and kind, raw
// ones against its length field) before anything is sent; false with *error naming the
// first one that does not fit. With `truncate` a too wide plain value keeps its low bits.
bool CheckSamples(int64_t tag, bool raw, bool truncate, const std::vector<SampleText>& samples,
                  CheckedSamples* out, std::string* error);
// Parses hex bytes ("0a1b..."); false for an odd length or another character.
bool ParseHex(const std::string& text, std::vector<uint8_t>* out);

// The operations on an open file. Each fills `out` and returns the HRESULT that decides.
// The tags of a program with their counts and, `with_span`, their first and last time.
HRESULT ListTags(IMarquelClient& c, int32_t h, int32_t program, nlohmann::json* out,
                 bool with_span = true);
HRESULT GetSamples(IMarquelClient& c, int32_t h, int32_t program, int32_t tag, bool raw,
                   std::optional<std::pair<int64_t, int64_t>> period, std::optional<int64_t> at,
                   nlohmann::json* out);
HRESULT CountSamples(IMarquelClient& c, int32_t h, int32_t program, int32_t tag,
                     std::optional<std::pair<int64_t, int64_t>> period, nlohmann::json* out);
HRESULT PutSamples(IMarquelClient& c, int32_t h, int32_t program, int32_t tag,
                   const CheckedSamples& samples, nlohmann::json* out);
HRESULT DeletePeriod(IMarquelClient& c, int32_t h, int64_t from, int64_t to, const TagScope& scope,
                     nlohmann::json* out);
HRESULT ShiftTimes(IMarquelClient& c, int32_t h, int64_t offset, const TagScope& scope,
                   nlohmann::json* out);
HRESULT ListIntervals(IMarquelClient& c, int32_t h, int32_t program, int32_t tag,
                      nlohmann::json* out);
// Counts the samples of the tags in `scope` over every program of the file, within
// [from, to) when a period is given (to below 0: up to the last sample).
HRESULT CountInScope(IMarquelClient& c, int32_t h, const TagScope& scope,
                     std::optional<std::pair<int64_t, int64_t>> period, int64_t* total);
HRESULT CleanAll(IMarquelClient& c, int32_t h, nlohmann::json* out);

}  // namespace marquel::ctl
