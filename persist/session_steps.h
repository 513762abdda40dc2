// The steps of a session's open and close that work on its private fields. One class,
// a friend of MarquelOneFile, so that the open (session_open.cc) and the close
// (session_close.cc, session_write.cc) can be kept in files of their own.
#pragma once

#include <cstdint>
#include <string>

#include "persist/cache_entry.h"
#include "persist/marquel_one_file.h"

namespace marquel {

class SessionSteps {
 public:
  // --- Open (session_open.cc) ---

  // Steps 3 to 8 of the open of an existing, readable file.
  static int OpenExisting(MarquelOneFile& f, int32_t nType, int32_t bLoad, int32_t bQueryOnly);
  // Loads a cache file into a program's buffers (the temporary-file reader) and logs
  // "MarquelOneFile: [%d] Read from registry %d". 1, or 0.
  static int32_t LoadCacheFile(MarquelOneFile& f, MQOneProgram& program, const std::string& path);

  // --- Close (session_close.cc, session_write.cc) ---

  // Flushes every program's memory blocks and writes its block into its buffers. False
  // when a block cannot be written (logged), so that the close fails instead of leaving
  // that program out.
  static bool FinalisePrograms(MarquelOneFile& f);
  // Flushes the program's waiting samples and writes its block. False when either fails.
  static bool FinaliseProgram(MQOneProgram& program);
  // Detects the format from the file again (when it can be opened) and stores it.
  static void DetectFormat(MarquelOneFile& f);
  // The force-to-cache flag of the close: bWriteToCache, raised by the FAT limits (at or
  // above) and by a clear owner-write bit.
  static int32_t ForceToCache(MarquelOneFile& f, int32_t bWriteToCache);
  // The cache writers of the close. 1 or -1.
  static int32_t WriteVRCache(MarquelOneFile& f, int32_t forceToCache);
  static int32_t WriteProgramCache(MarquelOneFile& f, CacheKind kind);
  // The sum of the block-size queries of every program.
  static int64_t BlockSize(MarquelOneFile& f);
  // Deletes the temp-cache entry `previousKey` names, when it names one, with its files.
  static void DropTakenOverTempEntry(const std::string& previousKey);
  // Writes the program's finalised block to a new cache file and names it in the temp
  // cache entry of the file, with the fingerprint read from `media` and the session's
  // identity words (session_write_file.cc). 1, 0 when the entry cannot be written, or -1.
  static int32_t WriteTempCache(MarquelOneFile& f, MQOneProgram& program, FileHandle media);
  // Whether the media file's path fits a cache record; logs the refusal when not.
  static bool PathFitsRecords(MarquelOneFile& f);

 private:
  static void TakeFileAttributes(MarquelOneFile& f);
  static void OpenFromCache(MarquelOneFile& f, FileHandle file, CacheKind kind, int32_t bLoad);
  // The temp-cache entry named after the file, as the session's data source (loaded with
  // bLoad) and its entry key. False when there is none.
  static bool OpenFromTempCache(MarquelOneFile& f, int32_t bLoad, CacheEntry* entry);
  // The entry of `kind` that belongs to the file (its own identity words), as the data
  // source, loaded with bLoad. False when there is none.
  static bool LoadFromCacheKind(MarquelOneFile& f, FileHandle file, CacheKind kind, int32_t bLoad);
  static void OpenUnknownFormat(MarquelOneFile& f, FileHandle file, int32_t bLoad);
  static void OpenProgramStream(MarquelOneFile& f, FileHandle file, int32_t bLoad);
  static void OpenTransportStream(MarquelOneFile& f, FileHandle file, int32_t bLoad);
  static void LoadTsFromFile(MarquelOneFile& f, FileHandle file, const MQDataInFile& in_file);
  static int Finish(MarquelOneFile& f, int32_t bLoad, int32_t bQueryOnly);

 public:
  // Makes each program record of a TS-cache entry a program with its PMT PID and loads
  // its cache file, in order (the open and the move of cached tags). m_bMQExisted is 1
  // when every one loaded; the first failure ends the load.
  static void LoadTsFromRegistry(MarquelOneFile& f, const CacheEntry& entry);
  // The media file's size and time now; false when the file is gone.
  static bool CurrentIdentity(MarquelOneFile& f, uint64_t identity[2]);
};

}  // namespace marquel
