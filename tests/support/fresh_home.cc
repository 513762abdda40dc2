#include "testsupport/fresh_home.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace marquel::test {
namespace {

std::string& Current() {
  static std::string dir;
  return dir;
}

// One root per test process, made below the TMPDIR the process was started with.
const std::string& RunRoot() {
  static const std::string root = [] {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/marquel-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    return pattern;
  }();
  return root;
}

std::string Sanitize(const std::string& label) {
  std::string out;
  for (char c : label) out += (isalnum(static_cast<unsigned char>(c)) || c == '.') ? c : '_';
  return out;
}

}  // namespace

const std::string& TestDir() {
  if (Current().empty()) MakeFreshHome("default");
  return Current();
}

std::string TestPath(const std::string& name) {
  return TestDir() + "/" + name;
}

void MakeFreshHome(const std::string& label) {
  static int serial = 0;
  std::string dir = RunRoot() + "/" + std::to_string(++serial) + "-" + Sanitize(label);
  std::filesystem::create_directories(dir + "/data");
  std::filesystem::create_directories(dir + "/config");
  std::filesystem::create_directories(dir + "/cache");
  std::filesystem::create_directories(dir + "/tmp");
  std::filesystem::create_directories(dir + "/run");
  chmod((dir + "/run").c_str(), 0700);
  std::filesystem::create_directories(dir + "/machine");
  std::filesystem::create_directories(dir + "/state");
  setenv("HOME", dir.c_str(), 1);
  setenv("XDG_DATA_HOME", (dir + "/data").c_str(), 1);
  setenv("XDG_CONFIG_HOME", (dir + "/config").c_str(), 1);
  setenv("XDG_CACHE_HOME", (dir + "/cache").c_str(), 1);
  setenv("XDG_STATE_HOME", (dir + "/state").c_str(), 1);
  // Tests never write to the real journal, and choose the log's settings themselves.
  for (const char* name :
       {"JOURNAL_STREAM", "INVOCATION_ID", "DBUS_STARTER_ADDRESS", "DBUS_STARTER_BUS_TYPE",
        "MARQUEL_LOG", "MARQUEL_LOG_FILE", "MARQUEL_LOG_TIME"})
    unsetenv(name);
  setenv("XDG_RUNTIME_DIR", (dir + "/run").c_str(), 1);
  setenv("TMPDIR", (dir + "/tmp").c_str(), 1);
  setenv("MARQUEL_MACHINE_STORE", (dir + "/machine/registry.db").c_str(), 1);
  Current() = dir;
}

// Removes the run's root unless a test failed, so that failures can be inspected.
void RemoveRunRoot() {
  std::error_code ec;
  std::filesystem::remove_all(RunRoot(), ec);
}

}  // namespace marquel::test
