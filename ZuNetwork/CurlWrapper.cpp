#include "ZuNetwork/CurlWrapper.h"

#include <unistd.h>

#include <new>

#include "ZuNetwork/internal/Lookup.h"
#include "ZuNetwork/internal/OpenSslLocks.h"

// libcurl's type checks on variadic calls work on its own names, which are not called here.
#undef curl_easy_setopt
#undef curl_easy_getinfo

#define FIND(function) Find<decltype(&(function))>(#function)

namespace {

constexpr char kLibraryName[] = "libcurl.so";
constexpr char kNoCallbackMarker[] = "/tmp/KDREMOTEFILE_NO_OPENSSL_CALLBACK";

char gNotInitializedText[] = "CurlWrapper is not initialized.";
char gMissingText[] = "Failed to load libcurl.";

}  // namespace

// Before what programs make in their initialisers, which in a static library else come first.
CurlWrapper CurlWrapper::gCurlWrapper __attribute__((init_priority(101)));

// Memory that is short while a program starts must not end it: the next call tries again.
CurlWrapper::CurlWrapper() {
  try {
    Init();
  } catch (const std::bad_alloc&) {
    m_bInit = false;
  }
}

CurlWrapper::~CurlWrapper() {
  if (!m_bInit) return;
  RemoveOpenSslLocks(mZuLibrary);
  (void)mZuLibrary.Free();  // nobody is left to be told
  m_bInit = false;
}

bool CurlWrapper::Init() {
  if (m_bInit) return true;
  if (Failed(mZuLibrary.Load(kLibraryName, false))) return false;
  if (access(kNoCallbackMarker, F_OK) != 0) InstallOpenSslLocks(mZuLibrary);
  m_bInit = true;
  return true;
}

CZuError CurlWrapper::CheckLoaded() {
  if (Init()) return {};
  CZuError error = mZuLibrary.Load(kLibraryName, false);
  if (!Failed(error) && Init()) return {};  // it came meanwhile
  return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState,
                                 "%s; this name comes with libcurl's development package "
                                 "(on Debian: apt-get install libcurl4-openssl-dev)",
                                 error.Message().c_str());
}

template <typename Function>
Function CurlWrapper::Find(const char* name) {
  return Init() ? Lookup<Function>(mZuLibrary, name) : nullptr;
}

CURLcode CurlWrapper::Curl_global_init(long flags) {
  const auto init = FIND(curl_global_init);
  return init ? init(flags) : CURLE_FAILED_INIT;
}

void CurlWrapper::Curl_global_cleanup() {
  const auto cleanup = FIND(curl_global_cleanup);
  if (cleanup) cleanup();
}

char* CurlWrapper::Curl_version() {
  if (!Init()) return gNotInitializedText;
  const auto version = FIND(curl_version);
  return version ? version() : gMissingText;
}

curl_version_info_data* CurlWrapper::Curl_version_info(CURLversion age) {
  const auto info = FIND(curl_version_info);
  return info ? info(age) : nullptr;
}

long CurlWrapper::Curl_getdate(const char* date, long* now) {
  const auto getdate = FIND(curl_getdate);
  return getdate ? getdate(date, now) : -1;
}

void CurlWrapper::Curl_free(char* text) {
  const auto free = FIND(curl_free);
  if (free) free(text);
}

CURL* CurlWrapper::Curl_easy_init() {
  const auto init = FIND(curl_easy_init);
  return init ? init() : nullptr;
}

void CurlWrapper::Curl_easy_cleanup(void* handle) {
  const auto cleanup = FIND(curl_easy_cleanup);
  if (cleanup) cleanup(handle);
}

void CurlWrapper::Curl_easy_reset(void* handle) {
  const auto reset = FIND(curl_easy_reset);
  if (reset) reset(handle);
}

CURLcode CurlWrapper::Curl_easy_perform(void* handle) {
  const auto perform = FIND(curl_easy_perform);
  return perform ? perform(handle) : CURLE_FAILED_INIT;
}

CURLcode CurlWrapper::Curl_easy_pause(void* handle, int bitmask) {
  const auto pause = FIND(curl_easy_pause);
  return pause ? pause(handle, bitmask) : CURLE_FAILED_INIT;
}

CURLcode CurlWrapper::Curl_easy_getinfo(void* handle, CURLINFO info, void* out) {
  const auto getinfo = FIND(curl_easy_getinfo);
  return getinfo ? getinfo(handle, info, out) : CURLE_FAILED_INIT;
}

const char* CurlWrapper::Curl_easy_strerror(CURLcode code) {
  if (!Init()) return gNotInitializedText;
  const auto strerror = FIND(curl_easy_strerror);
  return strerror ? strerror(code) : gMissingText;
}

char* CurlWrapper::Curl_easy_escape(void* handle, const char* text, int length) {
  const auto escape = FIND(curl_easy_escape);
  return escape ? escape(handle, text, length) : nullptr;
}

char* CurlWrapper::Curl_easy_unescape(void* handle, const char* text, int length, int* outLength) {
  const auto unescape = FIND(curl_easy_unescape);
  return unescape ? unescape(handle, text, length, outLength) : nullptr;
}

CURLcode CurlWrapper::Curl_easy_setopt(void* handle, CURLoption option, void* value) {
  const auto setopt = FIND(curl_easy_setopt);
  return setopt ? setopt(handle, option, value) : CURLE_FAILED_INIT;
}

CURLcode CurlWrapper::Curl_easy_setopt(void* handle, CURLoption option, int value) {
  const auto setopt = FIND(curl_easy_setopt);
  const long widened = static_cast<unsigned>(value);  // with zeros: libcurl reads a whole long
  return setopt ? setopt(handle, option, widened) : CURLE_FAILED_INIT;
}

CURLcode CurlWrapper::Curl_easy_setopt(void* handle, CURLoption option, long value) {
  const auto setopt = FIND(curl_easy_setopt);
  return setopt ? setopt(handle, option, value) : CURLE_FAILED_INIT;
}

CURLcode CurlWrapper::Curl_easy_setopt(void* handle, CURLoption option, long long value) {
  const auto setopt = FIND(curl_easy_setopt);
  return setopt ? setopt(handle, option, curl_off_t{value}) : CURLE_FAILED_INIT;
}

CURLcode CurlWrapper::Curl_easy_setopt(void* handle, CURLoption option, const char* value) {
  const auto setopt = FIND(curl_easy_setopt);
  return setopt ? setopt(handle, option, value) : CURLE_FAILED_INIT;
}

CURLcode CurlWrapper::Curl_easy_setopt(void* handle, CURLoption option,
                                       int (*value)(CURL*, curl_infotype, char*, size_t, void*)) {
  const auto setopt = FIND(curl_easy_setopt);
  return setopt ? setopt(handle, option, value) : CURLE_FAILED_INIT;
}

bool CurlWrapper::IsStringOption(CURLoption option) {
  const auto optionById = FIND(curl_easy_option_by_id);
  const curl_easyoption* const known = optionById ? optionById(option) : nullptr;
  return known != nullptr && known->type == CURLOT_STRING;
}

CURLFORMcode CurlWrapper::Curl_formadd(curl_httppost** first, curl_httppost** last,
                                       CURLformoption option1, const char* value1,
                                       CURLformoption option2, const char* value2,
                                       CURLformoption option3, void* value3, CURLformoption option4,
                                       long value4, CURLformoption end) {
  const auto formadd = FIND(curl_formadd);
  return formadd ? formadd(first, last, option1, value1, option2, value2, option3, value3, option4,
                           value4, end)
                 : CURL_FORMADD_NULL;
}

CURLFORMcode CurlWrapper::Curl_formadd(curl_httppost** first, curl_httppost** last,
                                       CURLformoption option1, const char* value1,
                                       CURLformoption option2, const char* value2,
                                       CURLformoption option3, const char* value3,
                                       CURLformoption end) {
  const auto formadd = FIND(curl_formadd);
  return formadd ? formadd(first, last, option1, value1, option2, value2, option3, value3, end)
                 : CURL_FORMADD_NULL;
}

CURLFORMcode CurlWrapper::Curl_formadd(curl_httppost** first, curl_httppost** last,
                                       CURLformoption option1, const char* value1,
                                       CURLformoption option2, const char* value2,
                                       CURLformoption end) {
  const auto formadd = FIND(curl_formadd);
  return formadd ? formadd(first, last, option1, value1, option2, value2, end) : CURL_FORMADD_NULL;
}

CURLFORMcode CurlWrapper::Curl_formadd(curl_httppost** first, curl_httppost** last,
                                       CURLformoption option1, curl_slist* value1,
                                       CURLformoption option2, const char* value2,
                                       CURLformoption option3, const char* value3,
                                       CURLformoption end) {
  const auto formadd = FIND(curl_formadd);
  return formadd ? formadd(first, last, option1, value1, option2, value2, option3, value3, end)
                 : CURL_FORMADD_NULL;
}

void CurlWrapper::Curl_formfree(curl_httppost* form) {
  const auto formfree = FIND(curl_formfree);
  if (formfree) formfree(form);
}

curl_slist* CurlWrapper::Curl_slist_append(curl_slist* list, const char* line) {
  const auto append = FIND(curl_slist_append);
  return append ? append(list, line) : nullptr;
}

void CurlWrapper::Curl_slist_free_all(curl_slist* list) {
  const auto freeAll = FIND(curl_slist_free_all);
  if (freeAll) freeAll(list);
}

CURLM* CurlWrapper::Curl_multi_init() {
  const auto init = FIND(curl_multi_init);
  return init ? init() : nullptr;
}

CURLMcode CurlWrapper::Curl_multi_add_handle(void* multi, void* handle) {
  const auto add = FIND(curl_multi_add_handle);
  return add ? add(multi, handle) : CURLM_BAD_HANDLE;
}

CURLMcode CurlWrapper::Curl_multi_remove_handle(void* multi, void* handle) {
  const auto remove = FIND(curl_multi_remove_handle);
  return remove ? remove(multi, handle) : CURLM_BAD_HANDLE;
}

CURLMcode CurlWrapper::Curl_multi_perform(void* multi, int* running) {
  const auto perform = FIND(curl_multi_perform);
  return perform ? perform(multi, running) : CURLM_BAD_HANDLE;
}

CURLMcode CurlWrapper::Curl_multi_fdset(void* multi, fd_set* readSet, fd_set* writeSet,
                                        fd_set* exceptionSet, int* maxDescriptor) {
  const auto fdset = FIND(curl_multi_fdset);
  return fdset ? fdset(multi, readSet, writeSet, exceptionSet, maxDescriptor) : CURLM_BAD_HANDLE;
}

CURLMcode CurlWrapper::Curl_multi_timeout(void* multi, long* milliseconds) {
  const auto timeout = FIND(curl_multi_timeout);
  return timeout ? timeout(multi, milliseconds) : CURLM_BAD_HANDLE;
}
