#include "ZuUtils/ZuError.h"

#include <netdb.h>

#include <array>
#include <atomic>
#include <boost/smart_ptr/make_shared.hpp>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "ZuUtils/TimeStamp.h"
#include "ZuUtils/ZuFile.h"
#include "support/Expect.h"
#include "support/Heap.h"

namespace {

constexpr FXCodeLocation kInner{"Inner.cpp", "int Inner::Work(char)", 11};
constexpr FXCodeLocation kMiddle{"Middle.cpp", "void Middle()", 22};
constexpr FXCodeLocation kOuter{"Outer.cpp", "CZuError Outer(int)", 33};
constexpr FXCodeLocation kFarOut{"Far.cpp", "bool Far()", 44};

constexpr char kInnerText[] = "Inner.cpp:11, int Inner::Work(char)";
constexpr unsigned kTransferFacility = 0xEDD00000;

unsigned CodeOf(const CZuError& error) { return static_cast<unsigned>(error.m_hrErrorCode); }

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// An item of a user: what it renders shows that the virtual functions are called.
class OwnItem : public FXErrorItem {
 public:
  using FXErrorItem::FXErrorItem;
  std::string AsString() const override { return FXErrorItem::AsString() + " [own]"; }
  boost::shared_ptr<FXErrorItem> Copy() const override {
    return boost::shared_ptr<FXErrorItem>(new OwnItem(*this));
  }
};

// The three words of an error: its code, and the two pointers of a boost::shared_ptr.
struct Words {
  std::int32_t code;
  std::array<void*, 2> shared;
};

Words WordsOf(const CZuError& error) {
  Words words{-1, {}};
  const char* const bytes = reinterpret_cast<const char*>(&error);
  std::memcpy(&words.code, bytes, sizeof words.code);
  std::memcpy(words.shared.data(), bytes + sizeof(void*), sizeof words.shared);
  return words;
}

}  // namespace

TEST(ZuError, HoldsTheCodeFirstAndThenOneSharedPointer) {
  EXPECT_EQ(sizeof(CZuError), sizeof(void*) + sizeof(boost::shared_ptr<int>));
  static_assert(std::is_same_v<decltype(CZuError::m_hrErrorCode), std::int32_t>);
  static_assert(std::is_nothrow_destructible_v<CZuError>);
  static_assert(std::is_nothrow_default_constructible_v<CZuError>);

  const Words failure = WordsOf(FXErrorUtil::ErrorWin32(kInner, 774));
  EXPECT_EQ(static_cast<unsigned>(failure.code), 0x80070306u);
  EXPECT_NE(failure.shared[0], nullptr);
  EXPECT_NE(failure.shared[1], nullptr);
}

TEST(ZuError, SuccessIsThreeWordsOfZero) {
  const Words success = WordsOf(CZuError());
  EXPECT_EQ(success.code, 0);
  EXPECT_EQ(success.shared[0], nullptr);
  EXPECT_EQ(success.shared[1], nullptr);
  EXPECT_FALSE(Failed(CZuError()));
  EXPECT_EQ(CZuError().AsString(), "0x00000000 (success)");
}

TEST(ZuError, LocationIsAnAggregateOfFileFunctionAndLine) {
  static_assert(std::is_aggregate_v<FXCodeLocation>);
  static_assert(offsetof(FXCodeLocation, m_pcszFile) == 0);
  static_assert(offsetof(FXCodeLocation, m_pcszFunction) == sizeof(char*));
  static_assert(offsetof(FXCodeLocation, m_iLine) == 2 * sizeof(char*));
  static_assert(std::is_same_v<decltype(FXCodeLocation::m_iLine), std::int32_t>);
}

namespace {

struct Recorder {
  FXCodeLocation Where(const std::string& name, unsigned* count) const;
};

FXCodeLocation Recorder::Where(const std::string& name, unsigned* count) const {
  if (name.empty()) ++*count;
  return ZU_HERE;
}

}  // namespace

TEST(ZuError, HereGivesTheBaseNameTheFullSignatureAndTheLine) {
  const int line = __LINE__ + 1;
  const FXCodeLocation here = ZU_HERE;
  EXPECT_STREQ(here.m_pcszFile, "ZuError_test.cpp");
  EXPECT_EQ(here.m_iLine, line);

  const std::string signature = Recorder().Where("x", nullptr).m_pcszFunction;
  EXPECT_THAT(signature, testing::HasSubstr("FXCodeLocation "));  // return type
  EXPECT_THAT(signature, testing::HasSubstr("Recorder::Where(const std::string&, unsigned int*) "
                                            "const"));
}

TEST(ZuError, FailuresOfTheLibraryNameItsFilesAndSignatures) {
  CZuFile file;
  unsigned long long size = 1;
  const std::string text = file.Size(size).AsString();
  EXPECT_THAT(text, testing::ContainsRegex(
                        "\n  ZuFile\\.cpp:[0-9]+, CZuError CZuFile::Size\\(long long unsigned "
                        "int&\\), File not open"));
}

TEST(ZuError, EveryMakerGivesItsOwnNegativeCode) {
  const struct {
    const char* what;
    CZuError error;
    unsigned code;
  } rows[] = {
      {"errno 2", FXErrorUtil::ErrorErrNo(kInner, ENOENT), 0xE0010002},
      {"errno 0", FXErrorUtil::ErrorErrNo(kInner, 0), 0xE0010000},
      {"errno 62 with message", FXErrorUtil::ErrorErrNo(kInner, ETIME, "m"), 0xE001003E},
      {"errno beyond 16 bits", FXErrorUtil::ErrorErrNo(kInner, 0x12345), 0xE0012345},
      {"errno INT_MAX", FXErrorUtil::ErrorErrNo(kInner, INT_MAX), 0xE001FFFF},
      {"resolver's code -2", FXErrorUtil::ErrorErrNo(kInner, EAI_NONAME), 0xE001FFFE},
      {"resolver's code -11", FXErrorUtil::ErrorErrNo(kInner, EAI_SYSTEM, "m"), 0xE001FFF5},
      {"errno INT_MIN", FXErrorUtil::ErrorErrNo(kInner, INT_MIN), 0xE0010000},
      {"win32 0", FXErrorUtil::ErrorWin32(kInner, 0), 0x80070000},
      {"win32 8", FXErrorUtil::ErrorWin32(kInner, kErrorNotEnoughMemory), 0x80070008},
      {"win32 14", FXErrorUtil::ErrorWin32(kInner, kErrorOutOfMemory), 0x8007000E},
      {"win32 87", FXErrorUtil::ErrorWin32(kInner, kErrorInvalidArgument, "m"), 0x80070057},
      {"win32 259", FXErrorUtil::ErrorWin32(kInner, kErrorNoMoreItems), 0x80070103},
      {"win32 774", FXErrorUtil::ErrorWin32(kInner, kErrorInvalidState), 0x80070306},
      {"win32 4306", FXErrorUtil::ErrorWin32(kInner, kErrorEmpty), 0x800710D2},
      {"win32 10038", FXErrorUtil::ErrorWin32(kInner, kErrorNotASocket), 0x80072736},
      {"win32 4294967294", FXErrorUtil::ErrorWin32(kInner, kErrorNameCollision), 0xFFFFFFFE},
      {"win32 4294967294 with message", FXErrorUtil::ErrorWin32(kInner, 4294967294u, "m"),
       0xFFFFFFFE},
      {"win32 beyond 16 bits", FXErrorUtil::ErrorWin32(kInner, 0x12345), 0x80072345},
      {"win32 0x7FFFFFFF", FXErrorUtil::ErrorWin32(kInner, 0x7FFFFFFF), 0x8007FFFF},
      {"win32 0x80000000", FXErrorUtil::ErrorWin32(kInner, 0x80000000), 0x80000000},
      {"int 1", FXErrorUtil::ErrorInt(kInner, kErrorBadInput, "m"), 0xE0020001},
      {"int 101", FXErrorUtil::ErrorInt(kInner, kErrorNotSupported, "m"), 0xE0020065},
      {"int 0", FXErrorUtil::ErrorInt(kInner, 0, "m"), 0xE0020000},
      {"int -1", FXErrorUtil::ErrorInt(kInner, -1, "m"), 0xE002FFFF},
      {"int beyond 16 bits", FXErrorUtil::ErrorInt(kInner, 0x7ABCDEF0, "m"), 0xE002DEF0},
      {"result 7", FXErrorUtil::ErrorKDResult(kInner, 7, "m"), 0xE0030007},
      {"result 0", FXErrorUtil::ErrorKDResult(kInner, 0, "m"), 0xE0030000},
      {"result -1", FXErrorUtil::ErrorKDResult(kInner, -1, "m"), 0xE003FFFF},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(CodeOf(row.error), row.code) << row.what << ": " << row.error.AsString();
    EXPECT_TRUE(Failed(row.error)) << row.what;
    EXPECT_EQ(Lines(row.error.AsString()).size(), 2u) << row.what << " has one item";
  }
  EXPECT_EQ(FXErrorUtil::ErrorWin32(kInner, 4294967294u).m_hrErrorCode, -2);
}

TEST(ZuError, NoMakerReachesTheFacilityOfTheTransfers) {
  for (int number = 0; number <= 0xFFFF; number += number < 200 ? 1 : 97) {
    const int wide = number | (0x0DD0 << 16);  // the transfer facility's own bits
    const CZuError errors[] = {FXErrorUtil::ErrorErrNo(kInner, wide),
                               FXErrorUtil::ErrorInt(kInner, wide, "m"),
                               FXErrorUtil::ErrorKDResult(kInner, wide, "m"),
                               FXErrorUtil::ErrorWin32(kInner, static_cast<unsigned>(wide))};
    for (const CZuError& error : errors) {
      ASSERT_NE(CodeOf(error) & 0xFFFF0000u, kTransferFacility) << error.AsString();
      ASSERT_EQ(CodeOf(error) & 0xFFFFu, static_cast<unsigned>(number)) << error.AsString();
    }
  }
}

TEST(ZuError, EveryErrorIsKnownByItsMakerAndNumberAlone) {
  const CZuError errors[] = {FXErrorUtil::ErrorErrNo(kInner, 5), FXErrorUtil::ErrorWin32(kInner, 5),
                             FXErrorUtil::ErrorInt(kInner, 5, "m"),
                             FXErrorUtil::ErrorKDResult(kInner, 5, "m"), CZuError()};
  for (int i = 0; i < 5; ++i) {
    const CZuError& error = errors[i];
    EXPECT_EQ(FXErrorUtil::IsErrNo(error, 5), i == 0) << error.AsString();
    EXPECT_EQ(FXErrorUtil::IsWin32(error, 5), i == 1) << error.AsString();
    EXPECT_EQ(FXErrorUtil::IsInt(error, 5), i == 2) << error.AsString();
    EXPECT_EQ(FXErrorUtil::IsKDResult(error, 5), i == 3) << error.AsString();
    EXPECT_FALSE(FXErrorUtil::IsErrNo(error, 6)) << error.AsString();
    EXPECT_FALSE(FXErrorUtil::IsWin32(error, 6)) << error.AsString();
    EXPECT_FALSE(FXErrorUtil::IsInt(error, 6)) << error.AsString();
    EXPECT_FALSE(FXErrorUtil::IsKDResult(error, 6)) << error.AsString();
    EXPECT_FALSE(FXErrorUtil::IsErrNo(error, 0)) << error.AsString();
    EXPECT_FALSE(FXErrorUtil::IsWin32(error, 0)) << error.AsString();
  }
}

TEST(ZuError, QueriesMatchNegativeNumbers) {
  EXPECT_TRUE(FXErrorUtil::IsErrNo(FXErrorUtil::ErrorErrNo(kInner, EAI_NONAME), EAI_NONAME));
  EXPECT_FALSE(FXErrorUtil::IsErrNo(FXErrorUtil::ErrorErrNo(kInner, EAI_NONAME), EAI_AGAIN));
  EXPECT_TRUE(FXErrorUtil::IsWin32(FXErrorUtil::ErrorWin32(kInner, kErrorNameCollision),
                                   kErrorNameCollision));
  EXPECT_TRUE(FXErrorUtil::IsInt(FXErrorUtil::ErrorInt(kInner, -3, "m"), -3));
  EXPECT_TRUE(FXErrorUtil::IsKDResult(FXErrorUtil::ErrorKDResult(kInner, -3, "m"), -3));
}

TEST(ZuError, IsAndIsNotCompareTheWholeCode) {
  const CZuError error = FXErrorUtil::ErrorWin32(kInner, 774);
  const int code = static_cast<int>(0x80070306);
  EXPECT_TRUE(error.Is(code));
  EXPECT_FALSE(error.IsNot(code));
  EXPECT_FALSE(error.Is(774));
  EXPECT_TRUE(error.IsNot(774));
  EXPECT_FALSE(error.Is(0));
  EXPECT_TRUE(CZuError().Is(0));
  EXPECT_FALSE(CZuError().IsNot(0));
  EXPECT_TRUE(FXErrorUtil::ErrorWin32(kInner, kErrorNameCollision).Is(-2));
}

TEST(ZuError, SystemTextFollowsTheMessage) {
  const struct {
    CZuError error;
    std::string item;
  } rows[] = {
      {FXErrorUtil::ErrorErrNo(kInner, ENOENT), "No such file or directory"},
      {FXErrorUtil::ErrorErrNo(kInner, ETIME), "Timer expired"},
      {FXErrorUtil::ErrorErrNo(kInner, 99999), "Unknown error 99999"},
      {FXErrorUtil::ErrorErrNo(kInner, EAI_NONAME), gai_strerror(EAI_NONAME)},
      {FXErrorUtil::ErrorErrNo(kInner, EAI_AGAIN, "host %s", "h"),
       std::string("host h: ") + gai_strerror(EAI_AGAIN)},
      {FXErrorUtil::ErrorErrNo(kInner, EACCES, "file [%s] %d%%", "f", 7),
       "file [f] 7%: Permission denied"},
      {FXErrorUtil::ErrorWin32(kInner, 774, "%s %u %ld", "a", 2u, 3L), "a 2 3"},
      {FXErrorUtil::ErrorInt(kInner, 1, "Input is %s", "invalid"), "Input is invalid"},
      {FXErrorUtil::ErrorKDResult(kInner, 3, "ping %d", 3), "ping 3"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Lines(row.error.AsString()).at(1), std::string("  ") + kInnerText + ", " + row.item);
  }
  EXPECT_EQ(Lines(FXErrorUtil::ErrorWin32(kInner, 87).AsString()).at(1),
            std::string("  ") + kInnerText);
}

TEST(ZuError, FirstLineTellsTheCodeAndItsKind) {
  const auto item = boost::shared_ptr<FXErrorItem>(new FXErrorItem(kInner));
  const struct {
    CZuError error;
    const char* line;
  } rows[] = {
      {FXErrorUtil::ErrorErrNo(kInner, ENOENT), "0xE0010002 (errno 2)"},
      {FXErrorUtil::ErrorErrNo(kInner, EAI_NONAME), "0xE001FFFE (resolver -2)"},
      {FXErrorUtil::ErrorErrNo(kInner, EAI_OVERFLOW), "0xE001FFF4 (resolver -12)"},
      {FXErrorUtil::ErrorErrNo(kInner, 0x7FFF), "0xE0017FFF (errno 32767)"},
      {FXErrorUtil::ErrorInt(kInner, -2, "m"), "0xE002FFFE (library 65534)"},
      {FXErrorUtil::ErrorWin32(kInner, 774), "0x80070306 (system 774)"},
      {FXErrorUtil::ErrorWin32(kInner, kErrorNameCollision), "0xFFFFFFFE"},
      {FXErrorUtil::ErrorInt(kInner, 101, "m"), "0xE0020065 (library 101)"},
      {FXErrorUtil::ErrorKDResult(kInner, 7, "m"), "0xE0030007 (result 7)"},
      {CZuError(static_cast<int>(0xEDD0001C), item), "0xEDD0001C (transfer 28)"},
      {CZuError(5, item), "0x00000005 (success)"},
  };
  for (const auto& row : rows) EXPECT_EQ(Lines(row.error.AsString()).at(0), row.line);
}

TEST(ZuError, PushKeepsTheCodeAndReturnsTheSameError) {
  CZuError error = FXErrorUtil::ErrorInt(kInner, 101, "first");
  const auto item = boost::shared_ptr<FXErrorItem>(new OwnItem(kFarOut));
  EXPECT_EQ(&error.Push(kMiddle), &error);
  EXPECT_EQ(&error.Push(kOuter, "file %s, line %d", "x", 3), &error);
  EXPECT_EQ(&error.Push(item), &error);
  EXPECT_EQ(CodeOf(error), IntCode(101));
  EXPECT_EQ(error.AsString(),
            "0xE0020065 (library 101)\n"
            "  Inner.cpp:11, int Inner::Work(char), first\n"
            "  Middle.cpp:22, void Middle()\n"
            "  Outer.cpp:33, CZuError Outer(int), file x, line 3\n"
            "  Far.cpp:44, bool Far() [own]");
}

namespace {

// Items of users whose text does not begin with ", ", or not with their place.
class TextItem : public FXErrorItem {
 public:
  TextItem(const FXCodeLocation& where, std::string text, bool placeFirst)
      : FXErrorItem(where), m_text(std::move(text)), m_placeFirst(placeFirst) {}
  std::string AsString() const override {
    return m_placeFirst ? FXErrorItem::AsString() + m_text : m_text;
  }

 private:
  std::string m_text;
  bool m_placeFirst;
};

}  // namespace

TEST(FXErrorItem, MessageIsWhatStandsBehindThePlace) {
  const struct {
    boost::shared_ptr<FXErrorItem> item;
    const char* message;
  } rows[] = {
      {boost::make_shared<FXErrorItem>(kInner), ""},
      {boost::make_shared<OwnItem>(kInner), "[own]"},
      {boost::make_shared<TextItem>(kInner, ", /etc/hosts", true), "/etc/hosts"},
      {boost::make_shared<TextItem>(kInner, ", , twice", true), ", twice"},
      {boost::make_shared<TextItem>(kInner, "/Kind.7-said", true), "Kind.7-said"},
      {boost::make_shared<TextItem>(kInner, ",tight", true), ",tight"},
      {boost::make_shared<TextItem>(kInner, ", ", true), ""},
      {boost::make_shared<TextItem>(kInner, "no place, at all", false), "no place, at all"},
      {boost::make_shared<TextItem>(kInner, "", false), ""},
  };
  for (const auto& row : rows) EXPECT_EQ(row.item->Message(), row.message);
}

TEST(ZuError, MessageIsTheInnermostTextWithoutFileAndFunction) {
  const auto silent = boost::make_shared<FXErrorItem>(kInner);
  const struct {
    CZuError error;
    std::string message;
  } rows[] = {
      {FXErrorUtil::ErrorErrNo(kInner, ENOENT), "No such file or directory"},
      {FXErrorUtil::ErrorErrNo(kInner, EAI_NONAME, "[%s]", "nope.invalid"),
       std::string("[nope.invalid]: ") + gai_strerror(EAI_NONAME)},
      {FXErrorUtil::ErrorWin32(kInner, 774, "Not a valid socket"), "Not a valid socket"},
      {FXErrorUtil::ErrorWin32(kInner, 774, "first").Push(kOuter, "second"), "first"},
      {FXErrorUtil::ErrorWin32(kInner, 774).Push(kMiddle).Push(kOuter, "second"), "second"},
      {FXErrorUtil::ErrorWin32(kInner, 774, "two\nlines"), "two\nlines"},
      {CZuError(-5, boost::make_shared<OwnItem>(kInner)).Push(kOuter, "second"), "[own]"},
      // Nothing was said: the code is all there is.
      {FXErrorUtil::ErrorWin32(kInner, 14).Push(kOuter), "0x8007000E (system 14)"},
      {CZuError(static_cast<int>(0xE001FFFE), silent), "0xE001FFFE (resolver -2)"},
      {CZuError(-5, nullptr), "0xFFFFFFFB"},
      // Whoever asks a success hears nothing, whatever its items.
      {CZuError(), ""},
      {CZuError(5, boost::make_shared<OwnItem>(kInner)), ""},
  };
  for (const auto& row : rows) EXPECT_EQ(row.error.Message(), row.message) << row.error.AsString();
}

TEST(ZuError, ItemsAreHandedOutInnermostFirst) {
  EXPECT_TRUE(CZuError().GetItems().empty());
  EXPECT_TRUE(CZuError(-5, nullptr).GetItems().empty());

  const auto own = boost::make_shared<OwnItem>(kMiddle);
  CZuError error = FXErrorUtil::ErrorErrNo(kInner, EIO, "inner");
  error.Push(own).Push(kOuter, "outer");
  const std::vector<boost::shared_ptr<const FXErrorItem>> items = error.GetItems();
  ASSERT_EQ(items.size(), 3u);
  EXPECT_EQ(items[0]->Message(), "inner: Input/output error");
  EXPECT_STREQ(items[0]->GetLocation().m_pcszFile, "Inner.cpp");
  EXPECT_EQ(items[1], own) << "the very item that was pushed";
  EXPECT_EQ(items[2]->Message(), "outer");

  error = CZuError();
  EXPECT_EQ(items[2]->GetLocation().m_iLine, 33) << "items outlive the error";
  EXPECT_EQ(FXErrorUtil::ErrorWin32(kInner, 1).GetItems().at(0)->GetLocation().m_iLine, 11);
}

TEST(ZuError, ManyPushesKeepTheirOrder) {
  CZuError error = FXErrorUtil::ErrorWin32(kInner, 774, "item 0");
  for (int i = 1; i < 1000; ++i) error.Push(kOuter, "item %d", i);
  const std::vector<std::string> lines = Lines(error.AsString());
  ASSERT_EQ(lines.size(), 1001u);
  for (std::size_t i = 0; i < 1000; ++i) {
    EXPECT_THAT(lines[i + 1], testing::EndsWith(", item " + std::to_string(i)));
  }
}

TEST(ZuError, ConstructorTakesAnyCodeWithOneItem) {
  const boost::shared_ptr<FXErrorItem> item(new OwnItem(kInner));
  const CZuError error(static_cast<int>(0xEDD00007), item);
  EXPECT_EQ(CodeOf(error), 0xEDD00007u);
  EXPECT_EQ(error.AsString(), std::string("0xEDD00007 (transfer 7)\n  ") + kInnerText + " [own]");
  EXPECT_EQ(item.use_count(), 2) << "the item is shared, not copied";
}

TEST(ZuError, ANullItemIsNone) {
  const boost::shared_ptr<FXErrorItem> none;
  CZuError made(-5, none);
  EXPECT_EQ(made.m_hrErrorCode, -5);
  EXPECT_EQ(made.AsString(), "0xFFFFFFFB");
  EXPECT_EQ(&made.Push(none), &made);
  EXPECT_EQ(made.AsString(), "0xFFFFFFFB");
  made.Push(kOuter);
  EXPECT_EQ(made.AsString(), "0xFFFFFFFB\n  Outer.cpp:33, CZuError Outer(int)");

  CZuError error = FXErrorUtil::ErrorErrNo(kInner, EIO);
  const CZuError copy = error;
  const std::string before = error.AsString();
  EXPECT_EQ(&error.Push(none), &error);
  EXPECT_EQ(error.AsString(), before);
  EXPECT_EQ(copy.AsString(), before);

  CZuError success;
  success.Push(none);
  EXPECT_EQ(success.AsString(), "0x00000000 (success)");
  EXPECT_EQ(WordsOf(success).shared[0], nullptr) << "a success stays one";
}

TEST(ZuError, PushingOnOneCopyLeavesTheOthersAsTheyWere) {
  const CZuError original = FXErrorUtil::ErrorErrNo(kInner, EIO);
  const std::string before = original.AsString();
  CZuError copy = original;
  EXPECT_EQ(WordsOf(copy).shared[0], WordsOf(original).shared[0]) << "copies share";
  copy.Push(kOuter, "copy only");
  EXPECT_EQ(original.AsString(), before);
  EXPECT_EQ(copy.AsString(), before + "\n  Outer.cpp:33, CZuError Outer(int), copy only");

  CZuError second = copy;
  second.Push(kMiddle);
  CZuError third = copy;
  third.Push(kFarOut);
  EXPECT_EQ(Lines(copy.AsString()).size(), 3u);
  EXPECT_EQ(Lines(second.AsString()).back(), "  Middle.cpp:22, void Middle()");
  EXPECT_EQ(Lines(third.AsString()).back(), "  Far.cpp:44, bool Far()");
}

TEST(ZuError, AnErrorOutlivesTheOneItWasCopiedFrom) {
  boost::shared_ptr<FXErrorItem> item(new OwnItem(kInner));
  CZuError survivor;
  {
    CZuError original(-5, item);
    survivor = original;
    original = CZuError();
    EXPECT_FALSE(Failed(original));
    EXPECT_EQ(original.AsString(), "0x00000000 (success)");
  }
  EXPECT_EQ(survivor.AsString(), std::string("0xFFFFFFFB\n  ") + kInnerText + " [own]");
  survivor = CZuError();
  EXPECT_EQ(item.use_count(), 1) << "the last share is released";
}

TEST(ZuError, MessagesMayHaveAnyLength) {
  for (const std::size_t length : {0u, 1u, 127u, 128u, 255u, 256u, 257u, 4096u, 1u << 20}) {
    const std::string message(length, 'm');
    const std::string item = std::string("\n  ") + kInnerText + ", " + message;
    EXPECT_EQ(FXErrorUtil::ErrorWin32(kInner, 774, "%s", message.c_str()).AsString(),
              "0x80070306 (system 774)" + item)
        << length;
    CZuError pushed = FXErrorUtil::ErrorWin32(kOuter, 774);
    pushed.Push(kInner, "%s", message.c_str());
    EXPECT_THAT(pushed.AsString(), testing::EndsWith(item)) << length;
  }
}

TEST(ZuError, FormatThatIsRefusedStandsForTheMessage) {
  const std::string wideFormat = "wide %2147483648d";  // strings hide them from the compiler
  const std::string textFormat = "text %ls";
  const char* const tooWide = wideFormat.c_str();
  const char* const badCharacter = textFormat.c_str();
  const wchar_t invalid[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
  const char* none = nullptr;
  const struct {
    CZuError error;
    const char* end;
  } rows[] = {
      {FXErrorUtil::ErrorWin32(kInner, 774, tooWide, 1), ", wide %2147483648d"},
      {FXErrorUtil::ErrorWin32(kInner, 774, badCharacter, invalid), ", text %ls"},
      {FXErrorUtil::ErrorInt(kInner, 1, badCharacter, invalid), ", text %ls"},
      {FXErrorUtil::ErrorKDResult(kInner, 1, tooWide, 1), ", wide %2147483648d"},
      {FXErrorUtil::ErrorErrNo(kInner, EIO, badCharacter, invalid),
       ", text %ls: Input/output error"},
      {CZuError(-1, boost::shared_ptr<FXErrorItem>(new OwnItem(kOuter))).Push(kInner, tooWide, 1),
       ", wide %2147483648d"},
      {FXErrorUtil::ErrorWin32(kInner, 774, none), ", "},
  };
  for (const auto& row : rows) {
    EXPECT_THAT(row.error.AsString(), testing::EndsWith(std::string(kInnerText) + row.end));
  }
}

TEST(ZuError, MessagesAreNotFormattedTwice) {
  CZuError error = FXErrorUtil::ErrorWin32(kInner, 87, "%s", "100%s %n");
  error.Push(kOuter, "[%s]", "%d");
  EXPECT_THAT(error.AsString(), testing::HasSubstr(", 100%s %n\n"));
  EXPECT_THAT(error.AsString(), testing::EndsWith(", [%d]"));
}

TEST(FXErrorItem, RendersItsLocation) {
  const FXErrorItem item(kInner);
  EXPECT_EQ(item.AsString(), kInnerText);
  EXPECT_STREQ(item.GetLocation().m_pcszFile, "Inner.cpp");
  EXPECT_STREQ(item.GetLocation().m_pcszFunction, "int Inner::Work(char)");
  EXPECT_EQ(item.GetLocation().m_iLine, 11);
  const FXErrorItem lowest({"", "", INT_MIN});
  EXPECT_EQ(lowest.AsString(), ":-2147483648, ");
  const std::string name(1000, 'n');
  EXPECT_EQ(FXErrorItem({name.c_str(), name.c_str(), 1}).AsString(), name + ":1, " + name);
}

TEST(FXErrorItem, AnEmptyLocationIsRenderedWithoutNames) {
  const FXCodeLocation nowhere{};
  EXPECT_EQ(FXErrorItem(nowhere).AsString(), ":0, ");
  EXPECT_EQ(FXErrorItem(nowhere).Copy()->AsString(), ":0, ");
  EXPECT_EQ(FXErrorUtil::ErrorWin32(nowhere, 774, "text").Push(nowhere).AsString(),
            "0x80070306 (system 774)\n  :0, , text\n  :0, ");
}

TEST(FXErrorItem, CopyIsAnotherItemThatSaysTheSame) {
  static_assert(std::has_virtual_destructor_v<FXErrorItem>);
  const FXErrorItem plain(kInner);
  const boost::shared_ptr<FXErrorItem> plainCopy = plain.Copy();
  EXPECT_NE(plainCopy.get(), &plain);
  EXPECT_EQ(plainCopy->AsString(), plain.AsString());
  EXPECT_EQ(plainCopy.use_count(), 1);

  boost::shared_ptr<FXErrorItem> copy;
  {
    const OwnItem own(kOuter);
    const FXErrorItem& item = own;
    copy = item.Copy();
    EXPECT_NE(copy.get(), &item);
  }
  EXPECT_EQ(copy->AsString(), "Outer.cpp:33, CZuError Outer(int) [own]");
  EXPECT_EQ(copy->GetLocation().m_iLine, 33);
}

TEST(ZuError, SuccessAllocatesNothing) {
  CZuFile file;
  const std::size_t before = heap::Calls(heap::kNew);
  {
    CZuError error;
    CZuError copy = error;
    copy = error;
    error = file.Close();
    EXPECT_FALSE(Failed(error));
    EXPECT_FALSE(FXErrorUtil::IsErrNo(error, 1));
    EXPECT_FALSE(Failed(copy));
  }
  EXPECT_EQ(heap::Calls(heap::kNew), before);
  CZuError failure = FXErrorUtil::ErrorWin32(kInner, 774);
  EXPECT_GT(heap::Calls(heap::kNew), before) << "the counter counts the library's allocations";
  const std::size_t made = heap::Calls(heap::kNew);
  const CZuError shared = failure;
  EXPECT_TRUE(Failed(shared));
  EXPECT_EQ(heap::Calls(heap::kNew), made) << "a copy shares";
}

TEST(ZuError, CopiesAreUsedOnSeveralThreads) {
  constexpr int kThreads = 4;
  const CZuError shared = FXErrorUtil::ErrorErrNo(kInner, EIO, "shared");
  const std::string before = shared.AsString();
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&shared, &before, &wrong] {
      for (int i = 0; i < 300; ++i) {
        CZuError copy = shared;
        if (copy.AsString() != before) ++wrong;
        copy.Push(kOuter, "%d", i);
        const CZuError released = copy;
        if (Lines(released.AsString()).size() != 3) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(shared.AsString(), before);
}

// The one that is left alone pushes in place: it has to see that the other is done with the list.
TEST(ZuError, ShareIsReleasedOnAnotherThreadWhileThisOnePushes) {
  for (int round = 0; round < 300; ++round) {
    CZuError error = FXErrorUtil::ErrorWin32(kInner, 774, "round %d", round);
    std::atomic<bool> started{false};
    std::thread other([copy = error, &started]() mutable {
      started = true;
      EXPECT_FALSE(copy.AsString().empty());
      copy = CZuError();
    });
    while (!started) std::this_thread::yield();
    for (int i = 0; i < 20; ++i) error.Push(kOuter);
    other.join();
    EXPECT_EQ(Lines(error.AsString()).size(), 22u);
  }
}
