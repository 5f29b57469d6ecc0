#pragma once

#include <string>

#include "ZuNetwork/ZuNetworkExport.h"
#include "ZuUtils/ZuError.h"

// The errors of the transfers. The result code of such an error is the libcurl code ORed with
// 0xEDD00000, so that code 28 (a time-out) becomes 0xEDD0001C; code 0 marks an answer of the server
// that the protocol reads as a refusal. The item remembers the libcurl code and what was said.

class ZUNETWORK_API FXErrorItemKdCURL : public FXErrorItem {
 public:
  FXErrorItemKdCURL(const FXCodeLocation& location, int errorCode);

  // The item's text, then for instance "/KdCURL.28.0x1C".
  std::string AsString() const override;
  boost::shared_ptr<FXErrorItem> Copy() const override;

 protected:
  int m_iErrorCode;
};

class ZUNETWORK_API FXErrorItemKdCURLDescription : public FXErrorItemKdCURL {
 public:
  FXErrorItemKdCURLDescription(const FXCodeLocation& location, int errorCode,
                               const std::string& description);

  // As above, then "-" and the description.
  std::string AsString() const override;
  boost::shared_ptr<FXErrorItem> Copy() const override;

 protected:
  std::string m_strDescription;
};

namespace KdCURL {

// Makes a transfer error. A null or empty format gives an item without a description; one that
// cannot be rendered gives a description that begins with "[BUFFEROVERFLOW] ". `code` is below
// 65536: it is ORed in, not masked.
ZUNETWORK_API CZuError ErrorKdCURL(const FXCodeLocation& location, int code);
ZUNETWORK_API CZuError ErrorKdCURL(const FXCodeLocation& location, int code, const char* format,
                                   ...) __attribute__((format(printf, 3, 4)));

// Pushes such an item; the error keeps its code. The result is `error` itself.
ZUNETWORK_API CZuError& PushKdCURL(CZuError& error, const FXCodeLocation& location, int code);
ZUNETWORK_API CZuError& PushKdCURL(CZuError& error, const FXCodeLocation& location, int code,
                                   const char* format, ...) __attribute__((format(printf, 4, 5)));

ZUNETWORK_API bool IsKdCURL(const CZuError& error, int code);
ZUNETWORK_API bool IsNotKdCURL(const CZuError& error, int code);

// The libcurl code of a transfer error, 0 of a success, -1 of any other failure.
ZUNETWORK_API int GetKdCURL(const CZuError& error);

}  // namespace KdCURL
