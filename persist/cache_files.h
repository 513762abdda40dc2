// Private helpers of the cache writers.
#pragma once

#include <string>

#include "persist/cache_writer.h"

namespace marquel {

// Writes block `index` into the side file of `mediaPath` (SideFilePath) through a new file
// in the side folder that then replaces it, so an old side file stays whole until the new
// one is complete. *written receives the side file's path. False when the side folder
// cannot be made or written (nothing is left behind then).
bool WriteSideFile(const std::string& mediaPath, size_t index, const CacheBlockWriter& write,
                   std::string* written);

}  // namespace marquel
