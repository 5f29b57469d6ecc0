#include "ZuUtils/FXString.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <string>
#include <thread>
#include <vector>

#include "support/Expect.h"

namespace {

using Parts = std::vector<std::string>;

// Not marked as a formatting function: the compiler would refuse what the tests try on purpose.
CZuError FormatInto(std::string& text, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const CZuError error = FXString::FormatArgList(text, fmt, args);
  va_end(args);
  return error;
}

constexpr wchar_t kInvalid[] = {L'o', L'k', static_cast<wchar_t>(0x7FFFFFFF), 0};

}  // namespace

TEST(FXStringFormat, FormatsLikePrintf) {
  EXPECT_EQ(FXString::Format("plain"), "plain");
  EXPECT_EQ(FXString::Format("%s|%5d|%-4u|%04X|%c|%%|%.2f|%zu|%p", "text", -42, 7u, 0xBEu, 'c', 1.5,
                             sizeof(int), static_cast<void*>(nullptr)),
            "text|  -42|7   |00BE|c|%|1.50|4|(nil)");
  const std::string empty;
  EXPECT_EQ(FXString::Format("%s", empty.c_str()), "");
}

TEST(FXStringFormat, TextsMayHaveAnyLength) {
  for (const std::size_t length : {0u, 1u, 254u, 255u, 256u, 257u, 511u, 512u, 4096u, 1u << 20}) {
    std::string expected(length, 'x');
    if (length > 0) expected.back() = 'y';
    std::string text = "before";
    EXPECT_OK(FormatInto(text, "%s", expected.c_str()));
    EXPECT_EQ(text.size(), length);
    EXPECT_TRUE(text == expected) << length;
    EXPECT_TRUE(FXString::Format("%s", expected.c_str()) == expected) << length;
    EXPECT_TRUE(FXString::Format("%s-%d", expected.c_str(), 42) == expected + "-42")
        << "arguments behind the long one, " << length;
  }
}

TEST(FXStringFormat, KeepsZeroBytes) {
  std::string text;
  EXPECT_OK(FormatInto(text, "a%cb", '\0'));
  EXPECT_EQ(text, std::string("a\0b", 3));
}

TEST(FXStringFormat, ReplacesTheTextBeforeIt) {
  std::string text(5000, 'o');
  EXPECT_OK(FormatInto(text, "%d", 7));
  EXPECT_EQ(text, "7");
}

TEST(FXStringFormat, RefusalLeavesAnEmptyTextAndTheFormattersErrno) {
  const struct {
    const char* what;
    int err;
    CZuError (*format)(std::string& text);
  } rows[] = {
      {"character without multibyte form", EILSEQ,
       [](std::string& text) { return FormatInto(text, "a %ls", kInvalid); }},
      {"the same behind a long text", EILSEQ,
       [](std::string& text) { return FormatInto(text, "%300d %ls", 1, kInvalid); }},
      {"single wide character", EILSEQ,
       [](std::string& text) { return FormatInto(text, "%lc", static_cast<wint_t>(0x7FFFFFFF)); }},
      {"field wider than INT_MAX", EOVERFLOW,
       [](std::string& text) { return FormatInto(text, "%2147483648d", 1); }},
      {"precision beyond INT_MAX", EOVERFLOW,
       [](std::string& text) { return FormatInto(text, "%.2147483648d", 1); }},
  };
  for (const auto& row : rows) {
    std::string text = "before";
    errno = 0;
    EXPECT_FAILS(row.format(text), ErrNoCode(row.err), "Failed to format the text") << row.what;
    EXPECT_EQ(text, "") << row.what;
  }
  const std::string hidden = "a %ls";
  EXPECT_EQ(FXString::Format(hidden.c_str(), kInvalid), "");
}

TEST(FXStringFormat, NullFormatIsAnInvalidArgument) {
  std::string text = "before";
  EXPECT_FAILS(FormatInto(text, nullptr), Win32Code(kErrorInvalidArgument),
               "Null parameter passed");
  EXPECT_EQ(text, "");
}

TEST(FXStringFormat, WorksOnSeveralThreads) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(FXString::Format("%0300d", t * 1000 + i).substr(296).size(), 4u);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(FXStringSplit, GivesOnePartMoreThanSeparators) {
  const struct {
    const char* text;
    const char* separator;
    unsigned limit;
    Parts parts;
  } rows[] = {
      {"a,b,c", ",", 0, {"a", "b", "c"}},
      {"abc", ",", 0, {"abc"}},
      {"", ",", 0, {""}},
      {",", ",", 0, {"", ""}},
      {",,", ",", 0, {"", "", ""}},
      {",a", ",", 0, {"", "a"}},
      {"a,", ",", 0, {"a", ""}},
      {"a,,b", ",", 0, {"a", "", "b"}},
      {"a\r\nb\r\n", "\r\n", 0, {"a", "b", ""}},
      {"a\nb\r\nc", "\r\n", 0, {"a\nb", "c"}},
      {"aaaa", "aa", 0, {"", "", ""}},
      {"aaa", "aa", 0, {"", "a"}},
      {"abc", "abc", 0, {"", ""}},
      {"abc", "abcd", 0, {"abc"}},
      {"a b", "", 0, {"a b"}},
      {"", "", 0, {""}},
      {"a b", "", 3, {"a b"}},
      {"a,b,c", ",", 1, {"a,b,c"}},
      {"a,b,c", ",", 2, {"a", "b,c"}},
      {"a,b,c", ",", 3, {"a", "b", "c"}},
      {"a,b,c", ",", 4, {"a", "b", "c"}},
      {"a,b,c", ",", UINT_MAX, {"a", "b", "c"}},
      {",,,", ",", 2, {"", ",,"}},
      {"", ",", 1, {""}},
      {"name:value:x", ":", 2, {"name", "value:x"}},
  };
  for (const auto& row : rows) {
    Parts parts;
    FXString::Split(row.text, row.separator, parts, row.limit);
    EXPECT_EQ(parts, row.parts) << "\"" << row.text << "\" at \"" << row.separator << "\", limit "
                                << row.limit;
  }
}

TEST(FXStringSplit, AppendsToTheParts) {
  Parts parts = {"first"};
  FXString::Split("a,b", ",", parts, 0);
  FXString::Split("c", ",", parts, 1);
  EXPECT_EQ(parts, (Parts{"first", "a", "b", "c"}));
}

TEST(FXStringSplit, KeepsZeroBytes) {
  Parts parts;
  FXString::Split(std::string("a\0b,c", 5), ",", parts, 0);
  EXPECT_EQ(parts, (Parts{std::string("a\0b", 3), "c"}));
  parts.clear();
  FXString::Split(std::string("a\0b", 3), std::string("\0", 1), parts, 0);
  EXPECT_EQ(parts, (Parts{"a", "b"}));
}

TEST(FXStringToLower, ChangesAsciiLettersAlone) {
  const struct {
    const char* text;
    const char* lower;
  } rows[] = {
      {"", ""},
      {"HTTP://Server.COM/Path", "http://server.com/path"},
      {"already lower 123", "already lower 123"},
      {"@AZ[`az{", "@az[`az{"},
      {"\xC4\xD6\xDC\xC3\x84", "\xC4\xD6\xDC\xC3\x84"},
  };
  for (const auto& row : rows) {
    std::string text = row.text;
    FXString::ToLower(text);
    EXPECT_EQ(text, row.lower) << row.text;
  }
}

TEST(FXStringTrimRight, RemovesEveryTrailingCharacterOfTheSet) {
  const struct {
    const char* text;
    const char* chars;
    const char* trimmed;
  } rows[] = {
      {"text  ", " ", "text"}, {"text \r\n\t", " \r\n\t", "text"},
      {"a/b//", "/", "a/b"},   {"text", " ", "text"},
      {" text", " ", " text"}, {"   ", " ", ""},
      {"", " ", ""},           {"text ", "", "text "},
      {"abcba", "ab", "abc"},  {"ab cd ab", "ab", "ab cd "},
  };
  for (const auto& row : rows) {
    std::string text = row.text;
    FXString::TrimRight(text, row.chars);
    EXPECT_EQ(text, row.trimmed) << "\"" << row.text << "\" of \"" << row.chars << "\"";
  }
}

TEST(FXStringRemoveRight, RemovesTheSuffixOnce) {
  const struct {
    const char* text;
    const char* suffix;
    const char* rest;
  } rows[] = {
      {"file.txt", ".txt", "file"},
      {"a//", "/", "a/"},
      {"ababab", "ab", "abab"},
      {"file.txt", ".TXT", "file.txt"},
      {"txt", ".txt", "txt"},
      {"same", "same", ""},
      {"", "x", ""},
      {"text", "", "text"},
      {"", "", ""},
      {"a.txt.b", ".txt", "a.txt.b"},
  };
  for (const auto& row : rows) {
    std::string text = row.text;
    FXString::RemoveRight(text, row.suffix);
    EXPECT_EQ(text, row.rest) << "\"" << row.suffix << "\" off \"" << row.text << "\"";
  }
}

TEST(FXStringRemoveRight, TakesTheTextItselfAsSuffix) {
  std::string text = "whole";
  FXString::RemoveRight(text, text);
  EXPECT_EQ(text, "");
}
