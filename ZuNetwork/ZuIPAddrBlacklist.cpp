#include "ZuNetwork/ZuIPAddrBlacklist.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

namespace {

constexpr std::size_t kLineSize = 1024;

struct CloseFile {
  void operator()(FILE* file) const { std::fclose(file); }
};

std::string_view BytesOf(const void* bytes, std::size_t size) {
  return {static_cast<const char*>(bytes), size};
}

}  // namespace

// Takes in what the comparison of addresses looks at.
std::size_t CZuIPAddrBlacklist::AddressHash::operator()(const CZuIPAddr& addr) const {
  const auto& views = addr.m_Addr.addr;
  const bool isV4 = views.f.family == CZuIPAddr::FAMILY_IPV4;
  return std::hash<std::string_view>()(isV4 ? BytesOf(&views.v4.sin_addr, sizeof(in_addr))
                                            : BytesOf(&views.v6.sin6_addr, sizeof(in6_addr)));
}

CZuIPAddrBlacklist::CZuIPAddrBlacklist() = default;

CZuIPAddrBlacklist::~CZuIPAddrBlacklist() = default;

void CZuIPAddrBlacklist::SetExpirationTime(int seconds) { m_expirationTime = seconds; }

void CZuIPAddrBlacklist::SetGraceAttempts(unsigned int attempts) { m_graceAttempts = attempts; }

CZuError CZuIPAddrBlacklist::AddAddressToBlacklist(const CZuIPAddr& addr, const CZuString& name) {
  const std::time_t now = std::time(nullptr);
  const auto found = m_index.find(addr);
  if (found != m_index.end()) {
    CZuIPAddrBlacklistNode& entry = *found->second;
    entry.m_timeAdded = now;
    entry.m_attempts = entry.m_attempts < m_graceAttempts ? entry.m_attempts + 1 : m_graceAttempts;
    return {};
  }
  Entries added;  // becomes part of the list once the index, which may lack memory, has it
  added.push_back({addr, name, 1, now});
  m_index.emplace(addr, added.begin());
  m_blacklist.splice(m_blacklist.end(), added);
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
  const auto found = m_index.find(addr);
  if (found == m_index.end()) return false;
  const Entries::iterator entry = found->second;
  if (!ForgiveAttempts(entry)) {
    Remove(entry);
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

void CZuIPAddrBlacklist::Remove(Entries::iterator entry) {
  if (m_blacklistIterator == entry) m_blacklistIterator = m_blacklist.end();
  m_index.erase(entry->m_addr);
  m_blacklist.erase(entry);
}

void CZuIPAddrBlacklist::AddAllAddressesOf(const char* hostName) {
  std::vector<CZuIPAddr> addresses;
  if (Failed(CZuIPAddr::GetAllByName(hostName, addresses, CZuIPAddr::FAMILY_ANY))) return;
  for (const CZuIPAddr& address : addresses) {
    (void)AddAddressToBlacklist(address);  // does not fail
  }
}
