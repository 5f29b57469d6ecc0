// Eight threads at once, each with objects of its own, spread over the CPUs. A call is a round of
// them all.

#include <dlfcn.h>

#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "Compare.h"
#include "Cpus.h"
#include "Get.h"
#include "Pair.h"

namespace {

constexpr size_t kThreads = 8;

// `make` makes what one thread calls `count` times in a round.
template <typename Make>
Timed OnEightThreads(const char* name, int count, Make make) {
  using Worker = std::function<void()>;
  std::vector<Worker> workers;
  for (size_t i = 0; i < kThreads; ++i) workers.push_back(make());
  return Call(name, [workers, count] {
    std::vector<std::thread> threads;
    for (size_t i = 0; i < workers.size(); ++i) {
      threads.emplace_back([&worker = workers[i], i, count] {
        PinTo(UsableCpus()[i % UsableCpus().size()]);
        for (int call = 0; call < count; ++call) worker();
      });
    }
    for (std::thread& thread : threads) thread.join();
  });
}

// Both find the function by its name in each call, which holds a lock of the loader's.
void Forwarder(benchmark::State& state) {
  constexpr int kCount = 10'000;
  void* const library = dlopen("libcurl.so", RTLD_LAZY);
  using FreeAll = void (*)(curl_slist*);
  Compare(
      state, Ratio(1.10),
      OnEightThreads("8 times 10,000 forwarded calls", kCount,
                     [] { return [] { CurlWrapper::gCurlWrapper.Curl_slist_free_all(nullptr); }; }),
      OnEightThreads("as many by dlsym", kCount, [library] {
        return [library] {
          reinterpret_cast<FreeAll>(dlsym(library, "curl_slist_free_all"))(nullptr);
        };
      }));
}
ROW(Forwarder, "Threads/Forwarder");

template <typename Getter>
Timed GetOnEightThreads(const char* name, const char* server) {
  return OnEightThreads(name, 100, [server] {
    return [getter = std::make_shared<Getter>(server)] {
      if (getter->Get("/1KiB.bin") != 1024) std::abort();
    };
  });
}

void Get1KiB(benchmark::State& state) {
  const char* const server = FromEnvironment(state, "ZUNETWORK_BENCH_URL");
  if (server == nullptr) return;
  Compare(state, Ratio(1.03), GetOnEightThreads<OurGet>("8 times 100 downloads", server),
          GetOnEightThreads<SameGet>("linked libcurl with the same options", server),
          {GetOnEightThreads<PlainGet>("libcurl as it comes", server),
           GetOnEightThreads<PocoGet>("POCO", server)});
}
ROW(Get1KiB, "Threads/Get1KiB");

void SendAndReceive(benchmark::State& state) {
  constexpr int kCount = 1000;
  Compare(state, Ratio(1.02),
          OnEightThreads("8 times 1,000 Send and Recv", kCount,
                         [] {
                           return [pair = std::make_shared<Pair>()] {
                             char data[64] = {};
                             if (Failed(pair->left.Send(data, sizeof data, 0, nullptr)) ||
                                 Failed(pair->right.Recv(data, sizeof data, 0, nullptr))) {
                               std::abort();
                             }
                           };
                         }),
          OnEightThreads("as many send and recv", kCount, [] {
            return [pair = std::make_shared<Pair>()] {
              char data[64] = {};
              const auto size = static_cast<ssize_t>(sizeof data);
              if (send(pair->left.GetDescriptor(), data, sizeof data, MSG_NOSIGNAL) != size ||
                  recv(pair->right.GetDescriptor(), data, sizeof data, 0) != size) {
                std::abort();
              }
            };
          }));
}
ROW(SendAndReceive, "Threads/SendAndReceive64Bytes");

}  // namespace
