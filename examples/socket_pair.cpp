// Two connected sockets, the portable substitute for socketpair(2), and a wait on them.
#include <ZuNetwork/ZuSocket.h>
#include <ZuNetwork/ZuSocketSelector.h>

#include <cstdio>

namespace {

CZuError Talk(CZuSocket& first, CZuSocket& second) {
  CZuError error = first.Send("hello", 5, 0, nullptr);
  if (Failed(error)) return error.Push(ZU_HERE);
  CZuSocketSelector selector;
  selector.SetReadSocket(second);
  const timeval limit{1, 0};
  bool timedOut = false;
  error = selector.Select(&limit, &timedOut);
  if (Failed(error)) return error.Push(ZU_HERE);
  if (timedOut) return FXErrorUtil::ErrorInt(ZU_HERE, kErrorBadInput, "nothing came");
  char text[6] = "";
  error = second.Recv(text, 5, 0, nullptr);
  if (Failed(error)) return error.Push(ZU_HERE);
  std::printf("%s from %s\n", text, second.GetPeerAddressString().c_str());
  return {};
}

}  // namespace

int main() {
  CZuSocket first;
  CZuSocket second;
  CZuError error = CZuSocket::CreateSocketPair(&first, &second);
  if (!Failed(error)) error = Talk(first, second);
  first.Close();
  second.Close();
  if (Failed(error)) std::fprintf(stderr, "%s\n", error.AsString().c_str());
  return Failed(error) ? 1 : 0;
}
