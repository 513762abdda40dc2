// ClientTracker: admission, outstanding opens and session identities.
#include "client_tracker.h"

#include <gtest/gtest.h>

namespace marquel::host {
namespace {

TEST(ClientTracker, AdmissionIsRememberedAndOnlyAdmittedClientsCount) {
  ClientTracker t;
  EXPECT_FALSE(t.Admission(":1.5").has_value());
  t.Add(":1.5", true);
  t.Add(":1.6", false);
  EXPECT_EQ(t.Admission(":1.5"), true);
  EXPECT_EQ(t.Admission(":1.6"), false);
  EXPECT_EQ(t.ActiveClients(), 1u);
  t.Remove(":1.5");
  EXPECT_EQ(t.ActiveClients(), 0u);
}

TEST(ClientTracker, RemoveReturnsOneEntryPerOutstandingOpen) {
  ClientTracker t;
  t.Add("a", true);
  t.RecordOpen("a", 3, true);
  t.RecordOpen("a", 3, false);
  t.RecordOpen("a", 4, true);
  t.RecordClose("a", 4);
  EXPECT_EQ(t.Remove("a"), (std::vector<int32_t>{3, 3}));
  EXPECT_TRUE(t.Remove("a").empty());
}

// A slot freed and filled again by another file is not the session the client opened.
TEST(ClientTracker, ASlotReusedSinceIsNeverReleased) {
  ClientTracker t;
  t.Add("a", true);
  t.Add("b", true);
  t.RecordOpen("a", 0, true);
  uint64_t first = t.Generation(0);
  // Someone else closes the slot and another file takes it.
  t.RecordOpen("b", 0, true);
  EXPECT_NE(t.Generation(0), first);
  EXPECT_TRUE(t.Remove("a").empty());
  EXPECT_EQ(t.Remove("b"), std::vector<int32_t>{0});
}

TEST(ClientTracker, TwoClientsSharingASessionEachReleaseTheirOwn) {
  ClientTracker t;
  t.Add("a", true);
  t.Add("b", true);
  t.RecordOpen("a", 1, true);
  t.RecordOpen("b", 1, false);
  EXPECT_EQ(t.Remove("a"), std::vector<int32_t>{1});
  EXPECT_EQ(t.CurrentOpens("b"), std::vector<int32_t>{1});
}

TEST(ClientTracker, HandlesOutsideTheTableAreIgnored) {
  ClientTracker t;
  t.Add("a", true);
  t.RecordOpen("a", -1, true);
  t.RecordOpen("a", 2048, true);
  t.RecordOpen("a", 2147483647, true);
  t.RecordClose("a", -5);
  EXPECT_TRUE(t.Remove("a").empty());
  EXPECT_EQ(t.Generation(4096), 0u);
}

}  // namespace
}  // namespace marquel::host
