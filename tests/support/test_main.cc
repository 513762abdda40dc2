// main() for every test executable: each test runs in a fresh home (fresh_home.h).
#include <gtest/gtest.h>

#include "testsupport/fresh_home.h"

namespace marquel::test {
void RemoveRunRoot();
}

namespace {

class FreshHomeListener : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo& info) override {
    marquel::test::MakeFreshHome(std::string(info.test_suite_name()) + "." + info.name());
  }
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  marquel::test::MakeFreshHome("setup");
  testing::UnitTest::GetInstance()->listeners().Append(new FreshHomeListener);
  int rc = RUN_ALL_TESTS();
  if (rc == 0) marquel::test::RemoveRunRoot();
  return rc;
}
