// Unique temporary file names for the server's own files.
//
// The cache files live in the per-user folder application data + "/Halvern/MQInfo"
// (application data is $XDG_DATA_HOME, default ~/.local/share). The temporary
// tag-insertion file lives in the user's temporary folder ($TMPDIR, else /tmp).
#pragma once

#include <cstdint>
#include <string>

namespace marquel {

// The cache-file folder, application data + "/Halvern/MQInfo", with each missing level
// created. Returns false (and "" in *folder) when it cannot be found or made.
bool GetMQInfoFolder(std::string* folder);

// A unique name prefix + hex number + ".tmp" in the cache-file folder, made as the
// platform's temporary-name call makes it: with unique 0 a new empty file of that name
// is created. Returns the number used, or 0 on failure (folder missing and not creatable,
// no free name); *result is set on success only.
uint32_t GetMQInfoTempFileName(const std::string& prefix, uint32_t unique, std::string* result);

// The same in the user's temporary folder. A temporary folder path longer than 260
// characters is refused (result 0), as the system's temporary-path call refuses it.
uint32_t GetTempFolderTempFileName(const std::string& prefix, uint32_t unique, std::string* result);

}  // namespace marquel
