// The lock that keeps a second copy of the server from running.
#pragma once

#include <string>

namespace marquel::host {

// The lock file: $XDG_RUNTIME_DIR/marquel64.lock, or marquel64-<uid>.lock in $TMPDIR (else
// /tmp) when there is no runtime directory. Read from the environment on each call.
std::string LockFilePath();

// An exclusive lock on the lock file, held while the object lives.
class SingleInstanceLock {
 public:
  SingleInstanceLock() = default;
  ~SingleInstanceLock();
  SingleInstanceLock(const SingleInstanceLock&) = delete;
  SingleInstanceLock& operator=(const SingleInstanceLock&) = delete;

  enum class Result { kAcquired, kHeldElsewhere, kUnavailable };
  // Takes the lock without waiting. kHeldElsewhere when another process holds it;
  // kUnavailable when the lock file cannot be made (then *error says why when given).
  Result Acquire(std::string* error = nullptr);

 private:
  int fd_ = -1;
};

}  // namespace marquel::host
