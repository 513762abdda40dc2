// marquelctl plot: a timeline picture (SVG) of every tag of a media file.
//
//   plot FILE -o PICTURE.svg [--program N] [--width PX] [--json]
//
// The file is opened read-only; each tag is read through the server once, thinned into
// the picture (timeline_svg.h) and let go before the next, so the memory needed is one
// tag's samples plus the picture.
#include <filesystem>
#include <fstream>
#include <memory>

#include "command.h"
#include "sample_check.h"
#include "server_common.h"
#include "time_text.h"
#include "timeline_svg.h"

namespace marquel::ctl {
namespace {

// Raw samples are read whole for their time codes; a tag holding more bytes is refused.
constexpr int64_t kMaxRawPlotBytes = int64_t{256} << 20;
// The most samples or valid intervals of one tag that are read: the server's ceiling of
// one read, so no larger array is ever made here.
constexpr int32_t kMaxPlotSamples = 1 << 24;
// More programs than this are not looked at (a transport stream has far fewer).
constexpr int32_t kMaxPlotPrograms = 1024;

struct PlotOptions {
  FileOptions file;
  std::string output;
  int width = kDefaultPlotWidth;
  bool one_program = false;
};

// Sample counts: an empty tag answers E_FAIL, which here is simply 0.
HRESULT SampleCount(IMarquelClient& c, int32_t h, int32_t program, int32_t tag, int32_t* n) {
  *n = 0;
  HRESULT hr = c.QueryOneTagSize2(h, program, tag, n);
  if (hr == E_FAIL || *n < 0) *n = 0;
  return hr == E_FAIL ? S_OK : hr;
}

HRESULT ValidIntervals(IMarquelClient& c, int32_t h, int32_t program, int32_t tag,
                       std::vector<TimeSpan>* out) {
  int32_t n = 0;
  HRESULT hr = c.QueryValidIntervalSize2(h, program, tag, &n);
  if (hr != S_OK || n <= 0) return hr == S_OK && n < 0 ? E_FAIL : hr;
  if (n > kMaxPlotSamples) return E_OUTOFMEMORY;
  std::vector<int64_t> starts(static_cast<size_t>(n)), ends(static_cast<size_t>(n));
  hr = c.QueryValidInterval2(h, program, tag, n, starts.data(), ends.data());
  if (hr != S_OK) return hr;
  for (int32_t i = 0; i < n; ++i) out->push_back({starts[i], ends[i]});
  return S_OK;
}

HRESULT PlainSamples(IMarquelClient& c, int32_t h, int32_t program, int32_t tag,
                     std::vector<PlotSample>* out) {
  int32_t n = 0;
  HRESULT hr = SampleCount(c, h, program, tag, &n);
  if (hr != S_OK || n == 0) return hr;
  if (n > kMaxPlotSamples) return E_OUTOFMEMORY;
  std::vector<MarquelOneTag> list(static_cast<size_t>(n));
  if ((hr = c.GetDataAll2(h, program, tag, n, list.data())) != S_OK) return hr;
  out->reserve(list.size());
  for (const MarquelOneTag& s : list) out->push_back({s.llTimeCode, s.value});
  return S_OK;
}

HRESULT RawTimes(IMarquelClient& c, int32_t h, int32_t program, int32_t tag,
                 std::vector<int64_t>* out, std::string* error) {
  int32_t n = 0, size = 0;
  HRESULT hr = SampleCount(c, h, program, tag, &n);
  if (hr != S_OK || n == 0) return hr;
  if ((hr = c.QueryRawDataTagSampleSize(h, program, tag, &size)) != S_OK) return hr;
  if (n > kMaxPlotSamples || size < 0) return E_OUTOFMEMORY;
  const int64_t bytes = static_cast<int64_t>(n) * std::max(size, 1);
  if (bytes > kMaxRawPlotBytes) {
    *error = "raw tag " + std::to_string(tag) + " of program " + std::to_string(program) +
             " holds " + std::to_string(bytes) + " bytes; plot reads at most " +
             std::to_string(kMaxRawPlotBytes) + " of one tag";
    return E_OUTOFMEMORY;
  }
  std::vector<uint8_t> buffer(static_cast<size_t>(bytes));
  std::vector<MarquelRawDataTag> list(static_cast<size_t>(n));
  for (int32_t i = 0; i < n; ++i)
    list[i] = MarquelRawDataTag{0, size, buffer.data() + static_cast<size_t>(i) * size};
  if ((hr = c.GetRawDataAll2(h, program, tag, n, list.data())) != S_OK) return hr;
  for (const MarquelRawDataTag& s : list) out->push_back(s.llTimeCode);
  return S_OK;
}

// Reads one tag into the picture.
HRESULT AddTag(IMarquelClient& c, int32_t h, int32_t program, const nlohmann::json& entry,
               Timeline* picture, std::string* error) {
  const int32_t tag = entry["id"].get<int32_t>();
  std::vector<TimeSpan> valid;
  HRESULT hr = ValidIntervals(c, h, program, tag, &valid);
  if (hr != S_OK) return hr;
  if (entry["raw"].get<bool>()) {
    std::vector<int64_t> times;
    if ((hr = RawTimes(c, h, program, tag, &times, error)) != S_OK) return hr;
    picture->AddRaw({program, tag, TrackKind::kRaw}, times, valid);
    return S_OK;
  }
  std::vector<PlotSample> samples;
  if ((hr = PlainSamples(c, h, program, tag, &samples)) != S_OK) return hr;
  if (entry.value("state", false))
    picture->AddState({program, tag, TrackKind::kState}, samples,
                      StateSamplingInterval(samples.size(), samples.empty() ? 0 : samples[0].time,
                                            samples.size() < 2 ? 0 : samples[1].time),
                      valid);
  else
    picture->AddPlain({program, tag, TrackKind::kPlain}, samples, valid);
  return S_OK;
}

int Plot(const PlotOptions& o) {
  const bool json = o.file.json;
  if (o.width < kMinPlotWidth || o.width > kMaxPlotWidth)
    return ReportError(json,
                       "plot: --width " + std::to_string(o.width) + " is outside " +
                           std::to_string(kMinPlotWidth) + "-" + std::to_string(kMaxPlotWidth) +
                           " pixels",
                       kExitUsage);
  int status = kExitOk;
  if (!CheckMediaFile(o.file, o.file.file, &status)) return status;
  auto client = Connect(json);
  if (!client) return kExitUnreachable;
  HeldFile file(*client, o.file.file, o.file.type, 0, /*read_only=*/true);
  if (file.OpenResult() != S_OK)
    return ReportFailure(json, "open " + o.file.file, file.OpenResult());
  const int32_t h = file.Handle();
  int32_t programs = 1;
  HRESULT hr = o.one_program ? S_OK : client->GetMQProgramCounts(h, &programs);
  if (hr != S_OK) return ReportFailure(json, "plot: program count", hr);
  const int32_t first = o.one_program ? o.file.program : 0;
  const int32_t last = o.one_program ? o.file.program : std::min(programs, kMaxPlotPrograms) - 1;

  // Every tag list first, so that a picture too large is refused before anything is read.
  std::vector<std::pair<int32_t, nlohmann::json>> lists;
  size_t rows = 0;
  for (int32_t p = first; p <= last; ++p) {
    nlohmann::json tags;
    if ((hr = ListTags(*client, h, p, &tags, false)) != S_OK)
      return ReportFailure(json, "plot: tags of program " + std::to_string(p), hr);
    rows += tags["tags"].size();
    lists.emplace_back(p, std::move(tags));
  }
  if (rows > kMaxPlotRows)
    return ReportError(json,
                       "plot: " + o.file.file + " has " + std::to_string(rows) +
                           " tags; a picture holds at most " + std::to_string(kMaxPlotRows) +
                           " (choose a program with --program)",
                       kExitUsage);

  Timeline picture(o.width);
  // The file's name, not its folder: the picture is often shared apart from the file.
  picture.SetTitle(std::filesystem::path(o.file.file).filename().string());
  for (const auto& [program, tags] : lists) {
    for (const auto& entry : tags["tags"]) {
      std::string error;
      if ((hr = AddTag(*client, h, program, entry, &picture, &error)) == S_OK) continue;
      if (!error.empty()) return ReportError(json, "plot: " + error, kExitRefused);
      return ReportFailure(json,
                           "plot: tag " + std::to_string(entry["id"].get<int>()) + " of program " +
                               std::to_string(program),
                           hr);
    }
  }
  if ((hr = file.Close()) != S_OK) return ReportFailure(json, "close " + o.file.file, hr);

  const std::string svg = picture.Svg();
  std::ofstream out(o.output, std::ios::binary | std::ios::trunc);
  out << svg;
  out.close();
  if (!out) return ReportError(json, "plot: cannot write " + o.output, kExitRefused);
  if (json) {
    PrintResult(true, {{"operation", "plot"},
                       {"file", o.file.file},
                       {"output", o.output},
                       {"rows", picture.Rows()},
                       {"bytes", svg.size()}});
  } else {
    std::cout << "wrote " << o.output << ": " << picture.Rows() << " tags, " << svg.size()
              << " bytes\n";
  }
  return kExitOk;
}

}  // namespace

void AddPlotCommand(CLI::App& app, Action& run) {
  auto o = std::make_shared<PlotOptions>();
  CLI::App* sub =
      app.add_subcommand("plot", "Draw every tag of a media file on one time axis (SVG)");
  AddFileOptions(sub, &o->file);
  sub->add_option("-o,--output", o->output, "the SVG file to write")->required();
  sub->add_option("--width", o->width,
                  "picture width in pixels, " + std::to_string(kMinPlotWidth) + "-" +
                      std::to_string(kMaxPlotWidth) + " (default " +
                      std::to_string(kDefaultPlotWidth) + ")")
      ->transform(DecimalNumber());
  CLI::Option* program = sub->get_option("--program");
  sub->callback([o, program, &run] {
    o->one_program = program->count() > 0;
    run = [o] { return Plot(*o); };
  });
}

}  // namespace marquel::ctl
