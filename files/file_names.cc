#include "file_names.h"

#include <filesystem>
#include <system_error>

#include "platform/env.h"
#include "platform/text.h"

namespace marquel {

FileKey MakeFileKey(const std::string& name) {
  FileKey key;
  std::error_code ec;
  std::filesystem::path path(name);
  std::filesystem::path absolute = std::filesystem::absolute(path, ec);
  if (ec) absolute = path;
  // Follows links for the part that exists and normalises the rest.
  std::filesystem::path canonical = std::filesystem::weakly_canonical(absolute, ec);
  key.canonical = ec ? absolute.lexically_normal().string() : canonical.string();
  key.caseInsensitive = CurrentEnv()->IsCaseInsensitiveVolume(key.canonical);
  return key;
}

bool SameFile(const FileKey& a, const FileKey& b) {
  if (a.canonical == b.canonical) return true;
  // Only a volume that ignores case can make two spellings one file.
  return a.caseInsensitive && b.caseInsensitive && EqualsIgnoreCase(a.canonical, b.canonical);
}

}  // namespace marquel
