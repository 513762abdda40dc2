// marquelctl plot of a two-program transport stream, rendered by headless Chromium.
//
// The test tags both programs of the stream through the server, has marquelctl draw the
// timeline, lets the browser take a screenshot of the SVG and checks the pixels: the
// picture is not blank, state bands, raw ticks and plain steps are coloured where the SVG
// puts their rows, and the time axis has dark labels. The screenshot stays in the build
// folder (scripts/plot-screenshot.sh copies it into docs/). The PNG reader the checks
// rely on is tested here too, on a picture made with zlib.
#include <cmath>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include <signal.h>
#include <stdlib.h>
#include <zlib.h>

#include "bus_fixture.h"
#include "png_reader.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

constexpr const char* kChromium = "/usr/bin/chromium";
constexpr int64_t kSecond = 10000000;

// Where a row of the picture lies: its top, from the row group's transform.
int RowTop(const std::string& svg, int program, int tag) {
  const std::regex row("<g transform=\"translate\\(0,(\\d+)\\)\" data-program=\"" +
                       std::to_string(program) + "\" data-tag=\"" + std::to_string(tag) + "\"");
  std::smatch m;
  return std::regex_search(svg, m, row) ? std::stoi(m[1].str()) : -1;
}

// The first box "M x y h w" of the row's path filled with `colour`: its x and width.
std::pair<int, int> FirstBox(const std::string& svg, int program, int tag,
                             const std::string& colour) {
  const std::string key =
      "data-program=\"" + std::to_string(program) + "\" data-tag=\"" + std::to_string(tag) + "\"";
  const size_t at = svg.find(key);
  if (at == std::string::npos) return {-1, 0};
  const std::string text = svg.substr(at, svg.find("</g>", at) - at);
  const std::regex box("<path d=\"M(\\d+) \\d+h(\\d+)v[^\"]*\" fill=\"" + colour + "\"");
  std::smatch m;
  if (!std::regex_search(text, m, box)) return {-1, 0};
  return {std::stoi(m[1].str()), std::stoi(m[2].str())};
}

bool Near(const Picture::Pixel& p, int r, int g, int b, int tolerance = 40) {
  return std::abs(p.r - r) <= tolerance && std::abs(p.g - g) <= tolerance &&
         std::abs(p.b - b) <= tolerance;
}
bool Dark(const Picture::Pixel& p) {
  return p.r < 110 && p.g < 110 && p.b < 110;
}

// Pixels in [x0, x1) x [y0, y1) that pass `test`.
template <typename Test>
int Count(const Picture& picture, int x0, int x1, int y0, int y1, Test test) {
  int n = 0;
  for (int y = std::max(y0, 0); y < std::min(y1, picture.height); ++y)
    for (int x = std::max(x0, 0); x < std::min(x1, picture.width); ++x)
      if (test(picture.At(x, y))) ++n;
  return n;
}

class PlotInBrowser : public BusTest {
 protected:
  // Ten tags in each program: plain ones with waves, steps and sparse points, state tags
  // with gaps (several valid intervals), raw ones with ticks.
  void TagProgram(int32_t handle, int32_t program) {
    const int64_t shift = program * 7 * kSecond;
    auto plain = [&](int32_t tag, int count, int64_t step, auto value) {
      std::vector<MarquelOneTag> samples;
      for (int i = 0; i < count; ++i)
        samples.push_back({shift + i * step, static_cast<int32_t>(value(i))});
      ASSERT_EQ(client_->InsertDataPeriod2(handle, program, tag, samples.data(),
                                           static_cast<int32_t>(samples.size())),
                S_OK)
          << "tag " << tag;
    };
    plain(40, 1200, kSecond / 10, [](int i) { return 120 + 100 * std::sin(i / 40.0); });
    plain(41, 60, 2 * kSecond, [](int i) { return (i / 6) % 4 * 60; });
    plain(42, 12, 10 * kSecond, [](int i) { return i * 20 % 200; });
    plain(program == 0 ? 18 : 19, 3000, kSecond / 25,
          [](int i) { return (i * 37) % 256 * (i % 500 < 250); });
    plain(50, 400, kSecond / 4, [](int i) { return 30 + i % 100; });
    // State tags: 1 for runs, with a pause of 20 s that splits their valid intervals.
    for (int32_t tag : {17, 251}) {
      std::vector<MarquelOneTag> samples;
      for (int i = 0; i < 1100; ++i) {
        if (i >= 400 && i < 600) continue;
        samples.push_back({shift + i * kSecond / 10, (i / (tag == 17 ? 90 : 130)) % 2});
      }
      ASSERT_EQ(client_->InsertDataPeriod2(handle, program, tag, samples.data(),
                                           static_cast<int32_t>(samples.size())),
                S_OK);
    }
    const uint8_t bytes[4] = {1, 2, 3, 4};
    for (int32_t tag : {29, 30, 31}) {
      for (int i = 0; i < 40; ++i) {
        const int64_t t =
            shift + (tag - 28) * kSecond + i * (tag == 31 ? kSecond / 2 : 3 * kSecond);
        ASSERT_EQ(client_->InsertRawDataOne2(handle, program, tag, t, 4, bytes), S_OK);
      }
    }
  }

  // Renders `svg` in headless Chromium into `png`, with a window of the picture's size.
  void Screenshot(const std::string& svg, int width, int height, const std::string& png) {
    ASSERT_TRUE(std::filesystem::exists(kChromium))
        << kChromium << " is missing: run scripts/deps.sh to install the chromium package";
    std::filesystem::remove(png);
    const std::string profile = TestPath("chromium-profile");
    std::filesystem::create_directories(profile);
    // Chromium puts a socket into TMPDIR, whose path must stay short; the test's own
    // folder is too deep for it.
    char short_tmp[] = "/tmp/mqplot-XXXXXX";
    ASSERT_NE(mkdtemp(short_tmp), nullptr);
    const std::string test_tmp = getenv("TMPDIR") ? getenv("TMPDIR") : "";
    setenv("TMPDIR", short_tmp, 1);
    Child browser = Spawn(
        {kChromium, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
         "--no-first-run", "--disable-background-networking", "--disable-component-update",
         "--disable-sync", "--hide-scrollbars", "--user-data-dir=" + profile, "--screenshot=" + png,
         "--window-size=" + std::to_string(width) + "," + std::to_string(height), "file://" + svg},
        TestPath("chromium.log"));
    setenv("TMPDIR", test_tmp.c_str(), 1);
    int status = -1;
    if (!WaitForExit(browser.pid, std::chrono::seconds(120), &status)) {
      kill(browser.pid, SIGKILL);
      WaitForExit(browser.pid, kLong, &status);
    }
    std::filesystem::remove_all(short_tmp);
    ASSERT_EQ(status, 0) << "chromium did not finish: " << ReadFile(TestPath("chromium.log"));
    ASSERT_TRUE(std::filesystem::exists(png)) << ReadFile(TestPath("chromium.log"));
  }
};

// A 5 x 5 RGB picture whose rows use the five row filters in turn comes back pixel for
// pixel, and a picture of another form is refused.
TEST(PngReader, ReadsEachRowFilterOfAnRgbPicture) {
  constexpr int kSide = 5;
  auto pixel = [](int x, int y, int c) { return static_cast<uint8_t>(x * 40 + y * 13 + c * 70); };
  std::vector<uint8_t> raw;
  for (int y = 0; y < kSide; ++y) {
    raw.push_back(static_cast<uint8_t>(y));  // filter type
    for (int x = 0; x < kSide; ++x)
      for (int c = 0; c < 3; ++c) {
        const int a = x > 0 ? pixel(x - 1, y, c) : 0, b = y > 0 ? pixel(x, y - 1, c) : 0;
        const int d = x > 0 && y > 0 ? pixel(x - 1, y - 1, c) : 0;
        const int p = a + b - d, pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - d);
        const int paeth = pa <= pb && pa <= pc ? a : pb <= pc ? b : d;
        const int predictor[] = {0, a, b, (a + b) / 2, paeth};
        raw.push_back(static_cast<uint8_t>(pixel(x, y, c) - predictor[y]));
      }
  }
  uLongf size = compressBound(raw.size());
  std::string idat(size, '\0');
  ASSERT_EQ(compress(reinterpret_cast<Bytef*>(idat.data()), &size, raw.data(), raw.size()), Z_OK);
  idat.resize(size);
  auto big = [](uint32_t v) {
    return std::string{static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                       static_cast<char>(v >> 8), static_cast<char>(v)};
  };
  auto chunk = [&](const std::string& type, const std::string& body) {
    return big(static_cast<uint32_t>(body.size())) + type + body + big(0);  // CRC not checked
  };
  const std::string header = big(kSide) + big(kSide) + std::string("\x08\x02\0\0\0", 5);
  const std::string png = std::string("\x89PNG\r\n\x1a\n", 8) + chunk("IHDR", header) +
                          chunk("IDAT", idat) + chunk("IEND", "");
  Picture picture;
  std::string error;
  ASSERT_TRUE(DecodePng(png, &picture, &error)) << error;
  ASSERT_EQ(picture.width, kSide);
  ASSERT_EQ(picture.height, kSide);
  for (int y = 0; y < kSide; ++y)
    for (int x = 0; x < kSide; ++x) {
      const Picture::Pixel p = picture.At(x, y);
      EXPECT_EQ(p.r, pixel(x, y, 0));
      EXPECT_EQ(p.g, pixel(x, y, 1));
      EXPECT_EQ(p.b, pixel(x, y, 2));
      EXPECT_EQ(p.a, 255);
    }
  std::string palette = png;
  palette[8 + 8 + 9] = 3;  // colour type 3: a palette picture
  EXPECT_FALSE(DecodePng(palette, &picture, &error));
  EXPECT_FALSE(DecodePng("GIF89a", &picture, &error));
}

TEST_F(PlotInBrowser, ATwoProgramStreamWithTwentyTagsIsDrawnWhereItsRowsAre) {
  const std::string media = CopyTestMedia("ts2prog.ts", "two-programs.ts");
  int32_t handle = -1, programs = 0;
  ASSERT_EQ(client_->InitialFile(media.c_str(), 0, 0, &handle), S_OK);
  // The stream's two programs (PMT PIDs 0x1000 and 0x1001) each get their tags.
  ASSERT_EQ(client_->SetPMTPID(handle, 0, 0x1000), S_OK);
  int32_t second = -1;
  ASSERT_EQ(client_->InsertNewProgram(handle, 0x1001, &second), S_OK);
  ASSERT_EQ(second, 1);
  ASSERT_EQ(client_->GetMQProgramCounts(handle, &programs), S_OK);
  ASSERT_EQ(programs, 2);
  TagProgram(handle, 0);
  TagProgram(handle, 1);

  const std::string folder = PLOT_SCREENSHOT_DIR;
  std::filesystem::create_directories(folder);
  const std::string svg_path = folder + "/plot-timeline.svg";
  const std::string png_path = folder + "/plot-timeline.png";
  std::string out;
  ASSERT_EQ(RunProgram({MarquelctlPath(), "plot", media, "-o", svg_path, "--width", "1200"}, &out),
            0)
      << out;
  EXPECT_NE(out.find("20 tags"), std::string::npos) << out;
  EXPECT_EQ(client_->CloseFile(handle, 0), S_OK);
  const std::string svg = ReadFile(svg_path);
  std::smatch m;
  ASSERT_TRUE(std::regex_search(svg, m, std::regex("width=\"(\\d+)\" height=\"(\\d+)\"")));
  const int width = std::stoi(m[1].str()), height = std::stoi(m[2].str());
  EXPECT_EQ(width, 1200);

  Screenshot(svg_path, width, height, png_path);
  if (HasFatalFailure()) return;
  std::ifstream in(png_path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  Picture picture;
  std::string error;
  ASSERT_TRUE(DecodePng(bytes, &picture, &error)) << error;
  ASSERT_EQ(picture.width, width);
  ASSERT_EQ(picture.height, height);

  // Not blank: a good share of the pixels are not white.
  const int inked =
      Count(picture, 0, width, 0, height, [](auto p) { return !Near(p, 255, 255, 255, 8); });
  EXPECT_GT(inked, width * height / 20);

  for (int program : {0, 1}) {
    SCOPED_TRACE("program " + std::to_string(program));
    // The first band of state tag 17 is orange across its middle.
    const int state_top = RowTop(svg, program, 17);
    const auto [band_x, band_w] = FirstBox(svg, program, 17, "#f08c1a");
    ASSERT_GE(state_top, 0);
    ASSERT_GT(band_w, 4);
    EXPECT_GT(Count(picture, band_x + 1, band_x + band_w - 1, state_top + 5, state_top + 13,
                    [](auto p) { return Near(p, 0xf0, 0x8c, 0x1a); }),
              (band_w - 2) * 8 * 9 / 10);
    // Raw tag 31 has green ticks, and its row label is dark text.
    const int raw_top = RowTop(svg, program, 31);
    ASSERT_GE(raw_top, 0);
    EXPECT_GT(Count(picture, 190, width, raw_top + 4, raw_top + 14,
                    [](auto p) { return Near(p, 0x2e, 0x9e, 0x4a); }),
              40);
    EXPECT_GT(Count(picture, 10, 70, raw_top + 2, raw_top + 16, Dark), 20);
    // Plain tag 40 is drawn in blue within its row and nowhere near the row above it.
    const int plain_top = RowTop(svg, program, 40);
    ASSERT_GE(plain_top, 0);
    EXPECT_GT(Count(picture, 190, width, plain_top + 2, plain_top + 17,
                    [](auto p) { return p.b > p.r + 60 && p.b > 120; }),
              200);
  }
  // Both time axes carry dark labels across the plot area.
  const int rows_bottom = height - 40;
  EXPECT_GT(Count(picture, 190, width, rows_bottom + 6, rows_bottom + 22, Dark), 200);
  EXPECT_GT(Count(picture, 190, width, 78, 96, Dark), 200);
  // Between the rows' blue outline, in an empty stretch right of the data, the picture is
  // white or the stripe colour, so the colours above are not everywhere.
  EXPECT_LT(Count(picture, width - 20, width, 100, rows_bottom - 5,
                  [](auto p) { return Near(p, 0xf0, 0x8c, 0x1a) || Near(p, 0x2e, 0x9e, 0x4a); }),
            5);
}

}  // namespace
}  // namespace marquel::test
