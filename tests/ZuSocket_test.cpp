#include "ZuNetwork/ZuSocket.h"

#include <cerrno>

#include "support/Expect.h"

namespace {

class ZuSocketPair : public testing::Test {
 protected:
  ZuSocketPair() { EXPECT_OK(CZuSocket::CreateSocketPair(&first, &second)); }
  ~ZuSocketPair() override {
    first.Close();
    second.Close();
  }
  CZuSocket first;
  CZuSocket second;
  char buffer[16]{};
  int count = -1;
  int timedOut = -1;
};

TEST_F(ZuSocketPair, PassesBytesBothWays) {
  EXPECT_FAILS(first.Recv(buffer, 1, 0, &count), ErrNoCode(EAGAIN), "Recv");
  ASSERT_OK(first.Send("ping", 4, 0, &count));
  ASSERT_OK(second.RecvWithTimeout(buffer, 4, 5, &timedOut, 0, nullptr));
  EXPECT_STREQ(buffer, "ping");
  ASSERT_OK(second.SendWithTimeOut("pong", 4, 5, &timedOut, 0, &count));
  ASSERT_OK(first.RecvWithTimeout(buffer, 4, 5, &timedOut, 0, &count));
  EXPECT_STREQ(buffer, "pong");
}

TEST_F(ZuSocketPair, ShortStreamIsAShutdown) {
  ASSERT_OK(first.Send("ping", 4, 0, &count));
  first.Close();
  ASSERT_OK(second.SetToBlocking());
  EXPECT_FAILS(second.Recv(buffer, 10, 0, &count), Win32Code(774), "Socket shutdown detected");
  EXPECT_EQ(count, 4);
  EXPECT_FAILS(second.RecvWithTimeout(buffer, 1, 0, nullptr, 0, &count), Win32Code(87),
               "pnTimedOut is NULL");
}

TEST_F(ZuSocketPair, SilenceTimesOut) {
  EXPECT_FAILS(second.RecvWithTimeout(buffer, 1, 1, &timedOut, 0, &count), Win32Code(774),
               "Socket receive timed out");
  EXPECT_EQ(timedOut, 1);
}

TEST(ZuSocket, AcceptTimesOutAndThenAccepts) {
  CZuIPAddr address;
  ASSERT_OK(address.SetAddressString("127.0.0.1"));
  CZuSocket listener;
  ASSERT_OK(listener.Bind(address));
  ASSERT_OK(listener.Listen(1));
  ASSERT_OK(listener.GetLocalAddress(address));
  CZuSocket accepted;
  int timedOut = -1;
  EXPECT_FAILS(listener.AcceptWithTimeout(accepted, 0, nullptr), Win32Code(87),
               "pnTimedOut is NULL");
  EXPECT_FAILS(listener.AcceptWithTimeout(accepted, 1, &timedOut), ErrNoCode(ETIME),
               "no connection request received from client within the timeout 1");
  EXPECT_EQ(timedOut, 1);
  CZuSocket client;
  ASSERT_OK(client.Connect(address));
  ASSERT_OK(listener.AcceptWithTimeout(accepted, 1, &timedOut));
  EXPECT_EQ(timedOut, 0);
  EXPECT_STREQ(accepted.GetLocalAddressString().c_str(), "127.0.0.1");
  for (CZuSocket* socket : {&listener, &accepted, &client}) socket->Close();
}

TEST(ZuSocket, DatagramsGoToTheAddressAndBringTheSender) {
  CZuIPAddr address;
  ASSERT_OK(address.SetAddressString("127.0.0.1"));
  CZuSocket receiver(address);
  ASSERT_OK(receiver.DgramSocket(address));
  ASSERT_OK(receiver.Bind(address));
  ASSERT_OK(receiver.GetLocalAddress(address));
  CZuSocket sender(address);
  ASSERT_OK(sender.DgramSocket(address));
  char buffer[16]{};
  int count = -1;
  int timedOut = -1;
  ASSERT_OK(sender.SendtoICMPSocket("ping", 4, 1, &timedOut, 0, &count));
  EXPECT_EQ(count, 4);
  ASSERT_OK(sender.SendtoICMPSocket("ping", 4, 0, nullptr, 0, nullptr));
  ASSERT_OK(receiver.RecvfromICMPSocket(buffer, sizeof buffer, 1, &timedOut, 0, &count));
  EXPECT_STREQ(buffer, "ping");
  EXPECT_EQ(count, 4);
  ASSERT_OK(sender.GetLocalAddress(address));
  EXPECT_EQ(receiver.GetAddress().GetPortNumber(), address.GetPortNumber());
  ASSERT_OK(receiver.RecvfromICMPSocket(buffer, sizeof buffer, 0, nullptr, 0, &count));
  EXPECT_FAILS(receiver.RecvfromICMPSocket(buffer, sizeof buffer, 1, &timedOut, 0, &count),
               Win32Code(774), "Socket receive timed out");
  EXPECT_EQ(timedOut, 1);
  sender.Close();
  receiver.Close();
}

TEST(ZuSocket, EmptyObjectSaysSo) {
  CZuSocket empty;
  EXPECT_FALSE(empty == empty);
  EXPECT_OK(empty.Shutdown(2));
  EXPECT_FAILS(empty.Send("", 0, 0, nullptr), Win32Code(774), "Not a valid socket");
  EXPECT_FAILS(empty.Listen(1), Win32Code(774), "Not a bound socket");
  EXPECT_FAILS(empty.Accept(empty), Win32Code(774), "Not a listening socket");
  EXPECT_EQ(CZuSocket::m_DummyObj.GetDescriptor(), -1);
}

}  // namespace
