#include "zu/Resolve.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <utility>

#include "zu/internal/Bytes.h"
#include "zu/internal/Wait.h"

namespace zu {

// What caller and thread share; the last one out frees it, and closes the descriptor that the
// thread writes to. The thread touches nothing else of the program, not even a CZuIPAddr: it may
// still run while the program exits.
struct Lookup::State {
  std::string name;  // to look up, or what came of a reverse lookup
  CZuIPAddr::IP_FAMILY family = CZuIPAddr::FAMILY_ANY;
  sockaddr_in6 address{};  // of a reverse lookup, if `length` is not 0; IPv4 fits too
  socklen_t length = 0;
  std::string asked;         // for messages
  pid_t process = getpid();  // the thread is there alone
  int descriptor = -1;

  std::atomic<bool> isDone{false};  // what follows is the thread's before, the caller's then
  int result = 0;
  int err = 0;
  addrinfo* list = nullptr;

  State() = default;
  ~State() {
    if (list != nullptr) freeaddrinfo(list);
    if (descriptor >= 0) close(descriptor);
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  static CZuError Begin(const std::shared_ptr<State>& state);  // starts the thread
  CZuError Await(const Deadline& deadline) const;

 private:
  static void* Run(void* argument);
  void Work();
};

namespace {

constexpr std::uint32_t kMostLookups = 256;
// Modules of the resolver use the stack freely.
constexpr std::size_t kStackSize = std::size_t{512} * 1024;
constexpr std::size_t kLongestName = NI_MAXHOST - 1;

// How many threads run: the count in the low half, and the process that it is of in the high one,
// since a child after fork has none of them.
std::atomic<std::uint64_t> gRunning{0};

std::uint64_t ThisProcess() { return static_cast<std::uint64_t>(getpid()) << 32; }

bool TakePlace() {
  const std::uint64_t process = ThisProcess();
  std::uint64_t seen = gRunning.load();
  for (;;) {
    const std::uint64_t count = (seen >> 32 << 32) == process ? seen & 0xFFFFFFFF : 0;
    if (count >= kMostLookups) return false;
    if (gRunning.compare_exchange_weak(seen, process | (count + 1))) return true;
  }
}

// The process may have forked since, and then counts anew.
void LeavePlace() {
  const std::uint64_t process = ThisProcess();
  std::uint64_t seen = gRunning.load();
  while ((seen >> 32 << 32) == process && (seen & 0xFFFFFFFF) != 0) {
    if (gRunning.compare_exchange_weak(seen, seen - 1)) return;
  }
}

// Starts a detached thread that no signal is delivered to. Returns 0 or an errno value.
int StartThread(void* (*run)(void*), void* argument) {
  sigset_t all;
  sigset_t old;
  sigfillset(&all);
  pthread_attr_t attributes;
  int err = pthread_attr_init(&attributes);
  if (err != 0) return err;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, kStackSize);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  pthread_t thread;
  err = pthread_create(&thread, &attributes, run, argument);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  pthread_attr_destroy(&attributes);
  return err;
}

bool IsCollision(const CZuIPAddr& address) { return Unmapped(address) == CZuIPAddr::m_DummyIp; }

CZuError Collision(const FXCodeLocation& where, const std::string& name) {
  return FXErrorUtil::ErrorWin32(where, kErrorNameCollision, "DNS name collision occured: [%s]",
                                 name.c_str());
}

// Whether the C library would take the text for an IPv4 address.
bool IsOldForm(const std::string& name) {
  in_addr address{};
  return inet_aton(name.c_str(), &address) != 0;
}

// A numeric text is answered at once: 0 with the address, or what is wrong with it. What is none
// stays EAI_AGAIN.
int AnswerNumeric(std::string_view text, CZuIPAddr::IP_FAMILY family, CZuIPAddr& address) {
  if (text.empty() || text.size() > kLongestName) return EAI_NONAME;
  if (text.find('\0') != std::string_view::npos) return EAI_NONAME;
  if (!Failed(ParseAddress(text, address))) {
    const bool fits = family == CZuIPAddr::FAMILY_ANY || family == address.m_Addr.addr.f.family;
    return fits ? 0 : EAI_ADDRFAMILY;
  }
  return IsOldForm(std::string(text)) ? EAI_NONAME : EAI_AGAIN;
}

bool IsKnown(CZuIPAddr::IP_FAMILY family) {
  return family == CZuIPAddr::FAMILY_ANY || family == CZuIPAddr::FAMILY_IPV4 ||
         family == CZuIPAddr::FAMILY_IPV6;
}

// `err` is the errno value of EAI_SYSTEM. ETIMEDOUT and ECANCELED are for the deadline.
CZuError ResolverError(const FXCodeLocation& where, int result, int err, const std::string& name) {
  int number = result == EAI_SYSTEM && err != 0 ? err : result;
  if (number == ETIMEDOUT || number == ECANCELED) number = EAI_AGAIN;
  return FXErrorUtil::ErrorErrNo(where, number, "Lookup of [%s]", name.c_str());
}

// Each address once, in the list's order.
std::vector<CZuIPAddr> Collect(const addrinfo* list) {
  std::vector<CZuIPAddr> addresses;
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family != AF_INET && entry->ai_family != AF_INET6) continue;
    CZuIPAddr address = internal::NoAddress();
    std::memcpy(&address.m_Addr, entry->ai_addr,
                entry->ai_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
    ZUNET_setport(&address.m_Addr, 0);
    const EndpointEqual equal;
    const auto isSame = [&](const CZuIPAddr& other) { return equal(address, other); };
    if (std::none_of(addresses.begin(), addresses.end(), isSame)) addresses.push_back(address);
  }
  return addresses;
}

}  // namespace

void Lookup::State::Work() {
  if (length != 0) {
    char text[NI_MAXHOST] = "";
    result = getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, text, sizeof text,
                         nullptr, 0, NI_NAMEREQD);
    name = text;
  } else {
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;  // else each address comes three times
    result = getaddrinfo(name.c_str(), nullptr, &hints, &list);
  }
  err = result == EAI_SYSTEM ? errno : 0;  // errno is this thread's own
  LeavePlace();                            // before anybody can know, who may start the next
  isDone.store(true, std::memory_order_release);
  const std::uint64_t one = 1;
  (void)!write(descriptor, &one, sizeof one);
}

void* Lookup::State::Run(void* argument) {
  auto* const shared = static_cast<std::shared_ptr<State>*>(argument);
  (*shared)->Work();
  delete shared;
  return nullptr;
}

CZuError Lookup::State::Begin(const std::shared_ptr<State>& state) {
  state->descriptor = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (state->descriptor < 0) {
    return FXErrorUtil::ErrorErrNo(ZU_HERE, errno, "Lookup of [%s]", state->asked.c_str());
  }
  if (!TakePlace()) {
    return FXErrorUtil::ErrorErrNo(ZU_HERE, EAGAIN, "Lookup of [%s]: %u are still unanswered",
                                   state->asked.c_str(), kMostLookups);
  }
  auto shared = std::make_unique<std::shared_ptr<State>>(state);
  const int err = StartThread(&State::Run, shared.get());
  if (err != 0) {
    LeavePlace();
    return FXErrorUtil::ErrorErrNo(ZU_HERE, err, "Thread for the lookup of [%s]",
                                   state->asked.c_str());
  }
  (void)shared.release();  // NOLINT(bugprone-unused-return-value): it is the thread's
  return {};
}

CZuError Lookup::State::Await(const Deadline& deadline) const {
  if (internal::IsStopRequested(deadline)) {
    return internal::MakeError(ZU_HERE, ECANCELED, "Lookup of [" + asked + "]");
  }
  if (isDone.load(std::memory_order_acquire)) return {};
  const int waited = internal::WaitFor(descriptor, POLLIN, deadline);
  if (waited == ETIMEDOUT && deadline.IsNow()) return internal::NotAtOnce();
  if (waited != 0) return internal::MakeError(ZU_HERE, waited, "Lookup of [" + asked + "]");
  (void)isDone.load(std::memory_order_acquire);  // what the thread wrote before is seen from here
  return {};
}

Lookup::Lookup() noexcept = default;
Lookup::~Lookup() = default;
Lookup::Lookup(Lookup&& other) noexcept = default;
Lookup& Lookup::operator=(Lookup&& other) noexcept = default;

CZuError Lookup::Start(std::string_view name, CZuIPAddr::IP_FAMILY family) {
  m_state.reset();
  if (!IsKnown(family)) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, "Not a family: %d", family);
  }
  const auto state = std::make_shared<State>();
  state->asked = internal::Printable(name);
  CZuIPAddr address = internal::NoAddress();
  const int numeric = AnswerNumeric(name, family, address);
  if (numeric == EAI_AGAIN) {
    state->name = name;
    state->family = family;
    CZuError error = State::Begin(state);
    if (Failed(error)) return error.Push(ZU_HERE);
  } else if (numeric != 0) {
    return ResolverError(ZU_HERE, numeric, 0, state->asked);
  } else {
    state->descriptor = eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC);
    if (state->descriptor < 0) return ResolverError(ZU_HERE, EAI_SYSTEM, errno, state->asked);
    std::memcpy(&state->address, &address.m_Addr, sizeof state->address);
    state->length = internal::Length(address);
    state->isDone = true;
  }
  m_state = state;
  return {};
}

int Lookup::GetDescriptor() const noexcept { return m_state ? m_state->descriptor : -1; }

CZuError Lookup::Finish(Deadline deadline, std::vector<CZuIPAddr>& addresses) {
  if (!m_state || m_state->process != getpid()) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState, "No lookup is started");
  }
  CZuError error = m_state->Await(deadline);
  if (Failed(error)) return error;
  const auto state = std::exchange(m_state, nullptr);
  if (state->result != 0) return ResolverError(ZU_HERE, state->result, state->err, state->asked);
  std::vector<CZuIPAddr> found = Collect(state->list);
  if (state->length != 0) found.emplace_back(state->address);
  if (found.empty()) return ResolverError(ZU_HERE, EAI_NODATA, 0, state->asked);
  if (std::any_of(found.begin(), found.end(), IsCollision)) {
    return Collision(ZU_HERE, state->asked);
  }
  addresses = std::move(found);
  return {};
}

CZuError Resolve(std::string_view name, CZuIPAddr::IP_FAMILY family, Deadline deadline,
                 std::vector<CZuIPAddr>& addresses) {
  Lookup lookup;
  CZuError error = lookup.Start(name, family);
  if (!Failed(error)) error = lookup.Finish(deadline, addresses);
  return error;
}

CZuError ResolveName(const CZuIPAddr& address, Deadline deadline, std::string& name) {
  const CZuIPAddr plain = Unmapped(address);
  if (!internal::IsV4(plain) && !internal::IsV6(plain)) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, "An address without a family");
  }
  const auto state = std::make_shared<Lookup::State>();
  state->asked = Format(plain);
  std::memcpy(&state->address, &plain.m_Addr, sizeof state->address);
  state->length = internal::Length(plain);
  CZuError error = Lookup::State::Begin(state);
  if (!Failed(error)) error = state->Await(deadline);
  if (Failed(error)) return error;
  if (state->result != 0) return ResolverError(ZU_HERE, state->result, state->err, state->asked);
  name = state->name;
  return {};
}

}  // namespace zu
