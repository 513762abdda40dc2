// The MQ pack muxer: pack and packet headers bit by bit, feed, both flush variants, and
// packs that the system decoders read back.
#include "media/mq_pack_muxer.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "media/file_type.h"
#include "media/mpeg_system_dec.h"

namespace marquel {
namespace {

using Bytes = std::vector<uint8_t>;

// Reads bits most significant first.
class BitReader {
 public:
  BitReader(const uint8_t* p, size_t at) : p_(p), bit_(at * 8) {}
  uint64_t Get(int bits) {
    uint64_t v = 0;
    for (int i = 0; i < bits; ++i, ++bit_) v = (v << 1) | ((p_[bit_ / 8] >> (7 - bit_ % 8)) & 1);
    return v;
  }

 private:
  const uint8_t* p_;
  size_t bit_;
};

Bytes Payload(size_t n, uint32_t seed = 7) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>((i * 131 + seed) >> 1);
  return b;
}

std::unique_ptr<MQPackMuxer> MakeMuxer(int32_t type, uint64_t argument = 0) {
  auto m = std::make_unique<MQPackMuxer>();
  EXPECT_TRUE(m->SetType(type));
  m->SetStreamId(0xFA);
  EXPECT_EQ(m->Initialise(argument), 1);
  return m;
}

// Feeds everything, taking whole packs as they come.
Bytes FeedAll(MQPackMuxer& m, const Bytes& payload, std::vector<size_t>* pack_sizes = nullptr) {
  Bytes out;
  Bytes pack(MQPackMuxer::kLargestPack);
  size_t at = 0;
  while (at < payload.size()) {
    size_t taken = m.Feed(payload.data() + at, payload.size() - at);
    at += taken;
    int32_t n;
    bool any = false;
    while ((n = m.TakePack(pack.data())) > 0) {
      out.insert(out.end(), pack.begin(), pack.begin() + n);
      if (pack_sizes) pack_sizes->push_back(static_cast<size_t>(n));
      any = true;
    }
    if (taken == 0 && !any) break;
  }
  return out;
}

Bytes TakeRest(MQPackMuxer& m) {
  Bytes rest(m.OutputCount());
  EXPECT_EQ(m.TakeOutput(rest.data(), rest.size()), rest.size());
  return rest;
}

MQEndRecord Record() {
  MQEndRecord r;
  r.start_address = 123456;
  r.original_mtime = 1700000000;
  r.original_size = 123456;
  return r;
}

// Flushes with Record() and takes everything left.
Bytes FlushWithRecord(MQPackMuxer& m) {
  MQEndRecord r = Record();
  EXPECT_EQ(m.Flush(&r), 1);
  return TakeRest(m);
}

// The 33-bit clock base in its three parts, each followed by a marker bit.
void ExpectClockBase(BitReader& r, uint64_t base) {
  EXPECT_EQ(r.Get(3), base >> 30);
  EXPECT_EQ(r.Get(1), 1u);
  EXPECT_EQ(r.Get(15), (base >> 15) & 0x7FFF);
  EXPECT_EQ(r.Get(1), 1u);
  EXPECT_EQ(r.Get(15), base & 0x7FFF);
  EXPECT_EQ(r.Get(1), 1u);
}

// The bytes of a padding packet of length L at `at`; false when they differ.
void ExpectPadding(const Bytes& b, size_t at, uint32_t length, bool mpeg1) {
  ASSERT_LE(at + 6 + length, b.size());
  EXPECT_EQ(b[at + 3], 0xBE);
  EXPECT_EQ((uint32_t{b[at + 4]} << 8) | b[at + 5], length);
  size_t fill_from = at + 6;
  if (mpeg1) {
    EXPECT_EQ(b[at + 6], 0x0F);
    ++fill_from;
  }
  for (size_t i = fill_from; i < at + 6 + length; ++i) ASSERT_EQ(b[i], 0xFF) << i;
}

TEST(MQPackMuxer, FormatCodesMapToTheirMuxerTypes) {
  EXPECT_EQ(MQPackMuxer::TypeForFormat(MQ_FORMAT_MPEG1), 1);
  EXPECT_EQ(MQPackMuxer::TypeForFormat(MQ_FORMAT_VCD), 3);
  EXPECT_EQ(MQPackMuxer::TypeForFormat(MQ_FORMAT_SVCD), 6);
  EXPECT_EQ(MQPackMuxer::TypeForFormat(MQ_FORMAT_VOB), 4);
  EXPECT_EQ(MQPackMuxer::TypeForFormat(MQ_FORMAT_MPEG2), 2);
  EXPECT_EQ(MQPackMuxer::TypeForFormat(MQ_FORMAT_VRO), 2);
  EXPECT_EQ(MQPackMuxer::TypeForFormat(MQ_FORMAT_TS), 2);
}

TEST(MQPackMuxer, EachTypeHasItsPackSizes) {
  MQPackMuxer m;
  const int32_t want[][4] = {{1, 2324, 2304, 2294}, {3, 2324, 2304, 2294}, {6, 2324, 2306, 2298},
                             {4, 2048, 2030, 2025}, {2, 2048, 2030, 2025}, {5, 2048, 2030, 2025}};
  for (const auto& w : want) {
    EXPECT_TRUE(m.SetType(w[0]));
    EXPECT_EQ(m.PackSize(), w[1]) << w[0];
    EXPECT_EQ(m.PayloadRoom(), w[2]) << w[0];
    EXPECT_EQ(m.FullPacketPayload(), w[3]) << w[0];
  }
}

TEST(MQPackMuxer, AnUnknownTypePacksNothing) {
  MQPackMuxer m;
  EXPECT_FALSE(m.SetType(7));
  EXPECT_EQ(m.PackSize(), 0);
  ASSERT_EQ(m.Initialise(0), 1);
  Bytes p = Payload(5000);
  EXPECT_EQ(m.Feed(p.data(), p.size()), 0u);
  EXPECT_EQ(m.Flush(nullptr), 0);
  EXPECT_EQ(m.OutputCount(), 0u);
}

TEST(MQPackMuxer, StreamsOfExactly2025BytesGiveAFullPackAndAnEndRecordPackOnMpeg2) {
  auto m = MakeMuxer(MQPackMuxer::kTypeMpeg2);
  std::vector<size_t> sizes;
  Bytes packs = FeedAll(*m, Payload(2025), &sizes);
  ASSERT_EQ(sizes, std::vector<size_t>{2048});
  EXPECT_EQ(m->InputCount(), 0u);
  MQEndRecord r = Record();
  ASSERT_EQ(m->Flush(&r), 1);
  Bytes last = TakeRest(*m);
  ASSERT_EQ(last.size(), 2048u);
  // Pack header, packet header of 36 bytes of payload, the record, then padding.
  EXPECT_EQ(last[17], 0xFA);
  EXPECT_EQ((last[18] << 8) | last[19], 36 + 3);
  Bytes record(36);
  SerialiseMQEndRecord(r, record.data());
  EXPECT_EQ(Bytes(last.begin() + 23, last.begin() + 59), record);
  ExpectPadding(last, 59, 2025 - 36 - 6, false);
}

TEST(MQPackMuxer, Mpeg1DataEndsWithAPackPaddedTo2324) {
  for (size_t tail : {1u, 36u, 500u, 2244u, 2245u, 2287u, 2289u, 2293u}) {
    auto m = MakeMuxer(MQPackMuxer::kTypeMpeg1);
    Bytes packs = FeedAll(*m, Payload(2294 * 2 + tail));
    ASSERT_EQ(packs.size(), 2u * 2324);
    Bytes rest = FlushWithRecord(*m);
    // The record goes with the rest while 24 + 36 bytes of room are left, else alone.
    EXPECT_EQ(rest.size(), tail <= 2244 ? 2324u : 2u * 2324) << tail;
  }
}

TEST(MQPackMuxer, Mpeg1RoomOfExactly16LeavesAPack6BytesShort) {
  auto m = MakeMuxer(MQPackMuxer::kTypeMpeg1);
  Bytes payload = Payload(2288);
  EXPECT_EQ(FeedAll(*m, payload).size(), 0u);
  Bytes rest = FlushWithRecord(*m);
  // 2318 bytes: no extra stuffing and no padding packet; then the record's own pack.
  ASSERT_EQ(rest.size(), 2318u + 2324u);
  EXPECT_EQ((rest[16] << 8) | rest[17], 2288 + 12);
  EXPECT_EQ(Bytes(rest.begin() + 30, rest.begin() + 2318), payload);
  EXPECT_EQ(rest[2318 + 3], 0xBA);

  auto plain = MakeMuxer(MQPackMuxer::kTypeVcd);
  FeedAll(*plain, payload);
  ASSERT_EQ(plain->Flush(nullptr), 1);
  EXPECT_EQ(plain->OutputCount(), 2318u);
}

TEST(MQPackMuxer, Mpeg1RoomBelow16GoesIntoPacketStuffing) {
  auto m = MakeMuxer(MQPackMuxer::kTypeMpeg1);
  FeedAll(*m, Payload(2290));  // room 14: 4 extra stuffing bytes, no padding packet
  ASSERT_EQ(m->Flush(nullptr), 1);
  Bytes rest = TakeRest(*m);
  ASSERT_EQ(rest.size(), 2324u);
  EXPECT_EQ((rest[16] << 8) | rest[17], 2290 + 4 + 12);
  for (size_t i = 18; i < 18 + 13; ++i) EXPECT_EQ(rest[i], 0xFF) << i;
  EXPECT_EQ(rest[31], 0x60);  // '01', scale 1, then the size's high bits
}

TEST(MQPackMuxer, Mpeg2WaitingBytesAtTheThresholdGoIntoHeaderStuffing) {
  auto m = MakeMuxer(MQPackMuxer::kTypeMpeg2);
  FeedAll(*m, Payload(2020));  // at or above 2018: 5 stuffing bytes, no padding
  ASSERT_EQ(m->Flush(nullptr), 1);
  Bytes rest = TakeRest(*m);
  ASSERT_EQ(rest.size(), 2048u);
  EXPECT_EQ((rest[18] << 8) | rest[19], 2020 + 5 + 3);
  EXPECT_EQ(rest[22], 5);
  for (size_t i = 23; i < 28; ++i) EXPECT_EQ(rest[i], 0xFF);

  auto below = MakeMuxer(MQPackMuxer::kTypeMpeg2);
  FeedAll(*below, Payload(2017));
  ASSERT_EQ(below->Flush(nullptr), 1);
  Bytes b = TakeRest(*below);
  ASSERT_EQ(b.size(), 2048u);
  ExpectPadding(b, 23 + 2017, 2025 - 2017 - 6, false);
}

TEST(MQPackMuxer, SvcdFlushPadsTo2324) {
  for (size_t n : {1u, 2255u, 2256u, 2290u, 2291u, 2297u}) {
    auto m = MakeMuxer(MQPackMuxer::kTypeSvcd);
    FeedAll(*m, Payload(n));
    Bytes rest = FlushWithRecord(*m);
    EXPECT_EQ(rest.size(), n <= 2255 ? 2324u : 2u * 2324) << n;
  }
}

TEST(MQPackMuxer, Mpeg1PackAndPacketHeadersBitByBit) {
  auto m = MakeMuxer(MQPackMuxer::kTypeMpeg1);
  const uint64_t base = 0x1ABCDEF12ull;  // 33 bits
  m->SetClock(base, 0x155);
  m->SetMuxRate(0x2A5A5);
  Bytes pack = FeedAll(*m, Payload(2294));
  ASSERT_EQ(pack.size(), 2324u);
  BitReader r(pack.data(), 0);
  EXPECT_EQ(r.Get(32), 0x000001BAu);
  EXPECT_EQ(r.Get(4), 0x2u);
  ExpectClockBase(r, base);
  EXPECT_EQ(r.Get(1), 1u);
  EXPECT_EQ(r.Get(22), 0x2A5A5u);
  EXPECT_EQ(r.Get(1), 1u);
  // Data packet: start code, length, 9 stuffing bytes, STD buffer, no time stamps.
  EXPECT_EQ(r.Get(32), 0x000001FAu);
  EXPECT_EQ(r.Get(16), 2294u + 12);
  for (int i = 0; i < 9; ++i) EXPECT_EQ(r.Get(8), 0xFFu);
  EXPECT_EQ(r.Get(2), 1u);
  EXPECT_EQ(r.Get(1), 1u);
  EXPECT_EQ(r.Get(13), 46u);
  EXPECT_EQ(r.Get(8), 0x0Fu);
}

// Checks an MPEG-2 pack header and returns the reader after it.
BitReader ExpectMpeg2PackHeader(const Bytes& pack, uint64_t base, uint32_t ext,
                                uint32_t rate_field) {
  BitReader r(pack.data(), 0);
  EXPECT_EQ(r.Get(32), 0x000001BAu);
  EXPECT_EQ(r.Get(2), 1u);
  ExpectClockBase(r, base);
  EXPECT_EQ(r.Get(9), ext);
  EXPECT_EQ(r.Get(1), 1u);
  EXPECT_EQ(r.Get(24), rate_field);
  EXPECT_EQ(r.Get(5), 0x1Fu);
  EXPECT_EQ(r.Get(3), 0u);
  return r;
}

TEST(MQPackMuxer, Mpeg2PackHeaderCarriesClockExtensionAndMuxRate) {
  const uint64_t base = 0x123456789ull & ((1ull << 33) - 1);
  auto m = MakeMuxer(MQPackMuxer::kTypeMpeg2);
  m->SetClock(base, 0x1A3);
  m->SetMuxRate(0x12345);
  Bytes pack = FeedAll(*m, Payload(2025));
  ASSERT_EQ(pack.size(), 2048u);
  BitReader r = ExpectMpeg2PackHeader(pack, base, 0x1A3, (0x12345u << 2) | 3);
  EXPECT_EQ(r.Get(32), 0x000001FAu);
  EXPECT_EQ(r.Get(16), 2025u + 3);
  EXPECT_EQ(r.Get(8), 0x81u);
  EXPECT_EQ(r.Get(2), 0u);
  EXPECT_EQ(r.Get(6), 0u);
  EXPECT_EQ(r.Get(8), 0u);
}

TEST(MQPackMuxer, DefaultMuxRateIs0x7FFFF) {
  auto m = MakeMuxer(MQPackMuxer::kTypeMpeg2);
  Bytes pack = FeedAll(*m, Payload(2025));
  ExpectMpeg2PackHeader(pack, 0, 0, (0x7FFFFu << 2) | 3);
}

TEST(MQPackMuxer, DvdTypeWritesTheFixedRate100803) {
  auto m = MakeMuxer(MQPackMuxer::kTypeDvd);
  m->SetClock(90000, 17);
  m->SetMuxRate(0x1111);  // not used by this type
  Bytes pack = FeedAll(*m, Payload(2025));
  ASSERT_EQ(pack.size(), 2048u);
  ExpectMpeg2PackHeader(pack, 90000, 17, 100803);
}

TEST(MQPackMuxer, SvcdTypeWritesTheFixedRate27891AndTheBufferExtension) {
  auto m = MakeMuxer(MQPackMuxer::kTypeSvcd);
  m->SetClock(0x1FFFFFFFFull, 299);
  Bytes pack = FeedAll(*m, Payload(2298));
  ASSERT_EQ(pack.size(), 2324u);
  BitReader r = ExpectMpeg2PackHeader(pack, 0x1FFFFFFFFull, 299, 27891);
  EXPECT_EQ(r.Get(32), 0x000001FAu);
  EXPECT_EQ(r.Get(16), 2298u + 6);
  EXPECT_EQ(r.Get(8), 0x81u);
  EXPECT_EQ(r.Get(2), 0u);
  EXPECT_EQ(r.Get(6), 1u);
  EXPECT_EQ(r.Get(8), 3u);
  EXPECT_EQ(r.Get(24), 0x1060E6u);
}

TEST(MQPackMuxer, FeedStopsWhenTheOutputIsFullAndGoesOnAfterPacksAreTaken) {
  auto m = MakeMuxer(MQPackMuxer::kTypeMpeg2, 8 * 4096);  // room for two packs
  Bytes payload = Payload(600000);
  size_t first = m->Feed(payload.data(), payload.size());
  // The input fills up, two packs' payload leaves it, and it takes that much more.
  EXPECT_EQ(first, MQPackMuxer::kInputBytes + 2 * 2025);
  EXPECT_EQ(m->OutputCount(), 4096u);
  Bytes all = FeedAll(*m, Bytes(payload.begin() + static_cast<long>(first), payload.end()));
  EXPECT_GT(all.size(), 0u);
  EXPECT_LE(m->OutputCount(), 4096u);
}

// Decodes packs with the system decoder of their kind and returns the 0xFA payload.
Bytes Decode(const Bytes& stream, bool mpeg1) {
  std::unique_ptr<CMpegMuxDec> dec;
  if (mpeg1)
    dec = std::make_unique<MPEG1SystemDec_c>();
  else
    dec = std::make_unique<MPEG2SystemDec_c>();
  dec->SelectStream(0xFA);
  dec->Reset();
  Bytes out;
  Bytes piece(4096);
  for (size_t at = 0; at < stream.size(); at += 2324) {
    dec->Feed(stream.data() + at, static_cast<int32_t>(std::min<size_t>(2324, stream.size() - at)));
    int32_t k;
    while (dec->PayloadCount() > 0 && (k = dec->TakePayload(piece.data(), 4096)) > 0)
      out.insert(out.end(), piece.begin(), piece.begin() + k);
  }
  EXPECT_EQ(dec->HasError(), 0);
  return out;
}

TEST(MQPackMuxer, PacksOfEveryTypeDecodeBackToThePayloadAndTheRecord) {
  for (int32_t type : {1, 2, 3, 4, 5, 6}) {
    for (size_t n : {0u, 1u, 2025u, 2288u, 2294u, 2298u, 7000u, 600000u}) {
      auto m = MakeMuxer(type);
      m->SetClock(1234567, 89);
      Bytes payload = Payload(n, static_cast<uint32_t>(type));
      Bytes stream = FeedAll(*m, payload);
      MQEndRecord r = Record();
      ASSERT_EQ(m->Flush(&r), 1);
      Bytes rest = TakeRest(*m);
      stream.insert(stream.end(), rest.begin(), rest.end());
      Bytes want = payload;
      want.resize(n + 36);
      SerialiseMQEndRecord(r, want.data() + n);
      const bool mpeg1 = type == 1 || type == 3;
      EXPECT_EQ(Decode(stream, mpeg1), want) << "type " << type << " n " << n;
      auto dec = std::make_unique<MPEG2SystemDec_c>();
      uint64_t base = 0;
      uint32_t ext = 0;
      if (!mpeg1) {
        dec->Feed(stream.data(), static_cast<int32_t>(std::min<size_t>(stream.size(), 65536)));
        dec->GetLastClock(&base, &ext);
        EXPECT_EQ(base, 1234567u);
        EXPECT_EQ(ext, 89u);
      }
    }
  }
}

}  // namespace
}  // namespace marquel
