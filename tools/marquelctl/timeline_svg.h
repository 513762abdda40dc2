// The timeline picture of `marquelctl plot`: samples of many tags in, SVG text out.
//
// Every tag is one row on a common time axis. Each tag's samples are thinned as they are
// added, to a fixed number of buckets over the tag's own time span, so the memory of a
// Timeline and the size of its picture depend on the pixel width and the number of rows,
// never on the number of samples. Nothing here talks to the server.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace marquel::ctl {

// Picture widths, in pixels, that a Timeline takes.
constexpr int kMinPlotWidth = 400;
constexpr int kMaxPlotWidth = 4000;
constexpr int kDefaultPlotWidth = 1200;
// The most rows (tags over all programs) one picture holds.
constexpr size_t kMaxPlotRows = 1024;

// How a row is drawn: plain values as steps (and points when sparse), state tags as
// bands where they are 1, raw samples as ticks.
enum class TrackKind { kPlain, kState, kRaw };

// What names a row.
struct TrackId {
  int32_t program = 0;
  int32_t tag = 0;
  TrackKind kind = TrackKind::kPlain;
};

// A span of time codes, [start, end).
using TimeSpan = std::pair<int64_t, int64_t>;

// One plain sample as the server gives it.
struct PlotSample {
  int64_t time = 0;
  int32_t value = 0;
};

class Timeline {
 public:
  // A picture `width` pixels wide (kMinPlotWidth..kMaxPlotWidth; clamped into it).
  explicit Timeline(int width = kDefaultPlotWidth);

  // The title line of the picture (the file's name).
  void SetTitle(std::string title) { title_ = std::move(title); }

  // Adds a row of plain samples, in time order, and the tag's valid intervals.
  // False (nothing added) when kMaxPlotRows rows are there already.
  bool AddPlain(TrackId id, std::span<const PlotSample> samples, std::span<const TimeSpan> valid);
  // Adds a row of a state tag: a sample of 1 holds until the next sample, the last one
  // for `interval` ticks (the tag's sampling interval).
  bool AddState(TrackId id, std::span<const PlotSample> samples, int64_t interval,
                std::span<const TimeSpan> valid);
  // Adds a row of raw samples, given by their time codes in time order.
  bool AddRaw(TrackId id, std::span<const int64_t> times, std::span<const TimeSpan> valid);

  size_t Rows() const { return tracks_.size(); }
  int Width() const { return width_; }
  // The height of the picture in pixels.
  int Height() const;

  // The whole picture: a standalone SVG document without scripts, links or fonts of its
  // own (the viewer's sans-serif is used).
  std::string Svg() const;

  // Layout, for whoever has to find a row in the picture.
  static constexpr int kLabelWidth = 190;  // row labels left of the plot area
  static constexpr int kRightMargin = 24;
  static constexpr int kRowHeight = 18;
  static constexpr int kHeaderHeight = 100;  // title, legend and the upper time axis
  static constexpr int kProgramHeading = 22;
  static constexpr int kFooterHeight = 40;  // the lower time axis

 private:
  // A plain bucket: the value range of its samples and the value it ends with.
  struct Bucket {
    int32_t low = 0, high = 0, last = 0;
    bool used = false;
  };
  struct Track {
    TrackId id;
    int64_t start = 0, end = 0;  // the time codes the row covers, [start, end)
    int64_t value_low = 0, value_high = 0;
    size_t samples = 0;
    std::vector<Bucket> buckets;  // plain rows only, over [start, end)
    std::vector<TimeSpan> runs;   // state bands or raw ticks, merged below a bucket
    std::vector<TimeSpan> valid;  // merged the same way
  };

  int Columns() const { return width_ - kLabelWidth - kRightMargin; }
  static Track Begin(TrackId id, TrackKind kind, size_t samples);
  bool Admit() const { return tracks_.size() < kMaxPlotRows; }
  void Finish(Track track, std::span<const TimeSpan> valid);
  std::vector<TimeSpan> Merge(std::vector<TimeSpan> spans, int64_t gap) const;
  TimeSpan Range() const;

  int width_;
  std::string title_;
  std::vector<Track> tracks_;
  friend class TimelineDrawing;
};

// The hh:mm:ss text of a time code on the axis; with `fraction` digits after the
// seconds (0 to 3) when the axis steps are shorter than a second.
std::string AxisTime(int64_t ticks, int fraction);

}  // namespace marquel::ctl
