#include "ZuNetwork/ZuSockInit.h"

#include "ZuNetwork/ZuSocket.h"
#include "support/Expect.h"

namespace {

// Shows whether anything was noted down.
class OpenSockInit : public CZuSockInit {
 public:
  bool IsDone() const { return m_InitDone; }
};

TEST(ZuSockInit, InitSucceedsAnyNumberOfTimesAndChangesNothing) {
  OpenSockInit init;
  EXPECT_FALSE(init.IsDone());
  for (int round = 0; round < 3; ++round) {
    const CZuError error = init.Init();
    EXPECT_OK(error);
    EXPECT_EQ(error.m_hrErrorCode, 0);
    EXPECT_FALSE(init.IsDone());
  }
  init.CleanUp();
  init.CleanUp();
  EXPECT_FALSE(init.IsDone());
}

TEST(ZuSockInit, SocketsWorkWhatever) {
  CZuSocket first;
  CZuSocket second;
  ASSERT_OK(CZuSocket::CreateSocketPair(&first, &second)) << "before any start";
  {
    CZuSockInit init;
    ASSERT_OK(init.Init());
  }
  CZuSockInit init;
  init.CleanUp();
  EXPECT_OK(first.Send("x", 1, 0, nullptr)) << "after the end";
  first.Close();
  second.Close();
}

}  // namespace
