// What marquelctl checks about a tag and its samples before it sends them, so that the
// server is never handed a value it would keep only in part.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace marquel::ctl {

// The most samples one put sends, and the longest raw sample it accepts, whatever the tag.
constexpr size_t kMaxPutSamples = 1 << 20;
constexpr int64_t kMaxRawSampleBytes = 1 << 20;

// False with "no such tag id N (tag ids are 0-255)" for an id outside the table.
bool CheckTagId(int64_t tag, std::string* error);

// Checks a plain value for `tag` (a valid id) and gives the value to send. A value wider
// than the tag's width is refused, or with `truncate` cut to its low bits; a state tag
// takes 0 or 1 only; raw and unwritable tags take no plain value.
bool CheckPlainValue(int32_t tag, int64_t value, bool truncate, int32_t* stored,
                     std::string* error);

// For a tag that stores the steps between its values (a delta tag), checks that the
// values given, in time order, start within its width, never fall and rise by steps that
// fit it. Samples already in the file are not seen here. True for other tags.
bool CheckDeltaSteps(int32_t tag, std::vector<std::pair<int64_t, int64_t>> samples,
                     std::string* error);

// Checks that `tag` (a valid id) takes raw samples of `length` bytes.
bool CheckRawLength(int32_t tag, int64_t length, std::string* error);

// Whether `tag` is a state tag (0/1 runs filled at the tag's sampling interval).
bool IsStateTag(int32_t tag);

// The interval the server fills a state tag's samples at, given the tag's sample count and
// its first two time codes: their distance, at least the server's minimum, or the
// default interval when the tag has fewer than two samples.
int64_t StateSamplingInterval(size_t count, int64_t first, int64_t second);

// One line per kind of tag for the help text: which tags are state tags and their
// interval, and the value widths.
std::string TagRulesHelp();

}  // namespace marquel::ctl
