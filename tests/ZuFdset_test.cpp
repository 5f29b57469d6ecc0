#include "ZuNetwork/ZuFdset.h"

#include <climits>
#include <functional>
#include <memory>
#include <type_traits>
#include <vector>

#include "support/Expect.h"
#include "support/Heap.h"
#include "support/Sockets.h"

namespace {

constexpr char kFull8192[] = "Specified fd set is already full; Set size of 8192";
constexpr char kFull20000[] = "Specified fd set is already full; Set size of 20000";
constexpr char kOutside8192[] = "Specified fd is out of bounds of this fd set; Set size of 8192";
constexpr char kOutside20000[] = "Specified fd is out of bounds of this fd set; Set size of 20000";

// The members that the class keeps from its users.
struct OpenSet : ZuFdset {
  using ZuFdset::fdset;
  using ZuFdset::isInitialize;
  using ZuFdset::operator=;

  bool IsInternal() const { return fdset.set == fdset.__pvt_buff; }
};

using Fds = std::vector<int>;

template <typename Set>
Fds Members(Set& set) {
  Fds members;
  for (int fd = 0; set.is_set(fd) >= 0; ++fd) {
    if (set.is_set(fd) == 1) members.push_back(fd);
  }
  return members;
}

class ZuFdsetTest : public testing::Test {
 protected:
  ZuFdsetTest() { ZuFdset::maxsock_set(20000); }
  ~ZuFdsetTest() override { ZuFdset::maxsock_set(8192); }

  static void Fill(ZuFdset& set, const Fds& fds) {
    for (const int fd : fds) ASSERT_OK(set.set(fd)) << fd;
  }

  // Makes the storage of `set` get lost by a growth that finds no memory.
  static void Lose(ZuFdset& set) {
    const heap::Failing noMemory(heap::kCalloc);
    EXPECT_FAILS(set.set(9000), Win32Code(774), kFull8192);
  }

  OpenSet set;
};

TEST_F(ZuFdsetTest, RecordComesFirstThenTheFlag) {
  static_assert(std::is_same_v<decltype(OpenSet::fdset), kdfdset>);
  static_assert(std::is_same_v<decltype(OpenSet::isInitialize), bool>);
  static_assert(sizeof(ZuFdset) == sizeof(kdfdset) + alignof(kdfdset));
  const void* const record = &set.fdset;
  const void* const flag = &set.isInitialize;
  EXPECT_EQ(record, static_cast<const ZuFdset*>(&set));
  EXPECT_TRUE(std::less<>()(record, flag));
}

TEST_F(ZuFdsetTest, MaximumIsThatOfThePlainFunctions) {
  ZuFdset::maxsock_set(12345);
  EXPECT_EQ(kdfdset_maxsock_get(), 12345);
  kdfdset_maxsock_set(23456);
  EXPECT_EQ(ZuFdset::maxsock_get(), 23456);
}

TEST_F(ZuFdsetTest, NothingIsAllocatedUntilFirstUse) {
  EXPECT_FALSE(set.isInitialize);
  const struct {
    const char* name;
    void (*use)(ZuFdset&);
  } uses[] = {
      {"zero", [](ZuFdset& s) { s.zero(); }},
      {"set", [](ZuFdset& s) { EXPECT_OK(s.set(1)); }},
      {"clr", [](ZuFdset& s) { EXPECT_OK(s.clr(1)); }},
      {"is_set", [](ZuFdset& s) { EXPECT_EQ(s.is_set(1), 0); }},
      {"get_fdsetp", [](ZuFdset& s) { EXPECT_NE(s.get_fdsetp(), nullptr); }},
      {"get_maxfd", [](ZuFdset& s) { EXPECT_EQ(s.get_maxfd(), -1); }},
      {"reserve", [](ZuFdset& s) { EXPECT_TRUE(s.reserve(1)); }},
      {"init", [](ZuFdset& s) { EXPECT_OK(s.init()); }},
  };
  for (const auto& use : uses) {
    OpenSet fresh;
    EXPECT_FALSE(fresh.isInitialize) << use.name;
    use.use(fresh);
    EXPECT_TRUE(fresh.isInitialize) << use.name;
    EXPECT_EQ(fresh.fdset.max_sock_cnt, 20000u) << use.name;
  }
}

TEST_F(ZuFdsetTest, MaximumIsFixedByFirstUseNotByConstruction) {
  ZuFdset::maxsock_set(12000);
  set.zero();
  ZuFdset::maxsock_set(20000);
  EXPECT_OK(set.set(11999));
  EXPECT_FAILS(set.set(12000), Win32Code(774),
               "Specified fd set is already full; Set size of 12000");
}

TEST_F(ZuFdsetTest, InitEmptiesAndTakesThePresentMaximum) {
  Fill(set, {1, 9000});
  ZuFdset::maxsock_set(0);
  ASSERT_OK(set.init());
  EXPECT_EQ(Members(set), Fds{});
  EXPECT_EQ(set.get_maxfd(), -1);
  EXPECT_TRUE(set.IsInternal());
  EXPECT_EQ(set.fdset.max_sock_cnt, 8192u);
}

TEST_F(ZuFdsetTest, SetClearAndAsk) {
  Fill(set, {3, 64, 9000});
  EXPECT_EQ(Members(set), (Fds{3, 64, 9000}));
  EXPECT_EQ(set.get_maxfd(), 9000);
  EXPECT_EQ(set.get_fdsetp(), reinterpret_cast<fd_set*>(set.fdset.set));
  EXPECT_OK(set.clr(9000));
  EXPECT_EQ(set.get_maxfd(), 64);
  set.zero();
  EXPECT_EQ(Members(set), Fds{});
  EXPECT_EQ(set.get_maxfd(), -1);
}

TEST_F(ZuFdsetTest, AskingPassesTheCodesOfThePlainFunctionThrough) {
  EXPECT_EQ(set.is_set(19999), 0);
  for (const int fd : {20000, -1}) EXPECT_EQ(set.is_set(fd), -1) << fd;
  Fill(set, {1});
  Lose(set);
  EXPECT_EQ(set.is_set(1), -2);
}

TEST_F(ZuFdsetTest, FullSetThatNeverGrewNamesItsSize) {
  ZuFdset::maxsock_set(0);
  for (const int fd : {8192, 9000, -1}) {
    EXPECT_FAILS(set.set(fd), Win32Code(774), kFull8192) << fd;
    EXPECT_FAILS(set.clr(fd), Win32Code(774), kOutside8192) << fd;
  }
}

TEST_F(ZuFdsetTest, MessagesNameThePresentCapacityNotTheMaximum) {
  EXPECT_FAILS(set.clr(20000), Win32Code(774), kOutside8192);
  EXPECT_FAILS(set.set(20000), Win32Code(774), kFull20000);  // the attempt has grown it
  EXPECT_FAILS(set.clr(20000), Win32Code(774), kOutside20000);
  EXPECT_FAILS(set.set(-1), Win32Code(774), kFull20000);
  EXPECT_FAILS(set.clr(-1), Win32Code(774), kOutside20000);
}

TEST_F(ZuFdsetTest, ClearingBetweenCapacityAndMaximumSucceeds) {
  EXPECT_OK(set.clr(9000));
  EXPECT_TRUE(set.IsInternal());
}

TEST_F(ZuFdsetTest, GrowthFailureIsReportedThenEveryUseIsABadPointer) {
  Fill(set, {1});
  Lose(set);
  EXPECT_FAILS(set.set(1), Win32Code(774), "Bad fdset pointer passed to 'set' routine");
  EXPECT_FAILS(set.clr(1), Win32Code(774), "Bad fdset pointer passed to 'clr' routine");
  EXPECT_EQ(set.get_fdsetp(), nullptr);
  EXPECT_FALSE(set.reserve(1));
  set.zero();
  EXPECT_EQ(set.get_fdsetp(), nullptr);
  ASSERT_OK(set.init());
  EXPECT_OK(set.set(9000));
}

TEST_F(ZuFdsetTest, FailureCarriesTheSignatureOfItsFunction) {
  ZuFdset::maxsock_set(0);
  EXPECT_FAILS(set.set(8192), Win32Code(774), "ZuFdset::set(KDSOCKET)");
  EXPECT_FAILS(set.clr(8192), Win32Code(774), "ZuFdset::clr(KDSOCKET)");
  EXPECT_FAILS(set.set(8192), Win32Code(774), "ZuFdset.cpp");
}

// ---- Copying ----

TEST_F(ZuFdsetTest, RefreshCopiesAsAssignmentDoes) {
  const struct {
    Fds before;
    Fds other;
  } rows[] = {
      {{}, {}},          {{5}, {}},      {{}, {5}},
      {{8191}, {0}},     {{0}, {8191}},  {{1, 63, 64, 700}, {2, 64}},
      {{700}, {1, 63}},  {{127}, {128}}, {{9000}, {19999, 1}},
      {{19999}, {9000}},
  };
  for (const auto& row : rows) {
    OpenSet copy;
    OpenSet other;
    copy.zero();
    other.zero();
    Fill(copy, row.before);
    Fill(other, row.other);
    EXPECT_TRUE(copy.refresh(other));
    EXPECT_EQ(Members(copy), Members(other));
    EXPECT_EQ(copy.get_maxfd(), other.get_maxfd());
    EXPECT_TRUE(copy.refresh(copy)) << "to itself";
    EXPECT_EQ(Members(copy), Members(other));
  }
}

TEST_F(ZuFdsetTest, RefreshLeavesSetsOfAnotherCapacity) {
  OpenSet small;
  Fill(small, {1});
  OpenSet large;
  Fill(large, {9000});
  OpenSet unused;
  OpenSet lost;
  Fill(lost, {1});
  Lose(lost);
  for (OpenSet* const other : {&large, &unused, &lost}) {
    EXPECT_FALSE(small.refresh(*other));
    EXPECT_FALSE(other->refresh(small));
  }
  EXPECT_EQ(Members(small), Fds{1});
  EXPECT_EQ(Members(large), Fds{9000});
  EXPECT_FALSE(unused.isInitialize);
}

TEST_F(ZuFdsetTest, NextFindsTheLowestFromHereToThere) {
  EXPECT_EQ(set.next(0, 8191), -1);
  Fill(set, {0, 63, 64, 200, 8191});
  const struct {
    int first;
    int last;
    int found;
  } rows[] = {
      {0, 8191, 0},           {0, 0, 0},         {1, 8191, 63},        {1, 62, -1},
      {63, 63, 63},           {64, 64, 64},      {65, 199, -1},        {65, 200, 200},
      {201, 8190, -1},        {201, 8191, 8191}, {201, INT_MAX, 8191}, {8192, INT_MAX, -1},
      {INT_MAX, INT_MAX, -1}, {5, 4, -1},        {0, -1, -1},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(set.next(row.first, row.last), row.found) << row.first << " to " << row.last;
  }
  Fill(set, {19999});
  EXPECT_EQ(set.next(8192, INT_MAX), 19999);
  ZuFdset lost;
  Fill(lost, {1});
  Lose(lost);
  EXPECT_EQ(lost.next(0, 8191), -1);
}

TEST_F(ZuFdsetTest, CopyOfAnUnusedSetIsUnused) {
  const OpenSet unused;
  const OpenSet copy(unused);
  EXPECT_FALSE(copy.isInitialize);
  Fill(set, {1, 9000});
  set = unused;
  EXPECT_FALSE(set.isInitialize);
  EXPECT_EQ(Members(set), Fds{});  // used again from here on
  OpenSet other;
  other = unused;
  EXPECT_FALSE(other.isInitialize);
}

TEST_F(ZuFdsetTest, CopyHoldsAsMuchAsTheOriginalHoldsNow) {
  Fill(set, {1, 100});
  OpenSet small(set);
  EXPECT_EQ(Members(small), (Fds{1, 100}));
  EXPECT_EQ(small.get_maxfd(), 100);
  EXPECT_EQ(small.fdset.max_sock_cnt, 8192u);  // although the original may grow
  EXPECT_TRUE(small.IsInternal());
  EXPECT_FAILS(small.set(9000), Win32Code(774), kFull8192);

  Fill(set, {9000});
  ZuFdset::maxsock_set(0);  // without a say in copies
  OpenSet large(set);
  EXPECT_EQ(Members(large), (Fds{1, 100, 9000}));
  EXPECT_EQ(large.fdset.max_sock_cnt, 20000u);
  EXPECT_EQ(large.fdset.sock_cnt, 20000u);
  EXPECT_NE(large.fdset.set, set.fdset.set);
}

TEST_F(ZuFdsetTest, CopiesAreIndependent) {
  Fill(set, {1, 9000});
  OpenSet copy(set);
  Fill(copy, {2});
  EXPECT_OK(copy.clr(9000));
  EXPECT_EQ(Members(set), (Fds{1, 9000}));
  EXPECT_EQ(Members(copy), (Fds{1, 2}));
}

TEST_F(ZuFdsetTest, AssigningToALargeEnoughSetKeepsItsStorageAndMaximum) {
  OpenSet small;
  Fill(small, {7});
  Fill(set, {9000});
  const auto* const storage = set.fdset.set;
  set = small;
  EXPECT_EQ(set.fdset.set, storage);
  EXPECT_EQ(set.fdset.sock_cnt, 8192u);
  EXPECT_EQ(set.fdset.max_sock_cnt, 20000u);
  EXPECT_EQ(Members(set), Fds{7});
  EXPECT_EQ(set.get_maxfd(), 7);
  EXPECT_FAILS(set.set(9000), Win32Code(774), kFull8192);
}

TEST_F(ZuFdsetTest, AssigningToAnInternalSetKeepsItsMaximum) {
  OpenSet small;
  Fill(small, {7});
  Fill(set, {1});
  set = small;
  EXPECT_TRUE(set.IsInternal());
  EXPECT_EQ(Members(set), Fds{7});
  EXPECT_OK(set.set(9000));
}

TEST_F(ZuFdsetTest, AssigningToASmallerSetReallocatesIt) {
  OpenSet large;
  ZuFdset::maxsock_set(12000);
  Fill(large, {9000});
  ZuFdset::maxsock_set(20000);
  Fill(set, {3});
  set = large;
  EXPECT_EQ(Members(set), Fds{9000});
  EXPECT_EQ(set.get_maxfd(), 9000);
  EXPECT_EQ(set.fdset.sock_cnt, 12000u);
  EXPECT_EQ(set.fdset.max_sock_cnt, 12000u);
}

TEST_F(ZuFdsetTest, AssigningToASmallerGrownSetReleasesItsBlock) {
  ZuFdset::maxsock_set(12000);
  Fill(set, {9000});
  ZuFdset::maxsock_set(20000);
  OpenSet large;
  Fill(large, {15000});
  set = large;
  EXPECT_EQ(Members(set), Fds{15000});
  EXPECT_EQ(set.fdset.sock_cnt, 20000u);
}

TEST_F(ZuFdsetTest, AssigningToAnUnusedSetMakesACopy) {
  OpenSet original;
  Fill(original, {5, 9000});
  set = original;
  EXPECT_TRUE(set.isInitialize);
  EXPECT_EQ(Members(set), (Fds{5, 9000}));
  EXPECT_EQ(set.fdset.max_sock_cnt, 20000u);
}

TEST_F(ZuFdsetTest, AssigningToItselfChangesNothing) {
  Fill(set, {5, 9000});
  const auto* const storage = set.fdset.set;
  const ZuFdset& same = set;
  set = same;
  EXPECT_EQ(set.fdset.set, storage);
  EXPECT_EQ(Members(set), (Fds{5, 9000}));
  OpenSet unused;
  const ZuFdset& alsoUnused = unused;
  unused = alsoUnused;
  EXPECT_FALSE(unused.isInitialize);
}

TEST_F(ZuFdsetTest, AssigningASetWithoutStorageKeepsWhatIsThere) {
  OpenSet lost;
  Fill(lost, {7});
  Lose(lost);
  Fill(set, {1});
  set = lost;
  EXPECT_EQ(Members(set), Fds{1});
  OpenSet copy(lost);
  EXPECT_TRUE(copy.isInitialize);
  EXPECT_EQ(Members(copy), Fds{});
}

TEST_F(ZuFdsetTest, CopyWithoutMemoryHasNoStorage) {
  Fill(set, {9000});
  std::unique_ptr<OpenSet> copy;
  {
    const heap::Failing noMemory(heap::kCalloc);
    copy = std::make_unique<OpenSet>(set);
  }
  EXPECT_TRUE(copy->isInitialize);
  EXPECT_FAILS(copy->set(1), Win32Code(774), "Bad fdset pointer passed to 'set' routine");
}

// ---- Reserving ----

TEST_F(ZuFdsetTest, ReservingChangesNoBit) {
  Fill(set, {3});
  EXPECT_TRUE(set.reserve(3));
  EXPECT_TRUE(set.reserve(8191));
  EXPECT_TRUE(set.IsInternal());
  EXPECT_TRUE(set.reserve(9000));
  EXPECT_FALSE(set.IsInternal());
  EXPECT_EQ(Members(set), Fds{3});
  EXPECT_EQ(set.get_maxfd(), 3);
  EXPECT_FALSE(set.reserve(20000));
  EXPECT_FALSE(set.reserve(-1));
}

TEST_F(ZuFdsetTest, ReserveKnowsTheHeapBlockBehindASmallerCapacity) {
  ZuFdset small;
  Fill(small, {1});
  Fill(set, {9000});
  set = small;
  EXPECT_TRUE(set.reserve(19999));
  EXPECT_FALSE(set.reserve(20000));
  EXPECT_EQ(Members(set), Fds{1});
  EXPECT_EQ(set.fdset.set[9000 / 64], 0u) << "what was a member before the copy is none for select";
}

}  // namespace
