#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <list>
#include <string>
#include <vector>

#include "ZuNetwork/ZuIPAddr.h"
#include "ZuNetwork/ZuNetworkExport.h"
#include "ZuUtils/ZuError.h"
#include "ZuUtils/ZuString.h"

// One address with what is held against it.
struct CZuIPAddrBlacklistNode {
  CZuIPAddr m_addr;
  CZuString m_name;             // a name or reason, from when the entry was made
  unsigned m_attempts = 0;      // from 1 up to the grace count
  std::time_t m_timeAdded = 0;  // of the last attempt; every forgiven attempt moves it on
};

// A line of a blacklist file that added no address.
struct CZuIPAddrBlacklistSkippedLine {
  unsigned long m_number = 0;  // from 1
  std::string m_text;          // as it stands in the file, control characters and all
  CZuError m_reason;           // what the resolver said of it
};

// Addresses to be shunned, for instance after failed attempts to log in. Each attempt counts; an
// address is blacklisted once its attempts reach the grace count. With an expiration time, one
// attempt is forgiven for each such period since the last one, and an entry without attempts is
// gone. All this happens when the address is asked for, by the wall clock.
//
// Addresses are told apart by family and address, not by port. Adding and asking take the same time
// however long the list is, also where strangers choose the addresses: they are found by a hash
// with a key that each object draws for itself. Used by one thread at a time, also for asking.
class ZUNETWORK_API CZuIPAddrBlacklist {
 public:
  CZuIPAddrBlacklist();  // empty, never forgives, grace count 1
  ~CZuIPAddrBlacklist();
  CZuIPAddrBlacklist(const CZuIPAddrBlacklist&) = delete;
  CZuIPAddrBlacklist& operator=(const CZuIPAddrBlacklist&) = delete;

  // The period in seconds; 0 and below: no attempt is forgiven.
  void SetExpirationTime(int seconds);

  // Counts that are there stay until the next attempt.
  void SetGraceAttempts(unsigned int attempts);

  // Counts an attempt, up to the grace count, or adds the address with count 1. The name of an
  // entry that exists stays. Does not fail.
  CZuError AddAddressToBlacklist(const CZuIPAddr& addr, const CZuString& name);
  CZuError AddAddressToBlacklist(const CZuIPAddr& addr);

  // Whether the address is blacklisted. Name and count (each may be null) are those of the entry,
  // also when its count is below the grace count; empty and 0 without one.
  bool IsAddressBlacklisted(const CZuIPAddr& addr, CZuString* name, unsigned int* attempts);

  // Enumerate the entries in the order of their addition. Pointers may be null. `timeAdded` is in
  // seconds since 1970; `timeRemaining` is the time to the next forgiven attempt, 0 when one is
  // overdue and -1 when none will be. Nothing is forgiven here. After the last entry, before the
  // first call of GetFirst and after the entry that would be next is gone: ErrorWin32 259 "End of
  // blacklist reached", and nothing is written.
  CZuError GetFirstBlacklistEntry(CZuIPAddr& addr, CZuString* name, unsigned int* attempts,
                                  std::time_t* timeAdded, std::time_t* timeRemaining);
  CZuError GetNextBlacklistEntry(CZuIPAddr& addr, CZuString* name, unsigned int* attempts,
                                 std::time_t* timeAdded, std::time_t* timeRemaining);

  // Adds every address of a text file with a host name or numeric address on each line, each
  // resolved in turn. Nothing is stripped but the line feed; empty lines and what does not resolve
  // are skipped. A line feed at the end of the file makes the last line count twice. Lines above
  // 1023 characters fall into pieces.
  //   ErrorWin32 errno  "Failed to open file, FileName=%s" or "Failed to read file, FileName=%s"
  //   ErrorWin32 14     no memory for the line
  //   ErrorWin32 87     "Null parameter passed"
  // Addresses that were read before a failure stay.
  CZuError LoadBlacklistFromFile(const char* fileName);

  // The same, and appends every line that added no address to `skipped`, in the order of the file,
  // each once: the rest is listed all the same, and a program that must not run with half a list
  // looks here. Empty lines are not among them. A line above 1023 characters is several with the
  // same number.
  CZuError LoadBlacklistFromFile(const char* fileName,
                                 std::vector<CZuIPAddrBlacklistSkippedLine>& skipped);

 protected:
  using Entries = std::list<CZuIPAddrBlacklistNode>;

  // A place of the index, empty while the hash is 0. The iterator is kept as its bytes, which need
  // no alignment: a third of the index would be padding else.
  struct Slot {
    std::uint32_t hash = 0;
    std::array<unsigned char, sizeof(Entries::iterator)> entry{};

    Entries::iterator Entry() const {
      Entries::iterator iterator;
      std::memcpy(&iterator, entry.data(), sizeof iterator);
      return iterator;
    }
  };

  using Key = std::array<std::uint64_t, 3>;

  int m_expirationTime = 0;
  unsigned m_graceAttempts = 1;
  Entries m_blacklist;
  Entries::iterator m_blacklistIterator = m_blacklist.end();  // what GetNext returns next
  std::vector<Slot> m_index = std::vector<Slot>(2);           // a power of two; never full
  Key m_key;

 private:
  ZUNETWORK_LOCAL bool ForgiveAttempts(Entries::iterator entry);
  ZUNETWORK_LOCAL void Remove(Slot& slot);
  ZUNETWORK_LOCAL Slot& FindSlot(const CZuIPAddr& addr, std::uint32_t hash);
  ZUNETWORK_LOCAL void MakeRoomInIndex();
  ZUNETWORK_LOCAL CZuError AddAllAddressesOf(const FXCodeLocation& where, const char* hostName);
  ZUNETWORK_LOCAL CZuError Load(const FXCodeLocation& where, const char* fileName,
                                std::vector<CZuIPAddrBlacklistSkippedLine>* skipped);
};
