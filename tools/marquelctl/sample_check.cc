// marquelctl's checks of tag ids and sample values against the tag definition table.
#include "sample_check.h"

#include <algorithm>

#include "tags/block_format.h"
#include "tags/tag_definitions.h"
#include "tags/tag_object.h"

namespace marquel::ctl {
namespace {

// The bits a plain value of `tag` keeps in the data block.
int32_t Width(int32_t tag) {
  return kTagDefinitions[tag].nBits & 31;
}

std::string Range(int32_t width) {
  return "(0.." + std::to_string((int64_t{1} << width) - 1) + ")";
}

}  // namespace

bool CheckTagId(int64_t tag, std::string* error) {
  if (tag >= 0 && tag < kTagIdCount) return true;
  *error = "no such tag id " + std::to_string(tag) + " (tag ids are 0-255)";
  return false;
}

int64_t StateSamplingInterval(size_t count, int64_t first, int64_t second) {
  if (count < 2) return kDefaultStateInterval;
  return std::max(second - first, TagObject::kMinMeasuredInterval);
}

bool IsStateTag(int32_t tag) {
  return IsValidTagId(tag) && IsStateTagType(kTagDefinitions[tag].nType);
}

bool CheckPlainValue(int32_t tag, int64_t value, bool truncate, int32_t* stored,
                     std::string* error) {
  const std::string name = "tag " + std::to_string(tag);
  if (AcceptsRawData(tag)) {
    *error = name + " holds raw data; give hex bytes with --raw";
    return false;
  }
  if (!BlockCarriesTag(tag)) {
    *error = name + " is not kept when the file is closed; it takes no samples";
    return false;
  }
  if (IsStateTag(tag)) {
    if (value == 0 || value == 1) {
      *stored = static_cast<int32_t>(value);
      return true;
    }
    *error = name + " is a state tag and holds 0 or 1; " + std::to_string(value) + " is neither";
    return false;
  }
  if (kTagDefinitions[tag].nType == kTagTypeDelta && value >= 0 && value <= INT32_MAX) {
    *stored = static_cast<int32_t>(value);  // its steps are checked by CheckDeltaSteps
    return true;
  }
  const int32_t width = Width(tag);
  const int64_t mask = (int64_t{1} << width) - 1;
  if (value >= 0 && value <= mask) {
    *stored = static_cast<int32_t>(static_cast<uint32_t>(value));
    return true;
  }
  if (truncate && value >= INT32_MIN && value <= UINT32_MAX) {
    *stored = static_cast<int32_t>(static_cast<uint32_t>(value & mask));
    return true;
  }
  *error = name + " holds " + std::to_string(width) + "-bit values " + Range(width) + "; " +
           std::to_string(value) + " does not fit" +
           (truncate ? "" : "; use --truncate to store its low bits");
  return false;
}

bool CheckDeltaSteps(int32_t tag, std::vector<std::pair<int64_t, int64_t>> samples,
                     std::string* error) {
  if (!IsValidTagId(tag) || kTagDefinitions[tag].nType != kTagTypeDelta) return true;
  std::stable_sort(samples.begin(), samples.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  const int32_t width = Width(tag);
  const int64_t mask = (int64_t{1} << width) - 1;
  int64_t previous = 0;
  for (const auto& [time, value] : samples) {
    if (value < previous || value - previous > mask) {
      *error = "tag " + std::to_string(tag) + " stores the steps between its values in " +
               std::to_string(width) + " bits: values must not fall and may rise by at most " +
               std::to_string(mask) + "; " + std::to_string(value) + " after " +
               std::to_string(previous) + " does not fit";
      return false;
    }
    previous = value;
  }
  return true;
}

bool CheckRawLength(int32_t tag, int64_t length, std::string* error) {
  const std::string name = "tag " + std::to_string(tag);
  if (!AcceptsRawData(tag)) {
    *error = name + " does not hold raw data; give a number without --raw";
    return false;
  }
  const int64_t limit = std::min(RawLengthLimit(tag), kMaxRawSampleBytes);
  if (length >= 1 && length <= limit) return true;
  *error = name + " holds raw samples of 1 to " + std::to_string(limit) + " bytes; " +
           std::to_string(length) + " bytes do not fit";
  return false;
}

std::string TagRulesHelp() {
  std::string state;
  for (int32_t tag = 0; tag < kTagIdCount; ++tag)
    if (IsStateTag(tag)) state += (state.empty() ? "" : ", ") + std::to_string(tag);
  return "Tag values: a plain tag holds unsigned values of its width (tag 40: 8 bits, "
         "0..255); --truncate stores the low bits of a wider value. State tags (" +
         state +
         ") hold 0 or 1 and are read back filled at their sampling interval (measured from "
         "their first two samples, at least " +
         std::to_string(TagObject::kMinMeasuredInterval) + " ticks; " +
         std::to_string(kDefaultStateInterval) +
         " ticks when not known). Raw tags take hex bytes up to their length field.";
}

}  // namespace marquel::ctl
