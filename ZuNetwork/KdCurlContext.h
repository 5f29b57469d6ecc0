#pragma once

#include "ZuNetwork/CurlWrapper.h"

namespace KdCURL {

// Owns one libcurl easy handle; `m_curl` is null when libcurl could not be loaded.
class ZUNETWORK_API KdCurlContext {
 public:
  KdCurlContext();
  ~KdCurlContext();
  KdCurlContext(const KdCurlContext&) = delete;
  KdCurlContext& operator=(const KdCurlContext&) = delete;

  CURL* m_curl;
};

}  // namespace KdCURL
