// ProgramStreamStore::Merge, behind ProcessMQInterLeave: program 0's block merged into the
// program-stream file in place (persist/ps_merge.h), checked by reading it back before it
// counts.
#include <cinttypes>
#include <memory>

#include "log/log.h"
#include "media/mq_end_record.h"
#include "media/mq_pack_muxer.h"
#include "persist/block_from_media.h"
#include "persist/marquel_one_file.h"
#include "platform/temp_folders.h"
#include "ps_in_file_store.h"
#include "ps_merge.h"

namespace marquel {
namespace {

// A file of the process's temporary folder, removed with the object.
struct TempPackFile {
  std::string path;
  FileHandle h = kInvalidFileHandle;
  bool Make() {
    const std::string folder = ProcessTempFolder();
    if (folder.empty() || MakeTempFileName(folder, "MQP", 0, &path) == 0) return false;
    h = OpenRegularFile(path, GENERIC_READ | GENERIC_WRITE);
    return h != kInvalidFileHandle;
  }
  ~TempPackFile() {
    if (h != kInvalidFileHandle) CloseFileHandle(h);
    if (!path.empty()) RemoveFile(path);
  }
};

// The closing pack: the muxer of the format flushed with the merge's end record, at the
// stream's mux rate and the last clock of the merged region.
MergeEndPackFn EndPackMaker(int32_t format, uint32_t muxRate, int64_t mtime, uint64_t size) {
  return [=](int64_t start, int64_t end, const PackClock& clock, std::vector<uint8_t>* out) {
    auto muxer = std::make_unique<MQPackMuxer>();
    if (!muxer->SetType(MQPackMuxer::TypeForFormat(format)) || muxer->Initialise(0) == 0)
      return false;
    muxer->SetStreamId(0xFA);
    if (muxRate != 0) muxer->SetMuxRate(muxRate);
    muxer->SetClock(clock.base, clock.ext);
    MQEndRecord record{start, mtime, size, end};
    if (muxer->Flush(&record) == 0) return false;
    const size_t n = muxer->OutputCount();
    const size_t at = out->size();
    out->resize(at + n);
    return muxer->TakeOutput(out->data() + at, n) == n;
  };
}

}  // namespace

int32_t ProgramStreamStore::Merge(MarquelOneFile& f, int32_t bHasMQ) {
  MQ_LOG("[%d] ProcessMQInterLeave, bHasMQ %d, mq start address %" PRId64
         ", duration address %" PRId64 ", original time %" PRId64,
         f.handle_, bHasMQ, f.mq_start_address_, static_cast<int64_t>(f.identity_[0]),
         static_cast<int64_t>(f.identity_[1]));
  FileHandle media = OpenRegularFile(f.file_name_, GENERIC_READ | GENERIC_WRITE);
  if (media == kInvalidFileHandle) {
    MQ_LOG("[%d] can not open '%s' as read/write", f.handle_, f.file_name_.c_str());
    return -1;
  }
  const bool mpeg1 = f.file_type_ == 1 || f.file_type_ == 3;
  const uint32_t mux_rate = StreamMuxRate(media, mpeg1, f.mq_start_address_);
  TempPackFile packs;
  const int32_t pack_size = f.file_type_ == 1 || f.file_type_ == 3 || f.file_type_ == 4 ? 2324 : 2048;
  int32_t result = -1;
  // Only a whole pack stream of at least one pack is merged.
  const int64_t pack_count =
      packs.Make() && GeneratePacks(f, packs.h, mux_rate) == 1 ? GetFileSize64(packs.h) / pack_size
                                                               : 0;
  if (pack_count > 0) {
    PsMergeRequest r;
    r.media_path = f.file_name_;
    r.media = media;
    r.mpeg1 = mpeg1;
    r.keep_before = f.mq_start_address_;
    r.data_packs = packs.h;
    r.data_pack_size = static_cast<uint32_t>(pack_size);
    r.data_pack_count = pack_count;
    r.end_pack = EndPackMaker(f.file_type_, mux_rate, static_cast<int64_t>(f.identity_[1]),
                              f.identity_[0]);
    r.session = f.handle_;
    // The data counts as in the file only when it reads back with every CRC right.
    r.verify = [&f, media](int64_t start) {
      MQOneProgram check;
      return ReadBlockFromProgramStream(check, media, f.file_type_, start, f.handle_) == 1;
    };
    PsMergeResult merged;
    result = MergeIntoProgramStream(r, &merged);
    if (result == 1) f.mq_start_address_ = merged.merge_start;  // where the data begins now
  }
  CloseFileHandle(media);
  return result;
}

}  // namespace marquel
