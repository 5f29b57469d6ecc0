#include "ZuNetwork/ZuSocketSelector.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support/Expect.h"

namespace {

constexpr timeval kNow{0, 0};

class ZuSocketSelector : public testing::Test {
 protected:
  ZuSocketSelector() {
    ZuFdset::maxsock_set(20000);
    EXPECT_OK(CZuSocket::CreateSocketPair(&first, &second));
  }
  ~ZuSocketSelector() override {
    first.Close();
    second.Close();
    ZuFdset::maxsock_set(8192);
  }
  CZuSocket first;
  CZuSocket second;
  bool timedOut = false;
};

TEST_F(ZuSocketSelector, WithoutSocketsItTimesOut) {
  CZuSocketSelector selector;
  selector.SetReadSocket(CZuSocket());
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_TRUE(timedOut);
}

TEST_F(ZuSocketSelector, FindsReadableAndWritable) {
  CZuSocketSelector selector;
  selector.SetReadSocket(first);
  selector.SetReadSocket(first);
  selector.SetWriteSocket(second);
  EXPECT_TRUE(selector.GetReadSelected().empty());
  ASSERT_OK(second.Send("x", 1, 0, nullptr));
  timedOut = true;
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_FALSE(timedOut);
  EXPECT_EQ(selector.GetReadSelected().size(), 1u);
  EXPECT_EQ(selector.GetWriteSelected().size(), 1u);
  selector.ClearReadSocket(first);
  selector.ClearWriteSocket(second);
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_TRUE(timedOut);
}

TEST_F(ZuSocketSelector, WaitsOnDescriptorsAboveTheFixedBound) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur < 9001) GTEST_SKIP() << "descriptors end at " << limit.rlim_cur;
  ASSERT_EQ(dup2(first.GetDescriptor(), 9000), 9000);
  CZuSocket high;
  high.AttachConnectedSocket(9000);
  CZuSocketSelector selector;
  selector.SetWriteSocket(high);
  selector.SetReadSocket(first);
  ASSERT_OK(second.Send("x", 1, 0, nullptr));
  for (int round = 0; round < 3; ++round) {
    ASSERT_OK(selector.Select(&kNow, &timedOut));
    EXPECT_EQ(selector.GetWriteSelected().size(), 1u) << round;
    EXPECT_EQ(selector.GetReadSelected().size(), 1u) << round;
    EXPECT_TRUE(selector.GetExceptionSelected().empty()) << round;
  }
  char byte = 0;
  int timedOutFlag = -1;
  ASSERT_OK(high.RecvWithTimeout(&byte, 1, 1, &timedOutFlag, 0, nullptr));
  EXPECT_EQ(byte, 'x');
  high.Close();
}

}  // namespace
