// Objects made and thrown away, and calls through the loader.

#include <Poco/Net/HTTPClientSession.h>
#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

#include "Compare.h"
#include "PlainCurl.h"
#include "ZuNetwork/KdHTTPReq.h"
#include "ZuNetwork/ZuSocket.h"

namespace {

void Forwarder(benchmark::State& state) {
  void* const library = dlopen("libcurl.so", RTLD_LAZY);
  using FreeAll = void (*)(curl_slist*);
  Compare(
      state, Ratio(1.10),
      Call("Curl_slist_free_all", [] { CurlWrapper::gCurlWrapper.Curl_slist_free_all(nullptr); }),
      Call(
          "dlsym and the call",
          [library] { reinterpret_cast<FreeAll>(dlsym(library, "curl_slist_free_all"))(nullptr); }),
      {Call("linked", [] { curl_slist_free_all(nullptr); })});
}
ROW(Forwarder, "Objects/Forwarder");

void MakeAddress(benchmark::State& state) {
  Compare(state, NoLimit(),
          Call("a CZuIPAddr",
               [] {
                 CZuIPAddr address;
                 benchmark::DoNotOptimize(address);
               }),
          Call("a cleared sockaddr_in6", [] {
            sockaddr_in6 address{};
            benchmark::DoNotOptimize(address);
          }));
}
ROW(MakeAddress, "Objects/Address");

void MakeSocket(benchmark::State& state) {
  CZuIPAddr loopback;
  if (Failed(loopback.SetAddressString("127.0.0.1"))) std::abort();
  Compare(state, Ratio(1.02),
          Call("Socket and Close",
               [&] {
                 CZuSocket made;
                 if (Failed(made.Socket(loopback))) std::abort();
                 made.Close();
               }),
          Call("socket and close", [] {
            const int made = socket(AF_INET, SOCK_STREAM, 0);
            if (made == -1) std::abort();
            close(made);
          }));
}
ROW(MakeSocket, "Objects/Socket");

void MakeRequest(benchmark::State& state) {
  Compare(state, NoLimit(),
          Call("a KdHTTPReq, initialize and setTraceCallBack",
               [] {
                 KdCURL::KdHTTPReq request(KdCURL::HTTP);
                 if (Failed(request.initialize())) std::abort();
                 if (Failed(request.setTraceCallBack(&request, Silence))) std::abort();
               }),
          Call("linked libcurl with the same options", [] { const SameCurl curl; }),
          {Call("libcurl as it comes", [] { const PlainCurl curl; }),
           Call("POCO", [] { const Poco::Net::HTTPClientSession session("127.0.0.1", 80); })});
}
ROW(MakeRequest, "Objects/Request");

}  // namespace
