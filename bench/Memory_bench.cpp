// What objects hold of memory, and what a request keeps of a body that it sent.

#include <malloc.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Compare.h"
#include "PlainCurl.h"
#include "ZuNetwork/KdHTTPReq.h"
#include "ZuNetwork/KdSFTPReq.h"
#include "ZuNetwork/ZuIPAddrBlacklist.h"
#include "ZuNetwork/ZuPing.h"
#include "ZuNetwork/ZuSocketSelector.h"

namespace {

double BytesInUse() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

template <typename Object>
std::unique_ptr<Object> Make() {
  return std::make_unique<Object>();
}

template <typename Request>
std::unique_ptr<Request> MakeInitialized(std::unique_ptr<Request> request) {
  if (Failed(request->initialize())) std::abort();
  return request;
}
auto MakeHttp() { return MakeInitialized(std::make_unique<KdCURL::KdHTTPReq>(KdCURL::HTTP)); }
auto MakeFtp() { return MakeInitialized(Make<KdCURL::KdFTPReq>()); }
auto MakeSftp() { return MakeInitialized(Make<KdCURL::KdSFTPReq>()); }

std::unique_ptr<CZuError> MakeFailure() {
  CZuError error = FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState, "Not a valid socket");
  error.Push(ZU_HERE).Push(ZU_HERE);
  return std::make_unique<CZuError>(error);
}

// An object with what it holds, on average over a thousand.
template <typename Owner>
void MemoryOf(benchmark::State& state, const char* what, Owner (*make)()) {
  constexpr size_t kCount = 1000;
  std::vector<Owner> objects(kCount);
  const double before = BytesInUse();
  for (Owner& object : objects) object = make();
  ReportBytes(state, NoLimit(), what, (BytesInUse() - before) / kCount);
}
ROW_OF(MemoryOf, "Memory/Address", "a CZuIPAddr", Make<CZuIPAddr>);
ROW_OF(MemoryOf, "Memory/Socket", "a CZuSocket", Make<CZuSocket>);
ROW_OF(MemoryOf, "Memory/Error", "a CZuError that passed three functions", MakeFailure);
ROW_OF(MemoryOf, "Memory/Fdset", "a ZuFdset", Make<ZuFdset>);
ROW_OF(MemoryOf, "Memory/Selector", "a CZuSocketSelector", Make<CZuSocketSelector>);
ROW_OF(MemoryOf, "Memory/Blacklist", "an empty CZuIPAddrBlacklist", Make<CZuIPAddrBlacklist>);
ROW_OF(MemoryOf, "Memory/Ping", "a CZuPing", Make<CZuPing>);
ROW_OF(MemoryOf, "Memory/HttpRequest", "an initialised KdHTTPReq", MakeHttp);
ROW_OF(MemoryOf, "Memory/FtpRequest", "an initialised KdFTPReq", MakeFtp);
ROW_OF(MemoryOf, "Memory/SftpRequest", "an initialised KdSFTPReq", MakeSftp);
ROW_OF(MemoryOf, "Memory/LibcurlHandle", "linked libcurl with the same options", Make<SameCurl>);

void BlacklistEntry(benchmark::State& state) {
  constexpr std::uint32_t kCount = 100'000;
  const double before = BytesInUse();
  CZuIPAddrBlacklist blacklist;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  for (; address.sin_addr.s_addr < kCount; ++address.sin_addr.s_addr) {
    if (Failed(blacklist.AddAddressToBlacklist(address))) std::abort();
  }
  ReportBytes(state, Bytes(170), "an entry of a blacklist with 100,000",
              (BytesInUse() - before) / kCount);
}
ROW(BlacklistEntry, "Memory/BlacklistEntry");

// What stays of 16 MiB after the operation.
void KeptBody(benchmark::State& state, const char* what, bool isPost) {
  const char* const server = FromEnvironment(state, "ZUNETWORK_BENCH_URL");
  if (server == nullptr) return;
  const std::string body(size_t{16} << 20, 'x');
  KdCURL::KdHTTPReq request(KdCURL::HTTP);
  if (Failed(request.initialize())) std::abort();
  if (Failed(request.setTraceCallBack(&request, Silence))) std::abort();
  request.setURL(server);
  const double before = BytesInUse();
  const auto size = static_cast<long>(body.size());
  const CZuError error = isPost ? request.doPostOperation("/sink", body.data(), size, {})
                                : request.doPutOperation("/sink", body.data(), size, {});
  if (Failed(error)) std::abort();
  ReportBytes(state, NoLimit(), what, BytesInUse() - before);
}
ROW_OF(KeptBody, "Memory/AfterPostOf16MiB", "kept after a POST of 16 MiB", true);
ROW_OF(KeptBody, "Memory/AfterPutOf16MiB", "kept after a PUT of 16 MiB", false);

}  // namespace
