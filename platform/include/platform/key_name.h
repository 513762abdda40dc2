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
// it is, so key names read like the paths they stand for. A "#" that would open the
// name is written as "%23": names opening with "#" are the hashed ones below.
//
// A key name is at most 255 UTF-16 units, and the marks make a name longer than its
// path. A path whose readable name does not fit gets a hashed name instead: "#" and the
// 64 hex digits of the SHA-256 of the path (of its A-Z folded spelling on a volume that
// ignores case). That name says nothing about the path, so whoever uses it keeps the
// path beside it and compares it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace marquel {

// The length of a hashed key name: "#" and 64 hex digits.
constexpr size_t kHashedKeyNameLength = 65;

// The readable key name of the file at `path`, on a volume that tells case apart
// (`case_sensitive`) or not. It may be longer than a key name may be.
std::string FileKeyName(std::string_view path, bool case_sensitive);

// The hashed key name of `path` (see above).
std::string HashedFileKeyName(std::string_view path, bool case_sensitive);

// The key name a file's entries are kept under: FileKeyName when it fits in 255 UTF-16
// units, else HashedFileKeyName. Two paths that differ (in more than case, on a volume
// that ignores it) get different names, but for hashed names only with overwhelming
// likelihood: compare the path kept with the entry.
std::string FittingFileKeyName(std::string_view path, bool case_sensitive);

// Whether `keyName` is a hashed key name.
bool IsHashedKeyName(std::string_view keyName);

// The path a readable key name stands for: PathFromKeyName(FileKeyName(path, x)) is
// `path`. "%23", "%25", "%5C" and "%5E" are decoded whatever the case of their hex
// digits, and "^" before a letter of either case gives the capital; any other "%" or "^"
// is kept. A hashed name stands for no path it could tell: "".
std::string PathFromKeyName(std::string_view keyName);

}  // namespace marquel
