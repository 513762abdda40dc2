// The size of a file's MQ data as it would be written now: each program's samples are
// gathered into block content and measured by the block writer's size prediction.
#include "mq_data_size.h"

#include <memory>
#include <new>

#include "tags/block_writer.h"

namespace marquel {
namespace {

// Copies the samples of one tag into `samples`. False when they cannot be read.
bool GatherTag(TagObject* tag, BlockTagSamples* samples) {
  int64_t count = tag->Count();
  samples->present = true;
  samples->valid = tag->Valid();
  samples->raw = tag->Kind() == kRawSample;
  samples->interval = tag->Interval();
  samples->interval_set = tag->IntervalSet();
  if (count <= 0) return true;
  std::unique_ptr<SampleRecord[]> records(new (std::nothrow) SampleRecord[count]);
  if (!records) return false;
  int64_t n = tag->ReadPeriod(0, -1, records.get(), count);
  for (int64_t i = 0; i < n; ++i) {
    const SampleRecord& r = records[i];
    if (r.nKind == kRawSample)
      samples->AddRaw(r.llTimeCode, r.pBuffer, r.pBuffer ? r.nValue : 0);
    else
      samples->AddPlain(r.llTimeCode, r.nValue);
  }
  if (n > 0) FreeSampleBuffers(records.get(), n);
  return n == count;
}

}  // namespace

int64_t PredictMQDataSize(MarquelOneFile* file, int64_t start, int64_t end) {
  int64_t total = 0;
  try {
    for (int32_t p = 0; p < file->ProgramCount(); ++p) {
      MQOneProgram* program = file->Program(p);
      if (program == nullptr) continue;
      auto content = std::make_unique<BlockContent>();
      for (int32_t id = 0; id <= program->HighestTagId() && id < kTagIdCount; ++id) {
        TagObject* tag = program->Tag(id);
        if (tag != nullptr && !GatherTag(tag, &content->tags[id])) return -1;
      }
      BlockContentSource source(*content);
      BlockPeriodSource period(source, start, end);
      total += static_cast<int64_t>(PredictBlockSizes(period).Total());
    }
  } catch (const std::bad_alloc&) {
    return -1;
  }
  return total;
}

}  // namespace marquel
