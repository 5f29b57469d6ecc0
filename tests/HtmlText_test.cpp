#include "ZuNetwork/internal/HtmlText.h"

#include <gtest/gtest.h>

TEST(DecodeEntities, DecodesNumbersAndNames) {
  const struct {
    const char* text;
    const char* decoded;
  } cases[] = {
      {"", ""},
      {"plain", "plain"},
      {"a&amp;b", "a&b"},
      {"&lt;&gt;&quot;&apos;", "<>\"'"},
      {"it&#39;s", "it's"},
      {"it&#x27;s", "it's"},
      {"it&#X0027;s", "it's"},
      {"&#228;&auml;&#xE4;", "\xC3\xA4\xC3\xA4\xC3\xA4"},
      {"&Auml;&auml;", "\xC3\x84\xC3\xA4"},
      {"&euro;&AElig;&zwnj;", "\xE2\x82\xAC\xC3\x86\xE2\x80\x8C"},
      {"&#x1F600;", "\xF0\x9F\x98\x80"},
      {"&#x7FF;&#x800;&#xFFFF;&#x10000;", "\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80"},
      {"&#10;&#x7f;", "\n\x7F"},
      {"&amp;amp;", "&amp;"},
      {"&#38;lt;", "&lt;"},
  };
  for (const auto& [text, decoded] : cases) EXPECT_EQ(DecodeEntities(text), decoded) << text;
}

TEST(DecodeEntities, LeavesWhatIsNoReference) {
  for (const char* const text : {"&", "&;", "a&b", "&amp", "&amp b;", "&AMP;", "&nosuchname;",
                                 "&#;", "&#x;", "&#12a;", "&#xg;", "&#-1;", "&#+1;", "& amp;", "&a",
                                 "&aa;", "&zzz;", "&                                   ;"}) {
    EXPECT_EQ(DecodeEntities(text), text);
  }
}

TEST(DecodeEntities, WhatIsNoCharacterIsReplaced) {
  for (const char* const text :
       {"&#0;", "&#xD800;", "&#xDFFF;", "&#x110000;", "&#4294967296;", "&#99999999999999999999;"}) {
    EXPECT_EQ(DecodeEntities(text), "\xEF\xBF\xBD") << text;
  }
}

TEST(DecodeEntities, EveryNameIsFound) {
  const struct {
    const char* name;
    const char* character;
  } cases[] = {{"AElig", "\xC3\x86"}, {"Aacute", "\xC3\x81"}, {"nbsp", "\xC2\xA0"},
               {"yuml", "\xC3\xBF"},  {"zeta", "\xCE\xB6"},   {"zwj", "\xE2\x80\x8D"},
               {"sup1", "\xC2\xB9"},  {"frac12", "\xC2\xBD"}, {"there4", "\xE2\x88\xB4"}};
  for (const auto& [name, character] : cases) {
    EXPECT_EQ(DecodeEntities("&" + std::string(name) + ";"), character) << name;
  }
}

TEST(DecodeEntities, AMillionOfThemTakeNoLongerThanTheirSize) {
  constexpr size_t kCount = 1'000'000;
  std::string text;
  std::string unknown;
  for (size_t i = 0; i < kCount; ++i) {
    text += "&amp;";
    unknown += "&amp";
  }
  EXPECT_EQ(DecodeEntities(text), std::string(kCount, '&'));
  EXPECT_EQ(DecodeEntities(unknown), unknown);
  EXPECT_EQ(DecodeEntities(std::string(kCount, '&')), std::string(kCount, '&'));
}
