// Writing cache entries and their cache files.
//
// Every write puts each block into a new cache file first and changes the store only
// after all blocks are on disk, so a failed write (folder missing or unwritable, disk
// full) leaves the store and every file the store names as they were. Cache files an
// entry no longer names are deleted after the store has been changed. docs/caches.md
// describes the id ring, the lookups and the choices made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "persist/cache_entry.h"
#include "platform/files.h"

namespace marquel {

// Writes block `index` (program order) into `file`, an open, empty cache file. Returns 1
// on success; anything else fails the whole write.
using CacheBlockWriter = std::function<int32_t(size_t index, FileHandle file)>;

struct CacheWriteRequest {
  CacheKind kind = CacheKind::kVR;  // VR, TS, AVI or other
  std::string media_path;
  uint64_t identity[2] = {0, 0};  // the media file's size and modification time
  // One entry per block. TS: the programs' PMT PIDs in program order; the other kinds
  // write the first block only.
  std::vector<int32_t> pmt_pids{0};
  // VR: the block goes to the side file beside the disc structure (SideFilePath) instead
  // of the cache folder, when that folder can be made.
  bool side_file = false;
};

// Writes the entry of a VR, TS, AVI or other-format media file:
//   1. takes the content fingerprint and finds the file's entry (FindCacheEntry);
//   2. writes every block into a new cache file (the side file for a VR request that
//      asks for it); any failure removes the new files and returns -1;
//   3. a new entry takes the id "NextID" (evicting the entry that holds that id, with its
//      cache files); a found entry keeps its id;
//   4. writes the file record, "CONTENTINFO", "ID" (and for TS "TSINFO", "TSPROGRAMS")
//      into the sub-key named after the media file, then for a new entry NextID = id + 1;
//   5. an entry found under another name (the file was renamed) is removed, and cache
//      files no longer named are deleted.
// Returns 1, or -1 (nothing named by the store changed). *written receives the entry.
int32_t WriteCacheEntry(const CacheWriteRequest& request, const CacheBlockWriter& write,
                        CacheEntry* written = nullptr);

// Writes the temp-cache entry of record.media_path, whose cache file the caller has
// written: the id of an existing entry of the same path and the same words at 520 and
// 1056 (original size and time) is kept, else the entry takes "NextID" and NextID
// advances. Writes "TempInfo", "ID" and "CONTENTINFO"; then deletes the cache file of a
// replaced record. The temp cache has no eviction: its data may still be waiting to be
// moved into the media file. Returns 1, or 0 when the entry could not be written (the
// store then names no file it did not name before).
int32_t WriteTempCacheEntry(const TempCacheRecord& record, uint32_t contentInfo);

// Carries the entries of `oldPath` over to `newPath`: for each cache kind (only the
// kind of `format` when it is a known format code, 1 to 26, and for 17 to 26 the temp
// cache too, which holds their tags from before they had a code), the entry named after
// the old path is written under the new name with the record's path changed, and the old
// sub-key is deleted. An entry already under the new name is replaced (the cache files it
// may delete are deleted). Returns 1 (also when there is nothing to carry over), or -1
// when an entry could not be carried over (it then stays under the old name) and when
// the new name exists but is not a regular file (a FIFO, a device, a folder).
int32_t CacheRename(const std::string& oldPath, const std::string& newPath, int32_t format);

// The side file of a DVD media file: the parent of the file's folder + "/MQINFO/" + the
// file's name + ".mq".
std::string SideFilePath(const std::string& mediaPath);

// Makes a new empty cache file ("MQ" + hex + ".tmp") in the cache folder, creating the
// folder levels when missing. False when the folder or the file cannot be made.
bool MakeCacheFile(std::string* path);

// Creates `path` anew and has `write` put block `index` into it, then syncs the file and
// its folder. Returns 1; otherwise (a failed sync too) the file is removed and -1 returned.
int32_t WriteBlockFile(const std::string& path, size_t index, const CacheBlockWriter& write);

}  // namespace marquel
