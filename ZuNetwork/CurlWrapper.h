#pragma once

#ifndef CURL_DISABLE_DEPRECATION  // curl_formadd and its kin are the library's multipart interface
#define CURL_DISABLE_DEPRECATION
#endif
#include <curl/curl.h>

#include <atomic>
#include <string>

#include "ZuNetwork/ZuNetworkExport.h"
#include "ZuUtils/ZuLibrary.h"

// Codes of SignFileSHA256withRSA(), for FXErrorUtil::IsInt.
constexpr int kErrorNotPkcs12 = 201;   // the key file is none, or is encrypted in an unknown way
constexpr int kErrorPassPhrase = 202;  // the pass phrase does not open it, or it is damaged
constexpr int kErrorNoRsaKey = 203;    // it holds no key, or none for RSA
constexpr int kErrorOpenSsl = 204;     // libcurl or OpenSSL is missing, too old, or failed

// libcurl, loaded at run time. Every forwarder looks its function up by name at the moment of the
// call, in the "libcurl.so" that the dynamic loader finds, so that a program runs without libcurl
// until it needs it; while it is missing, every call tries to load it again.
//
// A forwarder `Curl_x` passes its arguments on to libcurl's `curl_x` and returns its result. Where
// the library is not loaded, or lacks the function, it does nothing and returns
//   a CURLcode        CURLE_FAILED_INIT
//   a CURLMcode       CURLM_BAD_HANDLE
//   a CURLFORMcode    CURL_FORMADD_NULL
//   a pointer         null
//   a date            -1
//   a text            "CurlWrapper is not initialized." or "Failed to load libcurl."
// Nothing is reported besides. See libcurl's manual page of the function for arguments and results.
//
// All of it may be called from several threads as far as libcurl allows it for one handle.
class ZUNETWORK_API CurlWrapper {
 public:
  // The one object that the library uses. It is made when the library is loaded, which is when
  // libcurl is first looked for, and gives libcurl up at unload. Where memory is short then, the
  // next call looks again.
  static CurlWrapper gCurlWrapper;

  CurlWrapper();
  ~CurlWrapper();
  CurlWrapper(const CurlWrapper&) = delete;
  CurlWrapper& operator=(const CurlWrapper&) = delete;

  // Loads libcurl unless it is loaded; false when it is missing. The first success also gives an
  // OpenSSL that needs them (before 1.1) its thread-locking callbacks, unless the file
  // "/tmp/KDREMOTEFILE_NO_OPENSSL_CALLBACK" exists: with it a program keeps callbacks of its own.
  bool Init();

  // The same for those who want to know why: ErrorWin32 774 with what was looked for, what the
  // dynamic loader said, and what to install.
  CZuError CheckLoaded();

  CURLcode Curl_global_init(long flags);
  void Curl_global_cleanup();
  char* Curl_version();
  curl_version_info_data* Curl_version_info(CURLversion age);
  long Curl_getdate(const char* date, long* now);
  void Curl_free(char* text);

  CURL* Curl_easy_init();
  void Curl_easy_cleanup(void* handle);
  void Curl_easy_reset(void* handle);
  CURLcode Curl_easy_perform(void* handle);
  CURLcode Curl_easy_pause(void* handle, int bitmask);
  CURLcode Curl_easy_getinfo(void* handle, CURLINFO info, void* out);
  const char* Curl_easy_strerror(CURLcode code);
  char* Curl_easy_escape(void* handle, const char* text, int length);
  char* Curl_easy_unescape(void* handle, const char* text, int length, int* outLength);

  // The value must have the type that the option takes; a bare 0 or NULL has none. The `int` form
  // is for flags and other values that are not negative: a negative one arrives as a large `long`.
  CURLcode Curl_easy_setopt(void* handle, CURLoption option, void* value);
  CURLcode Curl_easy_setopt(void* handle, CURLoption option, int value);
  CURLcode Curl_easy_setopt(void* handle, CURLoption option, long value);
  CURLcode Curl_easy_setopt(void* handle, CURLoption option, long long value);
  CURLcode Curl_easy_setopt(void* handle, CURLoption option, const char* value);
  CURLcode Curl_easy_setopt(void* handle, CURLoption option,
                            int (*value)(CURL*, curl_infotype, char*, size_t, void*));

  // Whether the option takes a zero-terminated string; false too where libcurl, before 7.73, cannot
  // tell.
  bool IsStringOption(CURLoption option);

  // Each appends one form field; `end` is CURLFORM_END.
  CURLFORMcode Curl_formadd(curl_httppost** first, curl_httppost** last, CURLformoption option1,
                            const char* value1, CURLformoption option2, const char* value2,
                            CURLformoption option3, void* value3, CURLformoption option4,
                            long value4, CURLformoption end);
  CURLFORMcode Curl_formadd(curl_httppost** first, curl_httppost** last, CURLformoption option1,
                            const char* value1, CURLformoption option2, const char* value2,
                            CURLformoption option3, const char* value3, CURLformoption end);
  CURLFORMcode Curl_formadd(curl_httppost** first, curl_httppost** last, CURLformoption option1,
                            const char* value1, CURLformoption option2, const char* value2,
                            CURLformoption end);
  CURLFORMcode Curl_formadd(curl_httppost** first, curl_httppost** last, CURLformoption option1,
                            curl_slist* value1, CURLformoption option2, const char* value2,
                            CURLformoption option3, const char* value3, CURLformoption end);
  void Curl_formfree(curl_httppost* form);

  curl_slist* Curl_slist_append(curl_slist* list, const char* line);
  void Curl_slist_free_all(curl_slist* list);

  CURLM* Curl_multi_init();
  CURLMcode Curl_multi_add_handle(void* multi, void* handle);
  CURLMcode Curl_multi_remove_handle(void* multi, void* handle);
  CURLMcode Curl_multi_perform(void* multi, int* running);
  CURLMcode Curl_multi_fdset(void* multi, fd_set* readSet, fd_set* writeSet, fd_set* exceptionSet,
                             int* maxDescriptor);
  CURLMcode Curl_multi_timeout(void* multi, long* milliseconds);

  // Signs `iStringToSignSize` bytes with RSA over their SHA-256 digest, by the private key of a
  // PKCS#12 file, with the OpenSSL that libcurl brought along. Returns 1 when the signature is in
  // `poSignature`, which needs room for the key's size (256 bytes for 2048 bits), and its length in
  // `iSize`; 0 when the file, the pass phrase, the key or a function of OpenSSL is missing or
  // wrong. Of a file that cannot be parsed one line on standard output says why. The pass phrase
  // goes to OpenSSL as it is.
  int SignSHA256withRSA(const char* poP12Filename, const char* poStringToSign,
                        int iStringToSignSize, const char* poStringPassPhrase,
                        unsigned char* poSignature, unsigned int* iSize);

  // The same for a file of any size, or what a pipe gives to its end; it is never held in memory.
  // Prints nothing and says what failed. `signature` is set only on success. Fails with
  //   ErrorErrNo  the file, or the key file, cannot be read; the text names it
  //   ErrorInt    one of the codes at the top of this header
  CZuError SignFileSHA256withRSA(const std::string& p12Path, const std::string& filePath,
                                 const std::string& passPhrase, std::string& signature);

 protected:
  template <typename Function>
  ZUNETWORK_LOCAL Function Find(const char* name);

  std::atomic<bool> m_bInit{false};
  CZuLibrary mZuLibrary{true};
};
