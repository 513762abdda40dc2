// Per-process temporary folders, and the removal of those that ended processes left.
//
// Every process that makes temporary files of its own (the server, marquelctl, tests that
// use the tag store in-process) makes them in a folder of its own,
// <temp folder>/marquel-<uid>/<pid>. The folder holds a file "lock" on which the process
// keeps an exclusive flock for its whole life, so another process can tell a live folder
// from one whose process has ended (the kernel drops the lock of a killed process). A
// folder is removed only by a process that holds its lock: its owner at a normal exit, or
// a clean-up that took the lock of an ended owner. docs/caches.md gives the rules.
#pragma once

#include <string>

namespace marquel {

// The per-user folder of all process folders: <temp folder>/marquel-<uid>, where the temp
// folder is the Env's (TMPDIR, else /tmp). Nothing is made.
std::string TempFoldersRoot();

// The calling process's own temporary folder, made and locked on first use (again after a
// fork, or when the temp folder changes). Files that an ended process of the same number
// left in it are removed first. "" when it cannot be made: the temp folder is missing, or
// the per-user folder is not a folder of this user closed to others.
std::string ProcessTempFolder();

// Removes the folders of processes that have ended, with the files in them: each folder
// of the root named by a number whose lock can be taken, and each folder without a lock
// whose process no longer exists. The caller's own folder, the folders of live processes
// and anything in the root not named by a number are left alone. Returns the number of
// folders removed.
int RemoveEndedProcessTempFolders();

}  // namespace marquel
