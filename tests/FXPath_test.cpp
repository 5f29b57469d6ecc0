#include "ZuUtils/FXPath.h"

#include <string>

#include "support/Expect.h"

TEST(FXPath, SplitsAtTheLastSlash) {
  const struct {
    const char* path;
    const char* parent;
    const char* name;
  } rows[] = {
      {"/a/b.txt", "/a", "b.txt"},
      {"/b.txt", "/", "b.txt"},
      {"b.txt", "", "b.txt"},
      {"a/b", "a", "b"},
      {"/a/b/c.d.e", "/a/b", "c.d.e"},
      {"./a", ".", "a"},
      {"../a", "..", "a"},
      {"/a/..", "/a", ".."},
      {"..", "", ".."},
      {".", "", "."},
      {".hidden", "", ".hidden"},
      {"/a/.hidden", "/a", ".hidden"},
      {"/a//b", "/a", "b"},
      {"a b/c d", "a b", "c d"},
      {"a\\b", "", "a\\b"},
      {"C:/x", "C:", "x"},
      {"/\xC3\xA4/\xFF", "/\xC3\xA4", "\xFF"},
  };
  for (const auto& row : rows) {
    std::string parent = "wrong";
    std::string name = "wrong";
    EXPECT_OK(FXPath::SplitParentPath(row.path, parent, name)) << row.path;
    EXPECT_EQ(parent, row.parent) << row.path;
    EXPECT_EQ(name, row.name) << row.path;
  }
}

TEST(FXPath, PathWithoutLastComponentFailsAndKeepsTheOutputs) {
  for (const char* const path : {"", "/", "//", "a/", "/a/b/", "a//", "./", "../"}) {
    std::string parent = "parent before";
    std::string name = "name before";
    EXPECT_FAILS(FXPath::SplitParentPath(path, parent, name), Win32Code(kErrorInvalidArgument),
                 (std::string("Path [") + path + "] names no file").c_str());
    EXPECT_EQ(parent, "parent before") << path;
    EXPECT_EQ(name, "name before") << path;
  }
}

TEST(FXPath, OutputsMayBeThePathItself) {
  std::string path = "/folder/file";
  std::string other;
  EXPECT_OK(FXPath::SplitParentPath(path, path, other));
  EXPECT_EQ(path, "/folder");
  EXPECT_EQ(other, "file");
  path = "/folder/file";
  EXPECT_OK(FXPath::SplitParentPath(path, other, path));
  EXPECT_EQ(path, "file");
  EXPECT_EQ(other, "/folder");
}

TEST(FXPath, PathsMayHaveAnyLength) {
  const std::string folder = "/" + std::string(100000, 'f');
  const std::string file(100000, 'n');
  std::string parent;
  std::string name;
  EXPECT_OK(FXPath::SplitParentPath(folder + "/" + file, parent, name));
  EXPECT_TRUE(parent == folder);
  EXPECT_TRUE(name == file);
}
