// Helpers of the tests that move tags into real transport streams through the bus: the
// units of a file and their PIDs, the information packet at its end, damage that keeps
// the file's time, and a fixture that tags a file in every program and moves it.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "bus_fixture.h"
#include "in_file_test_util.h"
#include "media/mq_ts_info.h"
#include "sample_set.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {

using Bytes = std::vector<uint8_t>;

inline Bytes ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

inline void WriteBytes(const std::string& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

// The PID of the unit at `offset`; its header follows the unit's prefix.
inline uint16_t UnitPid(const Bytes& file, size_t offset, int32_t unit) {
  const size_t at = offset + static_cast<size_t>(unit - 188);
  return static_cast<uint16_t>(((file[at + 1] & 0x1F) << 8) | file[at + 2]);
}

// The continuity counter of the unit at `offset`.
inline int32_t UnitCounter(const Bytes& file, size_t offset, int32_t unit) {
  return file[offset + static_cast<size_t>(unit - 188) + 3] & 0x0F;
}

// The information packet, when the file's last unit is a sound one.
inline std::optional<MQTsInfo> InfoOf(const Bytes& file, int32_t unit) {
  if (file.size() < static_cast<size_t>(unit)) return std::nullopt;
  const size_t last = file.size() - static_cast<size_t>(unit);
  return ParseMQTsInfo(file.data() + last, unit, static_cast<int64_t>(last),
                       static_cast<int64_t>(file.size()));
}

// Offsets of the units on `pid`, in file order.
inline std::vector<size_t> UnitsOn(const Bytes& file, int32_t unit, uint16_t pid) {
  std::vector<size_t> out;
  for (size_t at = 0; at + static_cast<size_t>(unit) <= file.size();
       at += static_cast<size_t>(unit))
    if (UnitPid(file, at, unit) == pid) out.push_back(at);
  return out;
}

// The units that are neither on `mq_pid` nor on PID 225, prefix included, in order.
inline std::vector<Bytes> MediaUnits(const Bytes& file, int32_t unit, uint16_t mq_pid) {
  std::vector<Bytes> out;
  for (size_t at = 0; at + static_cast<size_t>(unit) <= file.size();
       at += static_cast<size_t>(unit)) {
    const uint16_t pid = UnitPid(file, at, unit);
    if (pid == mq_pid || pid == kMQInfoPid) continue;
    out.emplace_back(file.begin() + static_cast<std::ptrdiff_t>(at),
                     file.begin() + static_cast<std::ptrdiff_t>(at) + unit);
  }
  return out;
}

// Rewrites the file with `change` applied and its modified time put back, as a fault of
// the disk would leave it (a cache entry still knows the file by its size and time).
template <typename Change>
void DamageKeepingTime(const std::string& path, Change change) {
  struct stat before {};
  ASSERT_EQ(stat(path.c_str(), &before), 0);
  Bytes file = ReadBytes(path);
  change(file);
  WriteBytes(path, file);
  const struct timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

// A null packet (PID 0x1FFF) in place of the unit at `offset`, its prefix kept.
inline void NullUnitAt(Bytes& file, size_t offset, int32_t unit) {
  uint8_t* p = file.data() + offset + (unit - 188);
  const uint8_t header[4] = {0x47, 0x1F, 0xFF, 0x10};
  std::copy(header, header + 4, p);
  std::fill(p + 4, p + 188, 0xFF);
}

constexpr int32_t kByteTag = 50;     // plain, 8 bits
constexpr int32_t kWideRawTag = 32;  // raw, byte counts in 30 bits
constexpr int32_t kRawSamples = 20;
constexpr int32_t kRawBytes = 250;

inline Bytes RawSample(int32_t seed, int32_t i) {
  Bytes b(kRawBytes);
  for (size_t k = 0; k < b.size(); ++k)
    b[k] = static_cast<uint8_t>(seed * 13 + i * 7 + static_cast<int32_t>(k));
  return b;
}

// Moves tags of every program of a transport stream into the file through the tool
// method, and reads them back after a restart.
class TsMove : public BusTest {
 protected:
  // Several tag ids per program: sample_set's plain and raw ones, 8-bit plain values, and
  // raw samples long enough for each program's block to span dozens of packets.
  void TagProgram(int32_t h, int32_t program, int32_t seed) {
    Insert(*client_, h, program, seed);
    for (int32_t i = 0; i < kRawSamples; ++i) {
      const Bytes raw = RawSample(seed, i);
      ASSERT_EQ(client_->InsertRawDataOne2(h, program, kWideRawTag, 1000 + i * 40000, kRawBytes,
                                           raw.data()),
                S_OK);
      ASSERT_EQ(client_->InsertDataOne2(h, program, kByteTag, 5000 + i * 40000, (seed + i) & 0xFF),
                S_OK);
    }
  }

  void ExpectProgram(int32_t h, int32_t program, int32_t seed) {
    ExpectSamples(*client_, h, program, seed);
    int32_t n = 0;
    ASSERT_EQ(client_->QueryOneTagSize2(h, program, kByteTag, &n), S_OK);
    EXPECT_EQ(n, kRawSamples) << "program " << program;
    for (int32_t i = 0; i < kRawSamples; ++i) {
      Bytes got(kRawBytes + 1, 0xEE);
      ASSERT_EQ(
          client_->GetRawDataOne2(h, program, kWideRawTag, 1000 + i * 40000, kRawBytes, got.data()),
          S_OK);
      got.resize(kRawBytes);
      EXPECT_EQ(got, RawSample(seed, i)) << "program " << program << " sample " << i;
      int32_t v = -1;
      ASSERT_EQ(client_->GetDataOne2(h, program, kByteTag, 5000 + i * 40000, &v), S_OK);
      EXPECT_EQ(v, (seed + i) & 0xFF);
    }
  }

  // Opens the file, tags each of its `programs` programs with seed + program, closes it.
  // A client names the programs of a transport stream by their PMT PIDs (the test media's
  // are 0x1000 on): program 0 gets its PID, each further one is added with its own.
  void TagFile(const std::string& path, int32_t programs, int32_t seed) {
    int32_t h = -1;
    ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
    if (programs > 1) {
      ASSERT_EQ(client_->SetPMTPID(h, 0, 0x1000), S_OK);
    }
    for (int32_t p = 1; p < programs; ++p) {
      int32_t index = -1;
      ASSERT_EQ(client_->InsertNewProgram(h, 0x1000 + p, &index), S_OK);
      ASSERT_EQ(index, p);
    }
    for (int32_t p = 0; p < programs; ++p) TagProgram(h, p, seed + p);
    ASSERT_EQ(client_->CloseFile(h, 0), S_OK);
  }

  void Restart() {
    client_.reset();
    StopServer();
    client_ = Connect();
  }

  // Where the open found the data: (QueryMQExisted, QueryMQDataStatus).
  std::pair<int32_t, int32_t> Found(int32_t h) {
    int32_t existed = -1, status = -1;
    EXPECT_EQ(client_->QueryMQExisted(h, &existed), S_OK);
    EXPECT_EQ(client_->QueryMQDataStatus(h, &status), S_OK);
    return {existed, status};
  }

  // Whether `marquelctl cache list` still names the file.
  static bool Cached(const std::string& path) {
    std::string listing;
    RunProgram({MarquelctlPath(), "cache", "list", "--json"}, &listing);
    return listing.find(std::filesystem::path(path).filename().string()) != std::string::npos;
  }
};

}  // namespace marquel::test
