// What a killed writer leaves in the cache folder, and how it is told from what a live
// writer is making.
//
// A cache file exists before the store names it: the writer makes it, fills it, and only
// then writes the entry. So every change to the cache entries and their files (a close's
// write, a rename, a delete, an eviction) holds a shared lock on the cache folder's lock
// file, <application data>/Halvern/MQInfo.lock, from before its first new file until the
// store is written. The sweep takes that lock exclusively: while it holds it no write is
// under way in any process, and a file of the cache-file shape that no value of the store
// names was left by a writer that died. docs/caches.md gives the rules.
#pragma once

#include <string>

namespace marquel {

// A shared hold on the cache folder's lock for the life of the object. Waits while a
// sweep runs (a sweep is short). Without an application-data folder nothing is held, and
// nothing can be swept either.
class CacheWriteLock {
 public:
  CacheWriteLock();
  ~CacheWriteLock();
  CacheWriteLock(const CacheWriteLock&) = delete;
  CacheWriteLock& operator=(const CacheWriteLock&) = delete;

  bool held() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// Whether `name` (no folder) has the shape of a cache file: "MQ", 1 to 8 upper-case hex
// digits, ".tmp".
bool IsCacheFileName(const std::string& name);

// Whether `path` names a file directly inside the cache folder (compared as folders, so
// another spelling of the same folder counts) whose name has the cache-file shape.
bool IsInCacheFolder(const std::string& path);

// Removes from the cache folder every file of the cache-file shape that no value under
// the server's key of the store names. Sweeps only when the lock can be taken exclusively
// within about two seconds and the whole store subtree could be read; anything else in
// the folder is left alone. Returns the number of files removed, or -1 when it did not
// sweep.
int RemoveOrphanCacheFiles();

}  // namespace marquel
