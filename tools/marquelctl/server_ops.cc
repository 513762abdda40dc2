// marquelctl's operations on an open file, shared by the single commands and `file`.
#include <algorithm>
#include <climits>

#include "sample_check.h"
#include "server_common.h"
#include "tags/tag_definitions.h"

namespace marquel::ctl {
namespace {

// More programs than this are not counted (a transport stream has far fewer).
constexpr int32_t kMaxPrograms = 1024;

// Sample counts: an empty tag answers E_FAIL, which here is simply 0.
HRESULT Count(IMarquelClient& c, int32_t h, int32_t program, int32_t tag,
              const std::optional<std::pair<int64_t, int64_t>>& period, int32_t* n) {
  *n = 0;
  HRESULT hr = period ? c.QueryOneTagPeriodSize2(h, program, tag, period->first, period->second, n)
                      : c.QueryOneTagSize2(h, program, tag, n);
  if (hr == E_FAIL) {
    *n = 0;
    return S_OK;
  }
  if (*n < 0) return E_FAIL;  // the handle is not open
  return hr;
}

nlohmann::json Scope(const TagScope& scope) {
  nlohmann::json s = nlohmann::json::object();
  if (scope.tag) s["tag"] = *scope.tag;
  if (scope.category) s["category"] = *scope.category;
  return s;
}

HRESULT GetRaw(IMarquelClient& c, int32_t h, int32_t program, int32_t tag, int32_t n,
               const std::optional<std::pair<int64_t, int64_t>>& period, nlohmann::json* samples) {
  int32_t size = 0;
  HRESULT hr = c.QueryRawDataTagSampleSize(h, program, tag, &size);
  if (hr != S_OK) return hr;
  std::vector<uint8_t> bytes(static_cast<size_t>(n) * size);
  std::vector<MarquelRawDataTag> list(n);
  for (int32_t i = 0; i < n; ++i)
    list[i] = MarquelRawDataTag{0, size, bytes.data() + static_cast<size_t>(i) * size};
  hr = period ? c.GetRawDataPeriod2(h, program, tag, period->first, period->second, n, list.data())
              : c.GetRawDataAll2(h, program, tag, n, list.data());
  if (hr != S_OK) return hr;
  for (const MarquelRawDataTag& s : list)
    samples->push_back({{"time", s.llTimeCode}, {"data", Hex(s.pBuffer, s.nLength)}});
  return S_OK;
}

// The most bytes fetched to find a raw tag's first and last time; beyond it they are
// left unknown rather than held in memory.
constexpr int64_t kMaxSpanBytes = int64_t{64} << 20;

// Adds "first" and "last" (null when unknown) to a tag of `tags` with n samples.
void AddSpan(IMarquelClient& c, int32_t h, int32_t program, int32_t n, int32_t size,
             nlohmann::json* tag) {
  (*tag)["first"] = nullptr;
  (*tag)["last"] = nullptr;
  const int32_t id = (*tag)["id"].get<int32_t>();
  std::vector<int64_t> times;
  if (n <= 0) return;
  if (!(*tag)["raw"].get<bool>()) {
    std::vector<MarquelOneTag> list(n);
    if (c.GetDataAll2(h, program, id, n, list.data()) != S_OK) return;
    for (const MarquelOneTag& s : list) times.push_back(s.llTimeCode);
  } else {
    if (size <= 0 || int64_t{n} * size > kMaxSpanBytes) return;
    std::vector<uint8_t> bytes(static_cast<size_t>(n) * size);
    std::vector<MarquelRawDataTag> list(n);
    for (int32_t i = 0; i < n; ++i)
      list[i] = MarquelRawDataTag{0, size, bytes.data() + static_cast<size_t>(i) * size};
    if (c.GetRawDataAll2(h, program, id, n, list.data()) != S_OK) return;
    for (const MarquelRawDataTag& s : list) times.push_back(s.llTimeCode);
  }
  (*tag)["first"] = *std::min_element(times.begin(), times.end());
  (*tag)["last"] = *std::max_element(times.begin(), times.end());
}

}  // namespace

HRESULT ListTags(IMarquelClient& c, int32_t h, int32_t program, nlohmann::json* out,
                 bool with_span) {
  *out = {{"operation", "tags"}, {"program", program}, {"tags", nlohmann::json::array()}};
  int32_t plain = 0, raw = 0;
  HRESULT hr = c.QueryOneFileTagCount2(h, program, &plain);
  if (hr != S_OK) return hr;
  if (plain < 0) return E_FAIL;
  hr = c.QueryOneFileRawDataTagCount2(h, program, &raw);
  if (hr != S_OK) return hr;
  std::vector<int32_t> ids(256), raw_ids(256), sizes(256);
  if (plain > 0 && (hr = c.QueryOneFileTagList2(h, program, plain, ids.data())) != S_OK) return hr;
  if (raw > 0 &&
      (hr = c.QueryOneFileRawDataTagList2(h, program, raw, raw_ids.data(), sizes.data())) != S_OK)
    return hr;
  for (int32_t i = 0; i < plain; ++i) {
    int32_t n = 0;
    Count(c, h, program, ids[i], std::nullopt, &n);
    nlohmann::json tag = {
        {"id", ids[i]}, {"count", n}, {"raw", false}, {"state", IsStateTag(ids[i])}};
    if (with_span) AddSpan(c, h, program, n, 0, &tag);
    (*out)["tags"].push_back(std::move(tag));
  }
  for (int32_t i = 0; i < std::max(raw, 0); ++i) {
    int32_t n = 0;
    Count(c, h, program, raw_ids[i], std::nullopt, &n);
    nlohmann::json tag = {
        {"id", raw_ids[i]}, {"count", n}, {"raw", true}, {"sample_size", sizes[i]}};
    if (with_span) AddSpan(c, h, program, n, sizes[i], &tag);
    (*out)["tags"].push_back(std::move(tag));
  }
  return S_OK;
}

HRESULT GetSamples(IMarquelClient& c, int32_t h, int32_t program, int32_t tag, bool raw,
                   std::optional<std::pair<int64_t, int64_t>> period, std::optional<int64_t> at,
                   nlohmann::json* out) {
  *out = {{"operation", "get"},
          {"program", program},
          {"tag", tag},
          {"samples", nlohmann::json::array()}};
  nlohmann::json& samples = (*out)["samples"];
  if (at) {
    if (raw) {
      int32_t size = 0;
      HRESULT hr = c.QueryRawDataTagSampleSize(h, program, tag, &size);
      if (hr != S_OK) return hr;
      std::vector<uint8_t> bytes(size);
      hr = c.GetRawDataOne2(h, program, tag, *at, size, bytes.data());
      if (hr == S_OK) samples.push_back({{"time", *at}, {"data", Hex(bytes.data(), size)}});
      return hr;
    }
    // A tag without samples answers GetDataOne with a success of no meaning; count first.
    int32_t n = 0;
    HRESULT hr = Count(c, h, program, tag, std::nullopt, &n);
    if (hr != S_OK) return hr;
    if (n == 0) return E_FAIL;
    int32_t value = 0;
    hr = c.GetDataOne2(h, program, tag, *at, &value);
    if (hr == S_OK) samples.push_back({{"time", *at}, {"value", value}});
    return hr;
  }
  int32_t n = 0;
  HRESULT hr = Count(c, h, program, tag, period, &n);
  if (hr != S_OK || n == 0) return hr;
  if (raw) return GetRaw(c, h, program, tag, n, period, &samples);
  std::vector<MarquelOneTag> list(n);
  hr = period ? c.GetDataPeriod2(h, program, tag, period->first, period->second, n, list.data())
              : c.GetDataAll2(h, program, tag, n, list.data());
  if (hr != S_OK) return hr;
  for (const MarquelOneTag& s : list)
    samples.push_back({{"time", s.llTimeCode}, {"value", s.value}});
  return S_OK;
}

HRESULT CountSamples(IMarquelClient& c, int32_t h, int32_t program, int32_t tag,
                     std::optional<std::pair<int64_t, int64_t>> period, nlohmann::json* out) {
  int32_t n = 0;
  HRESULT hr = Count(c, h, program, tag, period, &n);
  *out = {{"operation", "count"}, {"program", program}, {"tag", tag}, {"count", n}};
  return hr;
}

HRESULT PutSamples(IMarquelClient& c, int32_t h, int32_t program, int32_t tag,
                   const CheckedSamples& samples, nlohmann::json* out) {
  *out = {{"operation", "put"}, {"program", program}, {"tag", tag}, {"inserted", 0}};
  int64_t inserted = 0;
  for (const auto& [time, bytes] : samples.raw) {
    HRESULT hr = c.InsertRawDataOne2(h, program, tag, time, static_cast<int32_t>(bytes.size()),
                                     bytes.data());
    if (hr != S_OK) return hr;
    (*out)["inserted"] = ++inserted;
  }
  if (samples.plain.empty()) return S_OK;
  HRESULT hr = c.InsertDataPeriod2(h, program, tag, samples.plain.data(),
                                   static_cast<int32_t>(samples.plain.size()));
  if (hr == S_OK) (*out)["inserted"] = inserted + static_cast<int64_t>(samples.plain.size());
  return hr;
}

HRESULT DeletePeriod(IMarquelClient& c, int32_t h, int64_t from, int64_t to, const TagScope& scope,
                     nlohmann::json* out) {
  *out = {{"operation", "delete"}, {"from", from}, {"to", to}, {"scope", Scope(scope)}};
  if (scope.tag) return c.DeleteDataPeriodForOneTag(h, *scope.tag, from, to);
  if (scope.category) return c.DeleteDataPeriodForOneCategory(h, *scope.category, from, to);
  return c.DeleteDataPeriod(h, from, to);
}

HRESULT ShiftTimes(IMarquelClient& c, int32_t h, int64_t offset, const TagScope& scope,
                   nlohmann::json* out) {
  *out = {{"operation", "shift"}, {"offset", offset}, {"scope", Scope(scope)}};
  if (scope.tag) return c.MinustTimeOffsetForOneTag(h, *scope.tag, offset);
  if (scope.category) return c.MinusTimeOffsetForOneCategory(h, *scope.category, offset);
  return c.MinusTimeOffset(h, offset);
}

HRESULT ListIntervals(IMarquelClient& c, int32_t h, int32_t program, int32_t tag,
                      nlohmann::json* out) {
  *out = {{"operation", "intervals"},
          {"program", program},
          {"tag", tag},
          {"intervals", nlohmann::json::array()}};
  int32_t n = 0;
  HRESULT hr = c.QueryValidIntervalSize2(h, program, tag, &n);
  if (hr != S_OK) return hr;
  if (n < 0) return E_FAIL;
  if (n == 0) return S_OK;
  std::vector<int64_t> starts(n), ends(n);
  hr = c.QueryValidInterval2(h, program, tag, n, starts.data(), ends.data());
  if (hr != S_OK) return hr;
  for (int32_t i = 0; i < n; ++i)
    (*out)["intervals"].push_back({{"start", starts[i]}, {"end", ends[i]}});
  return S_OK;
}

HRESULT CountInScope(IMarquelClient& c, int32_t h, const TagScope& scope,
                     std::optional<std::pair<int64_t, int64_t>> period, int64_t* total) {
  *total = 0;
  int32_t programs = 0;
  HRESULT hr = c.GetMQProgramCounts(h, &programs);
  if (hr != S_OK) return hr;
  for (int32_t p = 0; p < std::min(programs, kMaxPrograms); ++p) {
    nlohmann::json tags;
    if ((hr = ListTags(c, h, p, &tags, false)) != S_OK) return hr;
    for (const auto& t : tags["tags"]) {
      const int32_t id = t["id"].get<int32_t>();
      if (!IsValidTagId(id) || (scope.tag && *scope.tag != id) ||
          (scope.category && *scope.category != kTagDefinitions[id].nCategory))
        continue;
      int32_t n = t["count"].get<int32_t>();
      if (period && (hr = Count(c, h, p, id, period, &n)) != S_OK) return hr;
      *total += n;
    }
  }
  return S_OK;
}

HRESULT CleanAll(IMarquelClient& c, int32_t h, nlohmann::json* out) {
  *out = {{"operation", "clean"}};
  return c.CleanFile(h);
}

}  // namespace marquel::ctl
