#include <cerrno>

#include "ZuNetwork/KdFTPReq.h"
#include "fakes/FakeCurlTest.h"
#include "support/FileFaults.h"
#include "support/TempDir.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class KdFTPReqListing : public FakeCurlTest {
 protected:
  KdFTPReqListing() { EXPECT_OK(req->initialize()); }
  void TearDown() override {
    req.reset();
    FakeCurlTest::TearDown();
  }

  // The name of a file with this listing; it is never a format.
  std::string Saved(const std::string& text) {
    WriteFile(folder / "list%sing", text);
    return folder / "list%sing";
  }

  // The names of the listing's entries.
  std::vector<std::string> Collect(const std::string& text) {
    std::vector<KdCURL::FileDirInfo> entries(1);
    entries[0].name = "kept";
    EXPECT_OK(req->collectFilesAndDir(Saved(text), &entries, "ignored"));
    std::vector<std::string> names;
    for (const KdCURL::FileDirInfo& entry : entries) {
      EXPECT_FALSE(entry.isFile);
      EXPECT_EQ(entry.fileSize, 0.0);
      names.push_back(entry.name);
    }
    EXPECT_EQ(names.at(0), "kept");
    names.erase(names.begin());
    return names;
  }

  // What becomes of the listing under these faults; no entry is taken.
  CZuError Fail(const std::string& path, FileFault fault, bool closingFails = false) {
    std::vector<KdCURL::FileDirInfo> entries;
    const FileFaults faults(fault, closingFails);
    CZuError error = req->collectFilesAndDir(path, &entries, "");
    EXPECT_THAT(entries, IsEmpty());
    return error;
  }

  TempDir folder;
  std::unique_ptr<KdCURL::KdFTPReq> req = std::make_unique<KdCURL::KdFTPReq>();
};

TEST_F(KdFTPReqListing, ListingsAreLinesThatEndInCrLf) {
  using Names = std::vector<std::string>;
  const struct {
    std::string text;
    Names strict;
    Names lenient;
  } rows[] = {
      {"", {}, {}},
      {"a.txt\r\ndir1\r\nlast", {"a.txt", "dir1"}, {"a.txt", "dir1", "last"}},
      {"a.txt\r\n\r\nb\r\n", {"a.txt", "", "b"}, {"a.txt", "b"}},
      {"a.txt\ndir1\n", {}, {"a.txt", "dir1"}},
      {"a.txt\ndir1\r\n", {"a.txt\ndir1"}, {"a.txt", "dir1"}},
      {"a\rb\r\n", {"a\rb"}, {}},
      {"a\r\r\n", {"a\r"}, {}},
      {" a b \t\r\n", {" a b \t"}, {}},
      {"%41%s%n\r\n", {"%41%s%n"}, {"%41%s%n"}},
      {".\r\n..\r\n...\r\n", {".", "..", "..."}, {"..."}},
      {"last", {}, {"last"}},
      {"\r\n", {""}, {}},
      {"web.config\r\n\xFF\r\n", {"web.config", "\xFF"}, {"web.config", "\xFF"}},
      {std::string(100000, 'x') + "\r\n", {std::string(100000, 'x')}, {std::string(100000, 'x')}},
  };
  for (const auto& [text, strict, lenient] : rows) {
    SCOPED_TRACE(testing::PrintToString(text.substr(0, 40)));
    req->setLenientListing(false);
    EXPECT_EQ(Collect(text), strict);
    req->setLenientListing(true);
    EXPECT_EQ(Collect(text), lenient);
  }
}

TEST_F(KdFTPReqListing, AZeroByteEndsAStrictListingAndIsAnErrorInALenientOne) {
  const std::string text("a\r\n\0b\r\n", 7);
  EXPECT_THAT(Collect(text), testing::ElementsAre("a"));
  EXPECT_THAT(Collect(std::string(1, '\0') + "b\r\n"), IsEmpty());
  req->setLenientListing(true);
  std::vector<KdCURL::FileDirInfo> entries;
  EXPECT_FAILS(req->collectFilesAndDir(Saved(text), &entries, ""), IntCode(101),
               "Zero byte at position 3 of the listing");
  EXPECT_THAT(entries, IsEmpty());
}

TEST_F(KdFTPReqListing, AFileThatLooksEmptyIsReadAsSuch) {
  std::vector<KdCURL::FileDirInfo> entries;
  EXPECT_OK(req->collectFilesAndDir("/dev/null", &entries, ""));
  EXPECT_OK(req->collectFilesAndDir("/proc/self/cmdline", &entries, "")) << "its size is told as 0";
  EXPECT_THAT(entries, IsEmpty());
}

TEST_F(KdFTPReqListing, UnreadableListingsAreErrors) {
  std::vector<KdCURL::FileDirInfo> entries;
  EXPECT_FAILS(req->collectFilesAndDir(Saved("a\r\n"), nullptr, ""), IntCode(1),
               "Null pointer passed for output vector");
  EXPECT_FAILS(req->collectFilesAndDir("/absent/%s", &entries, ""), ErrNoCode(ENOENT),
               "Failed to open the response file [/absent/%s]");
  EXPECT_FAILS(req->collectFilesAndDir("/", &entries, ""), ErrNoCode(EISDIR),
               "Failed to open the response file [/]");
  EXPECT_THAT(entries, IsEmpty());
}

TEST_F(KdFTPReqListing, FaultsOfTheFileAreReported) {
  const std::string path = Saved("a\r\n");
  const struct {
    FileFault fault;
    bool closingFails;
    unsigned code;
    std::string text;
  } rows[] = {
      {FileFault::kSize, false, ErrNoCode(ENXIO),
       "Failed to get the size of a file [" + path + "]"},
      {FileFault::kSize, true, ErrNoCode(ENXIO), "Failed to get the size of a file [" + path + "]"},
      {FileFault::kRead, false, ErrNoCode(ENXIO),
       "Failed to read the response file [" + path + "]"},
      {FileFault::kRead, true, ErrNoCode(ENXIO), "Failed to read the response file [" + path + "]"},
      {FileFault::kNone, true, ErrNoCode(EIO), "Failed to close the response file [" + path + "]"},
  };
  for (const auto& [fault, closingFails, code, text] : rows) {
    SCOPED_TRACE(text + (closingFails ? ", not closed" : ""));
    const CZuError error = Fail(path, fault, closingFails);
    EXPECT_FAILS(error, code, "KdFTPReq.cpp:");
    EXPECT_THAT(error.AsString(), EndsWith("), " + text));
    EXPECT_THAT(error.AsString(), HasSubstr("::KdFTPReq::collectFilesAndDir("));
  }
}

TEST_F(KdFTPReqListing, AFileThatTurnsOutEmptyHasNoEntries) {
  const std::string path = Saved("a\r\n");
  EXPECT_OK(Fail(path, FileFault::kEmpty));
  EXPECT_OK(Fail(path, FileFault::kEmpty, true)) << "it is left to be closed";
}

TEST_F(KdFTPReqListing, AFileOfSizeZeroIsNotRead) {
  EXPECT_OK(Fail(Saved(""), FileFault::kRead));
  EXPECT_OK(Fail(Saved(""), FileFault::kNone, true));
}

}  // namespace
