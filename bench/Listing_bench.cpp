// Directory listings beside a scan by hand.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Compare.h"
#include "ZuNetwork/KdHTTPReq.h"

namespace {

// A page with a link about every 85 bytes, as servers write it: with upper-case tags or lower-case
// ones.
class Page {
 public:
  Page(size_t size, const std::string& marker) {
    std::string page = "<html><body><pre>";
    page.reserve(size + 128);
    for (int i = 0; page.size() < size; ++i) {
      const std::string number = std::to_string(1000000 + i);
      page += "<A " + marker + "/listed/report%20of%20" + number + (i % 8 == 0 ? "/" : "") +
              "\">report of " + number + "</A> 2021-01-01<br>\r\n";
    }
    const int descriptor = mkstemp(m_path);
    if (write(descriptor, page.data(), page.size()) != static_cast<ssize_t>(page.size())) {
      std::abort();
    }
    close(descriptor);
  }
  ~Page() { unlink(m_path); }
  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;

  const char* Path() const { return m_path; }

 private:
  char m_path[32] = "/tmp/zunetwork-listing-XXXXXX";
};

std::string Unescape(void* library, std::string_view name) {
  using Function = char* (*)(CURL*, const char*, int, int*);
  using Free = void (*)(void*);
  const auto unescape = reinterpret_cast<Function>(dlsym(library, "curl_easy_unescape"));
  char* const text = unescape(nullptr, name.data(), static_cast<int>(name.size()), nullptr);
  std::string result = text;
  reinterpret_cast<Free>(dlsym(library, "curl_free"))(text);
  return result;
}

std::vector<KdCURL::FileDirInfo> ScanByHand(void* library, const char* path,
                                            std::string_view marker) {
  struct stat status;
  const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor == -1 || fstat(descriptor, &status) != 0) std::abort();
  const auto size = static_cast<size_t>(status.st_size);
  const std::unique_ptr<char[]> bytes(new char[size]);
  if (read(descriptor, bytes.get(), size) != status.st_size) std::abort();
  close(descriptor);

  const std::string_view page(bytes.get(), size);
  std::vector<KdCURL::FileDirInfo> entries;
  for (size_t link = page.find(marker); link != page.npos; link = page.find(marker, link)) {
    link += marker.size();
    std::string_view target = page.substr(link, page.find('"', link) - link);
    link += target.size();
    KdCURL::FileDirInfo& entry = entries.emplace_back();
    entry.isFile = target.back() != '/';
    if (!entry.isFile) target.remove_suffix(1);
    entry.name = Unescape(library, target.substr(target.rfind('/') + 1));
  }
  return entries;
}

void Collect(benchmark::State& state, size_t size, const char* marker) {
  const Page page(size, marker);
  void* const library = dlopen("libcurl.so", RTLD_LAZY);
  KdCURL::KdHTTPReq request(KdCURL::HTTP);
  if (Failed(request.initialize())) std::abort();
  const size_t count = ScanByHand(library, page.Path(), marker).size();
  Compare(state, Ratio(1.10),
          Call("collectFilesAndDir",
               [&] {
                 std::vector<KdCURL::FileDirInfo> entries;
                 if (Failed(request.collectFilesAndDir(page.Path(), &entries, "/listed/"))) {
                   std::abort();
                 }
                 if (entries.size() != count) std::abort();
               }),
          Call("a scan by hand", [&] {
            if (ScanByHand(library, page.Path(), marker).size() != count) std::abort();
          }));
}
ROW_OF(Collect, "Listing/UpperCase4KiB", size_t{4} << 10, "HREF=\"");
ROW_OF(Collect, "Listing/UpperCase64KiB", size_t{64} << 10, "HREF=\"");
ROW_OF(Collect, "Listing/UpperCase16MiB", size_t{16} << 20, "HREF=\"");
ROW_OF(Collect, "Listing/LowerCase4KiB", size_t{4} << 10, "href=\"");
ROW_OF(Collect, "Listing/LowerCase64KiB", size_t{64} << 10, "href=\"");
ROW_OF(Collect, "Listing/LowerCase16MiB", size_t{16} << 20, "href=\"");

}  // namespace
