#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "ZuNetwork/KdProtocolReq.h"

// Reads listings of directories, which come from servers and may hold anything. Takes time in
// proportion to the listing. Errors are made at `where`; entries found before one stay.

namespace KdCURL {

// Receives an entry of a page; `name` is still percent-encoded. A failure ends the reading.
using TakeLink = std::function<CZuError(const std::string& name, bool isFile)>;

// Whether the page has what the strict reading takes for a link.
bool HasLinks(std::string_view page);

// The rules of KdHTTPReq::collectFilesAndDir() without leniency, and with it.
CZuError ReadPage(const FXCodeLocation& where, std::string_view page, const std::string& sourcePath,
                  const TakeLink& take);
CZuError ReadPageLeniently(const FXCodeLocation& where, std::string_view page,
                           const std::string& folder, std::vector<FileDirInfo>& entries);

// The rules of KdFTPReq::collectFilesAndDir() without leniency, and with it.
void ReadNames(std::string_view names, std::vector<FileDirInfo>& entries);
CZuError ReadNamesLeniently(const FXCodeLocation& where, std::string_view names,
                            std::vector<FileDirInfo>& entries);

}  // namespace KdCURL
