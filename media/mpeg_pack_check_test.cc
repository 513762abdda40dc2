// The pack checkers on synthesized streams.
#include "media/mpeg_pack_check.h"

#include <gtest/gtest.h>

#include <memory>

#include "mpeg_ps_syntax.h"
#include "ps_test_builder.h"

namespace marquel {
namespace {

using pstest::Bytes;

// An MPEG-2 pack with one video packet (PTS optional) and optionally one audio packet.
Bytes VideoPack(uint64_t scr, int64_t pts, bool audio_after = false, int picture_type = 0) {
  Bytes b = pstest::Mpeg2Pack(scr, 0, 25200);
  Bytes payload(64, 0xAA);
  if (picture_type != 0) {
    const Bytes pic = pstest::PictureHeader(picture_type);
    std::copy(pic.begin(), pic.end(), payload.begin() + 10);
  }
  pstest::Append(&b, pstest::Pes2(0xE0, pts, payload));
  if (audio_after) pstest::Append(&b, pstest::Pes2(0xC0, pts, Bytes(32, 0xAA)));
  return b;
}

std::vector<const MpegPackRecord*> Check(MpegPackCheck& checker, const Bytes& s, MpegPackList* list,
                                         bool final_pack = true, uint32_t* consumed = nullptr) {
  const uint32_t n = checker.Check(s.data(), static_cast<uint32_t>(s.size()), list, final_pack);
  if (consumed != nullptr) *consumed = n;
  return list->InStreamOrder();
}

TEST(PackList, PushesToTheFrontAndFreesAll) {
  MpegPackList list;
  MpegPackRecord r;
  r.pack_offset = 1;
  list.PushFront(r);
  r.pack_offset = 2;
  list.PushFront(r);
  EXPECT_EQ(list.count(), 2u);
  EXPECT_EQ(list.head()->pack_offset, 2u);
  EXPECT_EQ(list.InStreamOrder()[0]->pack_offset, 1u);
  list.Clear();
  EXPECT_EQ(list.count(), 0u);
  EXPECT_EQ(list.head(), nullptr);
}

TEST(Mpeg2PackCheck, RecordsPacksWithClocksOffsetsAndLengths) {
  Bytes s = VideoPack(9000, 12000);
  const size_t second = s.size();
  Bytes p2 = pstest::Mpeg2Pack(18000, 150, 25200, 3);  // with 3 stuffing bytes
  pstest::Append(&p2, pstest::Pes2(0xE0, 15600, Bytes(40, 0xAA)));
  pstest::Append(&s, p2);
  Mpeg2PackCheck checker;
  MpegPackList list;
  uint32_t consumed = 0;
  auto packs = Check(checker, s, &list, true, &consumed);
  ASSERT_EQ(packs.size(), 2u);
  EXPECT_EQ(packs[0]->scr_base, 9000u);
  EXPECT_EQ(packs[0]->pack_offset, 0u);
  EXPECT_EQ(packs[0]->pack_start, s.data());
  EXPECT_EQ(packs[0]->pack_length, second);
  EXPECT_EQ(packs[1]->scr_base, 18000u);
  EXPECT_EQ(packs[1]->scr_ext, 150u);
  EXPECT_EQ(packs[1]->pack_offset, second);
  EXPECT_EQ(packs[1]->pack_length, s.size() - second);
  EXPECT_EQ(consumed, s.size());
  // Video times: (pts - first pts) * 1000 / 9.
  EXPECT_EQ(packs[0]->video_time, 0);
  EXPECT_EQ(packs[1]->video_time, (15600 - 12000) * 1000 / 9);
  EXPECT_EQ(packs[0]->has_time_stamp, 1);
  EXPECT_EQ(checker.previous_clock(), 18000u * 300 + 150);
}

TEST(Mpeg2PackCheck, LastPackOnlyWithTheFinalFlag) {
  Bytes s = VideoPack(9000, 12000);
  pstest::Append(&s, VideoPack(12000, 15600));
  Mpeg2PackCheck checker;
  MpegPackList list;
  EXPECT_EQ(Check(checker, s, &list, false).size(), 1u);
  Mpeg2PackCheck again;
  MpegPackList all;
  EXPECT_EQ(Check(again, s, &all, true).size(), 2u);
}

TEST(Mpeg2PackCheck, ClockRestartKeepsVideoTimesIncreasing) {
  Bytes s;
  int64_t pts = 9000;
  for (uint64_t scr = 0; scr < 90000; scr += 9000, pts += 3600) {
    pstest::Append(&s, VideoPack(scr, pts));
  }
  // The clock restarts at 0 (an edit point); time stamps restart too.
  pts = 9000;
  for (uint64_t scr = 0; scr < 45000; scr += 9000, pts += 3600) {
    pstest::Append(&s, VideoPack(scr, pts));
  }
  Mpeg2PackCheck checker;
  MpegPackList list;
  auto packs = Check(checker, s, &list);
  ASSERT_EQ(packs.size(), 15u);
  for (size_t i = 1; i < packs.size(); ++i) {
    EXPECT_GT(packs[i]->video_time, packs[i - 1]->video_time) << i;
  }
  // The epoch before the restart (last clock 81000) went into the time base.
  EXPECT_EQ(checker.time_base(), 81000);
  EXPECT_EQ(checker.first_time_stamp(), 0);
  EXPECT_EQ(packs[10]->video_time, (81000 + 9000) * 1000 / 9);
}

TEST(Mpeg2PackCheck, ClockGoingBackStartsAnEpochToo) {
  Bytes s = VideoPack(90000, 100000);
  pstest::Append(&s, VideoPack(45000, 50000));
  Mpeg2PackCheck checker;
  MpegPackList list;
  auto packs = Check(checker, s, &list);
  ASSERT_EQ(packs.size(), 2u);
  EXPECT_EQ(checker.time_base(), 90000);
  EXPECT_EQ(packs[1]->video_time, (90000 + 50000) * 1000 / 9);
}

TEST(Mpeg2PackCheck, OwnDataPacksAreNotRecordedButConsumed) {
  Bytes s = VideoPack(9000, 12000);
  const size_t own_at = s.size();
  Bytes own = pstest::Mpeg2Pack(9000, 0, 25200);
  pstest::Append(&own, pstest::Pes2(ps::kOwnDataStream, -1, Bytes(100, 0x11)));
  pstest::Append(&s, own);
  Bytes marker = pstest::Mpeg2Pack(9000, 0, 25200);
  pstest::Append(&marker, pstest::RawPacket(ps::kOwnMarkerStream, Bytes(50, 0x22)));
  pstest::Append(&s, marker);
  const size_t last_at = s.size();
  pstest::Append(&s, VideoPack(12000, 15600));
  for (int analysis : {0, 1}) {
    Mpeg2PackCheck checker(analysis);
    MpegPackList list;
    uint32_t consumed = 0;
    auto packs = Check(checker, s, &list, true, &consumed);
    ASSERT_EQ(packs.size(), 2u);
    EXPECT_EQ(packs[0]->pack_length, own_at);
    EXPECT_EQ(packs[1]->pack_offset, last_at);
    EXPECT_EQ(consumed, s.size());
  }
  // As the last pack, an own-data pack is not recorded with the final flag either.
  Mpeg2PackCheck checker;
  MpegPackList list;
  Bytes tail = VideoPack(9000, 12000);
  pstest::Append(&tail, own);
  EXPECT_EQ(Check(checker, tail, &list).size(), 1u);
}

TEST(Mpeg2PackCheck, GarbageBetweenPacksIsPassedOver) {
  Bytes s = VideoPack(9000, 12000);
  const Bytes junk = {0x00, 0x00, 0x01, 0xB3, 0x00, 0x00, 0x00, 0x01, 0x47, 0x00, 0x00};
  pstest::Append(&s, junk);
  pstest::Append(&s, Bytes(300, 0x5C));
  const size_t second = s.size();
  pstest::Append(&s, VideoPack(12000, 15600));
  Mpeg2PackCheck checker;
  MpegPackList list;
  auto packs = Check(checker, s, &list);
  ASSERT_EQ(packs.size(), 2u);
  EXPECT_EQ(packs[0]->pack_length, second);  // the garbage belongs to the first pack
  EXPECT_EQ(packs[1]->pack_offset, second);
}

TEST(Mpeg2PackCheck, BadPacketLengthsStopTheScan) {
  Bytes s = VideoPack(9000, 12000);
  const size_t bad_at = s.size();
  pstest::Append(&s, {0x00, 0x00, 0x01, 0xE0, 0x00, 0x00});  // length 0
  pstest::Append(&s, Bytes(40, 0xAA));
  pstest::Append(&s, VideoPack(12000, 15600));
  Mpeg2PackCheck checker;
  MpegPackList list;
  uint32_t consumed = 0;
  auto packs = Check(checker, s, &list, false, &consumed);
  EXPECT_EQ(consumed, bad_at);
  EXPECT_TRUE(packs.empty());

  Bytes beyond = VideoPack(9000, 12000);
  const size_t beyond_at = beyond.size();
  pstest::Append(&beyond, {0x00, 0x00, 0x01, 0xC0, 0x10, 0x00});  // 4096 bytes announced
  pstest::Append(&beyond, Bytes(100, 0xAA));
  Mpeg2PackCheck checker2;
  MpegPackList list2;
  packs = Check(checker2, beyond, &list2, true, &consumed);
  EXPECT_EQ(consumed, beyond_at);
  ASSERT_EQ(packs.size(), 1u);  // the final flag still records the open pack
  EXPECT_EQ(packs[0]->pack_length, beyond.size());
}

TEST(Mpeg2PackCheck, SixteenBytesOrFewerGiveNothing) {
  const Bytes pack = VideoPack(9000, 12000);
  for (size_t n : {0u, 1u, 14u, 16u}) {
    Mpeg2PackCheck checker;
    MpegPackList list;
    EXPECT_EQ(checker.Check(pack.data(), static_cast<uint32_t>(n), &list, true), 0u) << n;
    EXPECT_EQ(list.count(), 0u);
  }
  // Garbage only: everything but the last 16 bytes is examined.
  const Bytes junk(1000, 0x5C);
  Mpeg2PackCheck checker;
  MpegPackList list;
  EXPECT_EQ(checker.Check(junk.data(), 1000, &list, true), 984u);
  EXPECT_EQ(list.count(), 0u);
  EXPECT_EQ(checker.Check(nullptr, 1000, &list, true), 0u);
}

TEST(Mpeg2PackCheck, AudioClearsTheVideoFlagsOfItsPack) {
  Bytes s = VideoPack(9000, 12000, true, 1);
  pstest::Append(&s, VideoPack(12000, 15600, false, 1));
  Mpeg2PackCheck checker;
  MpegPackList list;
  auto packs = Check(checker, s, &list);
  ASSERT_EQ(packs.size(), 2u);
  EXPECT_EQ(packs[0]->has_audio, 1);
  EXPECT_EQ(packs[0]->has_video, 0);
  EXPECT_EQ(packs[0]->has_i_picture, 0);
  EXPECT_EQ(packs[1]->has_video, 1);
  EXPECT_EQ(packs[1]->has_i_picture, 1);
  // Private stream 1 counts as audio too.
  Bytes bd = VideoPack(9000, 12000, false, 1);
  pstest::Append(&bd, pstest::Pes2(0xBD, 12000, {0x80, 0x01, 0x00, 0x01}));
  Mpeg2PackCheck checker2;
  MpegPackList list2;
  packs = Check(checker2, bd, &list2);
  ASSERT_EQ(packs.size(), 1u);
  EXPECT_EQ(packs[0]->has_audio, 1);
  EXPECT_EQ(packs[0]->has_video, 0);
}

TEST(Mpeg2PackCheck, IntraPicturesAndAnalysisSwitch) {
  Bytes s = VideoPack(9000, 12000, false, 1);             // I
  pstest::Append(&s, VideoPack(12000, 15600, false, 2));  // P
  pstest::Append(&s, VideoPack(15000, -1, false, 0));     // no picture, no PTS
  Mpeg2PackCheck checker;
  MpegPackList list;
  auto packs = Check(checker, s, &list);
  ASSERT_EQ(packs.size(), 3u);
  EXPECT_EQ(packs[0]->has_i_picture, 1);
  EXPECT_EQ(packs[1]->has_i_picture, 0);
  EXPECT_EQ(packs[2]->has_video, 1);
  EXPECT_EQ(packs[2]->has_time_stamp, 0);
  EXPECT_EQ(packs[2]->video_time, -1);
  // Analysis off: pack headers only.
  Mpeg2PackCheck quiet(0);
  MpegPackList quiet_list;
  packs = Check(quiet, s, &quiet_list);
  ASSERT_EQ(packs.size(), 3u);
  EXPECT_EQ(packs[0]->has_video, 0);
  EXPECT_EQ(packs[0]->has_i_picture, 0);
  EXPECT_EQ(packs[0]->video_time, -1);
  EXPECT_EQ(packs[1]->scr_base, 12000u);
}

TEST(Mpeg1PackCheck, TwelveByteHeadersAndNoEpochs) {
  Bytes s = pstest::Mpeg1Pack(90000, 1000);
  pstest::Append(&s, pstest::Pes1(0xE0, 100000, pstest::PictureHeader(1)));
  pstest::Append(&s, pstest::Pes1(0xC0, 100000, Bytes(40, 0xAA)));
  const size_t second = s.size();
  pstest::Append(&s, pstest::Mpeg1Pack(45000, 1000));  // clock going back: no epoch
  pstest::Append(&s, pstest::Pes1(0xE0, 103600, Bytes(40, 0xAA), 3));
  Mpeg1PackCheck checker;
  MpegPackList list;
  auto packs = Check(checker, s, &list);
  ASSERT_EQ(packs.size(), 2u);
  EXPECT_EQ(packs[0]->scr_base, 90000u);
  EXPECT_EQ(packs[0]->scr_ext, 0u);
  EXPECT_EQ(packs[0]->pack_length, second);
  // Audio leaves the video flags of an MPEG-1 pack alone.
  EXPECT_EQ(packs[0]->has_audio, 1);
  EXPECT_EQ(packs[0]->has_video, 1);
  EXPECT_EQ(packs[0]->has_i_picture, 1);
  EXPECT_EQ(packs[1]->video_time, 3600 * 1000 / 9);
  EXPECT_EQ(checker.time_base(), 0);
}

TEST(PackChecker, FedInPiecesContinuesItsClockState) {
  Bytes first = VideoPack(90000, 100000);
  Bytes second = VideoPack(0, 9000);
  Mpeg2PackCheck checker;
  MpegPackList list;
  checker.Check(first.data(), static_cast<uint32_t>(first.size()), &list, true);
  checker.Check(second.data(), static_cast<uint32_t>(second.size()), &list, true);
  ASSERT_EQ(list.count(), 2u);
  EXPECT_EQ(checker.time_base(), 90000);
  EXPECT_EQ(list.head()->video_time, (90000 + 9000) * 1000 / 9);
}

// Garbage of every length up to 16 bytes, rich in zeros and in start codes that are
// neither packs nor packets (sequence header, end code, system header), is passed over
// one byte at a time: the next pack is found at its exact offset whatever the garbage's
// length, also when the garbage ends in zeros that run into the pack's start code.
TEST(PackChecker, GarbageOfAnyLengthIsPassedOverByteByByte) {
  const Bytes pattern = {0x00, 0x00, 0x01, 0xB3, 0x00, 0x00, 0x00, 0x01,
                         0xB9, 0x47, 0x00, 0x00, 0x01, 0xBB, 0x00, 0x00};
  for (bool mpeg1 : {false, true}) {
    for (size_t n = 0; n <= pattern.size(); ++n) {
      Bytes s;
      if (mpeg1) {
        s = pstest::Mpeg1Pack(90000, 1000);
        pstest::Append(&s, pstest::Pes1(0xE0, 100000, Bytes(40, 0xAA)));
      } else {
        s = VideoPack(9000, 12000);
      }
      s.insert(s.end(), pattern.begin(), pattern.begin() + static_cast<ptrdiff_t>(n));
      const size_t second = s.size();
      if (mpeg1) {
        pstest::Append(&s, pstest::Mpeg1Pack(93600, 1000));
        pstest::Append(&s, pstest::Pes1(0xE0, 103600, Bytes(40, 0xAA)));
      } else {
        pstest::Append(&s, VideoPack(12000, 15600));
      }
      std::unique_ptr<MpegPackCheck> checker;
      if (mpeg1) {
        checker = std::make_unique<Mpeg1PackCheck>();
      } else {
        checker = std::make_unique<Mpeg2PackCheck>();
      }
      MpegPackList list;
      uint32_t consumed = 0;
      auto packs = Check(*checker, s, &list, true, &consumed);
      ASSERT_EQ(packs.size(), 2u) << mpeg1 << " " << n;
      EXPECT_EQ(packs[0]->pack_length, second) << mpeg1 << " " << n;
      EXPECT_EQ(packs[1]->pack_offset, second) << mpeg1 << " " << n;
      EXPECT_EQ(packs[1]->scr_base, mpeg1 ? 93600u : 12000u);
      EXPECT_EQ(packs[1]->has_video, 1);
      EXPECT_EQ(consumed, s.size());
    }
  }
}

// Only the last media packet of an MPEG-2 pack counts: video after audio makes it a
// video pack again, audio after video makes it an audio pack.
TEST(Mpeg2PackCheck, LastMediaPacketDecidesTheVideoFlag) {
  Bytes s = VideoPack(9000, 12000, true, 1);  // video (I), audio
  pstest::Append(&s, pstest::Pes2(0xE0, 15600, pstest::PictureHeader(1)));
  Mpeg2PackCheck checker;
  MpegPackList list;
  auto packs = Check(checker, s, &list);
  ASSERT_EQ(packs.size(), 1u);
  EXPECT_EQ(packs[0]->has_audio, 1);
  EXPECT_EQ(packs[0]->has_video, 1);
  EXPECT_EQ(packs[0]->has_i_picture, 1);
  // The MPEG-1 checker never clears them, whatever comes last.
  Bytes m1 = pstest::Mpeg1Pack(90000, 1000);
  pstest::Append(&m1, pstest::Pes1(0xE0, 100000, pstest::PictureHeader(1)));
  pstest::Append(&m1, pstest::Pes1(0xBD, 100000, Bytes(40, 0xAA)));
  pstest::Append(&m1, pstest::Pes1(0xC0, 100000, Bytes(40, 0xAA)));
  Mpeg1PackCheck checker1;
  MpegPackList list1;
  packs = Check(checker1, m1, &list1);
  ASSERT_EQ(packs.size(), 1u);
  EXPECT_EQ(packs[0]->has_audio, 1);
  EXPECT_EQ(packs[0]->has_video, 1);
  EXPECT_EQ(packs[0]->has_i_picture, 1);
}

TEST(Mpeg1PackCheck, OwnDataPacksAreNotRecordedButConsumed) {
  Bytes s = pstest::Mpeg1Pack(90000, 1000);
  pstest::Append(&s, pstest::Pes1(0xE0, 100000, Bytes(40, 0xAA)));
  const size_t own_at = s.size();
  pstest::Append(&s, pstest::Mpeg1Pack(90000, 0x7FFFF));
  pstest::Append(&s, pstest::Pes1(ps::kOwnDataStream, -1, Bytes(100, 0x11), 9));
  pstest::Append(&s, pstest::Mpeg1Pack(90000, 0x7FFFF));
  pstest::Append(&s, pstest::RawPacket(ps::kOwnMarkerStream, Bytes(50, 0x22)));
  const size_t last_at = s.size();
  pstest::Append(&s, pstest::Mpeg1Pack(93600, 1000));
  pstest::Append(&s, pstest::Pes1(0xE0, 103600, Bytes(40, 0xAA)));
  for (int analysis : {0, 1}) {
    Mpeg1PackCheck checker(analysis);
    MpegPackList list;
    uint32_t consumed = 0;
    auto packs = Check(checker, s, &list, true, &consumed);
    ASSERT_EQ(packs.size(), 2u) << analysis;
    EXPECT_EQ(packs[0]->pack_length, own_at);
    EXPECT_EQ(packs[1]->pack_offset, last_at);
    EXPECT_EQ(consumed, s.size());
  }
}

}  // namespace
}  // namespace marquel
