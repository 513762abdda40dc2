#include "media/stream_ring.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <vector>

namespace marquel {
namespace {

std::vector<uint8_t> Bytes(std::initializer_list<int> values) {
  std::vector<uint8_t> out;
  for (int v : values) out.push_back(static_cast<uint8_t>(v));
  return out;
}

void AppendAll(StreamRing& ring, const std::vector<uint8_t>& bytes) {
  ring.Append(bytes.data(), static_cast<int32_t>(bytes.size()));
}

TEST(StreamRing, CapacityZeroGivesSixteen) {
  StreamRing ring;
  ASSERT_TRUE(ring.Create(0));
  EXPECT_EQ(ring.capacity(), 16);
  EXPECT_EQ(ring.FreeSpace(), 15);
  StreamRing direct(0);
  EXPECT_EQ(direct.capacity(), 16);
}

TEST(StreamRing, NegativeCapacityFailsCleanly) {
  StreamRing ring;
  EXPECT_FALSE(ring.Create(-5));
  EXPECT_EQ(ring.capacity(), 0);
  EXPECT_EQ(ring.Count(), 0);
  EXPECT_EQ(ring.ReadPointer(), nullptr);
  uint8_t b = 1;
  ring.Append(&b, 1);
  EXPECT_EQ(ring.Count(), 0);
  EXPECT_EQ(ring.Read(&b, 1), 0);
}

TEST(StreamRing, DestroyLeavesCapacityZeroAndCountZero) {
  StreamRing ring(8);
  AppendAll(ring, Bytes({1, 2, 3}));
  EXPECT_EQ(ring.Count(), 3);
  ring.Destroy();
  EXPECT_EQ(ring.capacity(), 0);
  EXPECT_EQ(ring.Count(), 0);
  EXPECT_TRUE(ring.IsEmpty());
  EXPECT_FALSE(ring.IsFull());
  EXPECT_EQ(ring.SkipToZeroPair(), 0);
  EXPECT_EQ(ring.SkipToByte(0), 0);
}

TEST(StreamRing, EmptyAndFullKeepOneSlotFree) {
  StreamRing ring(4);
  EXPECT_TRUE(ring.IsEmpty());
  EXPECT_FALSE(ring.IsFull());
  AppendAll(ring, Bytes({1, 2, 3}));
  EXPECT_EQ(ring.Count(), 3);
  EXPECT_TRUE(ring.IsFull());  // write + 1 == capacity - 1 + read
  EXPECT_FALSE(ring.IsEmpty());
  EXPECT_FALSE(ring.Overrun());
  EXPECT_EQ(ring.FreeSpace(), 0);
  uint8_t out[4];
  EXPECT_EQ(ring.Read(out, 2), 2);
  EXPECT_FALSE(ring.IsFull());
  AppendAll(ring, Bytes({4, 5}));  // wraps: write = 1, read = 2
  EXPECT_TRUE(ring.IsFull());      // write + 1 == read
  EXPECT_EQ(ring.Count(), 3);
  EXPECT_EQ(ring.Read(out, 4), 3);
  EXPECT_EQ(out[0], 3);
  EXPECT_EQ(out[1], 4);
  EXPECT_EQ(out[2], 5);
  EXPECT_TRUE(ring.IsEmpty());
}

TEST(StreamRing, PeekOfMoreThanHeldReturnsHeldAndKeepsReadIndex) {
  StreamRing ring(16);
  AppendAll(ring, Bytes({9, 8, 7}));
  const uint8_t* before = ring.ReadPointer();
  uint8_t out[10] = {};
  EXPECT_EQ(ring.Peek(out, 10), 3);
  EXPECT_EQ(out[0], 9);
  EXPECT_EQ(out[2], 7);
  EXPECT_EQ(ring.ReadPointer(), before);
  EXPECT_EQ(ring.Count(), 3);
  EXPECT_EQ(ring.Read(out, 10), 3);
  EXPECT_EQ(ring.Count(), 0);
}

TEST(StreamRing, AppendThatWrapsThenReadReturnsBytesInOrder) {
  StreamRing ring(8);
  AppendAll(ring, Bytes({0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(ring.Skip(6), 6);               // read = write = 6
  AppendAll(ring, Bytes({1, 2, 3, 4, 5}));  // 6, 7 then 0, 1, 2
  EXPECT_EQ(ring.ContiguousCount(), 2);
  EXPECT_EQ(ring.Count(), 5);
  EXPECT_EQ(ring.At(0), 1);
  EXPECT_EQ(ring.At(4), 5);
  uint8_t out[5];
  EXPECT_EQ(ring.Read(out, 5), 5);
  EXPECT_EQ(std::vector<uint8_t>(out, out + 5), Bytes({1, 2, 3, 4, 5}));
  EXPECT_TRUE(ring.IsEmpty());
}

TEST(StreamRing, ReadPartsAcrossWrapKeepOrder) {
  StreamRing ring(8);
  AppendAll(ring, Bytes({0, 0, 0, 0, 0}));
  ring.Skip(5);
  AppendAll(ring, Bytes({10, 11, 12, 13, 14, 15}));
  uint8_t out[6];
  EXPECT_EQ(ring.Read(out, 2), 2);
  EXPECT_EQ(ring.Read(out + 2, 4), 4);
  EXPECT_EQ(std::vector<uint8_t>(out, out + 6), Bytes({10, 11, 12, 13, 14, 15}));
}

TEST(StreamRing, TakeAllOnEmptyReturnsZero) {
  StreamRing ring(8);
  uint8_t out[8] = {0x55};
  EXPECT_EQ(ring.TakeAll(out), 0);
  EXPECT_EQ(out[0], 0x55);
  EXPECT_TRUE(ring.IsEmpty());
}

TEST(StreamRing, TakeAllCopiesBothPartsOfAWrapAndEmpties) {
  StreamRing ring(8);
  AppendAll(ring, Bytes({0, 0, 0, 0, 0, 0, 0}));
  ring.Skip(7);
  AppendAll(ring, Bytes({1, 2, 3, 4}));
  uint8_t out[8];
  EXPECT_EQ(ring.TakeAll(out), 4);
  EXPECT_EQ(std::vector<uint8_t>(out, out + 4), Bytes({1, 2, 3, 4}));
  EXPECT_TRUE(ring.IsEmpty());
  EXPECT_EQ(ring.Count(), 0);
}

TEST(StreamRing, ResetEmptiesAndClearsBitState) {
  StreamRing ring(8);
  AppendAll(ring, Bytes({1, 2}));
  ring.WriteBits(1, 3);
  ring.Reset();
  EXPECT_TRUE(ring.IsEmpty());
  EXPECT_EQ(ring.BitsPending(), 0);
  EXPECT_EQ(ring.Count(), 0);
}

TEST(StreamRing, MarkAndRestoreGoBackToTheSavedReadIndex) {
  StreamRing ring(8);
  AppendAll(ring, Bytes({1, 2, 3, 4}));
  uint8_t out[4];
  ring.Read(out, 1);
  ring.Mark();
  EXPECT_EQ(ring.Read(out, 3), 3);
  EXPECT_EQ(ring.Count(), 0);
  // Bytes appended after the mark stay held after restoring it.
  AppendAll(ring, Bytes({5, 6}));
  ring.Restore();
  EXPECT_EQ(ring.Count(), 5);
  EXPECT_EQ(ring.Read(out, 4), 4);
  EXPECT_EQ(std::vector<uint8_t>(out, out + 4), Bytes({2, 3, 4, 5}));
}

TEST(StreamRing, MarkSavesBitStateToo) {
  StreamRing ring(8);
  ring.WriteBits(0b101, 3);
  ring.SetBitPadding(0xFF);
  ring.Mark();
  ring.WriteBits(0b11, 2);
  ring.SetBitPadding(0x00);
  ring.Restore();
  EXPECT_EQ(ring.BitsPending(), 3);
  EXPECT_EQ(ring.bit_padding(), 0xFF);
  ring.FlushBits();
  uint8_t out = 0;
  ASSERT_EQ(ring.Read(&out, 1), 1);
  EXPECT_EQ(out, 0b10111111);
}

// A mark taken in a larger array is forgotten by Create(), so it never points outside
// the new one.
TEST(StreamRing, RestoreAfterRecreateStaysInsideTheArray) {
  StreamRing ring(64);
  AppendAll(ring, std::vector<uint8_t>(40, 1));
  ring.Skip(40);
  ring.Mark();
  ASSERT_TRUE(ring.Create(8));
  const uint8_t* start = ring.ReadPointer();
  ring.Restore();
  EXPECT_EQ(ring.ReadPointer(), start);
  EXPECT_EQ(ring.Count(), 0);
}

TEST(StreamRing, SkipToZeroPairEndsOnFirstZeroOfStartCode) {
  StreamRing ring(32);
  AppendAll(ring, Bytes({7, 8, 0, 5, 0, 0, 0, 1, 0xBA, 9}));
  EXPECT_EQ(ring.SkipToZeroPair(), 5);  // 7 8 0 5 0 stepped over; 00 00 01 starts at 5
  EXPECT_EQ(ring.At(0), 0);
  EXPECT_EQ(ring.At(1), 0);
  EXPECT_EQ(ring.At(2), 1);
  // Already on a start code: nothing to skip.
  EXPECT_EQ(ring.SkipToZeroPair(), 0);
}

TEST(StreamRing, SkipToZeroPairNeedsFourHeldBytes) {
  StreamRing ring(16);
  AppendAll(ring, Bytes({3, 0, 0, 1}));
  // On the 0 only 3 bytes are held: it stops there without deciding.
  EXPECT_EQ(ring.SkipToZeroPair(), 1);
  EXPECT_EQ(ring.Count(), 3);
  AppendAll(ring, Bytes({0xE0}));
  EXPECT_EQ(ring.SkipToZeroPair(), 0);
  // Non-zero bytes alone are all stepped over.
  ring.Reset();
  AppendAll(ring, Bytes({1, 2, 3}));
  EXPECT_EQ(ring.SkipToZeroPair(), 3);
  EXPECT_TRUE(ring.IsEmpty());
}

TEST(StreamRing, SkipToZeroPairStopsWhenZerosRunOutOfBytes) {
  StreamRing ring(16);
  AppendAll(ring, Bytes({0, 0, 0, 0}));
  // 00 00 00 is no start code; after one step only 3 bytes are held.
  EXPECT_EQ(ring.SkipToZeroPair(), 1);
  EXPECT_EQ(ring.Count(), 3);
}

TEST(StreamRing, SkipToZeroPairAcrossTheWrap) {
  StreamRing ring(8);
  AppendAll(ring, Bytes({0, 0, 0, 0, 0, 0}));
  ring.Skip(6);
  AppendAll(ring, Bytes({4, 0, 0, 1, 0xB3}));  // 6 7 | 0 1 2
  EXPECT_EQ(ring.SkipToZeroPair(), 1);
  uint8_t out[4];
  ASSERT_EQ(ring.Read(out, 4), 4);
  EXPECT_EQ(std::vector<uint8_t>(out, out + 4), Bytes({0, 0, 1, 0xB3}));
}

TEST(StreamRing, SkipToByteFindsValueOrSkipsEverything) {
  StreamRing ring(8);
  AppendAll(ring, Bytes({0, 0, 0, 0, 0}));
  ring.Skip(5);
  AppendAll(ring, Bytes({1, 2, 3, 0x47, 5}));  // wraps after 3 bytes
  EXPECT_EQ(ring.SkipToByte(0x47), 3);
  EXPECT_EQ(ring.At(0), 0x47);
  EXPECT_EQ(ring.SkipToByte(0x47), 0);
  EXPECT_EQ(ring.SkipToByte(0x99), 2);
  EXPECT_TRUE(ring.IsEmpty());
}

// Appending past the free space overwrites unread bytes as described, but only inside
// the array (ASan checks the bounds), and is reported through Overrun().
TEST(StreamRing, AppendBeyondFreeSpaceOverwritesInsideTheArray) {
  StreamRing ring(8);
  std::vector<uint8_t> big(21);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i + 1);
  AppendAll(ring, big);
  EXPECT_TRUE(ring.Overrun());
  // Write index moved by 21 mod 8 = 5, as byte-by-byte copying would have left it.
  EXPECT_EQ(ring.Count(), 5);
  uint8_t out[8];
  ASSERT_EQ(ring.Read(out, 8), 5);
  // The array holds the last 8 bytes in the places a byte-by-byte copy gives them.
  EXPECT_EQ(std::vector<uint8_t>(out, out + 5), Bytes({17, 18, 19, 20, 21}));
  ring.Reset();
  EXPECT_FALSE(ring.Overrun());
}

// A whole-capacity overrun lands write on read: not empty, because the flag is set.
TEST(StreamRing, OverrunToSameIndexIsNotEmpty) {
  StreamRing ring(4);
  AppendAll(ring, Bytes({1, 2, 3, 4}));
  EXPECT_EQ(ring.Count(), 0);
  EXPECT_FALSE(ring.IsEmpty());
  uint8_t out[4];
  EXPECT_EQ(ring.TakeAll(out), 0);
  EXPECT_TRUE(ring.IsEmpty());
}

TEST(StreamRing, BitWriterIsMostSignificantBitFirst) {
  StreamRing ring(16);
  ring.WriteBits(0b1, 1);
  ring.WriteBits(0b010, 3);
  EXPECT_EQ(ring.BitsPending(), 4);
  EXPECT_EQ(ring.Count(), 0);
  ring.WriteBits(0b1100, 4);
  EXPECT_EQ(ring.BitsPending(), 0);
  ring.WriteBits(0xABCD, 16);
  uint8_t out[3];
  ASSERT_EQ(ring.Read(out, 3), 3);
  EXPECT_EQ(out[0], 0b10101100);
  EXPECT_EQ(out[1], 0xAB);
  EXPECT_EQ(out[2], 0xCD);
  ring.WriteBits(0xFFFFFFFF, 0);   // ignored
  ring.WriteBits(0xFFFFFFFF, 33);  // ignored
  EXPECT_EQ(ring.BitsPending(), 0);
  EXPECT_EQ(ring.Count(), 0);
}

TEST(StreamRing, AppendInBitModeShiftsEachByteThroughTheBitWriter) {
  StreamRing ring(16);
  ring.WriteBits(0b101, 3);
  AppendAll(ring, Bytes({0xFF, 0x00}));
  EXPECT_EQ(ring.BitsPending(), 3);
  ring.FlushBits();
  EXPECT_EQ(ring.BitsPending(), 0);
  uint8_t out[3];
  ASSERT_EQ(ring.Read(out, 3), 3);
  EXPECT_EQ(out[0], 0b10111111);
  EXPECT_EQ(out[1], 0b11100000);
  EXPECT_EQ(out[2], 0b00000000);
}

TEST(StreamRing, FlushBitsPadsWithThePattern) {
  StreamRing ring(16);
  ring.FlushBits();  // byte mode: nothing stored
  EXPECT_EQ(ring.Count(), 0);
  ring.SetBitPadding(0xFF);
  ring.WriteBits(0, 2);
  ring.FlushBits();
  uint8_t out = 0;
  ASSERT_EQ(ring.Read(&out, 1), 1);
  EXPECT_EQ(out, 0b00111111);
}

// Random appends and reads of random sizes agree with a plain queue.
TEST(StreamRing, MatchesAQueueUnderRandomTraffic) {
  std::mt19937 rng(42);
  StreamRing ring(97);
  std::deque<uint8_t> model;
  uint8_t next = 0;
  for (int round = 0; round < 5000; ++round) {
    if (rng() % 2) {
      int32_t n = static_cast<int32_t>(rng() % (ring.FreeSpace() + 1));
      std::vector<uint8_t> in(n);
      for (auto& b : in) model.push_back(b = next++);
      AppendAll(ring, in);
    } else {
      std::vector<uint8_t> out(rng() % 120);
      int32_t want = static_cast<int32_t>(out.size());
      const bool peek = rng() % 3 == 0;
      int32_t got = peek ? ring.Peek(out.data(), want) : ring.Read(out.data(), want);
      ASSERT_EQ(got, std::min<int32_t>(want, static_cast<int32_t>(model.size())));
      for (int32_t i = 0; i < got; ++i) ASSERT_EQ(out[i], model[i]);
      if (!peek) model.erase(model.begin(), model.begin() + got);
    }
    ASSERT_EQ(ring.Count(), static_cast<int32_t>(model.size()));
    ASSERT_FALSE(ring.Overrun());
  }
}

}  // namespace
}  // namespace marquel
