// marquelctl migrate: moves the cached tags of media files into the files themselves.
//
//   migrate FILE ... [--json]
//
// For each FILE the server moves the tags its cache holds into the file (MPEG-2 and SVCD
// program streams, transport streams; the file must not be open in another session). Each file gets
// one line: "moved" when the tags are in the file now, "kept in the cache" when they stay where
// they were (nothing cached, a format or volume that cannot take them, the file in use). A failed
// move leaves the file as it was and its tags in the cache; it is a refusal, and the exit status is
// then 1 (0 otherwise).
#include <filesystem>
#include <iostream>
#include <memory>

#include "command.h"
#include "server_common.h"

namespace marquel::ctl {
namespace {

struct MigrateOptions {
  std::vector<std::string> files;
  bool json = false;
};

int Migrate(const MigrateOptions& o) {
  auto client = Connect(o.json);
  if (!client) return kExitUnreachable;
  nlohmann::json results = nlohmann::json::array();
  int status = kExitOk;
  for (const std::string& given : o.files) {
    std::error_code ec;
    const std::string file = std::filesystem::absolute(given, ec).lexically_normal().string();
    const HRESULT hr = client->MoveCacheDataToOrgFile(file.c_str());
    if (hr != S_OK && hr != S_FALSE) {
      status = ReportFailure(o.json, "migrate " + file, hr);
      continue;
    }
    const char* result = hr == S_OK ? "moved" : "kept in the cache";
    if (!o.json) std::cout << file << ": " << result << '\n';
    results.push_back({{"operation", "migrate"}, {"file", file}, {"result", result}});
  }
  if (o.json) PrintResult(true, results);
  return status;
}

}  // namespace

void AddServerMigrateCommand(CLI::App& app, Action& run) {
  auto o = std::make_shared<MigrateOptions>();
  CLI::App* sub = app.add_subcommand(
      "migrate",
      "Move the cached tags of MPEG-2, SVCD and transport-stream files into the files themselves");
  sub->add_option("FILE", o->files, "media files whose tags to move")->required();
  sub->add_flag("--json", o->json, "print the results as JSON");
  sub->callback([o, &run] { run = [o] { return Migrate(*o); }; });
}

}  // namespace marquel::ctl
