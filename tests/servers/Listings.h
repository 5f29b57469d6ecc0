#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ZuNetwork/KdHTTPReq.h"

// What the tests of listings put into a folder, and how they read its page.

using Names = std::vector<std::string>;  // with a slash behind a folder's

inline const Names kFiles = {
    "a.txt",  "b & c.txt", "co:lon.txt",  "h#.txt",    "it's.txt",      "odd%20.txt", "plus+.txt",
    "q?.txt", "semi;.txt", "qu\"ote.txt", "<tag>.txt", "[bracket].txt", "über.txt"};

inline Names WithFolder() {
  Names names = kFiles;
  names.push_back("sub/");
  return names;
}

// Appends the entries of a saved page of the folder `source`.
inline CZuError Collect(KdCURL::KdHTTPReq& request, const std::string& page,
                        const std::string& source, Names& names) {
  std::vector<KdCURL::FileDirInfo> entries;
  CZuError error = request.collectFilesAndDir(page, &entries, source);
  for (const KdCURL::FileDirInfo& entry : entries) {
    EXPECT_EQ(entry.fileSize, 0.0) << entry.name;
    names.push_back(entry.name + (entry.isFile ? "" : "/"));
  }
  return error;
}
