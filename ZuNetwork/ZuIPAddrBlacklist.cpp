#include "ZuNetwork/ZuIPAddrBlacklist.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <limits>
#include <memory>
#include <string_view>

namespace {

constexpr std::size_t kLineSize = 1024;

struct CloseFile {
  void operator()(FILE* file) const { std::fclose(file); }
};

std::string_view BytesOf(const void* bytes, std::size_t size) {
  return {static_cast<const char*>(bytes), size};
}

// Takes in what the comparison of addresses looks at; never 0.
std::size_t HashOf(const CZuIPAddr& addr) {
  constexpr std::size_t kUsed = ~(std::numeric_limits<std::size_t>::max() >> 1);
  const auto& views = addr.m_Addr.addr;
  const bool isV4 = views.f.family == CZuIPAddr::FAMILY_IPV4;
  return kUsed |
         std::hash<std::string_view>()(isV4 ? BytesOf(&views.v4.sin_addr, sizeof(in_addr))
                                            : BytesOf(&views.v6.sin6_addr, sizeof(in6_addr)));
}

}  // namespace

CZuIPAddrBlacklist::CZuIPAddrBlacklist() = default;

CZuIPAddrBlacklist::~CZuIPAddrBlacklist() = default;

void CZuIPAddrBlacklist::SetExpirationTime(int seconds) { m_expirationTime = seconds; }

void CZuIPAddrBlacklist::SetGraceAttempts(unsigned int attempts) { m_graceAttempts = attempts; }

CZuError CZuIPAddrBlacklist::AddAddressToBlacklist(const CZuIPAddr& addr, const CZuString& name) {
  const std::time_t now = std::time(nullptr);
  const std::size_t hash = HashOf(addr);
  MakeRoomInIndex();
  Slot& slot = FindSlot(addr, hash);
  if (slot.hash == 0) {
    m_blacklist.push_back({addr, name, 1, now});
    slot = {hash, std::prev(m_blacklist.end())};
    return {};
  }
  CZuIPAddrBlacklistNode& entry = *slot.entry;
  entry.m_timeAdded = now;
  entry.m_attempts = entry.m_attempts < m_graceAttempts ? entry.m_attempts + 1 : m_graceAttempts;
  return {};
}

CZuError CZuIPAddrBlacklist::AddAddressToBlacklist(const CZuIPAddr& addr) {
  CZuError error = AddAddressToBlacklist(addr, CZuString());
  if (Failed(error)) return error.Push(ZU_HERE);
  return {};
}

bool CZuIPAddrBlacklist::IsAddressBlacklisted(const CZuIPAddr& addr, CZuString* name,
                                              unsigned int* attempts) {
  if (name != nullptr) name->Clear();
  if (attempts != nullptr) *attempts = 0;
  Slot& slot = FindSlot(addr, HashOf(addr));
  if (slot.hash == 0) return false;
  const Entries::iterator entry = slot.entry;
  if (!ForgiveAttempts(entry)) {
    Remove(slot);
    return false;
  }
  if (name != nullptr) *name = entry->m_name;
  if (attempts != nullptr) *attempts = entry->m_attempts;
  return entry->m_attempts >= m_graceAttempts;
}

CZuError CZuIPAddrBlacklist::GetFirstBlacklistEntry(CZuIPAddr& addr, CZuString* name,
                                                    unsigned int* attempts, std::time_t* timeAdded,
                                                    std::time_t* timeRemaining) {
  m_blacklistIterator = m_blacklist.begin();
  CZuError error = GetNextBlacklistEntry(addr, name, attempts, timeAdded, timeRemaining);
  if (Failed(error)) return error.Push(ZU_HERE);
  return {};
}

CZuError CZuIPAddrBlacklist::GetNextBlacklistEntry(CZuIPAddr& addr, CZuString* name,
                                                   unsigned int* attempts, std::time_t* timeAdded,
                                                   std::time_t* timeRemaining) {
  if (m_blacklistIterator == m_blacklist.end()) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorNoMoreItems, "End of blacklist reached");
  }
  const CZuIPAddrBlacklistNode& entry = *m_blacklistIterator++;
  addr = entry.m_addr;
  if (name != nullptr) *name = entry.m_name;
  if (attempts != nullptr) *attempts = entry.m_attempts;
  if (timeAdded != nullptr) *timeAdded = entry.m_timeAdded;
  if (timeRemaining != nullptr) {
    *timeRemaining = -1;
    if (m_expirationTime > 0) {
      const std::time_t left = entry.m_timeAdded + m_expirationTime - std::time(nullptr);
      *timeRemaining = std::max<std::time_t>(left, 0);
    }
  }
  return {};
}

CZuError CZuIPAddrBlacklist::LoadBlacklistFromFile(const char* fileName) {
  if (fileName == nullptr) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, "Null parameter passed");
  }
  const std::unique_ptr<FILE, CloseFile> file(std::fopen(fileName, "rt"));
  if (!file) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, static_cast<unsigned>(errno),
                                   "Failed to open file, FileName=%s", fileName);
  }
  CZuString line;
  char* const buffer = line.AllocateBuffer(kLineSize);
  if (buffer == nullptr) return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorOutOfMemory);
  while (std::feof(file.get()) == 0) {
    // A read that finds nothing but the end leaves the line before in the buffer, which then counts
    // once more.
    const char* const text = std::fgets(buffer, kLineSize, file.get());
    if (text == nullptr && std::ferror(file.get()) != 0) {
      return FXErrorUtil::ErrorWin32(ZU_HERE, static_cast<unsigned>(errno),
                                     "Failed to read file, FileName=%s", fileName);
    }
    line.ReCalculateLength();
    line.CheckAndRemoveLastCharacter('\n');
    if (!line.IsEmpty()) AddAllAddressesOf(line.c_str());
  }
  return {};
}

// Takes off one attempt for each full period that passed. False when none is left.
bool CZuIPAddrBlacklist::ForgiveAttempts(Entries::iterator entry) {
  if (m_expirationTime <= 0) return true;
  // A period has to be over, not just complete, to count.
  const std::time_t over = (std::time(nullptr) - entry->m_timeAdded - 1) / m_expirationTime;
  if (over <= 0) return true;
  if (over >= static_cast<std::time_t>(entry->m_attempts)) return false;
  entry->m_attempts -= static_cast<unsigned>(over);
  entry->m_timeAdded += over * m_expirationTime;
  return true;
}

void CZuIPAddrBlacklist::Remove(Slot& slot) {
  if (m_blacklistIterator == slot.entry) m_blacklistIterator = m_blacklist.end();
  m_blacklist.erase(slot.entry);
  // What stands behind moves up as far as it would have been put without the entry.
  const std::size_t mask = m_index.size() - 1;
  auto hole = static_cast<std::size_t>(&slot - m_index.data());
  for (std::size_t place = After(hole); m_index[place].hash != 0; place = After(place)) {
    const std::size_t fromHome = (place - m_index[place].hash) & mask;
    if (fromHome < ((place - hole) & mask)) continue;
    m_index[hole] = m_index[place];
    hole = place;
  }
  m_index[hole] = {};
}

// The slot of the address, or the empty one where it would be.
CZuIPAddrBlacklist::Slot& CZuIPAddrBlacklist::FindSlot(const CZuIPAddr& addr, std::size_t hash) {
  std::size_t place = hash & (m_index.size() - 1);
  while (m_index[place].hash != 0) {
    const Slot& slot = m_index[place];
    if (slot.hash == hash && slot.entry->m_addr == addr) break;
    place = After(place);
  }
  return m_index[place];
}

// For one more entry.
void CZuIPAddrBlacklist::MakeRoomInIndex() {
  if (m_blacklist.size() < m_index.size() / 2) return;
  std::vector<Slot> old(2 * m_index.size());
  old.swap(m_index);
  for (const Slot& slot : old) {
    if (slot.hash == 0) continue;
    std::size_t place = slot.hash & (m_index.size() - 1);
    while (m_index[place].hash != 0) place = After(place);
    m_index[place] = slot;
  }
}

void CZuIPAddrBlacklist::AddAllAddressesOf(const char* hostName) {
  std::vector<CZuIPAddr> addresses;
  if (Failed(CZuIPAddr::GetAllByName(hostName, addresses, CZuIPAddr::FAMILY_ANY))) return;
  for (const CZuIPAddr& address : addresses) {
    (void)AddAddressToBlacklist(address);  // does not fail
  }
}
