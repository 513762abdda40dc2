// Running ffmpeg and ffprobe from the tests: what a player decodes from a file,
// and what ffprobe complains about.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

namespace marquel::fftest {

inline std::string Output(const std::string& cmd, bool* ok = nullptr) {
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) return "";
  std::string out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  const int status = pclose(p);
  if (ok != nullptr) *ok = status == 0;
  return out;
}

inline bool HaveFfmpeg() {
  return std::system("ffmpeg -version >/dev/null 2>&1") == 0 &&
         std::system("ffprobe -version >/dev/null 2>&1") == 0;
}

// ffmpeg's per-frame checksums of the video and audio; "failed: ..." when ffmpeg fails.
inline std::string FrameMd5(const std::string& path) {
  bool ok = false;
  std::string out = Output("ffmpeg -nostdin -hide_banner -loglevel error -i '" + path +
                               "' -map 0:v -map 0:a -f framemd5 - 2>&1",
                           &ok);
  return ok ? out : "failed: " + out;
}

// What `ffprobe -v error` reports about the file.
inline std::string ProbeErrors(const std::string& path) {
  return Output("ffprobe -v error -show_format -show_streams '" + path + "' 2>&1 >/dev/null");
}

}  // namespace marquel::fftest
