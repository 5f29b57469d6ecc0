#pragma once

#include <sys/socket.h>

#include <cstdlib>

#include "ZuNetwork/ZuSocket.h"

// Two connected sockets.
class Pair {
 public:
  Pair() {
    if (Failed(CZuSocket::CreateSocketPair(&left, &right))) std::abort();
    for (CZuSocket* const end : {&left, &right}) {
      if (Failed(end->SetToBlocking()) || Failed(end->NagleOff())) std::abort();
      // Room for all that is sent before the other end takes it.
      for (const int buffer : {SO_SNDBUF, SO_RCVBUF}) {
        int size = 1 << 18;
        const auto value = reinterpret_cast<char*>(&size);
        if (Failed(end->SetSockOpt(SOL_SOCKET, buffer, value, sizeof size))) std::abort();
      }
    }
  }
  ~Pair() {
    left.Close();
    right.Close();
  }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;

  CZuSocket left;
  CZuSocket right;
};
