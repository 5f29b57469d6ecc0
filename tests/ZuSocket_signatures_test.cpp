#include <gtest/gtest.h>

#include <type_traits>

#include "ZuNetwork/ZuFdset.h"
#include "ZuNetwork/ZuFdset_C.h"
#include "ZuNetwork/ZuSocket.h"
#include "ZuNetwork/ZuSocket_C.h"

// The declared types of the socket layers. Programs that were compiled against these headers find
// the functions by them, so that a change here is one of the interface.

namespace {

// Whether a function is declared exactly like this. Members take the signature without their class.
template <typename Signature, typename Function>
constexpr bool Is(Function /*function*/) {
  return std::is_same_v<Function, Signature*>;
}

template <typename Signature, typename Class, typename Function>
constexpr bool Is(Function Class::* /*function*/) {
  return std::is_same_v<Function, Signature>;
}

// Whether an overload is declared exactly like this.
template <typename Signature, typename Class>
constexpr bool Has(Signature Class::* /*function*/) {
  return true;
}

TEST(Signatures, OfTheSocketAsAValue) {
  using S = CZuSocket;
  static_assert(std::is_default_constructible_v<S> && std::is_destructible_v<S>);
  static_assert(std::is_copy_constructible_v<S> && std::is_copy_assignable_v<S>);
  static_assert(std::is_convertible_v<const CZuIPAddr&, S>);
  static_assert(std::is_convertible_v<const sockaddr_in&, S>);
  static_assert(std::is_convertible_v<const sockaddr_in6&, S>);
  static_assert(!std::is_constructible_v<S, int>, "a descriptor is attached");
  static_assert(Has<S&(const S&)>(&S::operator=));
  static_assert(Has<S&(const CZuIPAddr&)>(&S::operator=));
  static_assert(Has<S&(const sockaddr_in&)>(&S::operator=));
  static_assert(Has<S&(const sockaddr_in6&)>(&S::operator=));
  static_assert(Is<void()>(&S::Clear));
  static_assert(Is<void()>(&S::Close));
  static_assert(Has<void(int)>(&S::AttachConnectedSocket));
  static_assert(Has<void(int, const CZuIPAddr&)>(&S::AttachConnectedSocket));
  static_assert(Is<KDSOCKET() const>(&S::GetDescriptor));
  static_assert(Is<const CZuIPAddr&() const>(&S::GetAddress));
  static_assert(Is<bool(const S&) const>(&S::operator==));
  static_assert(Is<bool(const S&) const>(&S::operator<));
  static_assert(Is<void(bool)>(&S::SetFastLoopBack));
}

TEST(Signatures, OfTheOperationsOfASocket) {
  using S = CZuSocket;
  using A = CZuIPAddr;
  using E = CZuError;
  static_assert(Is<E(const A&)>(&S::Socket));
  static_assert(Is<E(const A&)>(&S::DgramSocket));
  static_assert(Is<E(const A&, A::IP_FAMILY)>(&S::ICMPSocket));
  static_assert(Is<E(const A&)>(&S::Bind));
  static_assert(Is<E(const A&)>(&S::Connect));
  static_assert(Is<E(int)>(&S::Listen));
  static_assert(Is<E(S&) const>(&S::Accept));
  static_assert(Is<E(S&, int, int*) const>(&S::AcceptWithTimeout));
  static_assert(Is<E(S*, S*)>(&S::CreateSocketPair));
  static_assert(Is<E(A&) const>(&S::GetLocalAddress));
  static_assert(Is<E(A&) const>(&S::GetPeerAddress));
  static_assert(Is<CZuString() const>(&S::GetLocalAddressString));
  static_assert(Is<CZuString() const>(&S::GetPeerAddressString));
  static_assert(Is<E(int, int, char*, int*) const>(&S::GetSockOpt));
  static_assert(Is<E(int, int, char*, int) const>(&S::SetSockOpt));
  static_assert(Is<E()>(&S::NagleOff));
  static_assert(Is<E()>(&S::NagleOn));
  static_assert(Is<E(int)>(&S::Shutdown));
  static_assert(Is<E()>(&S::SetToBlocking));
  static_assert(Is<E()>(&S::SetToNonBlocking));
  static_assert(Is<E(unsigned int*)>(&S::GetReadQueueLen));
  static_assert(Is<E(void*, int, int, int*) const>(&S::Recv));
  static_assert(Is<E(const void*, int, int, int*) const>(&S::Send));
  static_assert(Is<E(void*, int, int, int*, int, int*) const>(&S::RecvWithTimeout));
  static_assert(Is<E(const void*, int, int, int*, int, int*) const>(&S::SendWithTimeOut));
  static_assert(Is<E(const void*, int, int, int*, int, int*)>(&S::SendtoICMPSocket));
  static_assert(Is<E(const void*, int, int, int*, int, int*)>(&S::RecvfromICMPSocket));
}

TEST(Signatures, OfThePlainSocketFunctions) {
  using D = KDSOCKET;
  using A = ZUNET_SockAddr;
  static_assert(std::is_same_v<KDSOCKET, std::int32_t>);
  static_assert(Is<void(void (*)(D))>(&ZUNET_setlistencb));
  static_assert(Is<void(void (*)(D))>(&ZUNET_setclosecb));
  static_assert(Is<void(int)>(&ZUNET_SetFamilyPreference));
  static_assert(Is<int()>(&ZUNET_GetFamilyPreference));
  static_assert(Is<int(D, const A*)>(&ZUNET_bind));
  static_assert(Is<void(D)>(&ZUNET_close));
  static_assert(Is<int(D, A*)>(&ZUNET_connect));
  static_assert(Is<int(D, D*, A*)>(&ZUNET_accept));
  static_assert(Is<int(int, D*)>(&ZUNET_socket));
  static_assert(Is<int(int, D*)>(&ZUNET_dgramsocket));
  static_assert(Is<int(int, D*)>(&ZUNET_icmpsocket));
  static_assert(Is<int(D, int)>(&ZUNET_listen));
  static_assert(Is<int(D, A*)>(&ZUNET_getsockname));
  static_assert(Is<int(D, A*)>(&ZUNET_getpeername));
  static_assert(Is<int(D, int, int, char*, int*)>(&ZUNET_getsockopt));
  static_assert(Is<int(D, int, int, const char*, int)>(&ZUNET_setsockopt));
  static_assert(Is<int(D, int)>(&ZUNET_shutdown));
  static_assert(Is<int(D, int, unsigned int*)>(&ZUNET_ioctl));
  static_assert(Is<int(D, u_long, u_long)>(&ZUNET_settcpkeepaliveoptions));
  static_assert(Is<int(int, fd_set*, fd_set*, fd_set*, const timeval*, int*)>(&ZUNET_select));
  static_assert(Is<int(D, void*, int, int*, int)>(&ZUNET_recv));
  static_assert(Is<int(D, const void*, int, int*, int)>(&ZUNET_send));
  static_assert(Is<int(D, void*, int, int*, int, int*, int)>(&ZUNET_recvwithtimeout));
  static_assert(Is<int(D, const void*, int, int*, int, int*, int)>(&ZUNET_sendwithtimeout));
  static_assert(Is<int(D, A*, const void*, int, int*, int, int, int*)>(&ZUNET_sendtoicmpsocket));
  static_assert(Is<int(D, A*, const void*, int, int*, int, int, int*)>(&ZUNET_recvfromicmpsocket));
}

TEST(Signatures, OfThePlainNameFunctions) {
  using A = ZUNET_SockAddr;
  static_assert(Is<int(const char*, const char*, servent**)>(&ZUNET_getservbyname));
  static_assert(Is<int(int, const char*, servent**)>(&ZUNET_getservbyport));
  static_assert(Is<int(char*, int)>(&ZUNET_gethostname));
  static_assert(Is<int(const A*, char*, size_t)>(&ZUNET_ip2str));
  static_assert(Is<int(const char*, A*)>(&ZUNET_str2ip));
  static_assert(Is<int(const A*, char*, size_t)>(&ZUNET_ip2name));
  static_assert(Is<int(const char*, ZUNET_HostEnt*, int)>(&ZUNET_name2ip));
  static_assert(Is<void(ZUNET_HostEnt*)>(&ZUNET_freehostent));
  static_assert(Is<int(A*, A*, int, int)>(&ZUNET_addrequal));
  static_assert(Is<void(A*, int)>(&ZUNET_setport));
  static_assert(Is<int(const A*)>(&ZUNET_getport));
}

TEST(Signatures, OfTheDescriptorSets) {
  static_assert(Is<void(int)>(&kdfdset_maxsock_set));
  static_assert(Is<int()>(&kdfdset_maxsock_get));
  static_assert(Is<unsigned(int)>(&fdset_sz_bytes));
  static_assert(Is<int(int, kdfdset*)>(&kdfdset_alloc));
  static_assert(Is<void(kdfdset*)>(&kdfdset_free));
  static_assert(Is<void(kdfdset*)>(&kdfdset_zero));
  static_assert(Is<int(KDSOCKET, kdfdset*)>(&kdfdset_set));
  static_assert(Is<int(KDSOCKET, kdfdset*)>(&kdfdset_isset));
  static_assert(Is<int(KDSOCKET, kdfdset*)>(&kdfdset_clr));
  static_assert(Is<fd_set*(kdfdset*)>(&kdfdset_get_fdsetp));
  static_assert(Is<KDSOCKET(kdfdset*)>(&kdfdset_get_maxfd));
  static_assert(Is<int(kdfdset*, const kdfdset*)>(&kdfdset_copy_fdset));

  static_assert(Is<void(int)>(&ZuFdset::maxsock_set));
  static_assert(Is<int()>(&ZuFdset::maxsock_get));
  static_assert(Is<CZuError()>(&ZuFdset::init));
  static_assert(Is<void()>(&ZuFdset::zero));
  static_assert(Is<CZuError(KDSOCKET)>(&ZuFdset::set));
  static_assert(Is<CZuError(KDSOCKET)>(&ZuFdset::clr));
  static_assert(Is<int(int)>(&ZuFdset::is_set));
  static_assert(Is<fd_set*()>(&ZuFdset::get_fdsetp));
  static_assert(Is<int()>(&ZuFdset::get_maxfd));
  static_assert(Is<ZuFdset&(const ZuFdset&)>(&ZuFdset::operator=));
}

}  // namespace
