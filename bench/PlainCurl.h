#pragma once

// What the benchmarks of transfers share: handles of libcurl's, linked, and callbacks for both.

#include <cstdlib>
#include <string>

#include "ZuNetwork/KdProtocolReq.h"

// The checks of curl.h want literal option values.
#undef curl_easy_setopt
#undef curl_easy_getinfo

inline size_t CountBytes(char* /*data*/, size_t size, size_t count, void* instance) {
  *static_cast<size_t*>(instance) += size * count;
  return size * count;
}

inline int Silence(void* /*handle*/, void* /*type*/, char* /*data*/, unsigned long /*size*/,
                   void* /*instance*/) {
  return 0;
}

inline int SilencePlain(CURL* /*handle*/, curl_infotype /*type*/, char* /*data*/, size_t /*size*/,
                        void* /*instance*/) {
  return 0;
}

// A handle as it comes.
class PlainCurl {
 public:
  PlainCurl() = default;
  ~PlainCurl() { curl_easy_cleanup(m_handle); }
  PlainCurl(const PlainCurl&) = delete;
  PlainCurl& operator=(const PlainCurl&) = delete;

  template <typename Value>
  void Set(CURLoption option, Value value) {
    curl_easy_setopt(m_handle, option, value);
  }

  void SetCallBack(CURLoption dataOption, CURLoption functionOption, void* instance,
                   curl_write_callback function) {
    Set(dataOption, instance);
    Set(functionOption, function);
  }

  void Perform() {
    long response = 0;
    if (curl_easy_perform(m_handle) != CURLE_OK) std::abort();
    curl_easy_getinfo(m_handle, CURLINFO_RESPONSE_CODE, &response);
    if (response >= 400) std::abort();
  }

 private:
  CURL* m_handle = curl_easy_init();
};

// A handle with the options that a request object sets; both silence the trace.
class SameCurl : public PlainCurl {
 public:
  SameCurl() {
    Set(CURLOPT_ERRORBUFFER, m_errorBuffer);
    Set(CURLOPT_FOLLOWLOCATION, 1L);
    Set(CURLOPT_POSTREDIR, long{CURL_REDIR_POST_ALL});
    Set(CURLOPT_VERBOSE, 1L);
    Set(CURLOPT_SSL_VERIFYPEER, 1L);
    Set(CURLOPT_SSL_VERIFYHOST, 2L);
    Set(CURLOPT_CAINFO, "./curl-ca-bundle.crt");
    Set(CURLOPT_DEBUGFUNCTION, SilencePlain);
  }

 private:
  char m_errorBuffer[CURL_ERROR_SIZE] = {};
};

// The value that run.sh puts into the environment; null, and the row skipped, without it.
inline const char* FromEnvironment(benchmark::State& state, const char* name) {
  const char* const value = std::getenv(name);
  if (value == nullptr) state.SkipWithError((std::string(name) + " is not set").c_str());
  return value;
}
