#include <netdb.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <vector>

#include "ZuNetwork/ZuIPAddrBlacklist.h"
#include "support/Expect.h"
#include "support/Heap.h"
#include "support/SystemFunction.h"
#include "support/TempDir.h"

// Blacklists that are loaded from a file.

namespace {

std::vector<std::string> gLookedUp;  // every name that the resolver was asked for
bool gIsRecording = false;           // the library asks before there is a list to write to
SystemFunction<int(const char*, const char*, const addrinfo*, addrinfo**)> gGetAddrInfo{
    "getaddrinfo"};
SystemFunction<FILE*(const char*, const char*)> gOpen{"fopen"};

constexpr char kTwoAddresses[] = "two.example";
constexpr char kCollidesSecond[] = "collides.example";

int NextLookup(const char* name, const addrinfo* hints, addrinfo** found) {
  addrinfo numeric = *hints;
  numeric.ai_flags |= AI_NUMERICHOST;  // no test asks a name server
  return gGetAddrInfo(name, nullptr, &numeric, found);
}

int LookUpBoth(const char* first, const char* second, const addrinfo* hints, addrinfo** found) {
  const int result = NextLookup(first, hints, found);
  return result != 0 ? result : NextLookup(second, hints, &(*found)->ai_next);
}

}  // namespace

extern "C" int getaddrinfo(const char* name, const char*, const addrinfo* hints, addrinfo** found) {
  if (gIsRecording) gLookedUp.emplace_back(name);
  if (std::strcmp(name, kTwoAddresses) == 0) return LookUpBoth("10.2.0.1", "::2", hints, found);
  if (std::strcmp(name, kCollidesSecond) == 0) {
    return LookUpBoth("10.3.0.1", "127.0.53.53", hints, found);
  }
  return NextLookup(name, hints, found);
}

extern "C" FILE* fopen(const char* path, const char* mode) { return gOpen(path, mode); }

namespace {

using Texts = std::vector<std::string>;

class ZuIPAddrBlacklistFile : public testing::Test {
 protected:
  ZuIPAddrBlacklistFile() {
    list.SetGraceAttempts(9);
    gLookedUp.clear();
    gIsRecording = true;
  }
  ~ZuIPAddrBlacklistFile() override { gIsRecording = false; }

  CZuError LoadContents(const std::string& contents) {
    WriteFile(folder / "list", contents);
    const std::ptrdiff_t before = OpenDescriptors();
    CZuError error = list.LoadBlacklistFromFile((folder / "list").c_str());
    EXPECT_EQ(OpenDescriptors(), before) << "the file was left open";
    return error;
  }

  // Each entry as "address*attempts".
  static Texts EntriesOf(CZuIPAddrBlacklist& blacklist) {
    Texts entries;
    CZuIPAddr address;
    CZuString name;
    unsigned attempts = 0;
    CZuError error = blacklist.GetFirstBlacklistEntry(address, &name, &attempts, nullptr, nullptr);
    while (!Failed(error)) {
      EXPECT_TRUE(name.IsEmpty());
      EXPECT_EQ(address.GetPortNumber(), 0);
      CZuString text;
      EXPECT_OK(address.GetAddressString(text));
      entries.push_back(text.c_str() + ("*" + std::to_string(attempts)));
      error = blacklist.GetNextBlacklistEntry(address, &name, &attempts, nullptr, nullptr);
    }
    return entries;
  }
  Texts Entries() { return EntriesOf(list); }

  static std::ptrdiff_t OpenDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  }

  TempDir folder;
  CZuIPAddrBlacklist list;
};

TEST_F(ZuIPAddrBlacklistFile, EveryLineIsAnAddress) {
  const struct {
    const char* what;
    std::string contents;
    Texts entries;
  } kCases[] = {
      {"nothing", "", {}},
      {"an empty line", "\n", {}},
      {"empty lines", "\n\n\n", {}},
      {"no line feed at the end", "10.0.0.1", {"10.0.0.1*1"}},
      {"a line feed at the end counts twice", "10.0.0.1\n", {"10.0.0.1*2"}},
      {"an empty last line does not", "10.0.0.1\n\n", {"10.0.0.1*1"}},
      {"only the last line does", "10.0.0.1\n10.0.0.2\n", {"10.0.0.1*1", "10.0.0.2*2"}},
      {"both families, in order",
       "::1\n10.0.0.1\n2001:db8::7",
       {"::1*1", "10.0.0.1*1", "2001:db8::7*1"}},
      {"repeated lines", "10.0.0.1\n::1\n10.0.0.1", {"10.0.0.1*2", "::1*1"}},
      {"an empty line, no such name", "10.0.0.1\n\nno.such.name", {"10.0.0.1*1"}},
      {"no such name at the end", "10.0.0.1\nno.such.name\n", {"10.0.0.1*1"}},
      {"the collision address", "10.0.0.1\n127.0.53.53\n10.0.0.2", {"10.0.0.1*1", "10.0.0.2*1"}},
      {"all addresses of a name", "two.example", {"10.2.0.1*1", "::2*1"}},
      {"a name that collides later", "collides.example\n10.0.0.1", {"10.0.0.1*1"}},
      {"no comments", "# 10.0.0.1\n10.0.0.2 # bad\n10.0.0.3", {"10.0.0.3*1"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    CZuIPAddrBlacklist fresh;
    fresh.SetGraceAttempts(9);
    WriteFile(folder / "list", c.contents);
    ASSERT_OK(fresh.LoadBlacklistFromFile((folder / "list").c_str()));
    EXPECT_EQ(EntriesOf(fresh), c.entries);
  }
}

TEST_F(ZuIPAddrBlacklistFile, SecondAttemptOfTheLastLineIsBoundByTheGraceCount) {
  list.SetGraceAttempts(1);
  ASSERT_OK(LoadContents("10.0.0.1\n"));
  EXPECT_EQ(Entries(), Texts{"10.0.0.1*1"});
}

TEST_F(ZuIPAddrBlacklistFile, NothingIsStrippedButTheLineFeed) {
  ASSERT_OK(LoadContents("10.0.0.1\r\n 10.0.0.2\n10.0.0.3 \n\t10.0.0.4\n \n\r\n10.0.0.5"));
  EXPECT_EQ(gLookedUp,
            (Texts{"10.0.0.1\r", " 10.0.0.2", "10.0.0.3 ", "\t10.0.0.4", " ", "\r", "10.0.0.5"}));
  EXPECT_EQ(Entries(), Texts{"10.0.0.5*1"});
}

TEST_F(ZuIPAddrBlacklistFile, LongLinesFallIntoPieces) {
  const std::string piece(1023, 'x');
  ASSERT_OK(LoadContents(piece + piece + "10.0.0.1\n10.0.0.2"));
  EXPECT_EQ(gLookedUp, (Texts{piece, piece, "10.0.0.1", "10.0.0.2"}));
  EXPECT_EQ(Entries(), (Texts{"10.0.0.1*1", "10.0.0.2*1"}));
}

TEST_F(ZuIPAddrBlacklistFile, LongestLineIsOneLine) {
  const std::string longest(1022, 'x');
  ASSERT_OK(LoadContents(longest + "\n10.0.0.1"));
  EXPECT_EQ(gLookedUp, (Texts{longest, "10.0.0.1"}));
  gLookedUp.clear();
  ASSERT_OK(LoadContents(longest + "x\n10.0.0.1"));
  EXPECT_EQ(gLookedUp, (Texts{longest + "x", "10.0.0.1"})) << "the piece of its line feed is empty";
}

TEST_F(ZuIPAddrBlacklistFile, LineOfThousandsOfCharactersDoesNoHarm) {
  ASSERT_OK(LoadContents("10.0.0.1\n" + std::string(5000, 'y') + "\n10.0.0.2"));
  EXPECT_EQ(Entries(), (Texts{"10.0.0.1*1", "10.0.0.2*1"}));
  EXPECT_EQ(gLookedUp.size(), 2u + 5);
  EXPECT_EQ(gLookedUp[5], std::string(5000 - 4 * 1023, 'y'));
}

TEST_F(ZuIPAddrBlacklistFile, LineEndsAtAZeroByte) {
  ASSERT_OK(LoadContents(std::string("10.0.0.1\0junk\n\0 10.0.0.2\n10.0.0.3", 33)));
  EXPECT_EQ(gLookedUp, (Texts{"10.0.0.1", "10.0.0.3"}));
}

TEST_F(ZuIPAddrBlacklistFile, BinaryNoiseDoesNoHarm) {
  std::string noise;
  unsigned state = 12345;
  for (int i = 0; i < 50'000; ++i) {
    state = state * 1103515245u + 12345u;
    noise += static_cast<char>(state >> 16);
  }
  ASSERT_OK(LoadContents(noise + "\n10.0.0.1"));
  const Texts entries = Entries();
  ASSERT_FALSE(entries.empty());
  EXPECT_EQ(entries.back(), "10.0.0.1*1");
}

TEST_F(ZuIPAddrBlacklistFile, AddsToWhatIsThere) {
  ASSERT_OK(LoadContents("10.0.0.1\n10.0.0.2"));
  ASSERT_OK(LoadContents("10.0.0.2\n10.0.0.3"));
  EXPECT_EQ(Entries(), (Texts{"10.0.0.1*1", "10.0.0.2*2", "10.0.0.3*1"}));
}

TEST_F(ZuIPAddrBlacklistFile, OpensForReadingInTextMode) {
  std::string asked;
  const Replacement refused(gOpen, [&](const char* path, const char* mode) -> FILE* {
    asked = std::string(path) + "|" + mode;
    errno = EMFILE;
    return nullptr;
  });
  const CZuError error = list.LoadBlacklistFromFile("some list");
  EXPECT_EQ(asked, "some list|rt");
  EXPECT_FAILS(error, Win32Code(EMFILE), "Failed to open file, FileName=some list");
  EXPECT_FAILS(error, Win32Code(EMFILE), "CZuIPAddrBlacklist::LoadBlacklistFromFile(");
}

TEST_F(ZuIPAddrBlacklistFile, MissingFileIsReported) {
  const std::string path = folder / "missing";
  EXPECT_FAILS(list.LoadBlacklistFromFile(path.c_str()), Win32Code(2),
               ("Failed to open file, FileName=" + path).c_str());
  EXPECT_FAILS(list.LoadBlacklistFromFile(""), Win32Code(ENOENT), "Failed to open file, FileName=");
  EXPECT_FAILS(list.LoadBlacklistFromFile("%s%n"), Win32Code(ENOENT), "FileName=%s%n");
  EXPECT_TRUE(Entries().empty());
}

TEST_F(ZuIPAddrBlacklistFile, UnreadableFileIsReported) {
  const std::string path = folder / "secret";
  WriteFile(path, "10.0.0.1\n");
  ASSERT_EQ(chmod(folder.Path().c_str(), 0755), 0);
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    constexpr uid_t kNobody = 65534;
    if (geteuid() == 0 && setuid(kNobody) != 0) _exit(2);
    const CZuError error = list.LoadBlacklistFromFile(path.c_str());
    const bool isRight = static_cast<bool>(
        IsFailure(error, Win32Code(EACCES), ("Failed to open file, FileName=" + path).c_str()));
    _exit(isRight ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(ZuIPAddrBlacklistFile, DirectoryIsReported) {
  const std::string path = folder.Path();
  const CZuError error = list.LoadBlacklistFromFile(path.c_str());
  EXPECT_FAILS(error, Win32Code(EISDIR), ("Failed to read file, FileName=" + path).c_str());
  EXPECT_FAILS(error, Win32Code(EISDIR), "CZuIPAddrBlacklist::LoadBlacklistFromFile(");
}

TEST_F(ZuIPAddrBlacklistFile, ReadErrorEndsTheLoadingAndKeepsWhatCame) {
  const std::string contents = "10.0.0.1\n10.0.0.2\n10.0.0.3";
  std::size_t given = 0;
  bool closed = false;
  struct Cookie {
    const std::string& contents;
    std::size_t& given;
    bool& closed;
  } cookie{contents, given, closed};
  cookie_io_functions_t functions{};
  functions.read = [](void* raw, char* buffer, size_t) -> ssize_t {
    const Cookie& from = *static_cast<Cookie*>(raw);
    if (from.given == 20) {
      errno = EIO;
      return -1;
    }
    const std::size_t count = std::min<std::size_t>(10, 20 - from.given);
    std::memcpy(buffer, from.contents.data() + from.given, count);
    from.given += count;
    return static_cast<ssize_t>(count);
  };
  functions.close = [](void* raw) {
    static_cast<Cookie*>(raw)->closed = true;
    return 0;
  };
  const Replacement broken(
      gOpen, [&](const char*, const char* mode) { return fopencookie(&cookie, mode, functions); });
  EXPECT_FAILS(list.LoadBlacklistFromFile("list"), Win32Code(EIO),
               "Failed to read file, FileName=list");
  EXPECT_EQ(Entries(), (Texts{"10.0.0.1*1", "10.0.0.2*1"})) << "neither a part nor a line again";
  EXPECT_TRUE(closed);
}

TEST_F(ZuIPAddrBlacklistFile, MissingMemoryForTheLineIsReported) {
  WriteFile(folder / "list", "10.0.0.1\n");
  const std::string path = folder / "list";
  const std::ptrdiff_t before = OpenDescriptors();
  CZuError error;
  {
    const heap::Failing limit(heap::kNew, 1001);
    error = list.LoadBlacklistFromFile(path.c_str());
  }
  EXPECT_FAILS(error, Win32Code(14), "CZuIPAddrBlacklist::LoadBlacklistFromFile(");
  EXPECT_EQ(error.AsString().find("Failed"), std::string::npos) << "without a message";
  EXPECT_TRUE(Entries().empty());
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(ZuIPAddrBlacklistFile, SkippedLinesAreReportedWithNumberTextAndReason) {
  WriteFile(folder / "list", "# servers\n10.0.0.1\r\n\n10.0.0.2\n 10.0.0.3\n10.0.0.0/8\n" +
                                 std::string(1500, 'x') + "\ncollides.example\n10.0.0.4\nlast\n");
  std::vector<CZuIPAddrBlacklistSkippedLine> skipped(1);
  ASSERT_OK(list.LoadBlacklistFromFile((folder / "list").c_str(), skipped));
  EXPECT_THAT(Entries(), testing::ElementsAre("10.0.0.2*1", "10.0.0.4*1"));
  const struct {
    unsigned long number;
    std::string text;
  } expected[] = {
      {0, ""},  // what was there before
      {1, "# servers"},
      {2, "10.0.0.1\r"},
      {5, " 10.0.0.3"},
      {6, "10.0.0.0/8"},
      {7, std::string(1023, 'x')},
      {7, std::string(477, 'x')},
      {8, "collides.example"},
      {10, "last"},  // once, though it counts twice
  };
  ASSERT_EQ(skipped.size(), std::size(expected));
  for (std::size_t i = 1; i < skipped.size(); ++i) {
    EXPECT_EQ(skipped[i].m_number, expected[i].number);
    EXPECT_EQ(skipped[i].m_text, expected[i].text);
    EXPECT_TRUE(Failed(skipped[i].m_reason)) << i;
    EXPECT_THAT(skipped[i].m_reason.AsString(), testing::HasSubstr("[" + expected[i].text + "]"));
  }
  EXPECT_FAILS(skipped[7].m_reason, Win32Code(0xFFFFFFFE), "DNS name collision occured");
}

TEST_F(ZuIPAddrBlacklistFile, ReportingLoadsAndFailsAsWithoutIt) {
  WriteFile(folder / "list", "10.0.0.1\nno.such.name\n10.0.0.2\n");
  std::vector<CZuIPAddrBlacklistSkippedLine> skipped;
  ASSERT_OK(list.LoadBlacklistFromFile((folder / "list").c_str(), skipped));
  EXPECT_EQ(skipped.size(), 1u);
  CZuIPAddrBlacklist plain;
  plain.SetGraceAttempts(9);
  ASSERT_OK(plain.LoadBlacklistFromFile((folder / "list").c_str()));
  EXPECT_EQ(Entries(), EntriesOf(plain));

  EXPECT_FAILS(list.LoadBlacklistFromFile((folder / "none").c_str(), skipped), Win32Code(ENOENT),
               "Failed to open file, FileName=");
  EXPECT_FAILS(list.LoadBlacklistFromFile(nullptr, skipped), Win32Code(87),
               "Null parameter passed");
  EXPECT_FAILS(list.LoadBlacklistFromFile(folder.Path().c_str(), skipped), Win32Code(EISDIR),
               "Failed to read file, FileName=");
  EXPECT_EQ(skipped.size(), 1u);
}

TEST_F(ZuIPAddrBlacklistFile, NullNameIsRefused) {
  EXPECT_FAILS(list.LoadBlacklistFromFile(nullptr), Win32Code(87), "Null parameter passed");
}

TEST_F(ZuIPAddrBlacklistFile, MillionAddressesAreLoadedAndFound) {
  constexpr unsigned kAddresses = 1'000'000;
  gIsRecording = false;  // that many need no list
  {
    std::ofstream file(folder / "list");
    for (unsigned i = 0; i < kAddresses; ++i) {
      file << "10." << (i >> 16) << '.' << (i >> 8 & 255) << '.' << (i & 255) << '\n';
    }
  }
  ASSERT_OK(list.LoadBlacklistFromFile((folder / "list").c_str()));
  unsigned found = 0;
  for (unsigned i = 0; i < 2 * kAddresses; ++i) {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_addr.s_addr = htonl(0x0A000000u + i);
    unsigned attempts = 0;
    list.IsAddressBlacklisted(v4, nullptr, &attempts);
    found += attempts;
  }
  EXPECT_EQ(found, kAddresses + 1) << "the last line counts twice";
}

}  // namespace
