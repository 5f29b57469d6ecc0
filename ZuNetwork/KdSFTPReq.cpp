#include "ZuNetwork/KdSFTPReq.h"

namespace KdCURL {

KdSFTPReq::~KdSFTPReq() = default;

CZuError KdSFTPReq::splitServerAndURLPath(std::string& serverOut, std::string& urlPathOut) {
  if (!m_bProtocolInitialized) {
    return FXErrorUtil::ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  }
  SplitByScheme("sftp://", serverOut, urlPathOut);
  return {};
}

}  // namespace KdCURL
