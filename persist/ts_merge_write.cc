// RewriteTransportStream: the interleaved stretch written from the first rewritten byte,
// from the backup and the programs' packet files, then the information packet and the cut.
#include <algorithm>
#include <memory>

#include "media/mq_ts_info.h"
#include "media/mq_ts_packetizer.h"
#include "merge_output.h"
#include "ts_merge.h"

namespace marquel {
namespace {

// The units of a file, in order, read in large blocks.
class UnitReader {
 public:
  UnitReader(const std::string& path, int32_t unit)
      : file_(OpenRegularFile(path, GENERIC_READ)),
        unit_(static_cast<size_t>(unit)),
        size_(file_ != kInvalidFileHandle ? GetFileSize64(file_) : -1) {
    buffer_.resize(kTsMergeCopyBytes / unit_ * unit_);
  }
  ~UnitReader() {
    if (file_ != kInvalidFileHandle) CloseFileHandle(file_);
  }
  UnitReader(const UnitReader&) = delete;
  UnitReader& operator=(const UnitReader&) = delete;

  // A file that opened and holds whole units only.
  bool Valid() const { return size_ >= 0 && size_ % static_cast<int64_t>(unit_) == 0; }
  bool AtEnd() const { return !failed_ && at_ == used_ && read_ >= size_; }
  bool failed() const { return failed_; }
  // The next unit, or null at the end or on a failed read.
  const uint8_t* Next() {
    if (at_ == used_ && !Fill()) return nullptr;
    const uint8_t* unit = buffer_.data() + at_;
    at_ += unit_;
    return unit;
  }

 private:
  bool Fill() {
    if (failed_ || read_ >= size_) return false;
    used_ =
        static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(buffer_.size()), size_ - read_));
    failed_ = !ReadAllAt(file_, static_cast<uint64_t>(read_), buffer_.data(), used_);
    read_ += static_cast<int64_t>(used_);
    at_ = 0;
    return !failed_;
  }

  FileHandle file_;
  size_t unit_;
  int64_t size_;
  int64_t read_ = 0;
  std::vector<uint8_t> buffer_;
  size_t used_ = 0;
  size_t at_ = 0;
  bool failed_ = false;
};

// The programs' MQ units one after another; each program's end offset is taken as soon
// as its last unit is put.
class ProgramUnits {
 public:
  ProgramUnits(const std::vector<std::string>& files, int32_t unit) : files_(files), unit_(unit) {}
  // Puts up to `count` units; false on a failed read or write.
  bool Put(int64_t count, MergeOutput* out) {
    for (int64_t i = 0; i < count && Open(); ++i) {
      const uint8_t* u = reader_->Next();
      if (u == nullptr || !out->Put(u, static_cast<size_t>(unit_))) return false;
      if (reader_->AtEnd()) {
        ends_.push_back(out->Position());
        reader_.reset();
        ++next_;
      }
    }
    return !failed_;
  }
  bool Done() const { return next_ >= files_.size(); }
  const std::vector<int64_t>& ends() const { return ends_; }

 private:
  // Opens the current program's file; a file without units cannot take part.
  bool Open() {
    if (reader_ || Done() || failed_) return reader_ != nullptr;
    reader_ = std::make_unique<UnitReader>(files_[next_], unit_);
    failed_ = !reader_->Valid() || reader_->AtEnd();
    if (failed_) reader_.reset();
    return !failed_;
  }
  const std::vector<std::string>& files_;
  int32_t unit_;
  std::unique_ptr<UnitReader> reader_;
  size_t next_ = 0;
  bool failed_ = false;
  std::vector<int64_t> ends_;
};

// The backup's units as the rewrite takes them: the earlier data's units (on its MQ PID
// or PID 225, only when the file held data) are passed over.
class OriginalUnits {
 public:
  OriginalUnits(const std::string& path, const TsMergePlan& plan, int32_t unit)
      : reader_(path, unit), unit_(unit), prefix_(TsUnitPrefixBytes(unit)), plan_(plan) {}
  bool Valid() const { return reader_.Valid() && prefix_ >= 0; }
  bool AtEnd() const { return reader_.AtEnd(); }
  // Puts the original ones among the next `count` units of the backup.
  bool PutFromNext(int64_t count, MergeOutput* out) {
    for (int64_t i = 0; i < count; ++i) {
      const uint8_t* u = reader_.Next();
      if (u == nullptr) return false;
      if (!Own(u) && !out->Put(u, static_cast<size_t>(unit_))) return false;
    }
    return true;
  }
  // Puts up to `count` original units.
  bool Put(int64_t count, MergeOutput* out) {
    for (int64_t put = 0; put < count && !reader_.AtEnd();) {
      const uint8_t* u = reader_.Next();
      if (u == nullptr) return false;
      if (Own(u)) continue;
      if (!out->Put(u, static_cast<size_t>(unit_))) return false;
      ++put;
    }
    return !reader_.failed();
  }

 private:
  bool Own(const uint8_t* unit) const {
    const uint8_t* p = unit + prefix_;
    if (!plan_.has_data || p[0] != 0x47) return false;
    const uint16_t pid = static_cast<uint16_t>(((p[1] & 0x1F) << 8) | p[2]);
    return pid == plan_.mq_pid || pid == kMQInfoPid;
  }
  UnitReader reader_;
  int32_t unit_;
  int32_t prefix_;
  const TsMergePlan& plan_;
};

}  // namespace

bool RewriteTransportStream(FileHandle media, const TsMergeInput& in, const TsMergePlan& plan,
                            const TsRewriteSources& sources) {
  OriginalUnits backup(sources.backup->path, plan, in.unit);
  if (!backup.Valid()) return false;
  MergeOutput out(media, plan.rewrite_from);
  // The original units between the earlier data's start and S go straight back.
  if (!backup.PutFromNext(sources.backup->units_before_start, &out)) return false;
  ProgramUnits programs(*sources.program_files, in.unit);
  while (!programs.Done() || !backup.AtEnd()) {
    if (!programs.Put(kTsMergeMQUnits, &out) || !backup.Put(kTsMergeOriginalUnits, &out))
      return false;
  }
  MQTsInfo info;
  info.original_mtime = plan.original_mtime;
  info.original_size = plan.original_size;
  info.mq_pid = plan.mq_pid;
  info.merge_mtime = sources.merge_mtime;
  for (size_t i = 0; i < plan.pmt_pids.size(); ++i) {
    if (i >= programs.ends().size()) return false;
    info.programs.push_back({plan.pmt_pids[i], programs.ends()[i]});
  }
  std::vector<uint8_t> info_unit;
  if (!SerialiseMQTsInfo(info, in.unit, &info_unit) ||
      !out.Put(info_unit.data(), info_unit.size()) || !out.Flush())
    return false;
  const int64_t end = out.Position();
  return SeekFile(media, end, FILE_BEGIN) == end && SetEndOfFile(media) && SyncFileHandle(media);
}

}  // namespace marquel
