// The SVG text of a Timeline: header with legend, one row per tag, time axes.
//
// Coordinates are whole pixels inside each row's group, so that a row costs a few bytes
// per pixel column at most, whatever its number of samples.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "timeline_svg.h"

namespace marquel::ctl {
namespace {

constexpr const char* kPlainColour = "#1f6fb4";
constexpr const char* kStateColour = "#f08c1a";
constexpr const char* kRawColour = "#2e9e4a";
constexpr const char* kValidColour = "#d5e3f3";
constexpr const char* kStripeColour = "#f4f5f7";
constexpr const char* kGridColour = "#dddddd";
constexpr const char* kTextColour = "#222222";
constexpr const char* kQuietText = "#6b6b6b";
constexpr int64_t kTicksPerMs = 10000;

std::string Escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        // Control characters are not allowed in XML 1.0 text.
        out += (static_cast<unsigned char>(c) < 0x20) ? '?' : c;
    }
  }
  return out;
}

const char* KindName(TrackKind kind) {
  switch (kind) {
    case TrackKind::kState:
      return "state";
    case TrackKind::kRaw:
      return "raw";
    case TrackKind::kPlain:
      break;
  }
  return "plain";
}

// Axis steps: the first that leaves at least kLabelSpacing pixels between two labels.
int64_t AxisStep(__int128 span, int columns) {
  static const int64_t kSteps[] = {
      1 * kTicksPerMs,        2 * kTicksPerMs,       5 * kTicksPerMs,       10 * kTicksPerMs,
      20 * kTicksPerMs,       50 * kTicksPerMs,      100 * kTicksPerMs,     200 * kTicksPerMs,
      500 * kTicksPerMs,      1000 * kTicksPerMs,    2000 * kTicksPerMs,    5000 * kTicksPerMs,
      10000 * kTicksPerMs,    15000 * kTicksPerMs,   30000 * kTicksPerMs,   60000 * kTicksPerMs,
      120000 * kTicksPerMs,   300000 * kTicksPerMs,  600000 * kTicksPerMs,  900000 * kTicksPerMs,
      1800000 * kTicksPerMs,  3600000 * kTicksPerMs, 7200000 * kTicksPerMs, 21600000 * kTicksPerMs,
      43200000 * kTicksPerMs, 86400000 * kTicksPerMs};
  constexpr int kLabelSpacing = 96;
  const __int128 labels = std::max(1, columns / kLabelSpacing);
  for (int64_t step : kSteps)
    if (span / step <= labels) return step;
  int64_t step = kSteps[std::size(kSteps) - 1];
  while (span / step > labels && step < INT64_MAX / 10) step *= 10;
  return step;
}

// Digits after the seconds that a step needs.
int FractionDigits(int64_t step) {
  if (step % 10000000 == 0) return 0;
  if (step % 1000000 == 0) return 1;
  if (step % 100000 == 0) return 2;
  return 3;
}

}  // namespace

// Draws one Timeline; a friend of it, so that the rows are read where they are kept.
class TimelineDrawing {
 public:
  explicit TimelineDrawing(const Timeline& t)
      : t_(t), range_(t.Range()), left_(Timeline::kLabelWidth), columns_(t.Columns()) {}

  std::string Svg() {
    const int height = t_.Height();
    rows_top_ = Timeline::kHeaderHeight;
    rows_bottom_ = height - Timeline::kFooterHeight;
    ticks_ = Ticks();
    Printf(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" viewBox=\"0 0 %d "
        "%d\" "
        "font-family=\"sans-serif\" font-size=\"11\" fill=\"%s\">\n",
        t_.width_, height, t_.width_, height, kTextColour);
    Printf("<rect width=\"%d\" height=\"%d\" fill=\"#ffffff\"/>\n", t_.width_, height);
    Header();
    Grid();
    int y = rows_top_;
    for (size_t i = 0; i < t_.tracks_.size(); ++i) {
      const Timeline::Track& track = t_.tracks_[i];
      if (i == 0 || track.id.program != t_.tracks_[i - 1].id.program) {
        Printf("<text x=\"8\" y=\"%d\" font-weight=\"bold\" font-size=\"12\">program %d</text>\n",
               y + 15, track.id.program);
        y += Timeline::kProgramHeading;
      }
      Row(track, i, y);
      y += Timeline::kRowHeight;
    }
    if (t_.tracks_.empty())
      Printf("<text x=\"%d\" y=\"%d\" fill=\"%s\">no tags</text>\n", left_, rows_top_ + 14,
             kQuietText);
    Axis(rows_top_, -1);
    Axis(rows_bottom_, 1);
    out_ += "</svg>\n";
    return std::move(out_);
  }

 private:
  template <typename... Args>
  void Printf(const char* format, Args... args) {
    char buffer[512];
    const int n = std::snprintf(buffer, sizeof buffer, format, args...);
    if (n > 0) out_.append(buffer, std::min<size_t>(static_cast<size_t>(n), sizeof buffer - 1));
  }

  // The x of a time code, as a fraction of pixels from the plot's left edge.
  double X(int64_t t) const {
    const double offset = static_cast<double>(static_cast<__int128>(t) - range_.first);
    const double span = static_cast<double>(static_cast<__int128>(range_.second) - range_.first);
    return left_ + offset * columns_ / span;
  }
  int Column(int64_t t) const {
    return std::clamp(static_cast<int>(std::floor(X(t))), left_, left_ + columns_ - 1);
  }

  void Header() {
    std::string title = t_.title_.empty() ? "timeline" : t_.title_;
    Printf("<text x=\"8\" y=\"20\" font-size=\"15\" font-weight=\"bold\">");
    out_ += Escape(title) + "</text>\n";
    Printf("<text x=\"8\" y=\"36\" fill=\"%s\">%zu tags, %s to %s</text>\n", kQuietText,
           t_.tracks_.size(), AxisTime(range_.first, 3).c_str(),
           AxisTime(range_.second, 3).c_str());
    struct Item {
      const char* text;
      std::string mark;
    };
    char mark[256];
    std::vector<Item> items;
    std::snprintf(mark, sizeof mark,
                  "<path d=\"M0 10h8V4h8v6h8\" fill=\"none\" stroke=\"%s\" stroke-width=\"1.5\"/>"
                  "<path d=\"M8 4h0\" stroke=\"%s\" stroke-width=\"5\" stroke-linecap=\"round\"/>",
                  kPlainColour, kPlainColour);
    items.push_back({"plain: value steps, samples", mark});
    std::snprintf(mark, sizeof mark, "<rect y=\"2\" width=\"24\" height=\"10\" fill=\"%s\"/>",
                  kStateColour);
    items.push_back({"state: band where 1", mark});
    std::snprintf(mark, sizeof mark,
                  "<path d=\"M2 1h2v12h-2zM10 1h2v12h-2zM14 1h2v12h-2zM21 1h2v12h-2z\" "
                  "fill=\"%s\"/>",
                  kRawColour);
    items.push_back({"raw: a tick per sample", mark});
    std::snprintf(mark, sizeof mark,
                  "<rect width=\"24\" height=\"14\" fill=\"%s\" stroke=\"#9db6d3\"/>",
                  kValidColour);
    items.push_back({"valid interval", mark});
    int x = 8, y = 44;
    for (const Item& item : items) {
      constexpr int kItemWidth = 196;
      if (x + kItemWidth > t_.width_) {
        x = 8;
        y += 16;
      }
      Printf("<g transform=\"translate(%d,%d)\">", x, y);
      out_ += item.mark;
      Printf("<text x=\"30\" y=\"11\">%s</text></g>\n", item.text);
      x += kItemWidth;
    }
  }

  std::vector<int64_t> Ticks() {
    const __int128 span = static_cast<__int128>(range_.second) - range_.first;
    step_ = AxisStep(span, columns_);
    __int128 first = static_cast<__int128>(range_.first) / step_ * step_;
    if (first < range_.first) first += step_;
    std::vector<int64_t> ticks;
    for (__int128 t = first; t <= range_.second; t += step_)
      ticks.push_back(static_cast<int64_t>(t));
    return ticks;
  }

  void Grid() {
    std::string d;
    char part[64];
    for (int64_t t : ticks_) {
      std::snprintf(part, sizeof part, "M%d %dV%d", Column(t), rows_top_, rows_bottom_);
      d += part;
    }
    // Written in one piece: the path may be longer than Printf's buffer.
    out_ += "<path d=\"" + d + "\" stroke=\"" + kGridColour + "\" fill=\"none\"/>\n";
  }

  // A time axis along y; labels above it (side -1) or below it (side 1).
  void Axis(int y, int side) {
    Printf("<path d=\"M%d %dH%d\" stroke=\"%s\"/>\n", left_, y, left_ + columns_, kTextColour);
    const int fraction = FractionDigits(step_);
    for (int64_t t : ticks_) {
      const int x = Column(t);
      Printf("<path d=\"M%d %dv%d\" stroke=\"%s\"/>", x, y, 5 * side, kTextColour);
      Printf("<text x=\"%d\" y=\"%d\" text-anchor=\"middle\">%s</text>\n", x,
             side < 0 ? y - 8 : y + 17, AxisTime(t, fraction).c_str());
    }
  }

  void Row(const Timeline::Track& track, size_t index, int y) {
    Printf("<g transform=\"translate(0,%d)\" data-program=\"%d\" data-tag=\"%d\" data-kind=\"%s\">",
           y, track.id.program, track.id.tag, KindName(track.id.kind));
    if (index % 2 == 1)
      Printf("<rect width=\"%d\" height=\"%d\" fill=\"%s\"/>", t_.width_, Timeline::kRowHeight,
             kStripeColour);
    Printf("<text x=\"16\" y=\"13\">tag %d</text>", track.id.tag);
    Printf("<text x=\"%d\" y=\"13\" text-anchor=\"end\" fill=\"%s\">%s%s</text>", left_ - 8,
           kQuietText, track.samples == 0 ? "empty " : "", KindName(track.id.kind));
    Runs(track.valid, 0, Timeline::kRowHeight, kValidColour);
    switch (track.id.kind) {
      case TrackKind::kState:
        Runs(track.runs, 3, 12, kStateColour);
        break;
      case TrackKind::kRaw:
        Runs(track.runs, 2, 14, kRawColour);
        break;
      case TrackKind::kPlain:
        Steps(track);
        break;
    }
    out_ += "</g>\n";
  }

  // Spans of time as filled boxes, merged where they meet on the same pixel.
  void Runs(const std::vector<TimeSpan>& spans, int top, int height, const char* colour) {
    if (spans.empty()) return;
    std::string d;
    char part[64];
    int x0 = -1, x1 = -1;
    auto flush = [&] {
      if (x0 < 0) return;
      std::snprintf(part, sizeof part, "M%d %dh%dv%dh-%dz", x0, top, x1 - x0, height, x1 - x0);
      d += part;
    };
    for (const TimeSpan& s : spans) {
      const int a = Column(s.first);
      const int b =
          std::max(a + 1, std::min(left_ + columns_, static_cast<int>(std::ceil(X(s.second)))));
      if (x0 >= 0 && a <= x1) {
        x1 = std::max(x1, b);
        continue;
      }
      flush();
      x0 = a;
      x1 = b;
    }
    flush();
    out_ += "<path d=\"" + d + "\" fill=\"" + colour + "\"/>";
  }

  void Steps(const Timeline::Track& track) {
    if (track.samples == 0) return;
    // The value range of each pixel column, and the value held into the next.
    const int first = Column(track.start), last = Column(track.end - 1);
    const size_t n = static_cast<size_t>(last - first + 1);
    std::vector<int64_t> high(n, INT64_MIN), low(n, INT64_MAX), held(n, 0);
    std::vector<bool> used(n, false);
    const size_t buckets = track.buckets.size();
    const __int128 span = static_cast<__int128>(track.end) - track.start;
    for (size_t i = 0; i < buckets; ++i) {
      const Timeline::Bucket& b = track.buckets[i];
      if (!b.used) continue;
      const int64_t t = static_cast<int64_t>(track.start + span * i / buckets);
      const size_t c =
          static_cast<size_t>(std::clamp(Column(t) - first, 0, static_cast<int>(n) - 1));
      high[c] = std::max<int64_t>(high[c], b.high);
      low[c] = std::min<int64_t>(low[c], b.low);
      held[c] = b.last;
      used[c] = true;
    }
    for (size_t c = 1; c < n; ++c)
      if (!used[c]) low[c] = high[c] = held[c] = held[c - 1];
    // Values map onto pixels 3 (highest) to 15 (lowest) of the row.
    const int64_t vlow = track.value_low, vhigh = track.value_high;
    auto y = [&](int64_t v) {
      if (vhigh == vlow) return 9;
      return 15 -
             static_cast<int>(
                 (static_cast<double>(v - vlow) * 12) / static_cast<double>(vhigh - vlow) + 0.5);
    };
    std::string d;
    char part[48];
    std::snprintf(part, sizeof part, "M%d %d", first, y(high[0]));
    d += part;
    for (size_t c = 1; c < n; ++c) {
      if (y(high[c]) == y(high[c - 1])) continue;
      std::snprintf(part, sizeof part, "H%zuV%d", first + c, y(high[c]));
      d += part;
    }
    std::snprintf(part, sizeof part, "H%dV%d", last + 1, y(low[n - 1]));
    d += part;
    for (size_t c = n - 1; c > 0; --c) {
      if (y(low[c - 1]) == y(low[c])) continue;
      std::snprintf(part, sizeof part, "H%zuV%d", first + c, y(low[c - 1]));
      d += part;
    }
    std::snprintf(part, sizeof part, "H%dz", first);
    d += part;
    out_ += "<path d=\"" + d + "\" fill=\"" + kPlainColour + "\" fill-opacity=\"0.3\" stroke=\"" +
            kPlainColour + "\" stroke-width=\"1.2\" stroke-linejoin=\"round\"/>";
    // Few samples: each also gets a point, so that single values show.
    if (track.samples * 6 > static_cast<size_t>(columns_)) return;
    d.clear();
    for (size_t c = 0; c < n; ++c) {
      if (!used[c]) continue;
      std::snprintf(part, sizeof part, "M%zu %dh0", first + c, y(held[c]));
      d += part;
    }
    out_ += "<path d=\"" + d + "\" stroke=\"" + kPlainColour +
            "\" stroke-width=\"5\" stroke-linecap=\"round\"/>";
  }

  const Timeline& t_;
  TimeSpan range_;
  int left_, columns_;
  int rows_top_ = 0, rows_bottom_ = 0;
  int64_t step_ = 1;
  std::vector<int64_t> ticks_;
  std::string out_;
};

std::string Timeline::Svg() const {
  return TimelineDrawing(*this).Svg();
}

}  // namespace marquel::ctl
