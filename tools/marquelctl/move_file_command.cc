// marquelctl mv: renames a media file and carries its tags over to the new name.
//
//   mv OLD NEW [--force] [--json]
//
// Renames the file, then has the server move its cache entries to the new name
// (CacheRename). NEW must not exist unless --force is given. When the rename works but
// the server cannot carry the tags over, nothing is lost: they stay under OLD, and the
// command says so, tells how to get them back (rename the file back) and exits 1.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>

#include "cache_lookup.h"
#include "command.h"
#include "server_common.h"

namespace marquel::ctl {
namespace {

struct MoveFileOptions {
  FileOptions file;  // OLD
  std::string target;
  bool force = false;
};

// Why NEW may not be the rename's target ("" when it may), with *status the exit status.
std::string TargetProblem(const MoveFileOptions& o, int* status) {
  std::error_code ec;
  const auto st = std::filesystem::status(o.target, ec);
  *status = kExitRefused;
  if (!std::filesystem::exists(st)) return "";
  if (!std::filesystem::is_regular_file(st)) return "not a regular file: " + o.target;
  if (std::filesystem::equivalent(o.file.file, o.target, ec))
    return o.target + " is " + o.file.file;
  if (!o.force) return o.target + " exists; use --force to replace it";
  return "";
}

int RunMoveFile(const MoveFileOptions& o) {
  int status = kExitOk;
  if (!CheckMediaFile(o.file, o.file.file, &status)) return status;
  const std::string problem = TargetProblem(o, &status);
  if (!problem.empty()) return ReportError(o.file.json, "mv: " + problem, status);
  // The server is asked before anything changes, so that an unreachable one leaves all.
  auto client = Connect(o.file.json);
  if (!client) return kExitUnreachable;
  const std::string from = Absolute(o.file.file), to = Absolute(o.target);
  int32_t done = 0;  // a call the server answers: connecting alone does not start it
  if (HRESULT hr = client->IsWriteToFileDone(from.c_str(), &done); hr != S_OK)
    return ReportFailure(o.file.json, "mv " + o.file.file, hr);
  if (std::rename(o.file.file.c_str(), o.target.c_str()) != 0) {
    return ReportError(
        o.file.json,
        "mv: cannot rename " + o.file.file + " to " + o.target + ": " + std::strerror(errno),
        kExitRefused);
  }
  HRESULT hr = client->CacheRename(from.c_str(), to.c_str(), 0);
  if (hr != S_OK) {
    return ReportError(o.file.json,
                       "mv: " + o.file.file + " was renamed to " + o.target +
                           ", but the server could not carry its tags over (" + HresultName(hr) +
                           "); they stay under the old name; to get them " +
                           "back, rename it back: marquelctl mv " + o.target + " " + o.file.file,
                       hr == E_SERVER_UNAVAILABLE ? kExitUnreachable : kExitRefused);
  }
  PrintResult(o.file.json, {{"operation", "mv"}, {"file", o.file.file}, {"target", o.target}});
  return kExitOk;
}

}  // namespace

void AddMoveFileCommand(CLI::App& app, Action& run) {
  auto o = std::make_shared<MoveFileOptions>();
  CLI::App* sub = app.add_subcommand("mv", "Rename a media file and carry its tags with it");
  sub->add_option("OLD", o->file.file, "the media file")->required();
  sub->add_option("NEW", o->target, "its new name")->required();
  sub->add_flag("--force", o->force, "replace NEW when it exists");
  sub->add_flag("--json", o->file.json, "print the result as JSON");
  sub->callback([o, &run] { run = [o] { return RunMoveFile(*o); }; });
}

}  // namespace marquel::ctl
