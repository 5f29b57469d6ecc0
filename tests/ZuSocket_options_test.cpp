#include <netinet/tcp.h>

#include <cerrno>

#include "support/SocketObjects.h"
#include "support/SystemCalls.h"

// Options, blocking modes, the read queue and shutting down.

namespace {

constexpr int kUntouched = 99;

class ZuSocketOptions : public SocketTest {};

TEST_F(ZuSocketOptions, OptionsAreReadAsTheyWereSet) {
  OwnedSocket socket;
  ASSERT_OK(socket.Socket(Address("127.0.0.1")));
  for (const int value : {1, 0}) {
    int in = value;
    ASSERT_OK(socket.SetSockOpt(SOL_SOCKET, SO_KEEPALIVE, reinterpret_cast<char*>(&in), sizeof in));
    int out[2] = {kUntouched, kUntouched};
    int length = sizeof out;
    ASSERT_OK(socket.GetSockOpt(SOL_SOCKET, SO_KEEPALIVE, reinterpret_cast<char*>(out), &length));
    EXPECT_EQ(out[0], value);
    EXPECT_EQ(out[1], kUntouched);
    EXPECT_EQ(length, static_cast<int>(sizeof(int))) << "the size of the value";
  }
}

TEST_F(ZuSocketOptions, OptionsThatTheSystemLacksAreReported) {
  OwnedSocket socket;
  ASSERT_OK(socket.Socket(Address("127.0.0.1")));
  int value = 1;
  int length = sizeof value;
  char* const bytes = reinterpret_cast<char*>(&value);
  EXPECT_FAILS(socket.SetSockOpt(IPPROTO_TCP, 9999, bytes, length), ErrNoCode(ENOPROTOOPT),
               "CZuSocket::SetSockOpt(");
  EXPECT_FAILS(socket.GetSockOpt(IPPROTO_TCP, 9999, bytes, &length), ErrNoCode(ENOPROTOOPT),
               "CZuSocket::GetSockOpt(");
  EXPECT_FAILS(socket.SetSockOpt(SOL_SOCKET, SO_KEEPALIVE, bytes, 1), ErrNoCode(EINVAL),
               "CZuSocket::SetSockOpt(");
}

TEST_F(ZuSocketOptions, NagleIsSwitchedOffAndOn) {
  OwnedSocket socket;
  ASSERT_OK(socket.Socket(Address("127.0.0.1")));
  ASSERT_OK(socket.NagleOff());
  EXPECT_EQ(OptionOf(socket, IPPROTO_TCP, TCP_NODELAY), 1);
  ASSERT_OK(socket.NagleOn());
  EXPECT_EQ(OptionOf(socket, IPPROTO_TCP, TCP_NODELAY), 0);
  OwnedSocket datagrams;
  ASSERT_OK(datagrams.DgramSocket(Address("127.0.0.1")));
  EXPECT_FAILS(datagrams.NagleOff(), ErrNoCode(ENOPROTOOPT), "CZuSocket::SetSockOpt(");
}

TEST_F(ZuSocketOptions, BlockingModeIsSwitched) {
  OwnedSocket socket;
  ASSERT_OK(socket.Socket(Address("127.0.0.1")));
  EXPECT_FALSE(IsNonBlocking(socket));
  ASSERT_OK(socket.SetToNonBlocking());
  EXPECT_TRUE(IsNonBlocking(socket));
  ASSERT_OK(socket.SetToBlocking());
  EXPECT_FALSE(IsNonBlocking(socket));
}

TEST_F(ZuSocketOptions, NonBlockingConnectIsUnderWay) {
  OwnedSocket listener;
  CZuIPAddr address;
  ASSERT_NO_FATAL_FAILURE(ListenOn("127.0.0.1", listener, address));
  OwnedSocket client;
  ASSERT_OK(client.Socket(address));
  ASSERT_OK(client.SetToNonBlocking());
  EXPECT_FAILS(client.Connect(address), ErrNoCode(EINPROGRESS), "CZuSocket::Connect(");
  OwnedSocket server;
  ASSERT_OK(listener.Accept(server));
  EXPECT_NE(client.GetDescriptor(), -1);
}

TEST_F(ZuSocketOptions, ReadQueueLengthIsWhatCanBeReadAtOnce) {
  OwnedSocket client;
  OwnedSocket server;
  ASSERT_NO_FATAL_FAILURE(ConnectOver("127.0.0.1", client, server));
  unsigned length = kUntouched;
  ASSERT_OK(server.GetReadQueueLen(&length));
  EXPECT_EQ(length, 0u);
  ASSERT_OK(client.Send("12345", 5, 0, nullptr));
  ASSERT_OK(server.GetReadQueueLen(&length));
  EXPECT_EQ(length, 5u);
  const Fault fault(system_calls::gIoctl, EIO);
  EXPECT_FAILS(server.GetReadQueueLen(&length), ErrNoCode(EIO), "CZuSocket::GetReadQueueLen(");
  EXPECT_EQ(length, 5u);
}

TEST_F(ZuSocketOptions, ShutdownOfAnEmptyObjectSucceedsWithoutACall) {
  CZuSocket empty;
  system_calls::gShutdown.ResetCalls();
  for (const int how : {int{SHUT_RD}, int{SHUT_WR}, int{SHUT_RDWR}, 77})
    EXPECT_OK(empty.Shutdown(how));
  EXPECT_EQ(system_calls::gShutdown.Calls(), 0);
}

TEST_F(ZuSocketOptions, ShutdownEndsTheDirectionItNames) {
  OwnedSocket client;
  OwnedSocket server;
  ASSERT_NO_FATAL_FAILURE(ConnectOver("127.0.0.1", client, server));
  char buffer[4]{};
  ASSERT_OK(client.Shutdown(SHUT_WR));
  EXPECT_FAILS(server.Recv(buffer, 1, 0, nullptr), Win32Code(774), "Socket shutdown detected");
  EXPECT_FAILS(client.Send("x", 1, 0, nullptr), ErrNoCode(EPIPE), "CZuSocket::Send(");
  ASSERT_OK(server.Send("back", 4, 0, nullptr));
  ASSERT_OK(client.Recv(buffer, 4, 0, nullptr));
  EXPECT_FAILS(client.Shutdown(77), ErrNoCode(EINVAL), "CZuSocket::Shutdown(");
  EXPECT_TRUE(IsOpen(client.GetDescriptor()));
}

}  // namespace
