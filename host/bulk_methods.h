// IMarquelBulk: reads and inserts of many samples in pages of plain columns.
//
// The same operations as GetDataAll / GetDataPeriod / InsertDataPeriod and the raw reads
// (with their checks and results, from CMQInterface), but each page carries its samples
// as fixed-size arrays (time codes "ax", values or lengths "ai", bytes "ay"), which go in
// and out of a message with one copy. A read runs once; the first reply brings the first
// page and a transfer number when more remains, which ReadDataNext / ReadRawDataNext
// fetch page by page. A transfer ends with its last page, with EndTransfer, or when its
// client goes away. No page comes near the bus's 64 MiB array limit.
//
// Ceilings (docs/dbus.md): m as the standard reads (above 16,777,216: E_OUTOFMEMORY);
// InsertDataColumns at most kMaxPageSamples samples (more: E_INVALIDARG); pages cut to
// kMaxPageSamples samples and kMaxPageBytes bytes; 4 transfers per client (a fifth ends
// its oldest), 64 and 4 GiB of spill files in all (past them the new read answers
// E_OUTOFMEMORY). A read keeps what it found in its transfer's files, never in memory.
#pragma once

#include <sdbus-c++/sdbus-c++.h>
#include <string>

#include "api/mq_interface.h"
#include "client_registry.h"
#include "transfer_store.h"

namespace marquel::host {

constexpr const char* kBulkInterface = "com.halvern.Marquel.IMarquelBulk";

class BulkMethods {
 public:
  BulkMethods(CMQInterface& mq, ClientRegistry& registry) : mq_(mq), registry_(registry) {}

  // Registers the six methods on `object` (before its registration is finished).
  void Register(sdbus::IObject& object);
  // Ends the transfers of a client that has gone.
  void Forget(const std::string& client) { transfers_.EraseOwner(client); }
  const TransferStore& Transfers() const { return transfers_; }

 private:
  void InsertDataColumns(sdbus::MethodCall& call, const std::string& client);
  void ReadData(sdbus::MethodCall& call, const std::string& client);
  void ReadDataNext(sdbus::MethodCall& call, const std::string& client);
  void ReadRawData(sdbus::MethodCall& call, const std::string& client);
  void ReadRawDataNext(sdbus::MethodCall& call, const std::string& client);
  void EndTransfer(sdbus::MethodCall& call, const std::string& client);
  int32_t RunRead(sdbus::MethodCall& call, const std::string& client, bool raw, int32_t* page,
                  Transfer* t);

  CMQInterface& mq_;
  ClientRegistry& registry_;
  TransferStore transfers_;
};

}  // namespace marquel::host
