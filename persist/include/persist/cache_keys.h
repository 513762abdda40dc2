// Names of the per-user caches: their base keys in the current user's store, the values
// an entry holds, and the cache kind each media format uses.
//
// Every cache kind has one base key under "Software\Halvern\Marquel" holding "NextID" and
// one sub-key per cached media file, named by the file's key name (platform/key_name.h).
// docs/caches.md describes the values and the records they hold.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace marquel {

enum class CacheKind : int32_t {
  kVR = 0,     // DVD video and video-recording files (VOB, VRO)
  kTS = 1,     // transport streams, one cache file per program
  kOther = 2,  // formats recognised by name (MP4, WMV, MOV ...) or magic number (MKV ...)
  kAVI = 3,    // AVI and DV
  kTemp = 4,   // program streams (MPEG-1, MPEG-2, VCD, SVCD): the waypoint before migration;
               // also files of no known format
};
constexpr int32_t kCacheKindCount = 5;

// Ids run from 0 to 999; a stored "NextID" of 1000 or more reads as 0.
constexpr uint32_t kCacheIdCount = 1000;

// Value names.
constexpr const char kNextIdValue[] = "NextID";
constexpr const char kIdValue[] = "ID";
constexpr const char kContentInfoValue[] = "CONTENTINFO";
constexpr const char kVRInfoValue[] = "VRINFO";
// The file record of TS, AVI and other-format entries (same layout as "VRINFO").
constexpr const char kFileInfoValue[] = "FILEINFO";
constexpr const char kTSInfoValue[] = "TSINFO";
constexpr const char kTSProgramsValue[] = "TSPROGRAMS";
// The temp record is written as "TempInfo" and read back as "TEMPINFO". Value names
// compare without regard to case, so both name the same value; the two spellings are
// kept as they have always been written.
constexpr const char kTempInfoWriteName[] = "TempInfo";
constexpr const char kTempInfoReadName[] = "TEMPINFO";

// The prefix of cache file names ("MQ" + hex number + ".tmp").
constexpr const char kCacheFilePrefix[] = "MQ";
// The side folder and the extension of a DVD file's side file.
constexpr const char kSideFolderName[] = "MQINFO";
constexpr const char kSideFileExtension[] = ".mq";

// "Software\Halvern\Marquel\VRCache" and so on, without a trailing separator.
const char* CacheBaseKey(CacheKind kind);
// "VRCache", "TSCache", "OtherCache", "AVICache", "TempCache".
const char* CacheKindName(CacheKind kind);
// The kind named `name` (as CacheKindName gives it, any case); false when none is.
bool CacheKindFromName(const std::string& name, CacheKind* kind);
// The value that holds an entry's file record: "VRINFO" for the VR cache, "FILEINFO" for
// the TS, AVI and other caches, "TempInfo" for the temp cache.
const char* CacheRecordValue(CacheKind kind);

// The full key of the entry of `subKeyName` (a file's key name): base + "\" + name.
std::string CacheEntryKeyPath(CacheKind kind, const std::string& subKeyName);
// Splits the full key of a cache entry into its kind and sub-key name; false when the key
// is not directly below one of the base keys (compared without regard to ASCII case).
bool SplitCacheEntryKeyPath(const std::string& keyPath, CacheKind* kind, std::string* subKey);
// The key name a media file's entries are written under (FittingFileKeyName): readable
// where it fits in a key name, else hashed; capitals marked unless the file's volume
// ignores case. Asked while the file is there, the volume gives the right answer.
std::string CacheSubKeyName(const std::string& mediaPath);

// The key names under which a media file's entries may be, in the order to try:
// CacheSubKeyName, then the name the other answer about case gives (when it differs).
// The second finds an entry written while the volume answered otherwise: a removable
// volume that is absent now (its mount point then answers for it), or one judged
// otherwise by an earlier version. *folds (when given) is the volume's answer now.
std::vector<std::string> CacheLookupKeyNames(const std::string& mediaPath, bool* folds = nullptr);

// The kind that closing a file of format `format` writes: the temp cache for 0 to 4, the
// VR cache for 6 and 7, the AVI cache for 8 and 9, the TS cache for 10, the other cache
// for 5, 11 to 16 and 17 to 26. False for any other code.
bool CacheKindForFormat(int32_t format, CacheKind* kind);

}  // namespace marquel
