// The one JSON form of samples that marquelctl prints and reads back.
//
// A sample is {"time": T, "value": V} (a plain tag) or {"time": T, "data": "HEX"} (a raw
// tag); a tag is {"id": N, "raw": B, "samples": [...]}; a program is {"program": I,
// "tags": [...]} (cache show names its programs by "pmt_pid" instead); a file is
// {"file": F, "programs": [...]}. `get --json` prints one tag's {"samples": [...]},
// `export --format json` a file, `cache show --json` {"entries": [{"programs": ...}]}.
// `put --json-file` takes any of them, and a bare array of samples.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "server_common.h"

namespace marquel::ctl {

// The samples of tag `tag` of program `program` in `doc`, which is any of the forms above.
// A program is found by its "program" number, or by its place in the list when the list
// gives no numbers. False with *error saying why (a form not known, no such tag, at most
// kMaxPutSamples samples).
bool SamplesFromJson(const nlohmann::json& doc, int64_t tag, int32_t program,
                     std::vector<SampleText>* out, std::string* error);

}  // namespace marquel::ctl
