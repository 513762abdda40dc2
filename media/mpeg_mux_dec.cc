// The part of the system decoders that does not depend on the MPEG variant: the input
// ring, the resynchronising start-code search, clocks, payload collection and the
// analysis file.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

#include "media/ac3_probe.h"
#include "media/mpeg_system_dec.h"
#include "mpeg_ps_syntax.h"
#include "platform/files.h"

namespace marquel {
namespace {

// Pieces larger than this are parsed slice by slice, so the ring never needs more than
// the largest incomplete structure (a packet of at most 65,541 bytes) plus one slice.
constexpr int32_t kFeedSlice = 65536;

}  // namespace

CMpegMuxDec::CMpegMuxDec(const char* analysis_file_name, int32_t ring_capacity)
    : analysis_file_name_(analysis_file_name),
      initial_capacity_(ring_capacity > 0 ? ring_capacity : 0) {
  MakeRing(initial_capacity_);
}

CMpegMuxDec::~CMpegMuxDec() = default;

bool CMpegMuxDec::MakeRing(int32_t capacity) {
  auto ring = std::unique_ptr<StreamRing>(new (std::nothrow) StreamRing());
  if (!ring || !ring->Create(capacity)) return false;
  ring_ = std::move(ring);
  ring_base_ = ring_->ReadPointer();
  return true;
}

void CMpegMuxDec::Reset() {
  MakeRing(initial_capacity_);
  error_ = 0;
  end_of_stream_ = 0;
  pack_count_ = packet_count_ = system_header_count_ = 0;
  last_scr_base_ = 0;
  last_scr_ext_ = 0;
  mux_rate_ = 0;
  payload_.clear();
  payload_read_ = 0;
  previous_video_pts_ = previous_audio_pts_ = 0;
  stream_bytes_.fill(0);
  sub_bytes_.fill(0);
  ac3_byte_rate_.fill(0);
}

void CMpegMuxDec::SetAnalysis(int32_t on, const std::string& folder) {
  analysis_ = on;
  analysis_folder_ = folder;
}

// Keeps the held bytes contiguous from the read index and makes room for `incoming`
// more without wrapping: grows the ring when it is too small, otherwise moves the held
// bytes to the array's start when the new ones would pass its end.
bool CMpegMuxDec::MakeRoom(int32_t incoming) {
  if (!ring_ && !MakeRing(initial_capacity_)) return false;
  const int32_t held = ring_->Count();
  const int64_t needed = int64_t{held} + incoming + 1;
  const int32_t read_index = static_cast<int32_t>(ring_->ReadPointer() - ring_base_);
  if (needed <= ring_->capacity() && read_index + held + incoming < ring_->capacity()) {
    return true;
  }
  std::vector<uint8_t> kept(static_cast<size_t>(held));
  ring_->Peek(kept.data(), held);
  if (needed > ring_->capacity()) {
    const int64_t grown = std::max<int64_t>(needed, int64_t{ring_->capacity()} * 2);
    if (!MakeRing(static_cast<int32_t>(std::min<int64_t>(grown, INT32_MAX)))) return false;
  } else {
    ring_->Reset();
  }
  ring_->Append(kept.data(), held);
  return true;
}

int32_t CMpegMuxDec::Feed(const uint8_t* data, int32_t size) {
  if (data == nullptr || size <= 0) return 1;
  while (size > 0) {
    const int32_t slice = std::min(size, kFeedSlice);
    if (!MakeRoom(slice)) return 0;
    ring_->Append(data, slice);
    Parse();
    data += slice;
    size -= slice;
  }
  return 1;
}

void CMpegMuxDec::Parse() {
  for (;;) {
    const uint32_t code = NextStartCode();
    if (code == kNoStartCode) return;
    if (Dispatch(code) == 0) {
      ring_->Restore();  // back to the start code; wait for more data
      return;
    }
  }
}

int32_t CMpegMuxDec::Dispatch(uint32_t code) {
  const uint8_t id = static_cast<uint8_t>(code & 0xFF);
  if (id == ps::kPackCode) return PackHeader();
  if (id == ps::kSystemHeaderCode) return SystemHeader();
  if (id == ps::kEndCode) {
    EndCode();
    return 1;
  }
  return Packet(code);
}

uint32_t CMpegMuxDec::NextStartCode() {
  const uint8_t* data = Data();
  const int32_t held = Held();
  if (data == nullptr || held < 4) return kNoStartCode;
  // Positions 0 .. held-4 have four bytes to look at.
  const size_t end = static_cast<size_t>(held) - 3;
  size_t at = 0;
  for (;; ++at) {
    at = ps::FindStartCodePrefix(data, at, end);
    if (at >= end || data[at + 3] >= ps::kEndCode) break;
  }
  if (analysis_on() && at > 0) {
    std::string lines;
    for (size_t i = 0; i < at; ++i) lines += "Skipping... Something wrong!\n";
    WriteAnalysis(lines);
  }
  Consume(static_cast<int32_t>(at));
  if (at >= end) return kNoStartCode;
  ring_->Mark();
  const uint32_t code = 0x00000100u | data[at + 3];
  Consume(4);
  return code;
}

void CMpegMuxDec::SelectStream(int32_t stream_id) {
  selected_stream_ = stream_id;
}

int32_t CMpegMuxDec::TakePayload(uint8_t* out, int32_t max) {
  if (out == nullptr || max <= 0) return 0;
  const size_t count = std::min<size_t>(static_cast<size_t>(max), payload_.size() - payload_read_);
  std::memcpy(out, payload_.data() + payload_read_, count);
  payload_read_ += count;
  if (payload_read_ == payload_.size()) {
    payload_.clear();
    payload_read_ = 0;
  }
  return static_cast<int32_t>(count);
}

int32_t CMpegMuxDec::PayloadCount() const {
  return static_cast<int32_t>(std::min<size_t>(payload_.size() - payload_read_, INT32_MAX));
}

void CMpegMuxDec::GetLastClock(uint64_t* base, uint32_t* ext) const {
  if (base != nullptr) *base = last_scr_base_;
  if (ext != nullptr) *ext = last_scr_ext_;
}

void CMpegMuxDec::KeepPackClock(uint64_t base, uint32_t ext, uint32_t mux_rate) {
  if (base * 300u + ext > last_scr_base_ * 300u + last_scr_ext_) {
    last_scr_base_ = base;
    last_scr_ext_ = ext;
  }
  mux_rate_ = mux_rate;
}

int32_t CMpegMuxDec::Ac3ByteRate(int32_t number) const {
  return number >= 0 && number < 9 ? ac3_byte_rate_[number] : 0;
}

void CMpegMuxDec::DeliverPayload(uint8_t stream_id, const uint8_t* payload, uint32_t size) {
  if (selected_stream_ == stream_id && size > 0) {
    // Compact before growing so a reader that takes as it goes keeps the buffer small.
    if (payload_read_ > 0 && payload_read_ >= payload_.size() / 2) {
      payload_.erase(payload_.begin(), payload_.begin() + static_cast<ptrdiff_t>(payload_read_));
      payload_read_ = 0;
    }
    payload_.insert(payload_.end(), payload, payload + size);
  }
  ElementaryStep(stream_id, payload, size);
}

void CMpegMuxDec::ElementaryStep(uint8_t stream_id, const uint8_t* payload, uint32_t size) {
  stream_bytes_[stream_id] += size;
  if (stream_id != ps::kPrivateStream1 || size == 0) return;
  sub_bytes_[payload[0]] += size;
  const ps::AudioSubStream sub = ps::PrivateStreamAudio(payload[0]);
  if (sub.kind != 1 || ac3_byte_rate_[sub.number] != 0 || size < 4) return;
  // DVD layout: sub-stream byte, frame count, then the 16-bit pointer (counted from its
  // own last byte) to the first frame that starts in this packet.
  const uint32_t first_frame = 3u + ps::Be16(payload + 2);
  if (first_frame >= size) return;
  const int32_t kbits =
      ProbeAc3BitRate(payload + first_frame, static_cast<int32_t>(size - first_frame));
  ac3_byte_rate_[sub.number] = Ac3BytesPerSecond(kbits);
}

void CMpegMuxDec::Print(const char* format, ...) {
  if (!analysis_on()) return;
  char small[512];
  va_list args;
  va_start(args, format);
  const int n = vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof small) {
    WriteAnalysis(std::string(small, static_cast<size_t>(n)));
    return;
  }
  std::string text(static_cast<size_t>(n) + 1, '\0');
  va_start(args, format);
  vsnprintf(text.data(), text.size(), format, args);
  va_end(args);
  text.resize(static_cast<size_t>(n));
  WriteAnalysis(text);
}

// Each piece of text is appended to the file opened anew, as a log that survives a crash.
void CMpegMuxDec::WriteAnalysis(const std::string& text) {
  if (!analysis_on() || text.empty()) return;
  const std::string path = analysis_folder_.empty() ? std::string(analysis_file_name_)
                                                    : analysis_folder_ + "/" + analysis_file_name_;
  const FileHandle h =
      OpenFileHandle(path, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                     FILE_ATTRIBUTE_NORMAL, kInvalidFileHandle);
  if (h == kInvalidFileHandle) return;
  uint32_t written = 0;
  if (SeekFile(h, 0, FILE_END) >= 0) {
    WriteFile(h, text.data(), static_cast<uint32_t>(text.size()), &written);
  }
  CloseFileHandle(h);
}

void CMpegMuxDec::PrintTimeStamps(bool video, uint64_t pts, bool has_dts, uint64_t dts) {
  uint64_t& previous = video ? previous_video_pts_ : previous_audio_pts_;
  const long diff = static_cast<long>(pts - previous);
  previous = pts;
  const long seconds = static_cast<long>(pts / 90000);
  const long h = seconds / 3600, m = seconds / 60 % 60, s = seconds % 60;
  const long stamp = static_cast<long>(pts);
  if (video) {
    if (has_dts) {
      Print("\nVPTS %ld, %02ld:%02ld:%02ld, DTS %ld, VDIFF: %ld, ", stamp, h, m, s,
            static_cast<long>(dts), diff);
    } else {
      Print("\nVPTS %ld, %02ld:%02ld:%02ld, VDIFF: %ld, ", stamp, h, m, s, diff);
    }
  } else if (has_dts) {
    Print("\nAPTS %ld, %02ld:%02ld:%02ld, DTS %ld, ADIFF: %ld, ", stamp, h, m, s,
          static_cast<long>(dts), diff);
  } else {
    Print("\nAPTS %ld, %02ld:%02ld:%02ld, ADIFF: %ld, ", stamp, h, m, s, diff);
  }
}

void CMpegMuxDec::PrintPayloadLine(uint8_t stream_id, const uint8_t* payload, uint32_t size) {
  const int n = static_cast<int>(size);
  if (ps::IsVideoStream(stream_id)) {
    Print("    Video ID:%d, Size: %d, ASize: %d\n", stream_id & 0x0F, n,
          static_cast<int>(stream_bytes_[stream_id]));
  } else if (ps::IsAudioStream(stream_id)) {
    Print("    Audio ID:%d, Size: %d, ASize: %d\n", stream_id & 0x1F, n,
          static_cast<int>(stream_bytes_[stream_id]));
  } else if (stream_id == ps::kPrivateStream1 && size > 0) {
    Print("    Audio ID:%d, Size: %d, ASize: %d\n", ps::PrivateStreamAudio(payload[0]).number, n,
          static_cast<int>(sub_bytes_[payload[0]]));
  } else {
    Print("Other Types, Size %d\n", n);
  }
}

}  // namespace marquel
