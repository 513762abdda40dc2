// MQCtrl: the table plus the pending-file list.
#include "files/mq_ctrl.h"

#include <gtest/gtest.h>

#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

TEST(MQCtrlTest, PendingListKeepsOrderAndEachNameOnce) {
  MQCtrl ctrl;
  EXPECT_TRUE(ctrl.PendingFiles().empty());
  EXPECT_EQ(ctrl.AddPendingFile(test::TestPath("b.mpg")), 1);
  EXPECT_EQ(ctrl.AddPendingFile(test::TestPath("a.mpg")), 1);
  EXPECT_EQ(ctrl.AddPendingFile(test::TestPath("b.mpg")), 1);
  auto list = ctrl.PendingFiles();
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0], test::TestPath("b.mpg"));
  EXPECT_TRUE(ctrl.IsPendingFile(test::TestDir() + "/./a.mpg"));
  EXPECT_FALSE(ctrl.IsPendingFile(test::TestPath("c.mpg")));
}

TEST(MQCtrlTest, IsTheOpenFileTable) {
  MQCtrl ctrl;
  EXPECT_EQ(ctrl.QueryAllMemory(), 16424);
  EXPECT_EQ(ctrl.OpenFile(test::TestPath("x.mpg"), 1, 0, 0, nullptr, 0, 0, -1), 0);
  EXPECT_EQ(ctrl.QueryFileCount(), 1);
}

}  // namespace
}  // namespace marquel
