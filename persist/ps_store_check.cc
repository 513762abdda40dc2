// ProgramStreamStore::Check: the end record found from the file's end, and the block it
// points at, read and checked.
#include <cinttypes>

#include "log/log.h"
#include "media/file_type.h"
#include "media/mq_end_record.h"
#include "persist/block_from_media.h"
#include "persist/marquel_one_file.h"
#include "ps_in_file_store.h"

namespace marquel {

MQDataInFile ProgramStreamStore::Check(MarquelOneFile& f, FileHandle file) {
  MQDataInFile result;
  // Program streams only (MPEG-1, MPEG-2, VCD, SVCD, MPEG-4 in packs).
  if (f.file_type_ < static_cast<int32_t>(MQ_FORMAT_MPEG1) ||
      f.file_type_ > static_cast<int32_t>(MQ_FORMAT_MPEG4))
    return result;
  bool damaged = false;
  std::optional<FoundMQEndRecord> found = FindMQEndRecord(file, &damaged);
  if (!found) {
    if (damaged) MQ_LOG("[%d] MQ end record in the file is damaged, ignored", f.handle_);
    return result;
  }
  MQOneProgram* program = f.Program(0);
  if (program == nullptr) return result;
  // Only a block whose CRCs all hold counts as data in the file.
  if (ReadBlockFromProgramStream(*program, file, f.file_type_, found->record.start_address,
                                 f.handle_) != 1) {
    MQ_LOG("[%d] MQ data in the file at %" PRId64 " is damaged, ignored", f.handle_,
           found->record.start_address);
    return result;
  }
  result.has_data = true;
  result.block_in_buffers = true;
  result.start_address = found->record.start_address;
  result.identity[0] = found->record.original_size;
  result.identity[1] = static_cast<uint64_t>(found->record.original_mtime);
  return result;
}

}  // namespace marquel
