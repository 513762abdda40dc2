// The "same file" rule of the open-file table.
//
// Two names are one file when their canonical absolute paths are equal. On a volume that
// compares names without regard to case (per the Env seam: FAT, exFAT, NTFS ...), paths
// that differ only in ASCII case are one file too.
#pragma once

#include <string>

namespace marquel {

// A name prepared for comparison.
struct FileKey {
  std::string canonical;         // absolute, "." and ".." resolved, symbolic links followed
  bool caseInsensitive = false;  // the volume ignores case
};

// Makes the key of `name` (which need not exist).
FileKey MakeFileKey(const std::string& name);

// Whether two keys name the same file.
bool SameFile(const FileKey& a, const FileKey& b);

}  // namespace marquel
