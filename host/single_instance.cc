// The lock that keeps a second copy of the server from running.
#include "single_instance.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace marquel::host {

std::string LockFilePath() {
  const char* runtime = getenv("XDG_RUNTIME_DIR");
  if (runtime && *runtime) return std::string(runtime) + "/marquel64.lock";
  const char* tmp = getenv("TMPDIR");
  std::string dir = tmp && *tmp ? tmp : "/tmp";
  return dir + "/marquel64-" + std::to_string(getuid()) + ".lock";
}

SingleInstanceLock::~SingleInstanceLock() {
  if (fd_ >= 0) close(fd_);  // closing drops the lock
}

SingleInstanceLock::Result SingleInstanceLock::Acquire(std::string* error) {
  if (fd_ >= 0) return Result::kAcquired;
  std::string path = LockFilePath();
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    if (error) *error = path + ": " + strerror(errno);
    return Result::kUnavailable;
  }
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (error) *error = path + ": held by another process";
    close(fd);
    return Result::kHeldElsewhere;
  }
  fd_ = fd;
  return Result::kAcquired;
}

}  // namespace marquel::host
