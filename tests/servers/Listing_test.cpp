#include <gmock/gmock.h>

#include <filesystem>

#include "servers/Listings.h"
#include "servers/TestRequest.h"
#include "support/FileServers.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAreArray;

namespace fs = std::filesystem;

namespace {

// Fills www/listing with the files, a folder and what listings leave out.
void Fill(const TempDir& folder) {
  const fs::path listing = folder / "www/listing";
  for (const std::string& name : kFiles) WriteFile(listing / name, "text");
  WriteFile(listing / "web.config", "dropped");
  WriteFile(listing / "sub/inner.txt", "text");
  fs::permissions(folder.Path(), fs::perms{0755});
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
