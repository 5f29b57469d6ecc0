#include "ZuNetwork/ZuFdset.h"

#include "support/Expect.h"

namespace {

class ZuFdsetTest : public testing::Test {
 protected:
  ZuFdsetTest() { ZuFdset::maxsock_set(20000); }
  ~ZuFdsetTest() override { ZuFdset::maxsock_set(8192); }
};

TEST_F(ZuFdsetTest, ReportsAFullSetWithItsCapacity) {
  ZuFdset::maxsock_set(0);
  ZuFdset set;
  EXPECT_FAILS(set.set(8192), Win32Code(774), "Specified fd set is already full; Set size of 8192");
  EXPECT_FAILS(set.clr(8192), Win32Code(774),
               "Specified fd is out of bounds of this fd set; Set size of 8192");
}

TEST_F(ZuFdsetTest, CopiesIntoASmallerSetByReallocation) {
  ZuFdset large;
  ASSERT_OK(large.set(9000));
  ZuFdset small;
  ASSERT_OK(small.set(3));
  small = large;
  EXPECT_EQ(small.is_set(9000), 1);
  EXPECT_EQ(small.is_set(3), 0);
  EXPECT_EQ(small.get_maxfd(), 9000);
}

TEST_F(ZuFdsetTest, ReservingChangesNoBit) {
  ZuFdset set;
  ASSERT_OK(set.set(3));
  EXPECT_TRUE(set.reserve(3));
  EXPECT_EQ(set.is_set(3), 1);
  EXPECT_TRUE(set.reserve(9000));
  EXPECT_EQ(set.is_set(9000), 0);
  EXPECT_EQ(set.get_maxfd(), 3);
  EXPECT_FALSE(set.reserve(20000));
  EXPECT_FALSE(set.reserve(-1));
}

TEST_F(ZuFdsetTest, ReserveKnowsTheHeapBlockBehindASmallerCapacity) {
  ZuFdset small;
  ASSERT_OK(small.set(1));
  ZuFdset set;
  ASSERT_OK(set.set(9000));
  set = small;
  EXPECT_TRUE(set.reserve(9000));
}

}  // namespace
