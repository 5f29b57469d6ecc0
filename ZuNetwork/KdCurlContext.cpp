#include "ZuNetwork/KdCurlContext.h"

namespace KdCURL {

KdCurlContext::KdCurlContext() : m_curl(CurlWrapper::gCurlWrapper.Curl_easy_init()) {}

KdCurlContext::~KdCurlContext() {
  if (m_curl != nullptr) CurlWrapper::gCurlWrapper.Curl_easy_cleanup(m_curl);
}

}  // namespace KdCURL
