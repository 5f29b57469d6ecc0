#include "ZuNetwork/ZuIPAddrBlacklist.h"

#include <netdb.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>

#include "ZuNetwork/internal/Closers.h"

namespace {

constexpr std::size_t kLineSize = 1024;

// A key that nobody outside knows, so that nobody can choose addresses that all come to the same
// places of the index and make every look-up slow. Where the system gives no random bytes, the key
// is made of the time, the process and where the object lies in memory.
std::array<std::uint64_t, 3> DrawKey(const void* owner) {
  std::array<std::uint64_t, 3> key{};
  if (getrandom(key.data(), sizeof key, GRND_NONBLOCK) == sizeof key) return key;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  std::seed_seq seed{
      static_cast<std::uint64_t>(now.tv_nsec), static_cast<std::uint64_t>(now.tv_sec),
      std::uint64_t{reinterpret_cast<std::uintptr_t>(owner)}, static_cast<std::uint64_t>(getpid())};
  std::mt19937_64 generator(seed);
  for (std::uint64_t& word : key) word = generator();
  return key;
}

__extension__ typedef unsigned __int128 Product;  // NOLINT(modernize-use-using): see the keyword

std::uint64_t MultiplyAndFold(std::uint64_t left, std::uint64_t right) {
  const Product product = static_cast<Product>(left) * right;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

// Takes in what the comparison of addresses looks at; never 0.
std::uint32_t HashOf(const CZuIPAddr& addr, const std::array<std::uint64_t, 3>& key) {
  std::uint64_t words[2] = {};
  if (addr.m_Addr.addr.f.family == CZuIPAddr::FAMILY_IPV4) {
    words[0] = addr.m_Addr.addr.v4.sin_addr.s_addr;
  } else {
    std::memcpy(words, &addr.m_Addr.addr.v6.sin6_addr, sizeof words);
  }
  const std::uint64_t folded = MultiplyAndFold(words[0] ^ key[0], words[1] ^ key[1]);
  const auto hash = static_cast<std::uint32_t>(MultiplyAndFold(folded ^ key[2], key[1] | 1));
  return hash == 0 ? 1 : hash;
}

}  // namespace

CZuIPAddrBlacklist::CZuIPAddrBlacklist() : m_key(DrawKey(this)) {}

CZuIPAddrBlacklist::~CZuIPAddrBlacklist() = default;

void CZuIPAddrBlacklist::SetExpirationTime(int seconds) { m_expirationTime = seconds; }

void CZuIPAddrBlacklist::SetGraceAttempts(unsigned int attempts) { m_graceAttempts = attempts; }

CZuError CZuIPAddrBlacklist::AddAddressToBlacklist(const CZuIPAddr& addr, const CZuString& name) {
  const std::time_t now = std::time(nullptr);
  const std::uint32_t hash = HashOf(addr, m_key);
  MakeRoomInIndex();
  Slot& slot = FindSlot(addr, hash);
  if (slot.hash == 0) {
    m_blacklist.push_back({addr, name, 1, now});
    const Entries::iterator added = std::prev(m_blacklist.end());
    slot.hash = hash;
    std::memcpy(slot.entry.data(), &added, sizeof added);
    return {};
  }
  CZuIPAddrBlacklistNode& entry = *slot.Entry();
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
  Slot& slot = FindSlot(addr, HashOf(addr, m_key));
  if (slot.hash == 0) return false;
  const Entries::iterator entry = slot.Entry();
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
  return Load(ZU_HERE, fileName, nullptr);
}

CZuError CZuIPAddrBlacklist::LoadBlacklistFromFile(
    const char* fileName, std::vector<CZuIPAddrBlacklistSkippedLine>& skipped) {
  return Load(ZU_HERE, fileName, &skipped);
}

CZuError CZuIPAddrBlacklist::Load(const FXCodeLocation& where, const char* fileName,
                                  std::vector<CZuIPAddrBlacklistSkippedLine>* skipped) {
  if (fileName == nullptr) {
    return FXErrorUtil::ErrorWin32(where, kErrorInvalidArgument, "Null parameter passed");
  }
  const std::unique_ptr<FILE, ZuInternal::CloseFile> file(std::fopen(fileName, "rt"));
  if (!file) {
    return FXErrorUtil::ErrorWin32(where, static_cast<unsigned>(errno),
                                   "Failed to open file, FileName=%s", fileName);
  }
  CZuString line;
  char* const buffer = line.AllocateBuffer(kLineSize);
  if (buffer == nullptr) return FXErrorUtil::ErrorWin32(where, kErrorOutOfMemory);
  unsigned long number = 1;
  while (std::feof(file.get()) == 0) {
    // A read that finds nothing but the end leaves the line before in the buffer, which then counts
    // once more.
    const char* const text = std::fgets(buffer, kLineSize, file.get());
    if (text == nullptr && std::ferror(file.get()) != 0) {
      return FXErrorUtil::ErrorWin32(where, static_cast<unsigned>(errno),
                                     "Failed to read file, FileName=%s", fileName);
    }
    line.ReCalculateLength();
    const std::size_t length = line.Length();
    line.CheckAndRemoveLastCharacter('\n');
    CZuError error;
    if (!line.IsEmpty()) error = AddAllAddressesOf(where, line.c_str());
    if (Failed(error) && skipped != nullptr && text != nullptr) {
      skipped->push_back({number, line.c_str(), error});
    }
    if (line.Length() < length) ++number;
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
  const Entries::iterator entry = slot.Entry();
  if (m_blacklistIterator == entry) m_blacklistIterator = m_blacklist.end();
  m_blacklist.erase(entry);
  // What stands behind moves up as far as it would have been put without the entry.
  const std::size_t mask = m_index.size() - 1;
  auto hole = static_cast<std::size_t>(&slot - m_index.data());
  for (std::size_t place = (hole + 1) & mask; m_index[place].hash != 0;
       place = (place + 1) & mask) {
    const std::size_t fromHome = (place - m_index[place].hash) & mask;
    if (fromHome < ((place - hole) & mask)) continue;
    m_index[hole] = m_index[place];
    hole = place;
  }
  m_index[hole] = {};
}

// The slot of the address, or the empty one where it would be.
CZuIPAddrBlacklist::Slot& CZuIPAddrBlacklist::FindSlot(const CZuIPAddr& addr, std::uint32_t hash) {
  const std::size_t mask = m_index.size() - 1;
  Slot* const slots = m_index.data();
  std::size_t place = hash & mask;
  while (slots[place].hash != 0) {
    if (slots[place].hash == hash && slots[place].Entry()->m_addr == addr) break;
    place = (place + 1) & mask;
  }
  return slots[place];
}

// For one more entry: four places in five are used at most, which keeps the way to a free one
// short.
void CZuIPAddrBlacklist::MakeRoomInIndex() {
  if ((m_blacklist.size() + 1) * 5 <= m_index.size() * 4) return;
  std::vector<Slot> old(2 * m_index.size());
  old.swap(m_index);
  const std::size_t mask = m_index.size() - 1;
  for (const Slot& slot : old) {
    if (slot.hash == 0) continue;
    std::size_t place = slot.hash & mask;
    while (m_index[place].hash != 0) place = (place + 1) & mask;
    m_index[place] = slot;
  }
}

// The failure says why nothing was added.
CZuError CZuIPAddrBlacklist::AddAllAddressesOf(const FXCodeLocation& where, const char* hostName) {
  std::vector<CZuIPAddr> addresses;
  CZuError error = CZuIPAddr::GetAllByName(hostName, addresses, CZuIPAddr::FAMILY_ANY);
  if (Failed(error)) return error.Push(where);
  if (addresses.empty()) return FXErrorUtil::ErrorErrNo(where, EAI_NODATA, "[%s]", hostName);
  for (const CZuIPAddr& address : addresses) {
    (void)AddAddressToBlacklist(address);  // does not fail
  }
  return {};
}
