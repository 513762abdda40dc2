// Numbered fault points for crash and fault tests.
//
// Every write, fsync, truncate and rename made through the file wrappers passes one point,
// numbered from 1 in the order the process reaches them. Two environment variables, read
// once at process start, arm the points:
//   MARQUEL_FAULT_AT=<n>:kill   the nth point kills the process (SIGKILL) before it acts;
//   MARQUEL_FAULT_AT=<n>:fail   the nth point fails with errno EIO and does nothing;
//   MARQUEL_FAULT_COUNT=<file>  the number of points passed is written to <file> at a
//                               normal exit.
// With neither set, a point costs one predictable branch.
#pragma once

#include <cstdint>
#include <string>

namespace marquel {

namespace fault_detail {
// Whether any point is armed; set once at start (or by ConfigureFaultPoints).
extern bool g_armed;
bool PassArmed();
}  // namespace fault_detail

// Passes one point. True: the caller goes on. False: the caller must fail at once without
// acting (errno is EIO). Does not return when the point kills the process.
inline bool PassFaultPoint() {
  if (__builtin_expect(!fault_detail::g_armed, 1)) return true;
  return fault_detail::PassArmed();
}

// Arms the points as the two variables would ("" for unset) and restarts the count; for
// tests, which cannot set the environment before their own start. An `at` that does not
// read as "<n>:kill" or "<n>:fail" arms nothing. The count file is written at exit when
// `countPath` is not empty.
void ConfigureFaultPoints(const std::string& at, const std::string& countPath);

// The number of points passed so far.
uint64_t FaultPointsPassed();

}  // namespace marquel
