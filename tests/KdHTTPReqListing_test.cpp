#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "ZuNetwork/KdHTTPReq.h"
#include "fakes/HttpReq.h"
#include "support/FileFaults.h"

using KdCURL::FileDirInfo;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr char kInvalid[] = "Invalid HTTP Reponse. Parsing the reponse file failed.";

class KdHTTPReqListing : public HttpReqTest {
 protected:
  KdHTTPReqListing() : m_path(testing::TempDir() + "listing." + std::to_string(getpid())) {}
  void TearDown() override {
    std::filesystem::remove(m_path);
    EXPECT_EQ(m_openFiles, CountOpenFiles());
    HttpReqTest::TearDown();
  }

  void Write(const std::string& page) const { std::ofstream(m_path, std::ios::binary) << page; }

  CZuError Collect(const std::string& page, const std::string& sourcePath = "") {
    Write(page);
    return req->collectFilesAndDir(m_path, &entries, sourcePath);
  }

  // The entries as "name" or "name/", separated by "|".
  std::string Shown() const {
    std::string shown;
    for (const FileDirInfo& entry : entries) {
      EXPECT_EQ(entry.fileSize, 0.0);
      shown += (shown.empty() ? "" : "|") + entry.name + (entry.isFile ? "" : "/");
    }
    return shown;
  }

  static std::ptrdiff_t CountOpenFiles() {
    using Iterator = std::filesystem::directory_iterator;
    return std::distance(Iterator("/proc/self/fd"), Iterator());
  }

  std::string m_path;
  std::vector<FileDirInfo> entries;
  std::ptrdiff_t m_openFiles = CountOpenFiles();
};

struct Page {
  const char* label;
  std::string text;
  const char* sourcePath;
  const char* entries;
  bool isInvalid = false;
};

std::vector<Page> Pages() {
  return {
      {"empty file", "", "", ""},
      {"no link", "<html>nothing here: href='/a/b'</html>", "", ""},
      {"directory", R"(<a href="/pub/docs/">)", "", "docs/"},
      {"file, name decoded", R"(<a href="/pub/a%20b.txt">)", "", "a b.txt"},
      {"upper case", R"(<A HREF="/pub/x">)", "", "x"},
      {"other spellings are no links", R"(<a Href="/a/b"> <a href= "/a/c"> <a href='/a/d'>)", "",
       ""},
      {"whole URL", R"(href="http://h/pub/x")", "", "x"},
      {"relative link with a slash", R"(href="pub/x")", "", "x"},
      {"encoded slash", R"(href="/pub/a%2Fb")", "", "a/b"},
      {"encoded zero byte", R"(href="/pub/a%00b")", "", "a"},
      {"document order, duplicates kept", R"(href="/z" href="/a/" href="/z" href="/a")", "",
       "z|a/|z|a"},
      {"text in the page is cut at a zero byte",
       R"(href="/a")" + std::string(1, '\0') + R"(href="/b")", "", "a"},
      {"a marker inside a target is part of it", R"(HREF="/a/b HREF="/c")", "", "b HREF="},
      {"two slashes", R"(href="/a//")", "", "/"},
      {"only slashes", R"(href="//")", "", "/"},

      {"parent link", R"(href="/pub/">[To Parent Directory]</a> href="/pub/d/a" href="/pub/d/b")",
       "", "a|b"},
      {"parent text far behind", R"(href="/a" href="/b" href="/c" ... [To Parent Directory])", "",
       "b|c"},
      {"parent text before the link", R"([To Parent Directory] href="/a")", "", "a"},
      {"parent text in another case", R"(href="/a" [to parent directory])", "", "a"},
      {"parent text with a blank", R"(href="/a" [To Parent Directory ])", "", "a"},
      {"other brackets first", R"(href="/a" [x] [To Parent Directory])", "/a", "a"},
      {"brackets across", R"(href="/a" [x [To Parent Directory])", "/a", "a"},
      {"closing bracket alone", R"(href="/a" ] href="/b")", "/a", "b"},
      {"opening bracket alone", R"(href="/a" [ href="/b")", "/a", "b"},
      {"closing before opening", R"(href="/a" ][ href="/b")", "/a", "b"},
      {"brackets in the target do not count", R"(href="/[To Parent Directory]" href="/b")", "",
       "[To Parent Directory]|b"},
      {"only the parent link", R"(href="/a" [To Parent Directory])", "", ""},
      {"a second parent link is an entry",
       R"(href="/a" [To Parent Directory] href="/b" [To Parent Directory])", "", "b"},

      {"the directory itself first", R"(href="/pub/" href="/pub/a")", "/pub/", "a"},
      {"the directory itself later", R"(href="/pub/a" href="/pub/")", "/pub/", "a|pub/"},
      {"the directory itself twice", R"(href="/pub/" href="/pub/")", "/pub/", "pub/"},
      {"compared as it is written", R"(href="/p%75b/")", "/pub/", "pub/"},
      {"an empty first target that is the directory", R"(href="" href="/a")", "", "a"},

      {"web.config", R"(href="/s/a" href="/s/web.config" href="/s/b")", "", "a|b"},
      {"encoded web.config", R"(href="/s/web%2Econfig")", "", ""},
      {"directory web.config", R"(href="/s/web.config/")", "", ""},
      {"Web.config", R"(href="/s/Web.config")", "", "Web.config"},
      {"web.config.bak", R"(href="/s/web.config.bak")", "", "web.config.bak"},

      {"upper case passes lower case over", R"(href="/a" HREF="/b" href="/c" HREF="/d")", "",
       "b|d"},
      {"lower case after the last upper case", R"(HREF="/a" href="/b" href="/c")", "", "a|b|c"},
      {"the first upper case is the first link",
       R"(href="/a" HREF="/b" [To Parent Directory] href="/c")", "", "c"},

      {"no closing quote", R"(href="/a" href="/b)", "", "a", true},
      {"no closing quote at all", R"(href=")", "", "", true},
      {"relative file", R"(href="/a" href="a.txt" href="/b")", "", "a", true},
      {"relative directory", R"(href="/a" href="docs/")", "", "a", true},
      {"root", R"(href="/a" href="/")", "", "a", true},
      {"root first", R"(href="/")", "", "", true},
      {"relative query", R"(href="?C=N;O=D")", "", "", true},
  };
}

TEST_F(KdHTTPReqListing, LinksAreTheEntries) {
  for (const Page& page : Pages()) {
    SCOPED_TRACE(page.label);
    entries.clear();
    const CZuError error = Collect(page.text, page.sourcePath);
    EXPECT_EQ(Shown(), page.entries);
    if (!page.isInvalid) {
      EXPECT_OK(error);
      continue;
    }
    EXPECT_FAILS(error, IntCode(101), "KdHTTPReq.cpp:");
    const std::string text = error.AsString();
    EXPECT_THAT(text, HasSubstr("::KdHTTPReq::collectFilesAndDir("));
    EXPECT_THAT(text, EndsWith(std::string("), ") + kInvalid));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << "one item: " << text;
  }
  EXPECT_THAT(fake.transfers, IsEmpty());
}

TEST_F(KdHTTPReqListing, EntriesAreAppended) {
  entries = {{"before", true, 0.0}};
  EXPECT_OK(Collect(R"(href="/a")"));
  EXPECT_OK(Collect(R"(href="/b/")"));
  EXPECT_EQ(Shown(), "before|a|b/");
}

TEST_F(KdHTTPReqListing, AnEmptyTargetRaises) {
  EXPECT_THROW((void)Collect(R"(href="/a" href="" href="/b")"), std::out_of_range);
  EXPECT_EQ(Shown(), "a");
  EXPECT_THROW((void)Collect(R"(href="")", "/x"), std::out_of_range);
}

TEST_F(KdHTTPReqListing, ANullListIsRefused) {
  const CZuError error = req->collectFilesAndDir("/none", nullptr, "");
  EXPECT_FAILS(error, IntCode(1), "KdHTTPReq.cpp");
  EXPECT_THAT(error.AsString(), EndsWith(", NULL pointer passed for output vector"));
}

TEST_F(KdHTTPReqListing, AFileThatCannotBeOpenedIsReported) {
  CZuError error = req->collectFilesAndDir(m_path + ".none", &entries, "");
  EXPECT_FAILS(error, ErrNoCode(ENOENT), "::collectFilesAndDir(");
  EXPECT_THAT(error.AsString(), EndsWith(", Failed to open response file."));
  error = req->collectFilesAndDir("/tmp", &entries, "");
  EXPECT_FAILS(error, ErrNoCode(EISDIR), "Failed to open response file.");
}

TEST_F(KdHTTPReqListing, FaultsOfTheFileAreReported) {
  Write(R"(href="/a")");
  const struct {
    FileFault fault;
    std::string text;
  } rows[] = {
      {FileFault::kSize, "Failed to get the size of a file [" + m_path + "]"},
      {FileFault::kRead, "Failed to read response file."},
  };
  for (const auto& [fault, text] : rows) {
    SCOPED_TRACE(text);
    const FileFaults faults(fault);
    const CZuError error = req->collectFilesAndDir(m_path, &entries, "");
    EXPECT_FAILS(error, ErrNoCode(ENXIO), "::collectFilesAndDir(");
    EXPECT_THAT(error.AsString(), EndsWith("), " + text));
    EXPECT_THAT(entries, IsEmpty());
  }
}

TEST_F(KdHTTPReqListing, AFailedCloseIsToldOnlyAfterLinks) {
  const struct {
    const char* page;
    const char* entries;
    bool isTold;
  } rows[] = {{"", "", false},
              {"<html>nothing here</html>", "", false},
              {R"(href="/a" href="/b/")", "a|b/", true}};
  for (const auto& [page, expected, isTold] : rows) {
    SCOPED_TRACE(page);
    entries.clear();
    Write(page);
    std::optional<FileFaults> faults(std::in_place, FileFault::kNone, true);
    const CZuError error = req->collectFilesAndDir(m_path, &entries, "");
    faults.reset();
    EXPECT_EQ(Shown(), expected);
    if (!isTold) {
      EXPECT_OK(error);
      continue;
    }
    EXPECT_FAILS(error, ErrNoCode(EIO), "CZuFile::Close(");
    const std::string text = error.AsString();
    const std::string last = text.substr(text.rfind('\n'));
    EXPECT_THAT(last, HasSubstr("::KdHTTPReq::collectFilesAndDir("));
    EXPECT_THAT(last, EndsWith(")")) << "the location alone";
  }
}

TEST_F(KdHTTPReqListing, AnEmptyFileIsNotRead) {
  Write("");
  const FileFaults faults(FileFault::kRead);
  EXPECT_OK(req->collectFilesAndDir(m_path, &entries, ""));
}

TEST_F(KdHTTPReqListing, ANameThatCannotBeDecodedFails) {
  fake.nulls.insert("easy_unescape");
  const CZuError error = Collect(R"(href="/a")");
  EXPECT_FAILS(error, TransferCode(2), "Failed to decode the text");
  EXPECT_THAT(error.AsString(), HasSubstr("::collectFilesAndDir("));
  EXPECT_THAT(entries, IsEmpty());
}

// Each of these takes half an hour where every link makes the parser look through the rest of the
// page; the filling keeps the search for the upper-case marker busy.
TEST_F(KdHTTPReqListing, LargePagesTakeLinearTime) {
  constexpr size_t kLinks = 200000;
  constexpr size_t kPageSize = size_t{16} << 20;
  const struct {
    const char* label;
    const char* first;
    const char* marker;
    const char* last;
    size_t count;
  } rows[] = {
      {"lower case", "", "href", "", kLinks},
      {"upper case", "", "HREF", "", kLinks},
      {"one upper case in front", R"(HREF="/first")", "href", "", kLinks + 1},
      {"one upper case at the end", "", "href", R"(HREF="/last")", 1},
      {"an opening bracket in front", R"(HREF="/first" [)", "HREF", "", kLinks + 1},
  };
  for (const auto& [label, first, marker, last, count] : rows) {
    SCOPED_TRACE(label);
    std::string page = first;
    page.reserve(kPageSize);
    for (size_t i = 0; i < kLinks; ++i) {
      const std::string link =
          std::string("<a ") + marker + "=\"/pub/" + std::to_string(i) + "\"></a>";
      page += link + std::string(kPageSize / kLinks - link.size() - 1, 'H') + "\n";
    }
    page += std::string(kPageSize - page.size() - 64, 'H') + last;
    entries.clear();
    EXPECT_OK(Collect(page));
    EXPECT_EQ(entries.size(), count);
    fake.calls.clear();
    fake.names.clear();
  }
}

// A listing from the request to the entries.
TEST_F(KdHTTPReqListing, AListingIsReceivedAndParsed) {
  const auto append = [](char* data, size_t size, size_t count, void* to) {
    static_cast<std::string*>(to)->append(data, size * count);
    return size * count;
  };
  std::string page;
  req->setWriteCallBack(&page, append);
  fake.onPerform = [](const FakeHandle& handle) {
    handle.Write(R"(<A HREF="/">[To Parent Directory]</A><A HREF="/d/a.txt">a.txt</A>)");
    handle.Write(R"(<A HREF="/d/sub/">sub</A>)");
    return CURLE_OK;
  };
  EXPECT_OK(req->getFilesAndDirsInfoInFile("d"));
  EXPECT_EQ(fake.transfers.at(0).url, "http://h/d/");
  EXPECT_OK(Collect(page, "/d/"));
  EXPECT_EQ(Shown(), "a.txt|sub/");
}

}  // namespace
