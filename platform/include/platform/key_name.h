// The store key name of a file.
//
// A file's absolute path is used as one key name (a single component under a cache or
// list key). Key paths separate components with "\", which a Linux file name may
// contain, so a "\" in the path is written as "%5C" and, to keep the mapping reversible,
// a "%" as "%25". Every other character, "/" included, stays as it is, so key names
// read like the paths they stand for.
//
// Note that key names compare without regard to ASCII case while most Linux file systems
// do not: two paths that differ only in case give key names the store treats as one.
#pragma once

#include <string>
#include <string_view>

namespace marquel {

// The key name of the file at `path`.
std::string FileKeyName(std::string_view path);

// The path a key name stands for: FileKeyName(path) gives back `path` unchanged. "%5c"
// and "%25" are decoded whatever the case of their hex digits; any other "%" is kept.
std::string PathFromKeyName(std::string_view keyName);

}  // namespace marquel
