#include <gmock/gmock.h>

#include "servers/Listings.h"
#include "servers/TestRequest.h"
#include "support/TempDir.h"

using testing::ElementsAre;
using testing::UnorderedElementsAreArray;

namespace {

std::string Page(const std::string& name) { return LISTINGS_DIR "/" + name + ".html"; }

}  // namespace

TEST(ListingPages, SavedPagesOfServersReadAlike) {
  for (const char* const name : {"nginx", "lighttpd", "apache"}) {
    SCOPED_TRACE(name);
    TestRequest request(1);
    Names names;
    EXPECT_FAILS(Collect(request, Page(name), "/listing/", names), IntCode(101),
                 "Invalid HTTP Reponse. Parsing the reponse file failed.");
    EXPECT_THAT(names, testing::Not(testing::Contains("a.txt")));
    names.clear();
    request.setLenientListing(true);
    EXPECT_OK(Collect(request, Page(name), "/listing/", names));
    EXPECT_THAT(names, UnorderedElementsAreArray(WithFolder()));
  }
}

TEST(ListingPages, APageWithUpperCaseLinksNeedsNoLeniency) {
  const Names expected = {"docs/", "with blank/", "a b.txt", "über.zip"};
  for (const bool isLenient : {false, true}) {
    SCOPED_TRACE(isLenient);
    TestRequest request(1);
    request.setLenientListing(isLenient);
    Names names;
    EXPECT_OK(Collect(request, Page("upper_case"), "/pub/", names));
    EXPECT_EQ(names, expected);
  }
}

TEST(ListingPages, UpperCaseLinksGoFirstUnlessItIsLenient) {
  TestRequest request(1);
  Names names;
  EXPECT_OK(Collect(request, Page("mixed_case"), "/", names));
  EXPECT_THAT(names, ElementsAre("first.txt", "second.txt", "last.txt"));
  names.clear();
  request.setLenientListing(true);
  EXPECT_OK(Collect(request, Page("mixed_case"), "/pub/", names));
  EXPECT_THAT(names,
              ElementsAre("passed.over", "first.txt", "passed.too", "second.txt", "last.txt"));
}

TEST(ListingPages, LenientLinksThatLeadElsewhereAreDropped) {
  const TempDir folder;
  const struct {
    const char* target;
    const char* name;  // null: dropped
  } cases[] = {
      {"a.txt", "a.txt"},
      {"./a.txt", "a.txt"},
      {"./a:b.txt", "a:b.txt"},
      {"/pub/a.txt", "a.txt"},
      {"/pub/sub/", "sub/"},
      {"a&amp;b.txt", "a&b.txt"},
      {"a&amp;amp;b.txt", "a&amp;b.txt"},
      {"%2e%2e.txt", "...txt"},
      {"../", nullptr},
      {"..", nullptr},
      {"./", nullptr},
      {".", nullptr},
      {"/", nullptr},
      {"/pub/", nullptr},
      {"", nullptr},
      {"?C=N;O=D", nullptr},
      {"a.txt?download", nullptr},
      {"#top", nullptr},
      {"mailto:someone@example.com", nullptr},
      {"https://elsewhere.example/a.txt", nullptr},
      {"web.config", nullptr},
  };
  for (const auto& [target, name] : cases) {
    SCOPED_TRACE(target);
    WriteFile(folder / "page",
              "<a href=\"first.txt\"></a><a href=\"" + std::string(target) + "\">");
    TestRequest request(1);
    request.setLenientListing(true);
    Names names;
    EXPECT_OK(Collect(request, folder / "page", "/pub/", names));
    Names expected = {"first.txt"};
    if (name != nullptr) expected.push_back(name);
    EXPECT_EQ(names, expected);
  }
}

TEST(ListingPages, AHugePageTakesNoLongerThanItsSize) {
  const TempDir folder;
  constexpr size_t kLinks = 200000;
  std::string page;
  for (size_t i = 0; i < kLinks; ++i) page += "<a href=\"/pub/x\">";
  WriteFile(folder / "page", page);
  TestRequest request(1);
  Names names;
  EXPECT_OK(Collect(request, folder / "page", "/pub/", names));
  EXPECT_EQ(names.size(), kLinks);
}
