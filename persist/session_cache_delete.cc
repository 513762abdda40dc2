// MarquelOneFile::ForceDeleteCacheData: a file's cache data removed without a move.
#include "log/log.h"
#include "persist/cache_entry.h"
#include "persist/marquel_one_file.h"
#include "platform/access_reg.h"

namespace marquel {

// Both the temp-cache and the TS-cache entries of the path go, whatever the session's
// format: the background monitor calls this for files that are gone, on a session that
// was never opened and so knows no format.
int32_t MarquelOneFile::ForceDeleteCacheData(const std::string& path) {
  MQ_LOG("ForceDeleteCacheData(%s)", path.c_str());
  file_name_ = path;
  for (CacheKind kind : {CacheKind::kTemp, CacheKind::kTS}) {
    // The file's entry wherever its key name puts it; else whatever its key name holds.
    CacheEntry entry;
    DeleteCacheEntry(kind,
                     FindEntryByPath(kind, path, &entry) ? entry.sub_key : CacheSubKeyName(path));
  }
  if (cache_entry_key_.empty()) return 1;
  AccessReg reg;
  if (!reg.Open(HKEY_CURRENT_USER, cache_entry_key_.c_str())) return 1;
  reg.Close();
  // An entry of one of the caches takes its cache files with it.
  CacheKind kind;
  std::string sub_key;
  if (SplitCacheEntryKeyPath(cache_entry_key_, &kind, &sub_key)) {
    return DeleteCacheEntry(kind, sub_key) ? 1 : -1;
  }
  return reg.DeleteKey(HKEY_CURRENT_USER, cache_entry_key_.c_str()) ? 1 : -1;
}

}  // namespace marquel
