// Thinning of a tag's samples into the buckets and runs a timeline row is drawn from.
#include <algorithm>
#include <cstdio>
#include <limits>

#include "timeline_svg.h"

namespace marquel::ctl {
namespace {

// The bucket of `t` among `count` buckets over [start, end); times outside clamp.
size_t BucketOf(int64_t t, int64_t start, int64_t end, size_t count) {
  if (t <= start) return 0;
  const __int128 offset = static_cast<__int128>(t) - start;
  const __int128 span = static_cast<__int128>(end) - start;
  const __int128 index = offset * static_cast<__int128>(count) / span;
  return static_cast<size_t>(std::min<__int128>(index, count - 1));
}

// The time below which two spans are drawn as one: a bucket's length.
int64_t BucketLength(int64_t start, int64_t end, int columns) {
  const __int128 span = static_cast<__int128>(end) - start;
  return static_cast<int64_t>(
      std::min<__int128>(span / columns, std::numeric_limits<int64_t>::max()));
}

// end + 1 without passing the largest time code.
int64_t After(int64_t t) {
  return t == std::numeric_limits<int64_t>::max() ? t : t + 1;
}

}  // namespace

Timeline::Track Timeline::Begin(TrackId id, TrackKind kind, size_t samples) {
  Track track;
  track.id = id;
  track.id.kind = kind;
  track.samples = samples;
  return track;
}

Timeline::Timeline(int width) : width_(std::clamp(width, kMinPlotWidth, kMaxPlotWidth)) {}

int Timeline::Height() const {
  int programs = 0;
  for (size_t i = 0; i < tracks_.size(); ++i)
    if (i == 0 || tracks_[i].id.program != tracks_[i - 1].id.program) ++programs;
  return kHeaderHeight + programs * kProgramHeading +
         static_cast<int>(tracks_.size()) * kRowHeight + kFooterHeight;
}

std::vector<TimeSpan> Timeline::Merge(std::vector<TimeSpan> spans, int64_t gap) const {
  std::sort(spans.begin(), spans.end());
  std::vector<TimeSpan> merged;
  for (const TimeSpan& s : spans) {
    if (!merged.empty() && static_cast<__int128>(s.first) - merged.back().second <= gap)
      merged.back().second = std::max(merged.back().second, s.second);
    else
      merged.push_back(s);
  }
  return merged;
}

void Timeline::Finish(Track track, std::span<const TimeSpan> valid) {
  for (const TimeSpan& v : valid) {
    if (v.second < v.first) continue;
    if (track.samples == 0 && track.valid.empty() && track.start == track.end) {
      track.start = v.first;
      track.end = After(v.second);
    }
    track.start = std::min(track.start, v.first);
    track.end = std::max(track.end, After(v.second));
    track.valid.push_back({v.first, After(v.second)});
  }
  const int64_t gap = BucketLength(track.start, track.end, Columns());
  track.valid = Merge(std::move(track.valid), gap);
  track.runs = Merge(std::move(track.runs), gap);
  tracks_.push_back(std::move(track));
}

bool Timeline::AddPlain(TrackId id, std::span<const PlotSample> samples,
                        std::span<const TimeSpan> valid) {
  if (!Admit()) return false;
  Track track = Begin(id, TrackKind::kPlain, samples.size());
  if (!samples.empty()) {
    track.start = samples.front().time;
    track.end = After(samples.back().time);
    for (const PlotSample& s : samples) {
      track.start = std::min(track.start, s.time);
      track.end = std::max(track.end, After(s.time));
    }
    auto [low, high] = std::minmax_element(
        samples.begin(), samples.end(),
        [](const PlotSample& a, const PlotSample& b) { return a.value < b.value; });
    track.value_low = low->value;
    track.value_high = high->value;
    track.buckets.resize(static_cast<size_t>(Columns()));
    for (const PlotSample& s : samples) {
      Bucket& b = track.buckets[BucketOf(s.time, track.start, track.end, track.buckets.size())];
      if (!b.used) b = Bucket{s.value, s.value, s.value, true};
      b.low = std::min(b.low, s.value);
      b.high = std::max(b.high, s.value);
      b.last = s.value;
    }
  }
  Finish(std::move(track), valid);
  return true;
}

bool Timeline::AddState(TrackId id, std::span<const PlotSample> samples, int64_t interval,
                        std::span<const TimeSpan> valid) {
  if (!Admit()) return false;
  Track track = Begin(id, TrackKind::kState, samples.size());
  interval = std::max<int64_t>(interval, 1);
  for (size_t i = 0; i < samples.size(); ++i) {
    const int64_t t = samples[i].time;
    const int64_t next = i + 1 < samples.size() ? samples[i + 1].time
                         : t > std::numeric_limits<int64_t>::max() - interval
                             ? std::numeric_limits<int64_t>::max()
                             : t + interval;
    if (i == 0) track.start = track.end = t;
    track.start = std::min(track.start, t);
    track.end = std::max(track.end, next);
    if (samples[i].value == 0 || next <= t) continue;
    if (!track.runs.empty() && track.runs.back().second == t)
      track.runs.back().second = next;
    else
      track.runs.push_back({t, next});
  }
  Finish(std::move(track), valid);
  return true;
}

bool Timeline::AddRaw(TrackId id, std::span<const int64_t> times, std::span<const TimeSpan> valid) {
  if (!Admit()) return false;
  Track track = Begin(id, TrackKind::kRaw, times.size());
  for (size_t i = 0; i < times.size(); ++i) {
    if (i == 0) track.start = track.end = times[i];
    track.start = std::min(track.start, times[i]);
    track.end = std::max(track.end, After(times[i]));
    if (!track.runs.empty() && track.runs.back().second >= times[i])
      track.runs.back().second = std::max(track.runs.back().second, After(times[i]));
    else
      track.runs.push_back({times[i], After(times[i])});
  }
  Finish(std::move(track), valid);
  return true;
}

TimeSpan Timeline::Range() const {
  bool any = false;
  TimeSpan range{0, 0};
  for (const Track& t : tracks_) {
    if (t.start == t.end) continue;
    range = any ? TimeSpan{std::min(range.first, t.start), std::max(range.second, t.end)}
                : TimeSpan{t.start, t.end};
    any = true;
  }
  // An empty or one-point picture still gets an axis of one second.
  if (static_cast<__int128>(range.second) - range.first < 10)
    range.second = range.first > std::numeric_limits<int64_t>::max() - 10000000
                       ? std::numeric_limits<int64_t>::max()
                       : range.first + 10000000;
  return range;
}

std::string AxisTime(int64_t ticks, int fraction) {
  const bool negative = ticks < 0;
  const uint64_t magnitude =
      negative ? static_cast<uint64_t>(-(ticks + 1)) + 1 : static_cast<uint64_t>(ticks);
  const uint64_t seconds = magnitude / 10000000;
  char text[64];
  std::snprintf(text, sizeof text, "%s%02llu:%02llu:%02llu", negative ? "-" : "",
                static_cast<unsigned long long>(seconds / 3600),
                static_cast<unsigned long long>(seconds / 60 % 60),
                static_cast<unsigned long long>(seconds % 60));
  std::string out = text;
  fraction = std::clamp(fraction, 0, 3);
  if (fraction > 0) {
    const uint64_t ms = magnitude % 10000000 / 10000;
    std::snprintf(text, sizeof text, "%03llu", static_cast<unsigned long long>(ms));
    out += "." + std::string(text, static_cast<size_t>(fraction));
  }
  return out;
}

}  // namespace marquel::ctl
