#include <gmock/gmock.h>

#include <filesystem>

#include "servers/TestRequest.h"
#include "support/FileServers.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAreArray;

namespace fs = std::filesystem;

namespace {

using Names = std::vector<std::string>;  // with a slash behind a folder's

const Names kFiles = {"a.txt",      "b & c.txt",     "co:lon.txt", "h#.txt",    "it's.txt",
                      "odd%20.txt", "plus+.txt",     "q?.txt",     "semi;.txt", "qu\"ote.txt",
                      "<tag>.txt",  "[bracket].txt", "über.txt"};

Names WithFolder() {
  Names names = kFiles;
  names.push_back("sub/");
  return names;
}

// Fills www/listing with the files, a folder and what listings leave out.
void Fill(const TempDir& folder) {
  const fs::path listing = folder / "www/listing";
  for (const std::string& name : kFiles) WriteFile(listing / name, "text");
  WriteFile(listing / "web.config", "dropped");
  WriteFile(listing / "sub/inner.txt", "text");
  fs::permissions(folder.Path(), fs::perms{0755});
}

CZuError Collect(KdCURL::KdHTTPReq& request, const std::string& page, const std::string& source,
                 Names& names) {
  std::vector<KdCURL::FileDirInfo> entries;
  CZuError error = request.collectFilesAndDir(page, &entries, source);
  for (const KdCURL::FileDirInfo& entry : entries) {
    EXPECT_EQ(entry.fileSize, 0.0) << entry.name;
    names.push_back(entry.name + (entry.isFile ? "" : "/"));
  }
  return error;
}

// The entries of a folder of the server; `isLenient` as for setLenientListing().
CZuError List(int port, const char* path, bool isLenient, Names& names) {
  const TempDir folder;
  TestRequest request(port);
  request.setLenientListing(isLenient);
  CZuError error = request.Collect().getFilesAndDirsInfoInFile(path);
  if (Failed(error)) return error;
  WriteFile(folder / "page", request.body.text);
  return Collect(request, folder / "page", path, names);
}

// Real servers write relative links, which only a lenient reading takes.
void ExpectListings(int port) {
  Names names;
  EXPECT_OK(List(port, "/listing/", true, names));
  EXPECT_THAT(names, UnorderedElementsAreArray(WithFolder()));
  names.clear();
  EXPECT_OK(List(port, "/listing/sub/", true, names));
  EXPECT_THAT(names, ElementsAre("inner.txt"));
  names.clear();
  EXPECT_FAILS(List(port, "/listing/", false, names), IntCode(101),
               "Invalid HTTP Reponse. Parsing the reponse file failed.");
  EXPECT_FAILS(List(port, "/absent/", true, names), TransferCode(0), "[404]");
}

std::string Page(const std::string& name) { return LISTINGS_DIR "/" + name + ".html"; }

}  // namespace

TEST(Listing, OfNginx) {
  const NginxServer server("autoindex on;");
  Fill(server.Folder());
  ExpectListings(server.Port());
}

TEST(Listing, OfLighttpd) {
  const LighttpdServer server("dir-listing.activate = \"enable\"\n");
  Fill(server.Folder());
  ExpectListings(server.Port());
}

TEST(Listing, OfApache) {
  const struct {
    const char* what;
    const char* options;
  } cases[] = {
      {"plain", ""},
      {"with links that sort", "IndexOptions FancyIndexing\n"},
      {"as a table", "IndexOptions FancyIndexing HTMLTable NameWidth=* SuppressDescription\n"},
  };
  for (const auto& [what, options] : cases) {
    SCOPED_TRACE(what);
    const ApacheServer server(std::string("<Directory />\nOptions +Indexes\n") + options +
                              "</Directory>\n");
    Fill(server.Folder());
    Names names;
    EXPECT_OK(List(server.Port(), "/listing/", true, names));
    EXPECT_THAT(names, UnorderedElementsAreArray(WithFolder()));
    names.clear();
    EXPECT_OK(List(server.Port(), "/listing/sub/", true, names));
    EXPECT_THAT(names, ElementsAre("inner.txt"));
  }
}

TEST(Listing, WhatIsListedCanBeDownloaded) {
  const NginxServer server("autoindex on;");
  Fill(server.Folder());
  Names names;
  ASSERT_OK(List(server.Port(), "/listing/", true, names));
  TestRequest request(server.Port());
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    if (name.back() == '/') continue;
    std::string encoded;
    ASSERT_OK(request.URLEncode(name, encoded));
    EXPECT_OK(request.Get(("/listing/" + encoded).c_str()));
    EXPECT_EQ(request.body.text, "text");
  }
}

TEST(Listing, AnEmptyFolderHasNoEntries) {
  const NginxServer nginx("autoindex on;");
  fs::create_directories(nginx.Folder() / "www/empty");
  const LighttpdServer lighttpd("dir-listing.activate = \"enable\"\n");
  fs::create_directories(lighttpd.Folder() / "www/empty");
  for (const int port : {nginx.Port(), lighttpd.Port()}) {
    Names names;
    EXPECT_OK(List(port, "/empty/", true, names));
    EXPECT_THAT(names, IsEmpty());
  }
}

TEST(Listing, SavedPagesOfServersReadAlike) {
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

TEST(Listing, APageWithUpperCaseLinksNeedsNoLeniency) {
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

TEST(Listing, UpperCaseLinksGoFirstUnlessItIsLenient) {
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

TEST(Listing, LenientLinksThatLeadElsewhereAreDropped) {
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

TEST(Listing, AHugePageTakesNoLongerThanItsSize) {
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
