#include "zu/Buffer.h"

#include <cerrno>
#include <string>
#include <utility>

#include "support/Expect.h"

namespace {

std::string_view Line(zu::Buffer& buffer, std::string_view delimiter = "\r\n") {
  std::string_view text = "(none)";
  EXPECT_TRUE(buffer.TakeUntil(delimiter, text));
  return text;
}

TEST(ZuBuffer, GivesBackWhatWasAppendedInOrder) {
  zu::Buffer buffer;
  EXPECT_TRUE(buffer.IsEmpty());
  ASSERT_OK(buffer.Append("ab"));
  ASSERT_OK(buffer.Append(""));
  ASSERT_OK(buffer.Append("cde"));
  EXPECT_EQ(buffer.View(), "abcde");
  EXPECT_EQ(buffer.Size(), 5u);
  buffer.Consume(2);
  EXPECT_EQ(buffer.View(), "cde");
  buffer.Consume(100);
  EXPECT_TRUE(buffer.IsEmpty());
  ASSERT_OK(buffer.Append("f"));
  EXPECT_EQ(buffer.View(), "f");
}

TEST(ZuBuffer, RefusesWhatIsBeyondItsLimitWhole) {
  zu::Buffer buffer(4);
  ASSERT_OK(buffer.Append("abc"));
  EXPECT_FAILS(buffer.Append("de"), ErrNoCode(ENOBUFS), "2 bytes beside 3 in a buffer of 4");
  EXPECT_EQ(buffer.View(), "abc");
  EXPECT_OK(buffer.Append("d"));
  EXPECT_FAILS(buffer.Append("e"), ErrNoCode(ENOBUFS), "");
  buffer.Consume(1);
  EXPECT_OK(buffer.Append("e"));
  EXPECT_EQ(buffer.View(), "bcde");
}

TEST(ZuBuffer, OfNoBytesTakesNone) {
  zu::Buffer buffer(0);
  EXPECT_OK(buffer.Append(""));
  EXPECT_FAILS(buffer.Append("a"), ErrNoCode(ENOBUFS), "");
}

TEST(ZuBuffer, TakesALineAndKeepsWhatIsBeyond) {
  zu::Buffer buffer;
  ASSERT_OK(buffer.Append("one\r\n\r\nthree\r"));
  EXPECT_EQ(Line(buffer), "one");
  EXPECT_EQ(Line(buffer), "");
  std::string_view text = "untouched";
  EXPECT_FALSE(buffer.TakeUntil("\r\n", text));
  EXPECT_EQ(text, "untouched");
  EXPECT_EQ(buffer.View(), "three\r");
  ASSERT_OK(buffer.Append("\n"));
  EXPECT_EQ(Line(buffer), "three");
  EXPECT_TRUE(buffer.IsEmpty());
}

TEST(ZuBuffer, FindsADelimiterWhereverItsPiecesMeet) {
  const std::string delimiter = "--end--";
  const std::string all = "some text-" + delimiter + "rest";
  for (std::size_t cut = 0; cut <= all.size(); ++cut) {
    zu::Buffer buffer;
    std::string_view text;
    ASSERT_OK(buffer.Append(std::string_view(all).substr(0, cut)));
    const bool early = buffer.TakeUntil(delimiter, text);
    EXPECT_EQ(early, cut >= all.size() - 4) << cut;
    if (early) continue;
    ASSERT_OK(buffer.Append(std::string_view(all).substr(cut)));
    EXPECT_EQ(Line(buffer, delimiter), "some text-") << cut;
    EXPECT_EQ(buffer.View(), "rest") << cut;
  }
}

TEST(ZuBuffer, LooksAgainForAnotherDelimiter) {
  zu::Buffer buffer;
  std::string_view text;
  ASSERT_OK(buffer.Append("a\nb"));
  EXPECT_FALSE(buffer.TakeUntil("\r\n", text));
  EXPECT_EQ(Line(buffer, "\n"), "a");
}

TEST(ZuBuffer, NeverFindsAnEmptyDelimiter) {
  zu::Buffer buffer;
  std::string_view text;
  ASSERT_OK(buffer.Append("abc"));
  EXPECT_FALSE(buffer.TakeUntil("", text));
}

// A peer that sends a long line byte by byte is not to cost the square of its length.
TEST(ZuBuffer, LooksAtEachByteOnce) {
  zu::Buffer buffer(4 << 20);
  std::string_view text;
  const std::string piece(16, 'x');
  for (int i = 0; i < 250000; ++i) {
    ASSERT_OK(buffer.Append(piece));
    ASSERT_FALSE(buffer.TakeUntil("\n", text));
  }
  ASSERT_OK(buffer.Append("\n"));
  EXPECT_EQ(Line(buffer, "\n").size(), 4000000u);
}

TEST(ZuBuffer, TakesSoManyBytesOrNone) {
  zu::Buffer buffer;
  ASSERT_OK(buffer.Append("abc"));
  std::string_view bytes = "untouched";
  EXPECT_FALSE(buffer.Take(4, bytes));
  EXPECT_EQ(bytes, "untouched");
  EXPECT_TRUE(buffer.Take(0, bytes));
  EXPECT_EQ(bytes, "");
  EXPECT_TRUE(buffer.Take(2, bytes));
  EXPECT_EQ(bytes, "ab");
  EXPECT_EQ(buffer.View(), "c");
}

TEST(ZuBuffer, KeepsItsBytesThroughEveryMixOfAppendAndConsume) {
  zu::Buffer buffer(5000);
  std::string expected;
  std::size_t total = 0;
  for (std::size_t i = 0; i < 20000; ++i) {
    const std::string piece(i * 7 % 613, static_cast<char>('a' + i % 26));
    if (expected.size() + piece.size() <= 5000) {
      ASSERT_OK(buffer.Append(piece));
      expected += piece;
      total += piece.size();
    }
    const std::size_t drop = i * 11 % 701;
    buffer.Consume(drop);
    expected.erase(0, drop);
    ASSERT_EQ(buffer.View(), expected) << i;
  }
  EXPECT_GT(total, 1000000u);
}

TEST(ZuBuffer, ThatWasMovedFromIsEmptyAndOfUse) {
  zu::Buffer first(100);
  ASSERT_OK(first.Append("abc\nd"));
  zu::Buffer second = std::move(first);
  EXPECT_EQ(Line(second, "\n"), "abc");
  EXPECT_EQ(second.View(), "d");
  EXPECT_TRUE(first.IsEmpty());  // NOLINT(bugprone-use-after-move): this is what is tested
  EXPECT_EQ(first.View(), "");
  ASSERT_OK(first.Append("new"));
  EXPECT_EQ(first.View(), "new");
  second = std::move(first);
  EXPECT_EQ(second.View(), "new");
  zu::Buffer& same = second;
  second = std::move(same);
  EXPECT_EQ(second.View(), "new");
}

}  // namespace
