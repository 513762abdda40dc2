// Shared by marquelctl's tests: runs the built tool as a user would, in the test's fresh
// home, and captures what it prints and its exit status.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "testsupport/fresh_home.h"

namespace marquel::ctltest {

using Bytes = std::vector<uint8_t>;

// One run of the tool: its exit status (-1 when it did not exit normally) and outputs.
struct CtlRun {
  int status = -1;
  std::string out;
  std::string err;
};

inline std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Writes bytes to path, replacing the file.
inline void WriteBytes(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

// Runs marquelctl with args, in cwd when given, with standard input read from stdin_path
// when given, and waits for it.
inline CtlRun Ctl(const std::vector<std::string>& args, const std::string& cwd = "",
                  const std::string& stdin_path = "") {
  const std::string out_path = test::TestPath("ctl.out");
  const std::string err_path = test::TestPath("ctl.err");
  pid_t pid = fork();
  if (pid == 0) {
    int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    if (!stdin_path.empty()) {
      int in = open(stdin_path.c_str(), O_RDONLY);
      if (in < 0) _exit(125);
      dup2(in, STDIN_FILENO);
    }
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
    std::vector<char*> argv = {const_cast<char*>(MARQUELCTL_PATH)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(MARQUELCTL_PATH, argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  CtlRun r;
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  r.out = ReadText(out_path);
  r.err = ReadText(err_path);
  return r;
}

}  // namespace marquel::ctltest
