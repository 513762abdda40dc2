// Arbitrary bytes through ParsePatSection, and as a file through FindPmtPid.
//
// Input: byte 0 picks the packet size (188, 192, 204, or a size below 188) and a start
// offset of 0 to 63 bytes; the rest is the section and the file content.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "media/ts_pat.h"
#include "platform/files.h"

namespace {

constexpr int32_t kPacketSizes[] = {188, 192, 204, 100};
marquel::FileHandle g_file = marquel::kInvalidFileHandle;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* tmp = std::getenv("TMPDIR");
  std::string name;
  if (marquel::MakeTempFileName(tmp && *tmp ? tmp : "/tmp", "PMT", 0, &name) == 0) std::abort();
  g_file = marquel::OpenFileHandle(name, marquel::GENERIC_READ | marquel::GENERIC_WRITE, 0, nullptr,
                                   marquel::CREATE_ALWAYS, 0, marquel::kInvalidFileHandle);
  if (g_file == marquel::kInvalidFileHandle) std::abort();
  marquel::RemoveFile(name);  // the open handle keeps it alive
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t mode = data[0];
  data += 1;
  size -= 1;
  const int32_t pid = marquel::ParsePatSection(data, size);
  if (pid < -1 || pid > 0x1FFF) __builtin_trap();

  marquel::SeekFile(g_file, 0, marquel::FILE_BEGIN);
  marquel::SetEndOfFile(g_file);
  uint32_t written = 0;
  if (size > 0) marquel::WriteFile(g_file, data, static_cast<uint32_t>(size), &written);
  const int32_t found = marquel::FindPmtPid(g_file, kPacketSizes[mode & 0x3], (mode >> 2) & 0x3F);
  if (found < -1 || found > 0x1FFF) __builtin_trap();
  return 0;
}
