// marquelctl programs: the programs of a transport stream, read from its own tables.
//
//   programs FILE [--json]
//
// Lists each program of the PAT in order, numbered from 0 as --program takes them, with
// its PMT PID and the streams of its PMT, and opens each on the server (InsertNewProgram,
// on a read-only open) to show that the server takes it. The server's program list lasts
// as long as one open, so every command that takes --program finds its program the same
// way itself (file_programs.h). A file of another format has one program, 0.
#include <iostream>
#include <memory>

#include "command.h"
#include "file_programs.h"
#include "server_common.h"

namespace marquel::ctl {
namespace {

nlohmann::json ProgramsJson(const FilePrograms& found) {
  nlohmann::json list = nlohmann::json::array();
  for (size_t i = 0; i < found.programs.size(); ++i) {
    nlohmann::json streams = nlohmann::json::array();
    for (const auto& [kind, pid] : found.programs[i].streams)
      streams.push_back({{"kind", StreamKindName(kind)}, {"pid", pid}});
    list.push_back(
        {{"program", i}, {"pmt_pid", found.programs[i].pmt_pid}, {"streams", std::move(streams)}});
  }
  return list;
}

void PrintPrograms(const nlohmann::json& result) {
  if (!result["transport_stream"].get<bool>()) {
    std::cout << "0\t(not a transport stream: one program)\n";
    return;
  }
  for (const auto& p : result["programs"]) {
    std::cout << p["program"].get<int>() << "\tpmt " << p["pmt_pid"].get<uint32_t>();
    for (const auto& s : p["streams"])
      std::cout << '\t' << s["kind"].get<std::string>() << ' ' << s["pid"].get<uint32_t>();
    std::cout << '\n';
  }
}

int RunPrograms(const FileOptions& o) {
  int status = kExitOk;
  if (!CheckMediaFile(o, o.file, &status)) return status;
  FilePrograms found;
  std::string error;
  if (!ReadFilePrograms(o.file, &found, &error)) return ReportError(o.json, error, kExitRefused);
  auto client = Connect(o.json);
  if (!client) return kExitUnreachable;
  HeldFile file(*client, o.file, o.type, 0, true);
  if (file.OpenResult() != S_OK) return ReportFailure(o.json, "open " + o.file, file.OpenResult());
  for (size_t i = 0; i < found.programs.size(); ++i) {
    int32_t index = 0;
    HRESULT hr =
        ServerProgramIndex(*client, file.Handle(), o.file, static_cast<int32_t>(i), &index, &error);
    if (hr != S_OK) return ReportFailure(o.json, "program " + std::to_string(i), hr);
  }
  HRESULT hr = file.Close();
  if (hr != S_OK) return ReportFailure(o.json, "close " + o.file, hr);
  nlohmann::json result = {{"operation", "programs"},
                           {"file", o.file},
                           {"transport_stream", found.transport_stream},
                           {"programs", ProgramsJson(found)}};
  if (o.json)
    std::cout << result.dump(2) << '\n';
  else
    PrintPrograms(result);
  return kExitOk;
}

}  // namespace

void AddProgramsCommand(CLI::App& app, Action& run) {
  auto o = std::make_shared<FileOptions>();
  CLI::App* sub = app.add_subcommand("programs", "List a transport stream's programs");
  sub->add_option("FILE", o->file, "the media file")->required();
  sub->add_flag("--json", o->json, "print the result as JSON");
  sub->callback([o, &run] { run = [o] { return RunPrograms(*o); }; });
}

}  // namespace marquel::ctl
