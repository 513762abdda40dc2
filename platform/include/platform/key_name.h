// The store key name of a file.
//
// A file's absolute path is used as one key name (a single component under a cache or
// list key). Key paths separate components with "\", which a Linux file name may
// contain, so a "\" in the path is written as "%5C"; to keep the mapping reversible, a
// "%" is written as "%25" and a "^" as "%5E".
//
// Key names compare without regard to ASCII case, but most Linux file systems do not:
// "/v/A.ts" and "/v/a.ts" are two files. On such a volume each capital letter is written
// after a "^" ("/v/^A.ts"), which keeps the two names apart in the store. On a volume
// that ignores case (vfat, exfat) the letters stay as they are, so that every spelling
// of one file's name gives the same key. Every other character, "/" included, stays as
// it is, so key names read like the paths they stand for.
#pragma once

#include <string>
#include <string_view>

namespace marquel {

// The key name of the file at `path`, on a volume that tells case apart
// (`case_sensitive`) or not.
std::string FileKeyName(std::string_view path, bool case_sensitive);

// The path a key name stands for: PathFromKeyName(FileKeyName(path, x)) is `path`.
// "%25", "%5C" and "%5E" are decoded whatever the case of their hex digits, and "^"
// before a letter of either case gives the capital; any other "%" or "^" is kept.
std::string PathFromKeyName(std::string_view keyName);

}  // namespace marquel
