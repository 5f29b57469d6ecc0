#include "ZuNetwork/KdFTPReq.h"
#include "ZuNetwork/KdHTTPReq.h"
#include "ZuUtils/ZuFile.h"
#include "fakes/FakeCurlTest.h"
#include "support/FileFaults.h"
#include "support/TempDir.h"

using testing::EndsWith;
using testing::IsEmpty;

// A utility library of another maker may answer so.
CZuError CZuFile::ReadWholeFile(const char* /*path*/, char** /*content*/, std::size_t& /*length*/) {
  return {};
}

namespace {

class KdReqMissingBuffer : public FakeCurlTest {
 protected:
  KdReqMissingBuffer() { WriteFile(folder / "listing", "a\r\n"); }

  CZuError Collect(KdCURL::KdProtocolReq& request, bool closingFails) {
    EXPECT_OK(request.initialize());
    std::vector<KdCURL::FileDirInfo> entries;
    const FileFaults faults(FileFault::kNone, closingFails);
    CZuError error = request.collectFilesAndDir(path, &entries, "");
    EXPECT_THAT(entries, IsEmpty());
    return error;
  }

  TempDir folder;
  const std::string path = folder / "listing";
};

TEST_F(KdReqMissingBuffer, IsRefusedByHttp) {
  KdCURL::KdHTTPReq request(KdCURL::HTTP);
  const CZuError error = Collect(request, false);
  EXPECT_FAILS(error, IntCode(1), "KdHTTPReq.cpp");
  EXPECT_THAT(error.AsString(), EndsWith(", Content buffer is NULL"));
}

TEST_F(KdReqMissingBuffer, IsRefusedByFtpBehindTheClose) {
  KdCURL::KdFTPReq request;
  CZuError error = Collect(request, false);
  EXPECT_FAILS(error, IntCode(1), "KdFTPReq.cpp:");
  EXPECT_THAT(error.AsString(), EndsWith("), NULL buffer from ReadWholeFile"));
  KdCURL::KdFTPReq closing;
  error = Collect(closing, true);
  EXPECT_FAILS(error, ErrNoCode(EIO), "KdFTPReq.cpp:");
  EXPECT_THAT(error.AsString(), EndsWith("), Failed to close the response file [" + path + "]"));
}

}  // namespace
