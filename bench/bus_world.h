// A private world for the bus benches: a home of its own under $TMPDIR (XDG folders,
// store), the built marquel64 registered there for activation, and a dbus-daemon of its
// own. Everything is removed at the end.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace benchworld {

struct World {
  std::string root;
  pid_t daemon = -1;
  pid_t noop = -1;
};

// Set before MakeWorld to start a second process on the bus (the no-op server).
using ExtraServer = void (*)();

inline bool Run(const std::vector<std::string>& argv) {
  pid_t pid = fork();
  if (pid == 0) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

inline bool MakeWorld(World* w, ExtraServer extra = nullptr) {
  const char* tmp = getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/marquel-bench-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) return false;
  w->root = pattern;
  for (const char* dir : {"/data", "/run", "/tmp", "/machine"})
    std::filesystem::create_directories(w->root + dir);
  chmod((w->root + "/run").c_str(), 0700);
  setenv("HOME", w->root.c_str(), 1);
  setenv("XDG_DATA_HOME", (w->root + "/data").c_str(), 1);
  setenv("XDG_RUNTIME_DIR", (w->root + "/run").c_str(), 1);
  setenv("TMPDIR", (w->root + "/tmp").c_str(), 1);
  setenv("MARQUEL_MACHINE_STORE", (w->root + "/machine/registry.db").c_str(), 1);
  if (!Run({MARQUEL64_PATH, "-RegServer"})) return false;
  std::string config = w->root + "/bus.conf";
  std::ofstream(config) << "<busconfig><type>session</type><listen>unix:tmpdir=/tmp</listen>"
                           "<auth>EXTERNAL</auth><standard_session_servicedirs/>"
                           "<policy context=\"default\"><allow user=\"*\"/>"
                           "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                           "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy>"
                           "<limit name=\"max_message_size\">1000000000</limit>"
                           "<limit name=\"max_incoming_bytes\">1000000000</limit>"
                           "<limit name=\"max_outgoing_bytes\">1000000000</limit></busconfig>";
  int fds[2];
  if (pipe(fds) != 0) return false;
  w->daemon = fork();
  if (w->daemon == 0) {
    close(fds[0]);
    // The daemon and the server it starts keep quiet: only BENCH lines go to the output.
    int null_fd = open("/dev/null", O_RDWR);
    dup2(null_fd, 1);
    dup2(null_fd, 2);
    std::string conf = "--config-file=" + config;
    std::string print = "--print-address=" + std::to_string(fds[1]);
    execlp("dbus-daemon", "dbus-daemon", conf.c_str(), "--nofork", print.c_str(), nullptr);
    _exit(127);
  }
  close(fds[1]);
  char buffer[512];
  ssize_t n = read(fds[0], buffer, sizeof buffer - 1);
  close(fds[0]);
  if (n <= 0) return false;
  buffer[n] = '\0';
  std::string address(buffer);
  address.erase(address.find('\n'));
  setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
  if (extra != nullptr) {
    w->noop = fork();
    if (w->noop == 0) extra();
  }
  return true;
}

inline void EndWorld(World* w) {
  for (pid_t pid : {w->noop, w->daemon}) {
    if (pid > 0) {
      kill(pid, SIGTERM);
      waitpid(pid, nullptr, 0);
    }
  }
  std::error_code ec;
  if (!w->root.empty()) std::filesystem::remove_all(w->root, ec);
}

}  // namespace benchworld
