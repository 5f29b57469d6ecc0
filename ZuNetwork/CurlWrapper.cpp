#include "ZuNetwork/CurlWrapper.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdio>

// libcurl's type checks on variadic calls work on its own names, which are not called here.
#undef curl_easy_setopt
#undef curl_easy_getinfo

#define FIND(function) Find<decltype(&(function))>(#function)

namespace {

constexpr char kLibraryName[] = "libcurl.so";
constexpr char kNoCallbackMarker[] = "/tmp/KDREMOTEFILE_NO_OPENSSL_CALLBACK";

char gNotInitializedText[] = "CurlWrapper is not initialized.";
char gMissingText[] = "Failed to load libcurl.";

// OpenSSL before 1.1 leaves locking to the program: it names a lock by its number. The mutexes are
// made when they are first needed and never freed, since OpenSSL may outlive this library.
constexpr int kCryptoLock = 1;
constexpr int kCryptoUnlock = 2;

using IdCallback = unsigned long (*)();
using LockCallback = void (*)(int mode, int n, const char* file, int line);
using NumLocks = int (*)();
using SetIdCallback = void (*)(IdCallback);
using SetLockingCallback = void (*)(LockCallback);

// The rest of OpenSSL's types and the functions that signing takes from it.
struct evp_md_st;
struct evp_md_ctx_st;
struct stack_st_X509;

using ReadPkcs12Function = PKCS12_st* (*)(std::FILE*, PKCS12_st**);
using ParsePkcs12Function = int (*)(PKCS12_st*, const char*, evp_pkey_st**, x509_st**,
                                    stack_st_X509**);
using FreePkcs12 = void (*)(PKCS12_st*);
using GetErrorLine = unsigned long (*)(const char**, int*);
using GetDigest = const evp_md_st* (*)();
using NewContext = evp_md_ctx_st* (*)();
using FreeContext = void (*)(evp_md_ctx_st*);
using DigestInit = int (*)(evp_md_ctx_st*, const evp_md_st*);
using DigestUpdate = int (*)(evp_md_ctx_st*, const void*, size_t);
using SignFinal = int (*)(evp_md_ctx_st*, unsigned char*, unsigned int*, evp_pkey_st*);
using FreeCertificate = void (*)(x509_st*);
using FreeKey = void (*)(evp_pkey_st*);

using Mutex = std::atomic<pthread_mutex_t*>;

Mutex ssl_kdcsec{nullptr};                    // guards the making of a lock
std::atomic<Mutex*> ssl_kdcsec_arr{nullptr};  // one slot for each lock

pthread_mutex_t* NewMutex() {
  auto* const mutex = new pthread_mutex_t;
  pthread_mutex_init(mutex, nullptr);
  return mutex;
}

unsigned long id_cb() { return pthread_self(); }

void lock_cb(int mode, int n, const char* /*file*/, int /*line*/) {
  Mutex& slot = ssl_kdcsec_arr[n];
  if (slot == nullptr) {
    pthread_mutex_lock(ssl_kdcsec);
    if (slot == nullptr) slot = NewMutex();
    pthread_mutex_unlock(ssl_kdcsec);
  }
  if ((mode & kCryptoLock) != 0) {
    pthread_mutex_lock(slot);
  } else if ((mode & kCryptoUnlock) != 0) {
    pthread_mutex_unlock(slot);
  }
}

}  // namespace

CurlWrapper CurlWrapper::gCurlWrapper;

CurlWrapper::CurlWrapper() { Init(); }

CurlWrapper::~CurlWrapper() {
  if (!m_bInit) return;
  const auto setId = Lookup<SetIdCallback>("CRYPTO_set_id_callback");
  if (setId) setId(nullptr);
  const auto setLocking = Lookup<SetLockingCallback>("CRYPTO_set_locking_callback");
  if (setLocking) setLocking(nullptr);
  (void)mZuLibrary.Free();  // nobody is left to be told
  m_bInit = false;
}

bool CurlWrapper::Init() {
  if (m_bInit) return true;
  if (Failed(mZuLibrary.Load(kLibraryName, false))) return false;
  if (access(kNoCallbackMarker, F_OK) != 0) InstallLockCallbacks();
  m_bInit = true;
  return true;
}

void CurlWrapper::InstallLockCallbacks() {
  ssl_kdcsec = NewMutex();
  const auto numLocks = Lookup<NumLocks>("CRYPTO_num_locks");
  if (!numLocks) return;
  ssl_kdcsec_arr = new Mutex[static_cast<size_t>(numLocks())]{};
  const auto setId = Lookup<SetIdCallback>("CRYPTO_set_id_callback");
  if (!setId) return;
  setId(id_cb);
  const auto setLocking = Lookup<SetLockingCallback>("CRYPTO_set_locking_callback");
  if (setLocking) setLocking(lock_cb);
}

template <typename Function>
Function CurlWrapper::Lookup(const char* name) const {
  return reinterpret_cast<Function>(mZuLibrary.Find(name));
}

template <typename Function>
Function CurlWrapper::Find(const char* name) {
  return Init() ? Lookup<Function>(name) : nullptr;
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

int CurlWrapper::SignSHA256withRSA(const char* poP12Filename, const char* poStringToSign,
                                   int iStringToSignSize, const char* poStringPassPhrase,
                                   unsigned char* poSignature, unsigned int* iSize) {
  if (poP12Filename == nullptr || iStringToSignSize < 0) return 0;
  PKCS12_st* const pkcs12 = ReadPkcs12(poP12Filename);
  if (pkcs12 == nullptr) return 0;
  x509_st* certificate = nullptr;
  evp_pkey_st* const key = ParsePkcs12(pkcs12, poP12Filename, poStringPassPhrase, &certificate);
  if (const auto freePkcs12 = Lookup<FreePkcs12>("PKCS12_free")) freePkcs12(pkcs12);
  if (key == nullptr) return 0;
  const bool isSigned =
      SignDigest(key, poStringToSign, static_cast<size_t>(iStringToSignSize), poSignature, iSize);
  const auto freeCertificate = Lookup<FreeCertificate>("X509_free");
  if (freeCertificate && certificate != nullptr) freeCertificate(certificate);
  if (const auto freeKey = Lookup<FreeKey>("EVP_PKEY_free")) freeKey(key);
  return isSigned ? 1 : 0;
}

PKCS12_st* CurlWrapper::ReadPkcs12(const char* fileName) {
  std::FILE* const file = std::fopen(fileName, "r");
  if (file == nullptr) return nullptr;
  const auto read = Find<ReadPkcs12Function>("d2i_PKCS12_fp");
  PKCS12_st* const pkcs12 = read ? read(file, nullptr) : nullptr;
  std::fclose(file);
  return pkcs12;
}

// The key, or null; a certificate comes with a key only.
evp_pkey_st* CurlWrapper::ParsePkcs12(PKCS12_st* pkcs12, const char* fileName,
                                      const char* passPhrase, x509_st** certificate) const {
  const auto parse = Lookup<ParsePkcs12Function>("PKCS12_parse");
  if (!parse) return nullptr;
  evp_pkey_st* key = nullptr;
  if (parse(pkcs12, passPhrase, &key, certificate, nullptr) == 1) return key;
  if (const auto getErrorLine = Lookup<GetErrorLine>("ERR_get_error_line")) {
    const char* file = nullptr;
    int line = 0;
    const unsigned long error = getErrorLine(&file, &line);
    std::printf("Failed to parse P12 file %s, error = [%lu] file [%s] line [%d]\n", fileName, error,
                file == nullptr ? "unknown" : file, line);
  }
  return nullptr;
}

bool CurlWrapper::SignDigest(evp_pkey_st* key, const void* data, size_t size,
                             unsigned char* signature, unsigned int* signatureSize) const {
  const auto sha256 = Lookup<GetDigest>("EVP_sha256");
  const auto init = Lookup<DigestInit>("EVP_DigestInit");
  const auto update = Lookup<DigestUpdate>("EVP_DigestUpdate");
  const auto sign = Lookup<SignFinal>("EVP_SignFinal");
  // OpenSSL 1.1 renamed the makers of contexts.
  auto newContext = Lookup<NewContext>("EVP_MD_CTX_create");
  const auto freeContext =
      Lookup<FreeContext>(newContext ? "EVP_MD_CTX_destroy" : "EVP_MD_CTX_free");
  if (!newContext) newContext = Lookup<NewContext>("EVP_MD_CTX_new");
  if (!sha256 || !init || !update || !sign || !newContext) return false;

  const evp_md_st* const method = sha256();
  evp_md_ctx_st* const context = newContext();
  if (context == nullptr) return false;
  const bool isSigned = init(context, method) == 1 && update(context, data, size) == 1 &&
                        sign(context, signature, signatureSize, key) == 1;
  if (freeContext) freeContext(context);
  return isSigned;
}
