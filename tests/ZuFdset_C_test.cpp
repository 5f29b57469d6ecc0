#include "ZuNetwork/ZuFdset_C.h"

#include <cstddef>
#include <memory>
#include <vector>

#include "support/Heap.h"
#include "support/Sockets.h"

namespace {

constexpr int kMaximum = 20000;

std::vector<int> Members(kdfdset& set) {
  std::vector<int> members;
  for (int fd = 0; kdfdset_isset(fd, &set) >= 0; ++fd) {
    if (kdfdset_isset(fd, &set) == 1) members.push_back(fd);
  }
  return members;
}

using Fds = std::vector<int>;

class ZuFdsetC : public testing::Test {
 protected:
  ~ZuFdsetC() override {
    kdfdset_free(&set);
    kdfdset_free(&other);
  }

  static void Fill(kdfdset& into, const Fds& fds) {
    for (const int fd : fds) ASSERT_EQ(kdfdset_set(fd, &into), 0) << fd;
  }

  bool IsInternal() const { return set.set == set.__pvt_buff; }

  kdfdset set{};
  kdfdset other{};
};

// ---- Sizes and the process-wide maximum ----

TEST_F(ZuFdsetC, LaysItsFieldsOutAsDocumented) {
  EXPECT_EQ(offsetof(kdfdset, set), 0u);
  EXPECT_EQ(offsetof(kdfdset, __pvt_buff), 8u);
  EXPECT_EQ(sizeof set.__pvt_buff, 1024u);
  EXPECT_EQ(offsetof(kdfdset, sock_cnt), 1032u);
  EXPECT_EQ(offsetof(kdfdset, max_sock_cnt), 1036u);
  EXPECT_EQ(offsetof(kdfdset, sock_cnt_bytes), 1040u);
  EXPECT_EQ(offsetof(kdfdset, max_sock), 1044u);
}

TEST_F(ZuFdsetC, SizesAreWholeWords) {
  const struct {
    int descriptors;
    unsigned bytes;
  } cases[] = {{0, 0},
               {1, 8},
               {63, 8},
               {64, 8},
               {65, 16},
               {128, 16},
               {129, 24},
               {1023, 128},
               {1024, 128},
               {1025, 136},
               {8191, 1024},
               {8192, 1024},
               {8193, 1032},
               {9000, 1128},
               {20000, 2504},
               {1 << 20, 1 << 17},
               {2147483647, 1u << 28}};
  for (const auto& c : cases) EXPECT_EQ(fdset_sz_bytes(c.descriptors), c.bytes) << c.descriptors;
}

TEST_F(ZuFdsetC, DefaultMaximumIs8192AndKeepsWhatItIsGiven) {
  EXPECT_EQ(kdfdset_maxsock_get(), 8192);
  for (const int maximum : {20000, 0, -1, 8192}) {
    kdfdset_maxsock_set(maximum);
    EXPECT_EQ(kdfdset_maxsock_get(), maximum);
  }
}

// ---- Making and freeing ----

TEST_F(ZuFdsetC, NewSetIsEmptyWithAMaximumOfAtLeast8192) {
  const struct {
    int asked;
    unsigned maximum;
  } cases[] = {{-1, 8192},   {0, 8192},    {1, 8192},      {8191, 8192},
               {8192, 8192}, {8193, 8193}, {20000, 20000}, {-2147483647 - 1, 8192}};
  for (const auto& c : cases) {
    std::memset(&set, 0xA5, sizeof set);
    ASSERT_EQ(kdfdset_alloc(c.asked, &set), 0) << c.asked;
    EXPECT_TRUE(IsInternal()) << c.asked;
    EXPECT_EQ(set.sock_cnt, 8192u) << c.asked;
    EXPECT_EQ(set.max_sock_cnt, c.maximum) << c.asked;
    EXPECT_EQ(set.sock_cnt_bytes, 0u) << c.asked;
    EXPECT_EQ(kdfdset_get_maxfd(&set), -1) << c.asked;
    EXPECT_EQ(Members(set), Fds{}) << c.asked;
  }
}

TEST_F(ZuFdsetC, NullRecordIsRefusedEverywhere) {
  EXPECT_EQ(kdfdset_alloc(kMaximum, nullptr), -1);
  kdfdset_free(nullptr);
  kdfdset_zero(nullptr);
  EXPECT_EQ(kdfdset_set(1, nullptr), -2);
  EXPECT_EQ(kdfdset_isset(1, nullptr), -2);
  EXPECT_EQ(kdfdset_clr(1, nullptr), -2);
  EXPECT_EQ(kdfdset_get_fdsetp(nullptr), nullptr);
  EXPECT_EQ(kdfdset_get_maxfd(nullptr), -1);
  kdfdset_alloc(0, &set);
  EXPECT_EQ(kdfdset_copy_fdset(&set, nullptr), -1);
  EXPECT_EQ(kdfdset_copy_fdset(nullptr, &set), -1);
}

void ExpectNoStorage(kdfdset& set) {
  EXPECT_EQ(set.set, nullptr);
  EXPECT_EQ(kdfdset_get_fdsetp(&set), nullptr);
  for (const int fd : {-1, 0, 1, 9000, 30000}) {
    EXPECT_EQ(kdfdset_set(fd, &set), -2) << fd;
    EXPECT_EQ(kdfdset_isset(fd, &set), -2) << fd;
    EXPECT_EQ(kdfdset_clr(fd, &set), -2) << fd;
  }
  kdfdset_zero(&set);
  kdfdset usable;
  kdfdset_alloc(0, &usable);
  EXPECT_EQ(kdfdset_copy_fdset(&set, &usable), -1);
  EXPECT_EQ(kdfdset_copy_fdset(&usable, &set), -1);
  EXPECT_EQ(set.set, nullptr);
}

TEST_F(ZuFdsetC, FreedRecordHasNoStorageAndKeepsItsMaximum) {
  for (const int highest : {5, 9000}) {
    kdfdset_alloc(kMaximum, &set);
    Fill(set, {1, highest});
    kdfdset_free(&set);
    EXPECT_EQ(set.sock_cnt, 0u);
    EXPECT_EQ(set.max_sock_cnt, 20000u);
    EXPECT_EQ(kdfdset_get_maxfd(&set), -1);
    ExpectNoStorage(set);
    kdfdset_free(&set);  // once more does nothing
    EXPECT_EQ(set.set, nullptr);
  }
}

TEST_F(ZuFdsetC, FreedRecordIsUsableAgainAfterAlloc) {
  kdfdset_alloc(kMaximum, &set);
  Fill(set, {9000});
  kdfdset_free(&set);
  kdfdset_alloc(0, &set);
  EXPECT_TRUE(IsInternal());
  EXPECT_EQ(kdfdset_set(9000, &set), -1);
  EXPECT_EQ(kdfdset_set(1, &set), 0);
}

TEST_F(ZuFdsetC, ZeroEmptiesTheSetAndKeepsItsCapacity) {
  for (const int highest : {8191, 19999}) {
    kdfdset_alloc(kMaximum, &set);
    Fill(set, {0, 64, highest});
    const auto* const storage = set.set;
    const unsigned capacity = set.sock_cnt;
    kdfdset_zero(&set);
    EXPECT_EQ(Members(set), Fds{});
    EXPECT_EQ(kdfdset_get_maxfd(&set), -1);
    EXPECT_EQ(set.set, storage);
    EXPECT_EQ(set.sock_cnt, capacity);
    kdfdset_free(&set);
  }
}

// ---- Setting ----

TEST_F(ZuFdsetC, DescriptorsWithinAndBeyondTheCapacity) {
  const struct {
    int fd;
    int resultOf8192, resultOf20000;
  } cases[] = {{0, 0, 0},     {1, 0, 0},       {63, 0, 0},           {64, 0, 0},
               {1023, 0, 0},  {1024, 0, 0},    {8191, 0, 0},         {8192, -1, 0},
               {9000, -1, 0}, {19999, -1, 0},  {20000, -1, -1},      {30000, -1, -1},
               {-1, -1, -1},  {-9000, -1, -1}, {2147483647, -1, -1}, {-2147483647 - 1, -1, -1}};
  for (const auto& c : cases) {
    for (const int maximum : {8192, kMaximum}) {
      const int expected = maximum == 8192 ? c.resultOf8192 : c.resultOf20000;
      kdfdset_alloc(maximum, &set);
      EXPECT_EQ(kdfdset_set(c.fd, &set), expected) << c.fd << " of " << maximum;
      EXPECT_EQ(kdfdset_get_maxfd(&set), expected == 0 ? c.fd : -1) << c.fd << " of " << maximum;
      EXPECT_EQ(Members(set), expected == 0 ? Fds{c.fd} : Fds{}) << c.fd << " of " << maximum;
      const bool isOutside = c.fd < 0 || c.fd >= maximum;
      EXPECT_EQ(kdfdset_isset(c.fd, &set), isOutside ? -1 : 1) << c.fd << " of " << maximum;
      EXPECT_EQ(kdfdset_clr(c.fd, &set), isOutside ? -1 : 0) << c.fd << " of " << maximum;
      EXPECT_EQ(Members(set), Fds{}) << c.fd << " of " << maximum;
      kdfdset_free(&set);
    }
  }
}

TEST_F(ZuFdsetC, BitsLieAsInTheSystemsSet) {
  kdfdset_alloc(0, &set);
  fd_set system;
  FD_ZERO(&system);
  for (const int fd : {0, 1, 63, 64, 65, 500, 1023}) {
    Fill(set, {fd});
    FD_SET(fd, &system);
  }
  EXPECT_EQ(std::memcmp(kdfdset_get_fdsetp(&set), &system, sizeof system), 0);
  Fill(set, {8191});
  EXPECT_EQ(set.set[127], std::uint64_t{1} << 63);
}

TEST_F(ZuFdsetC, SettingTwiceIsSettingOnce) {
  kdfdset_alloc(0, &set);
  Fill(set, {7, 3, 7});
  EXPECT_EQ(Members(set), (Fds{3, 7}));
  EXPECT_EQ(kdfdset_get_maxfd(&set), 7);
}

TEST_F(ZuFdsetC, NothingIsAllocatedBelow8192) {
  const std::size_t before = heap::Calls(heap::kMalloc | heap::kCalloc);
  kdfdset_alloc(kMaximum, &set);
  for (int fd = 0; fd < 8192; ++fd) ASSERT_EQ(kdfdset_set(fd, &set), 0) << fd;
  EXPECT_EQ(kdfdset_isset(9000, &set), 0);
  EXPECT_EQ(kdfdset_clr(9000, &set), 0);
  kdfdset_zero(&set);
  EXPECT_EQ(heap::Calls(heap::kMalloc | heap::kCalloc), before);
  EXPECT_TRUE(IsInternal());
}

// ---- Growth ----

TEST_F(ZuFdsetC, FullSetWithoutAHigherMaximumStaysInternal) {
  kdfdset_alloc(0, &set);
  Fill(set, {8191});
  EXPECT_EQ(kdfdset_set(8192, &set), -1);
  EXPECT_TRUE(IsInternal());
  EXPECT_EQ(set.sock_cnt, 8192u);
  EXPECT_EQ(Members(set), Fds{8191});
}

TEST_F(ZuFdsetC, GrowsInOneStepToItsMaximumAndKeepsItsBits) {
  const Fds before{0, 5, 64, 1024, 8191};
  kdfdset_alloc(kMaximum, &set);
  Fill(set, before);
  const std::size_t calls = heap::Calls(heap::kMalloc | heap::kCalloc);
  ASSERT_EQ(kdfdset_set(9000, &set), 0);
  ASSERT_EQ(kdfdset_set(19999, &set), 0);
  EXPECT_EQ(heap::Calls(heap::kMalloc | heap::kCalloc), calls + 1);
  EXPECT_FALSE(IsInternal());
  EXPECT_EQ(set.sock_cnt, 20000u);
  EXPECT_EQ(Members(set), (Fds{0, 5, 64, 1024, 8191, 9000, 19999}));
  EXPECT_EQ(kdfdset_get_maxfd(&set), 19999);
}

TEST_F(ZuFdsetC, GrownSetDoesNotGrowAgain) {
  kdfdset_alloc(kMaximum, &set);
  Fill(set, {9000});
  const auto* const storage = set.set;
  const std::size_t calls = heap::Calls(heap::kMalloc | heap::kCalloc);
  for (const int fd : {20000, 30000, -1}) EXPECT_EQ(kdfdset_set(fd, &set), -1) << fd;
  EXPECT_EQ(heap::Calls(heap::kMalloc | heap::kCalloc), calls);
  EXPECT_EQ(set.set, storage);
  EXPECT_EQ(Members(set), Fds{9000});
}

TEST_F(ZuFdsetC, DescriptorBeyondTheMaximumLeavesTheSetGrown) {
  for (const int fd : {20000, 30000, -1}) {
    kdfdset_alloc(kMaximum, &set);
    Fill(set, {5});
    EXPECT_EQ(kdfdset_set(fd, &set), -1) << fd;
    EXPECT_FALSE(IsInternal()) << fd;
    EXPECT_EQ(set.sock_cnt, 20000u) << fd;
    EXPECT_EQ(Members(set), Fds{5}) << fd;
    EXPECT_EQ(kdfdset_get_maxfd(&set), 5) << fd;
    EXPECT_EQ(kdfdset_set(19999, &set), 0) << fd;
    kdfdset_free(&set);
  }
}

TEST_F(ZuFdsetC, MaximumOfOneAboveTheInternalStorageGrows) {
  kdfdset_alloc(8193, &set);
  EXPECT_EQ(kdfdset_set(8192, &set), 0);
  EXPECT_EQ(kdfdset_set(8193, &set), -1);
  EXPECT_EQ(set.sock_cnt, 8193u);
}

TEST_F(ZuFdsetC, GrowthFailureLosesStorage) {
  kdfdset_alloc(kMaximum, &set);
  Fill(set, {5});
  const std::size_t failures = heap::Failures(heap::kCalloc);
  int result = 0;
  {
    const heap::Failing noMemory(heap::kCalloc);
    result = kdfdset_set(9000, &set);
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(heap::Failures(heap::kCalloc), failures + 1);
  ExpectNoStorage(set);  // although there is memory again
  kdfdset_alloc(kMaximum, &set);
  EXPECT_EQ(kdfdset_set(9000, &set), 0);
}

// ---- Asking and clearing ----

TEST_F(ZuFdsetC, BetweenCapacityAndMaximumNothingIsSetOrCleared) {
  kdfdset_alloc(kMaximum, &set);
  Fill(set, {5});
  for (const int fd : {8192, 9000, 19999}) {
    EXPECT_EQ(kdfdset_isset(fd, &set), 0) << fd;
    EXPECT_EQ(kdfdset_clr(fd, &set), 0) << fd;
  }
  for (const int fd : {20000, 30000, -1}) {
    EXPECT_EQ(kdfdset_isset(fd, &set), -1) << fd;
    EXPECT_EQ(kdfdset_clr(fd, &set), -1) << fd;
  }
  EXPECT_TRUE(IsInternal());
  EXPECT_EQ(Members(set), Fds{5});
}

TEST_F(ZuFdsetC, ClearingTheHighestFindsTheNextLower) {
  const Fds fds{0, 1, 63, 64, 127, 128, 4000, 8191, 8192, 19999};
  kdfdset_alloc(kMaximum, &set);
  Fill(set, fds);
  for (std::size_t left = fds.size(); left > 0; --left) {
    EXPECT_EQ(kdfdset_get_maxfd(&set), fds[left - 1]);
    EXPECT_EQ(kdfdset_clr(fds[left - 1], &set), 0);
  }
  EXPECT_EQ(kdfdset_get_maxfd(&set), -1);
  EXPECT_EQ(Members(set), Fds{});
}

TEST_F(ZuFdsetC, ClearingAnyOtherLeavesTheHighest) {
  kdfdset_alloc(0, &set);
  Fill(set, {3, 7, 100});
  for (const int fd : {3, 50, 99, 101, 8191, 9000}) (void)kdfdset_clr(fd, &set);
  EXPECT_EQ(kdfdset_get_maxfd(&set), 100);
  EXPECT_EQ(Members(set), (Fds{7, 100}));
}

TEST_F(ZuFdsetC, WhatSelectRemovedStillCountsAsHighestUntilCleared) {
  kdfdset_alloc(0, &set);
  Fill(set, {3, 7, 100});
  set.set[100 / 64] = 0;  // as the system does
  EXPECT_EQ(kdfdset_get_maxfd(&set), 100);
  EXPECT_EQ(kdfdset_isset(100, &set), 0);
  EXPECT_EQ(kdfdset_clr(100, &set), 0);
  EXPECT_EQ(kdfdset_get_maxfd(&set), 7);
}

// ---- Copying ----

TEST_F(ZuFdsetC, CopyReplacesWhatTheDestinationHeld) {
  kdfdset_alloc(0, &other);
  Fill(other, {7, 500});
  kdfdset_alloc(0, &set);
  Fill(set, {3, 8000});
  ASSERT_EQ(kdfdset_copy_fdset(&set, &other), 0);
  EXPECT_EQ(Members(set), (Fds{7, 500}));
  EXPECT_EQ(kdfdset_get_maxfd(&set), 500);
  EXPECT_TRUE(IsInternal());
  EXPECT_EQ(Members(other), (Fds{7, 500}));
}

TEST_F(ZuFdsetC, CopyOfAnEmptySetEmpties) {
  kdfdset_alloc(0, &other);
  kdfdset_alloc(0, &set);
  Fill(set, {3});
  ASSERT_EQ(kdfdset_copy_fdset(&set, &other), 0);
  EXPECT_EQ(Members(set), Fds{});
  EXPECT_EQ(kdfdset_get_maxfd(&set), -1);
}

TEST_F(ZuFdsetC, CopyOntoItselfChangesNothing) {
  kdfdset_alloc(kMaximum, &set);
  Fill(set, {3, 9000});
  EXPECT_EQ(kdfdset_copy_fdset(&set, &set), 0);
  EXPECT_EQ(Members(set), (Fds{3, 9000}));
}

TEST_F(ZuFdsetC, CopyOfALargerSetGrowsToTheDestinationsOwnMaximum) {
  kdfdset_alloc(12000, &other);
  Fill(other, {7, 9000});
  kdfdset_alloc(kMaximum, &set);
  Fill(set, {3});
  ASSERT_EQ(kdfdset_copy_fdset(&set, &other), 0);
  EXPECT_FALSE(IsInternal());
  // The capacity is the source's, whatever the new block holds.
  EXPECT_EQ(set.sock_cnt, 12000u);
  EXPECT_EQ(set.max_sock_cnt, 20000u);
  EXPECT_EQ(Members(set), (Fds{7, 9000}));
  EXPECT_EQ(kdfdset_get_maxfd(&set), 9000);
  EXPECT_EQ(kdfdset_set(11999, &set), 0);
  EXPECT_EQ(kdfdset_set(12000, &set), -1);
}

TEST_F(ZuFdsetC, CopyOfALargerSetThanTheMaximumIsRefused) {
  kdfdset_alloc(kMaximum, &other);
  Fill(other, {9000});
  kdfdset_alloc(12000, &set);
  Fill(set, {3});
  EXPECT_EQ(kdfdset_copy_fdset(&set, &other), -1);
  EXPECT_EQ(Members(set), Fds{3});
  EXPECT_EQ(set.sock_cnt, 8192u);
  EXPECT_TRUE(IsInternal());
}

TEST_F(ZuFdsetC, GrownCopyOfASmallerSetTakesItsCapacityAndDoesNotGrowAgain) {
  kdfdset_alloc(0, &other);
  Fill(other, {7});
  kdfdset_alloc(kMaximum, &set);
  Fill(set, {9000});
  const auto* const storage = set.set;
  ASSERT_EQ(kdfdset_copy_fdset(&set, &other), 0);
  EXPECT_EQ(set.set, storage);
  EXPECT_EQ(set.sock_cnt, 8192u);
  EXPECT_EQ(set.max_sock_cnt, 20000u);
  EXPECT_EQ(Members(set), Fds{7});
  EXPECT_EQ(kdfdset_get_maxfd(&set), 7);
  EXPECT_EQ(kdfdset_isset(9000, &set), 0);
  EXPECT_EQ(set.set[9000 / 64], std::uint64_t{1} << (9000 % 64));  // beyond the count it stays
  EXPECT_EQ(kdfdset_clr(9000, &set), 0);
  EXPECT_EQ(kdfdset_set(8191, &set), 0);
  EXPECT_EQ(kdfdset_set(9001, &set), -1);
  EXPECT_EQ(set.set, storage);
}

TEST_F(ZuFdsetC, ZeroReachesNoFurtherThanTheCapacityThatACopyTookBack) {
  kdfdset_alloc(0, &other);
  Fill(other, {7, 8191});
  kdfdset_alloc(kMaximum, &set);
  Fill(set, {8192, 9000, 19999});
  ASSERT_EQ(kdfdset_copy_fdset(&set, &other), 0);
  kdfdset_zero(&set);
  EXPECT_EQ(kdfdset_get_maxfd(&set), -1);
  EXPECT_EQ(set.sock_cnt, 8192u);
  std::vector<int> bits;
  for (int fd = 0; fd < kMaximum; ++fd) {
    if ((set.set[fd / 64] >> (fd % 64) & 1) != 0) bits.push_back(fd);
  }
  EXPECT_EQ(bits, (Fds{8192, 9000, 19999}));
  EXPECT_EQ(Members(set), Fds{}) << "what lies beyond is not in the set";
}

TEST_F(ZuFdsetC, GrownSetWithASmallerCapacityTakesNoLargerCopy) {
  kdfdset_alloc(0, &other);
  kdfdset_alloc(kMaximum, &set);
  Fill(set, {9000});
  ASSERT_EQ(kdfdset_copy_fdset(&set, &other), 0);
  kdfdset_alloc(kMaximum, &other);
  Fill(other, {9000});
  EXPECT_EQ(kdfdset_copy_fdset(&set, &other), -1);
  EXPECT_EQ(set.sock_cnt, 8192u);
}

TEST_F(ZuFdsetC, GrowthFailureWhileCopyingLosesStorage) {
  kdfdset_alloc(kMaximum, &other);
  Fill(other, {9000});
  kdfdset_alloc(kMaximum, &set);
  Fill(set, {3});
  int result = 0;
  {
    const heap::Failing noMemory(heap::kCalloc);
    result = kdfdset_copy_fdset(&set, &other);
  }
  EXPECT_EQ(result, -1);
  ExpectNoStorage(set);
  EXPECT_EQ(Members(other), Fds{9000});
}

// ---- As the system takes it ----

class SelectOn : public testing::TestWithParam<int> {};

TEST_P(SelectOn, FindsTheReadyDescriptorAmongIdleOnes) {
  const int high = GetParam();
  if (!MayHaveDescriptor(high)) GTEST_SKIP() << "no descriptor " << high << " on this system";
  int idle[2];
  int busy[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, idle), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, busy), 0);
  ASSERT_EQ(dup2(busy[0], high), high);
  const Descriptor closers[] = {Descriptor(idle[0]), Descriptor(idle[1]), Descriptor(busy[0]),
                                Descriptor(busy[1]), Descriptor(high)};
  ASSERT_EQ(write(busy[1], "x", 1), 1);
  kdfdset set;
  kdfdset_alloc(kMaximum, &set);
  ASSERT_EQ(kdfdset_set(idle[0], &set), 0);
  ASSERT_EQ(kdfdset_set(high, &set), 0);
  timeval now{};
  EXPECT_EQ(select(kdfdset_get_maxfd(&set) + 1, kdfdset_get_fdsetp(&set), nullptr, nullptr, &now),
            1);
  EXPECT_EQ(Members(set), Fds{high});
  kdfdset_free(&set);
}

INSTANTIATE_TEST_SUITE_P(ZuFdsetC, SelectOn,
                         testing::Values(100, 1023, 1024, 1500, 8191, 8192, 9000, 19999),
                         testing::PrintToStringParamName());

TEST_F(ZuFdsetC, DistinctSetsAreIndependentAcrossThreads) {
  const auto work = [](int base) {
    for (int round = 0; round < 50; ++round) {
      const auto mine = std::make_unique<kdfdset>();
      kdfdset_alloc(kMaximum, mine.get());
      EXPECT_EQ(kdfdset_set(base, mine.get()), 0);
      EXPECT_EQ(kdfdset_get_maxfd(mine.get()), base);
      kdfdset_free(mine.get());
    }
  };
  const QuietThread first([&] { work(9000); });
  const QuietThread second([&] { work(9001); });
}

}  // namespace
