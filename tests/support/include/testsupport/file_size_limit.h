// A test helper: files of this process cannot grow past a size while it lives, as on a
// full disk. The signal such a write raises is ignored, so the write just fails.
#pragma once

#include <signal.h>
#include <sys/resource.h>

namespace marquel::test {

class ScopedFileSizeLimit {
 public:
  explicit ScopedFileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &saved_);
    previous_ = signal(SIGXFSZ, SIG_IGN);
    rlimit limit = saved_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~ScopedFileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &saved_);
    signal(SIGXFSZ, previous_);
  }
  ScopedFileSizeLimit(const ScopedFileSizeLimit&) = delete;
  ScopedFileSizeLimit& operator=(const ScopedFileSizeLimit&) = delete;

 private:
  rlimit saved_{};
  sighandler_t previous_ = SIG_DFL;
};

}  // namespace marquel::test
