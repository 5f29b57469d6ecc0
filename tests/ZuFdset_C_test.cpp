#include "ZuNetwork/ZuFdset_C.h"

#include <gtest/gtest.h>

namespace {

class ZuFdsetC : public testing::Test {
 protected:
  ~ZuFdsetC() override { kdfdset_free(&set); }
  kdfdset set{};
};

TEST_F(ZuFdsetC, TakesItsStorageFromTheRecordAtFirst) {
  ASSERT_EQ(kdfdset_alloc(0, &set), 0);
  EXPECT_EQ(set.set, set.__pvt_buff);
  EXPECT_EQ(set.sock_cnt, 8192u);
  EXPECT_EQ(set.max_sock_cnt, 8192u);
  EXPECT_EQ(kdfdset_get_maxfd(&set), -1);
  EXPECT_EQ(kdfdset_set(8192, &set), -1);
  EXPECT_EQ(set.set, set.__pvt_buff);
}

TEST_F(ZuFdsetC, GrowsOnceToItsMaximumAndKeepsItsBits) {
  kdfdset_alloc(20000, &set);
  ASSERT_EQ(kdfdset_set(5, &set), 0);
  EXPECT_EQ(kdfdset_isset(9000, &set), 0);
  ASSERT_EQ(kdfdset_set(9000, &set), 0);
  EXPECT_NE(set.set, set.__pvt_buff);
  EXPECT_EQ(set.sock_cnt, 20000u);
  EXPECT_EQ(kdfdset_isset(5, &set), 1);
  EXPECT_EQ(kdfdset_set(30000, &set), -1);
  EXPECT_EQ(kdfdset_set(-1, &set), -1);
  EXPECT_EQ(kdfdset_isset(20000, &set), -1);
}

TEST_F(ZuFdsetC, ClearingTheHighestFindsTheNextLower) {
  kdfdset_alloc(0, &set);
  for (const int fd : {0, 63, 64, 4000}) ASSERT_EQ(kdfdset_set(fd, &set), 0);
  EXPECT_EQ(kdfdset_clr(63, &set), 0);
  EXPECT_EQ(kdfdset_get_maxfd(&set), 4000);
  EXPECT_EQ(kdfdset_clr(4000, &set), 0);
  EXPECT_EQ(kdfdset_get_maxfd(&set), 64);
  EXPECT_EQ(kdfdset_clr(64, &set), 0);
  EXPECT_EQ(kdfdset_get_maxfd(&set), 0);
  EXPECT_EQ(kdfdset_clr(0, &set), 0);
  EXPECT_EQ(kdfdset_get_maxfd(&set), -1);
}

TEST_F(ZuFdsetC, FreedRecordHasNoStorage) {
  kdfdset_alloc(20000, &set);
  kdfdset_set(9000, &set);
  kdfdset_free(&set);
  EXPECT_EQ(set.set, nullptr);
  EXPECT_EQ(set.sock_cnt, 0u);
  EXPECT_EQ(set.max_sock_cnt, 20000u);
  EXPECT_EQ(kdfdset_set(1, &set), -2);
}

TEST_F(ZuFdsetC, GrownCopyOfASmallerSetDoesNotGrowAgain) {
  kdfdset small;
  kdfdset_alloc(0, &small);
  kdfdset_set(7, &small);
  kdfdset_alloc(20000, &set);
  kdfdset_set(9000, &set);
  ASSERT_EQ(kdfdset_copy_fdset(&set, &small), 0);
  EXPECT_EQ(set.sock_cnt, 8192u);
  EXPECT_EQ(kdfdset_get_maxfd(&set), 7);
  EXPECT_EQ(kdfdset_isset(9000, &set), 0);
  EXPECT_EQ(kdfdset_set(9001, &set), -1);
  kdfdset_free(&small);
}

}  // namespace
