#include "ZuNetwork/internal/KdListing.h"

#include "support/Expect.h"

using KdCURL::FileDirInfo;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Names = std::vector<std::string>;  // with a slash behind a folder's

CZuError Read(const std::string& page, Names& names, const std::string& folder = "/pub/") {
  std::vector<FileDirInfo> entries;
  CZuError error = KdCURL::ReadPageLeniently(ZU_HERE, page, folder, entries);
  for (const FileDirInfo& entry : entries) names.push_back(entry.name + (entry.isFile ? "" : "/"));
  return error;
}

Names EntriesOf(const std::string& page, const std::string& folder = "/pub/") {
  Names names;
  EXPECT_OK(Read(page, names, folder));
  return names;
}

// The name that a link with this target gives; "dropped" when it gives none.
std::string NameOf(const std::string& target, const std::string& folder = "/pub/") {
  const Names names = EntriesOf("<a href=\"" + target + "\">", folder);
  return names.empty() ? "dropped" : names.at(0);
}

CZuError ReadLines(const std::string& text, Names& names) {
  std::vector<FileDirInfo> entries;
  CZuError error = KdCURL::ReadNamesLeniently(ZU_HERE, text, entries);
  for (const FileDirInfo& entry : entries) names.push_back(entry.name);
  return error;
}

}  // namespace

TEST(LenientPage, ALinkCountsHoweverItIsWritten) {
  for (const char* const page : {
           "<a href=\"x\">",
           "<a href='x'>",
           "<a href=x>",
           "<A HREF=\"x\">",
           "<a Href = \"x\" >",
           "<a\n\thref\n=\n'x'\n>",
           "<a class=\"c\" href=\"x\" id=i>",
           "<a title=\"a > b\" href=\"x\">",
           "<a title='href=\"y\"' href=\"x\">",
           "<a download href=x>",
           "<a download=href href=x>",
           "<a/href=\"x\"/>",
           "<a href=\"x\" href=\"y\">",
           "<a href=\" x \">",
           "<a href=\"\n x\t\">",
           "<a href=\"&#120;\">",
           "<a href=\"%78\">",
           "<a href=\"x\"><img src=\"y\"></a> <a href=\"x\">x</a>",
           "text <a href=x",  // the page ends there, but the value does not
       }) {
    SCOPED_TRACE(page);
    Names names;
    const CZuError error = Read(page, names);
    EXPECT_THAT(names, ElementsAre("x"));
    EXPECT_EQ(Failed(error), std::string(page) == "text <a href=x");
  }
}

TEST(LenientPage, OnlyAnchorsLead) {
  for (const char* const page : {
           "<link href=\"style.css\">",
           "<a data-href=\"x\">",
           "<area href=\"x\">",
           "<abbr href=\"x\">",
           "<base href=\"x\">",
           "<img src=\"x\">",
           "href=\"x\"",
           "<!-- <a href=\"x\"> -->",
           "<!-- <a href=\"x\">",
           "<script>\"<a href='x'>\"</script>",
           "<SCRIPT><a href=x></Script>",
           "<style><a href=x></style>",
           "<script><a href=x>",
           "</a href=\"x\">",
           "< a href=\"x\">",
           "<a>",
           "<a href>",
           "<a href=>",
           "<a href=\"\">",
           "",
           "<",
           "<!",
           "<!--",
       }) {
    EXPECT_THAT(EntriesOf(page), IsEmpty()) << page;
  }
}

TEST(LenientPage, WhatFollowsThemStillLeads) {
  EXPECT_THAT(EntriesOf("<!-- <a href=x> --><script><a href=y></script><a href=z>"),
              ElementsAre("z"));
  EXPECT_THAT(EntriesOf("1 < 2 <a href=x> & <b>bold</b> <a href=y>"), ElementsAre("x", "y"));
}

TEST(LenientPage, TheNameIsDecoded) {
  const struct {
    const char* target;
    const char* name;
  } cases[] = {
      {"it&#39;s.txt", "it's.txt"},
      {"b%20&amp;%20c.txt", "b & c.txt"},
      {"&lt;tag&gt;.txt", "<tag>.txt"},
      {"a&amp;amp;.txt", "a&amp;.txt"},
      {"100%.txt", "100%.txt"},
      {"100%2", "100%2"},
      {"%zz", "%zz"},
      {"a+b", "a+b"},
      {"caf&eacute;", "caf\xC3\xA9"},
      {"caf%C3%A9/", "caf\xC3\xA9/"},
      {"%ff", "\xFF"},
      {"odd%2520.txt", "odd%20.txt"},
      {"h%23.txt", "h#.txt"},
      {"q%3f.txt", "q?.txt"},
      {"back%5cslash", "back\\slash"},
  };
  for (const auto& [target, name] : cases) EXPECT_EQ(NameOf(target), name) << target;
}

TEST(LenientPage, AColonMayStandInAName) {
  EXPECT_EQ(NameOf("colon:name.txt"), "colon:name.txt");
  EXPECT_EQ(NameOf("2026-11-21T12:00:00.log"), "2026-11-21T12:00:00.log");
  EXPECT_EQ(NameOf("a:b/"), "a:b/");
  EXPECT_EQ(NameOf("./http:name"), "http:name");
  EXPECT_EQ(NameOf("http%3Aname"), "http:name");
  EXPECT_EQ(NameOf("/pub/mailto:x"), "mailto:x");
  for (const char* const target :
       {"mailto:bob@example.com", "MailTo:bob", "javascript:void(0)", "data:text/plain,x", "http:x",
        "unknown://host/x", "https://elsewhere.example/pub/x", "//elsewhere.example/pub/x"}) {
    EXPECT_EQ(NameOf(target), "dropped") << target;
  }
}

TEST(LenientPage, OnlyWhatIsDirectlyInTheFolderCounts) {
  const struct {
    const char* folder;
    const char* target;
    const char* name;
  } cases[] = {
      {"/pub/", "/pub/x", "x"},
      {"/pub", "/pub/x", "x"},
      {"pub", "/pub/x", "x"},
      {"/pub/", "/pub/x/", "x/"},
      {"/pub/", "/pub/", "dropped"},
      {"/pub/", "/pub", "dropped"},
      {"/pub/", "/", "dropped"},
      {"/pub/", "/public/x", "dropped"},
      {"/pub/", "/other/x", "dropped"},
      {"/pub/", "/pub/sub/x", "dropped"},
      {"/pub/", "sub/x", "dropped"},
      {"/pub/", "/x", "dropped"},
      {"/", "/x", "x"},
      {"", "/x", "x"},
      {"/", "/pub/x", "dropped"},
      {"/a b/", "/a%20b/x", "x"},
      {"/a%20b/", "/a%20b/x", "x"},
      {"/a%20b/", "/a b/x", "x"},
      {"http://h:80/pub/", "/pub/x", "x"},
      {"http://h/pub/?C=N", "/pub/x", "x"},
      {"http://h", "/x", "x"},
      {"/pub/", "././x", "x"},
      {"/pub/", "../x", "dropped"},
      {"/pub/", "../pub/x", "dropped"},
      {"/pub/", "/pub/../x", "dropped"},
      {"/pub/", "x?download", "dropped"},
      {"/pub/", "?C=N;O=D", "dropped"},
      {"/pub/", "#top", "dropped"},
      {"/pub/", "x//", "dropped"},
      {"/pub/", "/pub//x", "dropped"},
  };
  for (const auto& [folder, target, name] : cases) {
    EXPECT_EQ(NameOf(target, folder), name) << target << " in " << folder;
  }
}

TEST(LenientPage, ANameThatIsNoneOfAFileIsDropped) {
  for (const char* const target : {"..%2f..%2fetc%2fpasswd",
                                   "..",
                                   "%2e%2e",
                                   "%2e%2E/",
                                   ".",
                                   "%2e",
                                   "./",
                                   "%2f",
                                   "a%2fb",
                                   "a%00b",
                                   "%00",
                                   "a%0ab",
                                   "a%0d",
                                   "%1b[2J",
                                   "a&#27;b",
                                   "%7f",
                                   "%c2%9b31m",
                                   "a%09b",
                                   "web.config",
                                   "%2e%2e%2f"}) {
    EXPECT_EQ(NameOf(target), "dropped") << target;
  }
  EXPECT_EQ(NameOf("..."), "...");
  EXPECT_EQ(NameOf(".hidden"), ".hidden");
  EXPECT_EQ(NameOf("%c2%a0"), "\xC2\xA0");
  EXPECT_EQ(NameOf("%9b"), "\x9B");
}

TEST(LenientPage, APageThatIsCutWithinALinkIsAnError) {
  for (const char* const rest : {"<a href=\"x", "<a href='x\"", "<a href=", "<a", "<a ", "<a x"}) {
    SCOPED_TRACE(rest);
    Names names;
    EXPECT_FAILS(Read("<a href=\"first\">" + std::string(rest), names), IntCode(101),
                 "Invalid HTTP Reponse. Parsing the reponse file failed.");
    EXPECT_EQ(names.at(0), "first");
  }
}

TEST(LenientPage, AZeroByteIsAnErrorThatTellsWhere) {
  Names names;
  EXPECT_FAILS(Read(std::string("<a href=x>\0<a href=y>", 21), names), IntCode(101),
               "Zero byte at position 10 of the listing");
  EXPECT_THAT(names, IsEmpty());
}

TEST(LenientPage, HugePagesTakeNoLongerThanTheirSize) {
  constexpr size_t kCount = 100'000;  // takes minutes where it is squared
  const auto repeat = [](const std::string& text) {
    std::string page;
    for (size_t i = 0; i < kCount; ++i) page += text;
    return page;
  };
  EXPECT_EQ(NameOf(repeat("&amp;&amp;&amp;&amp;&amp;&amp;&amp;&amp;&amp;&amp;")),
            std::string(10 * kCount, '&'));
  EXPECT_EQ(EntriesOf(repeat("<a href=x>")).size(), 1U);
  EXPECT_THAT(EntriesOf(repeat("<")), IsEmpty());
  EXPECT_THAT(EntriesOf(repeat("<a>")), IsEmpty());
  EXPECT_THAT(EntriesOf(repeat("<!--")), IsEmpty());
  EXPECT_THAT(EntriesOf(repeat("<script>")), IsEmpty());
  EXPECT_THAT(EntriesOf("<script>" + repeat("</")), IsEmpty());
  EXPECT_THAT(EntriesOf("<a " + repeat("x=y ") + ">"), IsEmpty());
  EXPECT_EQ(NameOf(repeat("./")), "dropped");
  EXPECT_EQ(NameOf(repeat("a/")), "dropped");
  EXPECT_EQ(NameOf(repeat("%41")), std::string(kCount, 'A'));
  Names names;
  EXPECT_TRUE(Failed(Read(repeat("<a href=' "), names)));
}

TEST(LenientNames, LinesCountHoweverTheyEnd) {
  const struct {
    const char* text;
    Names names;
  } cases[] = {
      {"", {}},
      {"a\nb\r\nc", {"a", "b", "c"}},
      {"last", {"last"}},
      {"\n\r\n\n", {}},
      {"a\n..\n.\n...\n", {"a", "..."}},
      {"a/b\n../c\n/d\n", {}},
      {"a\rb\nc\x1b[2J\n\x7f\n\xC2\x9B\nd\te\n", {}},
      {" a \n%41\n\xFF\nweb.config\n", {" a ", "%41", "\xFF", "web.config"}},
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    Names names;
    EXPECT_OK(ReadLines(text, names));
    EXPECT_EQ(names, expected);
  }
}

TEST(LenientNames, AZeroByteIsAnErrorThatTellsWhere) {
  Names names;
  EXPECT_FAILS(ReadLines(std::string("a\nb\0c\n", 6), names), IntCode(101),
               "Zero byte at position 3 of the listing");
  EXPECT_THAT(names, IsEmpty());
}
