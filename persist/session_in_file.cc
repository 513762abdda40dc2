// The session's in-file steps, each handed to the store of the file's container kind
// (in_file_store.h).
#include "media/file_type.h"
#include "persist/marquel_one_file.h"
#include "ps_in_file_store.h"
#include "ts_in_file_store.h"

namespace marquel {

InFileStore* InFileStoreFor(int32_t format) {
  static ProgramStreamStore program_streams;
  static TransportStreamStore transport_streams;
  if (format == static_cast<int32_t>(MQ_FORMAT_TS)) return &transport_streams;
  // MPEG-1, MPEG-2, VCD, SVCD and MPEG-4 in packs.
  if (format >= static_cast<int32_t>(MQ_FORMAT_MPEG1) &&
      format <= static_cast<int32_t>(MQ_FORMAT_MPEG4))
    return &program_streams;
  return nullptr;
}

MQDataInFile MarquelOneFile::CheckMQDataInFile(FileHandle file) {
  InFileStore* store = InFileStoreFor(file_type_);
  return store != nullptr ? store->Check(*this, file) : MQDataInFile{};
}

int32_t MarquelOneFile::WriteMPEGFile(FileHandle file, int64_t startAddress, int64_t originalMTime,
                                      uint64_t originalSize) {
  InFileStore* store = InFileStoreFor(file_type_);
  return store != nullptr ? store->Write(*this, file, startAddress, originalMTime, originalSize)
                          : 0;
}

int32_t MarquelOneFile::ProcessMQInterLeave(int32_t bHasMQ) {
  InFileStore* store = InFileStoreFor(file_type_);
  return store != nullptr ? store->Merge(*this, bHasMQ) : -1;
}

int32_t MarquelOneFile::ProcessMQInterLeaveInTS() {
  if (file_type_ != static_cast<int32_t>(MQ_FORMAT_TS)) return 0;
  return InFileStoreFor(file_type_)->Merge(*this, mq_start_address_ >= 0 ? 1 : 0) == 1 ? 1 : 0;
}

int32_t MarquelOneFile::GenerateMQTempMPEGData(FileHandle out, uint32_t muxRate) {
  // A stream cut short by a failed write still answers 1, as described; the merge calls
  // GeneratePacks itself and refuses such a stream.
  return ProgramStreamStore::GeneratePacks(*this, out, muxRate) == 0 ? 0 : 1;
}

}  // namespace marquel
