// IMarquelBulk: reads and inserts of many samples in pages of plain columns.
#include "bulk_methods.h"

#include "insert_pieces.h"
#include "raw_message.h"

namespace marquel::host {
namespace {

using Handler = void (BulkMethods::*)(sdbus::MethodCall&, const std::string&);

template <typename T>
void Append(sdbus::Message& m, char type, const std::vector<T>& v) {
  AppendArray(m, type, v.data(), v.size() * sizeof(T));
}

// A reply of a plain page: hr, the transfer number or the more flag, and the two columns.
template <typename Head>
void SendPlainPage(const sdbus::MethodCall& call, int32_t hr, Head head,
                   const std::vector<int64_t>& times, const std::vector<int32_t>& values) {
  auto reply = call.createReply();
  reply << hr << head;
  Append(reply, 'x', times);
  Append(reply, 'i', values);
  reply.send();
}

template <typename Head>
void SendRawPage(const sdbus::MethodCall& call, int32_t hr, Head head,
                 const std::vector<int64_t>& times, const std::vector<int32_t>& lengths,
                 const std::vector<uint8_t>& bytes) {
  auto reply = call.createReply();
  reply << hr << head;
  Append(reply, 'x', times);
  Append(reply, 'i', lengths);
  Append(reply, 'y', bytes);
  reply.send();
}

}  // namespace

void BulkMethods::Register(sdbus::IObject& object) {
  auto add = [&](const char* name, const char* in, std::vector<std::string> in_names,
                 const char* out, std::vector<std::string> out_names, Handler handler) {
    object.registerMethod(kBulkInterface, name, in, in_names, out, out_names,
                          [this, handler](sdbus::MethodCall call) {
                            // Admission errors go back as bus errors; nothing else leaves the
                            // method.
                            std::string client = registry_.Admit(call);
                            try {
                              (this->*handler)(call, client);
                            } catch (const sdbus::Error&) {
                              throw;
                            } catch (const std::bad_alloc&) {
                              throw sdbus::Error("org.freedesktop.DBus.Error.NoMemory",
                                                 "out of memory");
                            } catch (const std::exception& e) {
                              throw sdbus::Error("org.freedesktop.DBus.Error.Failed", e.what());
                            }
                          });
  };
  add("InsertDataColumns", "iiiaxai",
      {"nFileHandle", "nProgramIndex", "nTagID", "llTimeCodes", "nValues"}, "ii",
      {"hr", "nInserted"}, &BulkMethods::InsertDataColumns);
  add("ReadData", "iiiixxii",
      {"nFileHandle", "nProgramIndex", "nTagID", "bAll", "llStartTime", "llEndTime", "m",
       "nPageSize"},
      "itaxai", {"hr", "nTransfer", "llTimeCodes", "nValues"}, &BulkMethods::ReadData);
  add("ReadDataNext", "ti", {"nTransfer", "nPageSize"}, "iiaxai",
      {"hr", "bMore", "llTimeCodes", "nValues"}, &BulkMethods::ReadDataNext);
  add("ReadRawData", "iiiixxii",
      {"nFileHandle", "nProgramIndex", "nTagID", "bAll", "llStartTime", "llEndTime", "m",
       "nPageBytes"},
      "itaxaiay", {"hr", "nTransfer", "llTimeCodes", "nLengths", "pData"},
      &BulkMethods::ReadRawData);
  add("ReadRawDataNext", "ti", {"nTransfer", "nPageBytes"}, "iiaxaiay",
      {"hr", "bMore", "llTimeCodes", "nLengths", "pData"}, &BulkMethods::ReadRawDataNext);
  add("EndTransfer", "t", {"nTransfer"}, "i", {"hr"}, &BulkMethods::EndTransfer);
}

void BulkMethods::InsertDataColumns(sdbus::MethodCall& call, const std::string&) {
  int32_t h = 0, program = 0, tag = 0;
  call >> h >> program >> tag;
  const void* times = nullptr;
  const void* values = nullptr;
  size_t time_bytes = 0, value_bytes = 0;
  ReadArray(call, 'x', &times, &time_bytes);
  ReadArray(call, 'i', &values, &value_bytes);
  size_t n = time_bytes / sizeof(int64_t);
  int32_t hr = E_INVALIDARG, inserted = 0;
  if (n > 0 && n == value_bytes / sizeof(int32_t) && n <= static_cast<size_t>(kMaxPageSamples)) {
    const auto* t = static_cast<const int64_t*>(times);
    const auto* v = static_cast<const int32_t*>(values);
    hr = InsertInPieces(
        mq_, h, program, tag, n,
        [&](size_t i) {
          return MarquelOneTag{t[i], v[i]};
        },
        &inserted);
  }
  auto reply = call.createReply();
  reply << hr << inserted;
  reply.send();
}

// Runs the read into a new transfer's files: S_OK, or the read's answer, or
// E_OUTOFMEMORY when the store is full or the files cannot take what was found.
int32_t BulkMethods::RunRead(sdbus::MethodCall& call, const std::string& client, bool raw,
                             int32_t* page, Transfer* t) {
  int32_t h = 0, program = 0, tag = 0, all = 0, m = 0;
  int64_t start = 0, end = 0;
  call >> h >> program >> tag >> all >> start >> end >> m >> *page;
  if (*page <= 0) return E_INVALIDARG;
  if (!transfers_.Admits(client)) return E_OUTOFMEMORY;
  t->owner = client;
  t->raw = raw;
  t->total = m;
  int64_t room = static_cast<int64_t>(TransferStore::kMaxStoredBytes - transfers_.StoredBytes());
  auto keep = [&](const SampleRecord* records, size_t count) -> HRESULT {
    for (size_t i = 0; i < count; ++i) {
      const SampleRecord& r = records[i];
      size_t length = raw && r.nKind == kRawSample && r.nValue > 0 ? r.nValue : 0;
      int32_t value = raw ? static_cast<int32_t>(length) : r.nValue;
      if (!t->Keep(r.llTimeCode, value, r.pBuffer, length)) return E_OUTOFMEMORY;
    }
    return static_cast<int64_t>(t->Bytes()) > room ? E_OUTOFMEMORY : S_OK;
  };
  return mq_.ReadPieces(h, program, tag, all != 0, start, end, m, CMQInterface::kMaxReadRawBytes,
                        keep, nullptr);
}

void BulkMethods::ReadData(sdbus::MethodCall& call, const std::string& client) {
  int32_t page = 0;
  Transfer t;
  int32_t hr = RunRead(call, client, false, &page, &t);
  std::vector<int64_t> times;
  std::vector<int32_t> values;
  if (hr == S_OK && !TakePlainPage(t, page, &times, &values)) hr = E_FAIL;
  if (hr != S_OK) return SendPlainPage(call, hr, uint64_t{0}, {}, {});
  uint64_t id = t.Done() ? 0 : transfers_.Add(std::move(t));
  SendPlainPage(call, S_OK, id, times, values);
}

// A page that cannot be read back from the transfer's files ends the transfer (E_FAIL).
void BulkMethods::ReadDataNext(sdbus::MethodCall& call, const std::string& client) {
  uint64_t id = 0;
  int32_t page = 0;
  call >> id >> page;
  Transfer* t = transfers_.Find(client, id);
  if (t == nullptr || t->raw || page <= 0)
    return SendPlainPage(call, E_INVALIDARG, int32_t{0}, {}, {});
  std::vector<int64_t> times;
  std::vector<int32_t> values;
  if (!TakePlainPage(*t, page, &times, &values)) {
    transfers_.Erase(id);
    return SendPlainPage(call, E_FAIL, int32_t{0}, {}, {});
  }
  int32_t more = t->Done() ? 0 : 1;
  if (!more) transfers_.Erase(id);
  SendPlainPage(call, S_OK, more, times, values);
}

void BulkMethods::ReadRawData(sdbus::MethodCall& call, const std::string& client) {
  int32_t page = 0;
  Transfer t;
  int32_t hr = RunRead(call, client, true, &page, &t);
  std::vector<int64_t> times;
  std::vector<int32_t> lengths;
  std::vector<uint8_t> bytes;
  if (hr == S_OK && !TakeRawPage(t, page, &times, &lengths, &bytes)) hr = E_FAIL;
  if (hr != S_OK) return SendRawPage(call, hr, uint64_t{0}, {}, {}, {});
  uint64_t id = t.Done() ? 0 : transfers_.Add(std::move(t));
  SendRawPage(call, S_OK, id, times, lengths, bytes);
}

void BulkMethods::ReadRawDataNext(sdbus::MethodCall& call, const std::string& client) {
  uint64_t id = 0;
  int32_t page = 0;
  call >> id >> page;
  Transfer* t = transfers_.Find(client, id);
  if (t == nullptr || !t->raw || page <= 0)
    return SendRawPage(call, E_INVALIDARG, int32_t{0}, {}, {}, {});
  std::vector<int64_t> times;
  std::vector<int32_t> lengths;
  std::vector<uint8_t> bytes;
  if (!TakeRawPage(*t, page, &times, &lengths, &bytes)) {
    transfers_.Erase(id);
    return SendRawPage(call, E_FAIL, int32_t{0}, {}, {}, {});
  }
  int32_t more = t->Done() ? 0 : 1;
  if (!more) transfers_.Erase(id);
  SendRawPage(call, S_OK, more, times, lengths, bytes);
}

void BulkMethods::EndTransfer(sdbus::MethodCall& call, const std::string& client) {
  uint64_t id = 0;
  call >> id;
  int32_t hr = E_INVALIDARG;
  if (transfers_.Find(client, id) != nullptr) {
    transfers_.Erase(id);
    hr = S_OK;
  }
  auto reply = call.createReply();
  reply << hr;
  reply.send();
}

}  // namespace marquel::host
