// Detection through an open file, the way a session runs it, for the media tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "media/file_type.h"

namespace marquel::pstest {

// The type code of the file at `path`; *layout (when given) receives the transport
// stream layout.
inline uint32_t DetectPath(const std::string& path, TsLayout* layout = nullptr) {
  const FileHandle h = OpenFileHandle(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                      0, kInvalidFileHandle);
  EXPECT_NE(h, kInvalidFileHandle) << path;
  const uint32_t code = DetectFileType(layout, h, path);
  CloseFileHandle(h);
  return code;
}

}  // namespace marquel::pstest
