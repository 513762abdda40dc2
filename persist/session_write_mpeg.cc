// MarquelOneFile::WriteMPEGFile: the direct write of a program stream's block into the
// media file. The in-file writers provide it; until then this file keeps the seam, and
// nothing is written (WriteToFile then reports -1 for a direct write).
#include "persist/marquel_one_file.h"

namespace marquel {

int32_t MarquelOneFile::WriteMPEGFile(FileHandle /*file*/, int64_t /*startAddress*/,
                                      int64_t /*originalMTime*/, uint64_t /*originalSize*/) {
  return 0;
}

}  // namespace marquel
