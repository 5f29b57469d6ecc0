#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "zu/Address.h"
#include "zu/Deadline.h"

// Names to addresses and back, within a deadline.
//
// The system's resolver cannot be interrupted, so each name that is being looked up has a thread of
// its own, with all signals blocked; numeric texts have none. Where the deadline passes first, the
// thread is left alone: it ends when the resolver gives up, and harms nothing until then, neither
// when the program exits nor in a child after fork(2). At most 256 threads run at a time.
//
// Errors name the host. ErrorErrNo with
//   EAI_*       what the resolver says (getaddrinfo(3)); where it says EAI_SYSTEM, the errno value
//   EAI_NONAME  for texts that cannot be a name too: empty, longer than 1,024 bytes, with a zero
//               byte, or an address in an old form (010.0.0.1, 10.1, 0x0a000001)
//   ETIMEDOUT, ECANCELED  by the deadline; the lookup goes on and may be finished later
//   EAGAIN      256 lookups are still unanswered, or the system has no thread to give
//   EMFILE, ENFILE, ENOMEM  no descriptor for a Lookup
// ErrorWin32 4294967294 when one of the addresses is 127.0.53.53, or ::ffff:127.0.53.53, by which
// name servers tell that a private name collides with a public one: no address is given out then.
namespace zu {

// All addresses of a name (or numeric text) in the order in which to try them (RFC 6724), each
// once, with port 0, replace `addresses`. FAMILY_ANY is both families, whatever the process
// prefers. A numeric text of the other family is EAI_ADDRFAMILY.
ZU_API CZuError Resolve(std::string_view name, CZuIPAddr::IP_FAMILY family, Deadline deadline,
                        std::vector<CZuIPAddr>& addresses);

// The name that the reverse lookup of an address gives, IPv4-mapped ones as IPv4; EAI_NONAME
// without one. It is what the owner of the address put there: no proof of anything.
ZU_API CZuError ResolveName(const CZuIPAddr& address, Deadline deadline, std::string& name);

// The same for a poller: Start, watch GetDescriptor() for reading, then Finish with
// Deadline::Now(). Destroying it abandons the lookup.
class ZU_API Lookup {
 public:
  Lookup() noexcept;
  ~Lookup();
  Lookup(Lookup&& other) noexcept;
  Lookup& operator=(Lookup&& other) noexcept;

  // Abandons what was started before.
  CZuError Start(std::string_view name, CZuIPAddr::IP_FAMILY family);

  // Readable once Finish has the answer; -1 when none is started. Not to be read by others.
  int GetDescriptor() const noexcept;

  // Replaces `addresses`. Once it has given the answer or the failure, and in a child after
  // fork(2), which has not the thread, it is ErrorWin32 774 "No lookup is started".
  CZuError Finish(Deadline deadline, std::vector<CZuIPAddr>& addresses);

 private:
  friend CZuError ResolveName(const CZuIPAddr& address, Deadline deadline, std::string& name);
  struct State;
  std::shared_ptr<State> m_state;
};

}  // namespace zu
