#include "ZuUtils/ZuString.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

#include "support/Heap.h"

namespace {

// Around the 50 characters that a string holds inside itself, the terminator among them.
constexpr std::size_t kLengths[] = {0, 1, 2, 48, 49, 50, 51, 98, 99, 100, 1000, 1u << 20};

std::string Text(std::size_t length) {
  std::string text(length, ' ');
  for (std::size_t i = 0; i < length; ++i) text[i] = static_cast<char>('a' + i % 26);
  return text;
}

testing::AssertionResult Holds(const CZuString& string, const std::string& text) {
  if (string.Length() == text.size() &&
      std::memcmp(string.c_str(), text.c_str(), text.size()) == 0 &&
      string.c_str()[text.size()] == '\0' && string.IsEmpty() == text.empty()) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << "expected \"" << text << "\", got \"" << string.c_str()
                                     << "\", length " << string.Length();
}

bool IsInside(const CZuString& string) {
  const char* const begin = reinterpret_cast<const char*>(&string);
  return string.c_str() >= begin && string.c_str() < begin + sizeof string;
}

}  // namespace

TEST(ZuString, DefaultAndNullAreTheEmptyText) {
  EXPECT_TRUE(Holds(CZuString(), ""));
  const char* const none = nullptr;
  EXPECT_TRUE(Holds(CZuString(none), ""));
  CZuString string("text");
  string = none;
  EXPECT_TRUE(Holds(string, ""));
  static_assert(std::is_nothrow_default_constructible_v<CZuString>);
  static_assert(std::is_nothrow_destructible_v<CZuString>);
}

TEST(ZuString, IsMadeCopiedAndAssignedInEveryLength) {
  for (const std::size_t length : kLengths) {
    const std::string text = Text(length);
    const CZuString made(text.c_str());
    const CZuString copied(made);
    EXPECT_TRUE(Holds(made, text));
    EXPECT_TRUE(Holds(copied, text));
    EXPECT_NE(static_cast<const void*>(copied.c_str()), made.c_str()) << "no buffer is shared";
    for (const std::size_t before : kLengths) {
      CZuString fromText(Text(before).c_str());
      CZuString fromString(Text(before).c_str());
      EXPECT_EQ(&(fromText = text.c_str()), &fromText);
      EXPECT_EQ(&(fromString = made), &fromString);
      EXPECT_TRUE(Holds(fromText, text)) << before << " characters before";
      EXPECT_TRUE(Holds(fromString, text)) << before << " characters before";
    }
    EXPECT_TRUE(Holds(made, text)) << "the source is as it was";
  }
}

TEST(ZuString, StaysWholeWhenItsSourceChanges) {
  for (const std::size_t length : {10u, 200u}) {
    CZuString source(Text(length).c_str());
    CZuString copy(source);
    source = "other";
    EXPECT_TRUE(Holds(copy, Text(length)));
    CZuString moved(std::move(copy));  // copies: both stay usable
    EXPECT_TRUE(Holds(moved, Text(length)));
  }
}

TEST(ZuString, TextsBelowFiftyCharactersNeedNoHeap) {
  const std::size_t before = heap::Calls(heap::kNew);
  {
    for (const std::size_t length : {0u, 1u, 48u, 49u}) {
      char text[50] = {};
      std::memset(text, 'x', length);
      CZuString string(text);
      CZuString copy(string);
      copy = string;
      copy = text;
      EXPECT_TRUE(IsInside(string) && IsInside(copy)) << length;
      copy.Clear();
      copy.CheckAndAppendLastCharacter('/');
      copy.CheckAndRemoveLastCharacter('/');
      EXPECT_NE(copy.AllocateBuffer(49), nullptr);
      EXPECT_TRUE(IsInside(copy)) << length;
    }
  }
  EXPECT_EQ(heap::Calls(heap::kNew), before);
  for (const std::size_t length : {50u, 51u}) {
    const std::string text = Text(length);
    const std::size_t made = heap::Calls(heap::kNew);
    const CZuString string(text.c_str());
    EXPECT_FALSE(IsInside(string)) << length;
    EXPECT_EQ(heap::Calls(heap::kNew), made + 1) << length;
  }
}

TEST(ZuString, AssignsToItself) {
  for (const std::size_t length : kLengths) {
    CZuString string(Text(length).c_str());
    const CZuString& same = string;
    EXPECT_EQ(&(string = same), &string);
    EXPECT_TRUE(Holds(string, Text(length)));
    string = string.c_str();
    EXPECT_TRUE(Holds(string, Text(length)));
  }
}

TEST(ZuString, AssignsAPartOfItself) {
  for (const std::size_t length : kLengths) {
    for (const std::size_t start : {std::size_t{1}, length / 2, length}) {
      if (start > length) continue;
      CZuString string(Text(length).c_str());
      string = string.c_str() + start;
      EXPECT_TRUE(Holds(string, Text(length).substr(start))) << length << " from " << start;
    }
  }
}

TEST(ZuString, ClearEmptiesAndKeepsTheRoom) {
  for (const std::size_t length : kLengths) {
    CZuString string(Text(length).c_str());
    const char* const buffer = string.c_str();
    string.Clear();
    EXPECT_TRUE(Holds(string, ""));
    const std::size_t before = heap::Calls(heap::kNew);
    EXPECT_EQ(string.AllocateBuffer(length), buffer);
    EXPECT_EQ(heap::Calls(heap::kNew), before) << length;
  }
}

TEST(ZuString, AllocatedBufferKeepsTheTextAndTakesWhatIsWritten) {
  for (const std::size_t before : kLengths) {
    for (const std::size_t size : kLengths) {
      const std::string text = Text(before);
      CZuString string(text.c_str());
      char* const buffer = string.AllocateBuffer(size);
      ASSERT_NE(buffer, nullptr);
      EXPECT_EQ(buffer, string.c_str());
      EXPECT_TRUE(Holds(string, text)) << size;
      std::memset(buffer, 'w', size);
      buffer[size] = '\0';
      string.ReCalculateLength();
      EXPECT_TRUE(Holds(string, std::string(size, 'w'))) << before;
    }
  }
}

TEST(ZuString, GrownBufferFilledToTheLastCharacterEndsThere) {
  for (const std::size_t size : {50u, 51u, 100u, 5000u}) {
    CZuString string;
    char* const buffer = string.AllocateBuffer(size);
    ASSERT_NE(buffer, nullptr);
    std::memset(buffer, 'w', size);
    string.ReCalculateLength();
    EXPECT_TRUE(Holds(string, std::string(size, 'w')));
  }
}

TEST(ZuString, LengthEndsAtTheFirstZeroByte) {
  CZuString string;
  for (const std::size_t size : {10u, 60u}) {
    char* const buffer = string.AllocateBuffer(size);
    ASSERT_NE(buffer, nullptr);
    std::memcpy(buffer, "ab\0cd", 6);
    string.ReCalculateLength();
    EXPECT_TRUE(Holds(string, "ab"));
    buffer[0] = '\0';
    string.ReCalculateLength();
    EXPECT_TRUE(Holds(string, ""));
  }
}

TEST(ZuString, BufferThatCannotBeHadIsNullAndChangesNothing) {
  constexpr std::size_t kHuge[] = {
      std::numeric_limits<std::size_t>::max(), std::numeric_limits<std::size_t>::max() - 1,
      std::numeric_limits<std::size_t>::max() / 2, std::numeric_limits<std::size_t>::max() / 2 + 1};
  for (const std::size_t length : {0u, 49u, 50u, 200u}) {
    CZuString string(Text(length).c_str());
    const char* const buffer = string.c_str();
    for (const std::size_t size : kHuge) EXPECT_EQ(string.AllocateBuffer(size), nullptr) << size;
    {
      const heap::Failing none(heap::kNew, 1);
      EXPECT_EQ(string.AllocateBuffer(201), nullptr);
    }
    EXPECT_EQ(string.c_str(), buffer);
    EXPECT_TRUE(Holds(string, Text(length)));
    EXPECT_NE(string.AllocateBuffer(201), nullptr) << "works again when there is memory";
    EXPECT_TRUE(Holds(string, Text(length)));
  }
}

TEST(ZuString, FailedAllocationThrowsAndChangesNothing) {
  const std::string longText = Text(300);
  const CZuString longer(longText.c_str());
  for (const std::size_t length : {0u, 49u, 50u, 299u}) {
    CZuString string(Text(length).c_str());
    {
      const heap::Failing limit(heap::kNew, 301);  // the text fits, its terminator does not
      EXPECT_THROW(string = longText.c_str(), std::bad_alloc);
      EXPECT_THROW(string = longer, std::bad_alloc);
      EXPECT_THROW(CZuString{longText.c_str()}, std::bad_alloc);
      EXPECT_THROW(CZuString{longer}, std::bad_alloc);
    }
    EXPECT_TRUE(Holds(string, Text(length)));
  }
  CZuString full(Text(49).c_str());
  {
    const heap::Failing none(heap::kNew, 1);
    EXPECT_THROW(full.CheckAndAppendLastCharacter('!'), std::bad_alloc);
  }
  EXPECT_TRUE(Holds(full, Text(49)));
}

TEST(ZuString, LastCharacterIsAppendedUnlessItIsThere) {
  const struct {
    const char* text;
    char last;
    const char* result;
  } rows[] = {
      {"", '/', "/"},      {"/", '/', "/"},    {"a", '/', "a/"},   {"a/", '/', "a/"},
      {"a//", '/', "a//"}, {"/a", '/', "/a/"}, {"a/", '.', "a/."}, {"\xff", '\xff', "\xff"},
  };
  for (const auto& row : rows) {
    CZuString string(row.text);
    string.CheckAndAppendLastCharacter(row.last);
    EXPECT_TRUE(Holds(string, row.result)) << row.text;
  }
  for (const std::size_t length : kLengths) {
    CZuString string(Text(length).c_str());
    string.CheckAndAppendLastCharacter('!');
    EXPECT_TRUE(Holds(string, Text(length) + "!"));
    string.CheckAndAppendLastCharacter('!');
    EXPECT_TRUE(Holds(string, Text(length) + "!"));
  }
}

TEST(ZuString, LastCharacterIsRemovedOnceIfItIsThere) {
  const struct {
    const char* text;
    char last;
    const char* result;
  } rows[] = {
      {"", '/', ""},      {"/", '/', ""},    {"a", '/', "a"},   {"a/", '/', "a"},
      {"a//", '/', "a/"}, {"/a", '/', "/a"}, {"a/", '.', "a/"}, {"", '\0', ""},
  };
  for (const auto& row : rows) {
    CZuString string(row.text);
    string.CheckAndRemoveLastCharacter(row.last);
    EXPECT_TRUE(Holds(string, row.result)) << row.text;
  }
  for (const std::size_t length : kLengths) {
    CZuString string((Text(length) + "!").c_str());
    string.CheckAndRemoveLastCharacter('!');
    EXPECT_TRUE(Holds(string, Text(length)));
  }
}

TEST(ZuString, ManyAppendsGrowTheText) {
  CZuString string;
  std::string expected;
  for (int i = 0; i < 3000; ++i) {
    expected += i % 2 == 0 ? 'a' : 'b';
    string.CheckAndAppendLastCharacter(expected.back());
  }
  EXPECT_TRUE(Holds(string, expected));
}

TEST(ZuString, ComparesByText) {
  for (const std::size_t length : kLengths) {
    const CZuString string(Text(length).c_str());
    CZuString other(Text(length).c_str());
    EXPECT_TRUE(string == other);
    EXPECT_FALSE(string != other);
    EXPECT_NE(other.AllocateBuffer(length + 100), nullptr);
    EXPECT_TRUE(string == other) << "room does not count";
    other.CheckAndAppendLastCharacter('!');
    EXPECT_FALSE(string == other);
    EXPECT_TRUE(string != other);
  }
  EXPECT_FALSE(CZuString("abc") == CZuString("abd"));
  EXPECT_TRUE(CZuString("Abc") != CZuString("abc"));
  EXPECT_TRUE(CZuString() == "");
  EXPECT_TRUE("text" == CZuString("text"));
}
