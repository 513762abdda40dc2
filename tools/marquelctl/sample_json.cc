// Reading samples back from every JSON form marquelctl prints.
#include "sample_json.h"

#include <stdexcept>

#include "sample_check.h"
#include "time_text.h"

namespace marquel::ctl {
namespace {

using Json = nlohmann::json;

// One sample: {"time", "value" | "data"} or [time, value]; a time may be a time text.
SampleText SampleOf(const Json& item) {
  const Json& t = item.is_array() ? item.at(0) : item.at("time");
  const Json& v = item.is_array()         ? item.at(1)
                  : item.contains("data") ? item.at("data")
                                          : item.at("value");
  SampleText s;
  if (t.is_string()) {
    std::string error;
    if (!ParseTime(t.get<std::string>(), &s.time, &error)) throw std::runtime_error(error);
  } else {
    s.time = t.get<int64_t>();
  }
  s.value = v.is_string() ? v.get<std::string>() : std::to_string(v.get<int64_t>());
  s.raw_data = item.is_object() && item.contains("data");
  return s;
}

// The program of a "programs" list: by its number, else by its place.
const Json* ProgramIn(const Json& programs, int32_t program) {
  for (const Json& p : programs)
    if (p.is_object() && p.contains("program") && p["program"] == program) return &p;
  const bool numbered = !programs.empty() && programs[0].contains("program");
  if (numbered || program < 0 || static_cast<size_t>(program) >= programs.size()) return nullptr;
  return &programs[static_cast<size_t>(program)];
}

// The samples of tag `tag` in a program object, or null.
const Json* TagSamplesIn(const Json& program, int64_t tag) {
  if (!program.contains("tags")) return nullptr;
  for (const Json& t : program["tags"])
    if (t.is_object() && t.value("id", int64_t{-1}) == tag && t.contains("samples"))
      return &t["samples"];
  return nullptr;
}

// The array of samples `doc` holds for the tag and program, or null.
const Json* FindSamples(const Json& doc, int64_t tag, int32_t program) {
  if (doc.is_array()) return &doc;
  if (!doc.is_object()) return nullptr;
  if (doc.contains("samples")) return &doc["samples"];
  if (doc.contains("programs")) {
    const Json* p = ProgramIn(doc["programs"], program);
    return p ? TagSamplesIn(*p, tag) : nullptr;
  }
  if (doc.contains("entries")) {
    for (const Json& entry : doc["entries"]) {
      const Json* found = FindSamples(entry, tag, program);
      if (found) return found;
    }
  }
  return nullptr;
}

}  // namespace

bool SamplesFromJson(const nlohmann::json& doc, int64_t tag, int32_t program,
                     std::vector<SampleText>* out, std::string* error) {
  const Json* samples = FindSamples(doc, tag, program);
  if (!samples || !samples->is_array()) {
    *error =
        doc.is_object() && (doc.contains("programs") || doc.contains("entries"))
            ? "no samples of tag " + std::to_string(tag) + " in program " + std::to_string(program)
            : "expected an array of samples or marquelctl's JSON";
    return false;
  }
  try {
    for (const Json& item : *samples) {
      if (out->size() >= kMaxPutSamples) throw std::runtime_error("too many samples");
      out->push_back(SampleOf(item));
    }
  } catch (const std::exception& e) {
    *error = e.what();
    return false;
  }
  return true;
}

}  // namespace marquel::ctl
