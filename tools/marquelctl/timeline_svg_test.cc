// The timeline picture drawn from synthetic samples, without a server.
#include <gtest/gtest.h>

#include <cmath>
#include <regex>
#include <string>
#include <vector>

#include "timeline_svg.h"

namespace marquel::ctl {
namespace {

constexpr int64_t kSecond = 10000000;

// The d attribute of the first path of the row of `tag` whose fill is `colour`.
std::string RowPath(const std::string& svg, int tag, const std::string& colour) {
  const std::string key = "data-tag=\"" + std::to_string(tag) + "\"";
  const size_t row = svg.find(key);
  if (row == std::string::npos) return "";
  const size_t end = svg.find("</g>", row);
  std::smatch m;
  const std::string text = svg.substr(row, end - row);
  const std::regex path("<path d=\"([^\"]*)\" fill=\"" + colour + "\"");
  return std::regex_search(text, m, path) ? m[1].str() : "";
}

// The widths of the boxes ("M x y h W v ...") of a path.
std::vector<int> BoxWidths(const std::string& d) {
  std::vector<int> widths;
  const std::regex box("M(\\d+) \\d+h(\\d+)v");
  for (auto it = std::sregex_iterator(d.begin(), d.end(), box); it != std::sregex_iterator(); ++it)
    widths.push_back(std::stoi((*it)[2].str()));
  return widths;
}

TEST(TimelineSvg, AThousandTagsOfAHundredThousandSamplesMakeAPictureUnderEightMiB) {
  constexpr int kTags = 1000;
  constexpr int kSamples = 100000;
  Timeline picture;  // the default width
  std::vector<PlotSample> samples(kSamples);
  std::vector<int64_t> times(kSamples);
  for (int tag = 0; tag < kTags; ++tag) {
    // Times a tenth of a second apart with a jitter; values that change in every pixel
    // column (a slow wave with noise on top), the worst case for the outline.
    for (int i = 0; i < kSamples; ++i) {
      const int64_t t = int64_t{i} * kSecond / 10 + (i * 7919 + tag) % 1000;
      const double wave = std::sin(i / (300.0 + tag)) * 100 + 120;
      samples[i] = {t, static_cast<int32_t>(wave) + (i * 31 + tag) % 17};
      times[i] = t;
    }
    const std::vector<TimeSpan> valid = {{0, 3000 * kSecond}, {3100 * kSecond, 9000 * kSecond}};
    const TrackId id{tag / 256, tag % 256, TrackKind::kPlain};
    if (tag % 10 == 1) {
      // A state tag switching every 317 samples: about one band per pixel column.
      for (int i = 0; i < kSamples; ++i) samples[i].value = (i / 317) % 2;
      ASSERT_TRUE(picture.AddState(id, samples, kSecond / 10, valid));
    } else if (tag % 10 == 2) {
      ASSERT_TRUE(picture.AddRaw(id, times, valid));
    } else {
      ASSERT_TRUE(picture.AddPlain(id, samples, valid));
    }
  }
  const std::string svg = picture.Svg();
  EXPECT_LT(svg.size(), size_t{8} << 20);
  size_t rows = 0;
  for (size_t at = svg.find("data-tag="); at != std::string::npos;
       at = svg.find("data-tag=", at + 1))
    ++rows;
  EXPECT_EQ(rows, static_cast<size_t>(kTags));
  EXPECT_EQ(picture.Height(), Timeline::kHeaderHeight + 4 * Timeline::kProgramHeading +
                                  kTags * Timeline::kRowHeight + Timeline::kFooterHeight);
}

TEST(TimelineSvg, ThePictureNeedsNothingFromOutside) {
  Timeline picture;
  picture.SetTitle("clip <1> & \"2\".ts");
  const std::vector<PlotSample> samples = {{0, 1}, {kSecond, 2}};
  picture.AddPlain({0, 40, TrackKind::kPlain}, samples, {});
  const std::string svg = picture.Svg();
  for (const char* outside :
       {"<script", "href", "url(", "@import", "<image", "<foreignObject", "@font-face", "<style"})
    EXPECT_EQ(svg.find(outside), std::string::npos) << outside;
  EXPECT_NE(svg.find("clip &lt;1&gt; &amp; &quot;2&quot;.ts"), std::string::npos);
  EXPECT_EQ(svg.rfind("<svg xmlns=\"http://www.w3.org/2000/svg\"", 0), 0u);
  EXPECT_NE(svg.find("font-family=\"sans-serif\""), std::string::npos);
}

TEST(TimelineSvg, AStateBandCoversTheTimeTheTagIsOne) {
  Timeline picture(1000 + Timeline::kLabelWidth + Timeline::kRightMargin);  // 1000 columns
  // 1 for the first second, 0 for the next three: a quarter of the axis.
  std::vector<PlotSample> samples;
  for (int i = 0; i < 40; ++i) samples.push_back({i * kSecond / 10, i < 10 ? 1 : 0});
  picture.AddState({0, 17, TrackKind::kState}, samples, kSecond / 10, {});
  const std::string d = RowPath(picture.Svg(), 17, "#f08c1a");
  ASSERT_EQ(BoxWidths(d).size(), 1u) << d;
  EXPECT_NEAR(BoxWidths(d)[0], 250, 1) << d;
  EXPECT_EQ(d.rfind("M" + std::to_string(Timeline::kLabelWidth) + " ", 0), 0u) << d;
}

TEST(TimelineSvg, DenseRawSamplesBecomeOneBarAndSparseOnesSeparateTicks) {
  Timeline picture(1000 + Timeline::kLabelWidth + Timeline::kRightMargin);
  std::vector<int64_t> dense, sparse;
  for (int64_t i = 0; i < 100000; ++i) dense.push_back(i * 100);  // 10 M ticks in all
  for (int64_t i = 0; i < 5; ++i) sparse.push_back(i * 2000000);
  picture.AddRaw({0, 29, TrackKind::kRaw}, dense, {});
  picture.AddRaw({0, 30, TrackKind::kRaw}, sparse, {});
  const std::string svg = picture.Svg();
  EXPECT_EQ(BoxWidths(RowPath(svg, 29, "#2e9e4a")).size(), 1u);
  EXPECT_EQ(BoxWidths(RowPath(svg, 30, "#2e9e4a")).size(), 5u);
}

TEST(TimelineSvg, ValidIntervalsAreShadedAcrossTheRow) {
  Timeline picture(1000 + Timeline::kLabelWidth + Timeline::kRightMargin);
  const std::vector<PlotSample> samples = {{0, 5}, {4 * kSecond, 6}};
  const std::vector<TimeSpan> valid = {{0, kSecond}, {3 * kSecond, 4 * kSecond}};
  picture.AddPlain({0, 40, TrackKind::kPlain}, samples, valid);
  const std::string d = RowPath(picture.Svg(), 40, "#d5e3f3");
  const std::vector<int> widths = BoxWidths(d);
  ASSERT_EQ(widths.size(), 2u) << d;
  EXPECT_NEAR(widths[0], 250, 1);
  EXPECT_NE(d.find("h" + std::to_string(widths[1]) + "v18"), std::string::npos) << d;
}

TEST(TimelineSvg, FewPlainSamplesGetPointsAndManyDoNot) {
  Timeline picture;
  std::vector<PlotSample> few = {{0, 1}, {kSecond, 3}, {2 * kSecond, 2}};
  std::vector<PlotSample> many;
  for (int i = 0; i < 20000; ++i) many.push_back({i * 1000, i % 50});
  picture.AddPlain({0, 40, TrackKind::kPlain}, few, {});
  picture.AddPlain({0, 41, TrackKind::kPlain}, many, {});
  const std::string svg = picture.Svg();
  auto row = [&](int tag) {
    const size_t at = svg.find("data-tag=\"" + std::to_string(tag) + "\"");
    return svg.substr(at, svg.find("</g>", at) - at);
  };
  EXPECT_NE(row(40).find("stroke-linecap=\"round\""), std::string::npos);
  EXPECT_EQ(row(41).find("stroke-linecap=\"round\""), std::string::npos);
  // The outline of the first tag rises and falls with its three values.
  EXPECT_NE(row(40).find("V3"), std::string::npos) << row(40);
  EXPECT_NE(row(40).find("V15"), std::string::npos) << row(40);
}

TEST(TimelineSvg, TheAxisIsLabelledInHoursMinutesAndSeconds) {
  EXPECT_EQ(AxisTime(0, 0), "00:00:00");
  EXPECT_EQ(AxisTime((3600 + 60 + 1) * kSecond, 0), "01:01:01");
  EXPECT_EQ(AxisTime(100 * 3600 * kSecond, 0), "100:00:00");
  EXPECT_EQ(AxisTime(kSecond / 2, 1), "00:00:00.5");
  EXPECT_EQ(AxisTime(-kSecond * 3 / 2, 3), "-00:00:01.500");
  EXPECT_EQ(AxisTime(INT64_MIN, 0).substr(0, 1), "-");

  Timeline picture(1000 + Timeline::kLabelWidth + Timeline::kRightMargin);
  const std::vector<PlotSample> samples = {{0, 1}, {2 * 3600 * kSecond, 2}};
  picture.AddPlain({0, 40, TrackKind::kPlain}, samples, {});
  const std::string svg = picture.Svg();
  EXPECT_NE(svg.find(">00:30:00</text>"), std::string::npos);
  EXPECT_NE(svg.find(">01:00:00</text>"), std::string::npos);
}

TEST(TimelineSvg, TheWidthAndTheRowsHaveCeilings) {
  EXPECT_EQ(Timeline(10).Width(), kMinPlotWidth);
  EXPECT_EQ(Timeline(1000000).Width(), kMaxPlotWidth);
  Timeline picture;
  for (size_t i = 0; i < kMaxPlotRows; ++i)
    ASSERT_TRUE(picture.AddRaw(
        {static_cast<int32_t>(i / 256), static_cast<int32_t>(i % 256), TrackKind::kRaw}, {}, {}));
  EXPECT_FALSE(picture.AddPlain({9, 40, TrackKind::kPlain}, {}, {}));
  EXPECT_EQ(picture.Rows(), kMaxPlotRows);
}

TEST(TimelineSvg, ExtremeTimeCodesStayInsideThePicture) {
  Timeline picture(1000 + Timeline::kLabelWidth + Timeline::kRightMargin);
  const std::vector<PlotSample> samples = {{INT64_MIN, 0}, {INT64_MAX, 255}};
  const std::vector<TimeSpan> all = {{INT64_MIN, INT64_MAX}};
  picture.AddPlain({0, 40, TrackKind::kPlain}, samples, all);
  picture.AddState({0, 17, TrackKind::kState}, samples, INT64_MAX, {});
  const std::string svg = picture.Svg();
  const std::regex x("M(-?\\d+) ");
  for (auto it = std::sregex_iterator(svg.begin(), svg.end(), x); it != std::sregex_iterator();
       ++it) {
    const int value = std::stoi((*it)[1].str());
    EXPECT_GE(value, 0);
    EXPECT_LE(value, picture.Width());
  }
}

}  // namespace
}  // namespace marquel::ctl
