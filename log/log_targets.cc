// Where the default debug output goes: the journal under systemd, the state log file for a
// server the bus started without systemd, standard error otherwise.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "log/log.h"
#include "log_settings.h"

namespace marquel::log {
namespace {

bool IsSet(const char* variable) {
  const char* value = getenv(variable);
  return value != nullptr && *value != '\0';
}

int SdJournalSender(const std::string* fields, size_t count) {
  std::vector<iovec> parts(count);
  for (size_t i = 0; i < count; ++i)
    parts[i] = {const_cast<char*>(fields[i].data()), fields[i].size()};
  return sd_journal_sendv(parts.data(), static_cast<int>(count));
}

std::atomic<JournalSender> g_journal{&SdJournalSender};

// Makes the folders of `path` (private to the user) as far as they are missing.
void MakeFolders(const std::string& path) {
  for (size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1))
    mkdir(path.substr(0, at).c_str(), 0700);
}

}  // namespace

Target DefaultTarget() {
  if (IsSet("JOURNAL_STREAM") || IsSet("INVOCATION_ID")) return Target::kJournal;
  if (IsSet("DBUS_STARTER_ADDRESS")) return Target::kStateFile;
  return Target::kStandardError;
}

std::string StateLogPath() {
  const char* state = getenv("XDG_STATE_HOME");
  if (state != nullptr && state[0] == '/') return std::string(state) + "/marquel/marquel64.log";
  const char* home = getenv("HOME");
  if (home != nullptr && home[0] == '/')
    return std::string(home) + "/.local/state/marquel/marquel64.log";
  return std::string();
}

JournalSender SetJournalSender(JournalSender sender) {
  return g_journal.exchange(sender != nullptr ? sender : &SdJournalSender);
}

namespace internal {

bool SendToJournal(const std::string& line) {
  const size_t length = !line.empty() && line.back() == '\n' ? line.size() - 1 : line.size();
  // The diagnostic log is for developers: debug priority, under the server's name.
  const std::string fields[] = {"MESSAGE=" + line.substr(0, length),
                                "PRIORITY=" + std::to_string(LOG_DEBUG),
                                "SYSLOG_IDENTIFIER=marquel64"};
  return g_journal.load()(fields, 3) >= 0;
}

bool AppendToStateFile(const char* line, size_t length) {
  const std::string path = StateLogPath();
  if (path.empty()) return false;
  const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
  int fd = open(path.c_str(), flags, 0600);
  if (fd < 0 && errno == ENOENT) {  // the first line: the folders are made once
    MakeFolders(path);
    fd = open(path.c_str(), flags, 0600);
  }
  if (fd < 0) return false;
  struct stat st;
  // The file has a ceiling: past it the old lines move aside once, and this line starts
  // a new file.
  if (fstat(fd, &st) == 0 && st.st_size > kStateFileMaxBytes &&
      rename(path.c_str(), (path + ".1").c_str()) == 0) {
    close(fd);
    fd = open(path.c_str(), flags, 0600);
    if (fd < 0) return false;
  }
  bool ok = true;
  while (length > 0) {
    const ssize_t done = write(fd, line, length);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) {
      ok = false;
      break;
    }
    line += done;
    length -= static_cast<size_t>(done);
  }
  close(fd);
  return ok;
}

}  // namespace internal
}  // namespace marquel::log
