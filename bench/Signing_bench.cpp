// Signing beside OpenSSL, linked. The key comes from run.sh.

#include <openssl/evp.h>
#include <openssl/pkcs12.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Compare.h"
#include "PlainCurl.h"

namespace {

constexpr char kPassPhrase[] = "secret";
constexpr size_t kSignatureSize = 256;

void SignPlain(const char* path, const std::string& data, unsigned char* signature) {
  std::FILE* const file = std::fopen(path, "r");
  if (file == nullptr) std::abort();
  PKCS12* const pkcs12 = d2i_PKCS12_fp(file, nullptr);
  std::fclose(file);
  X509* certificate = nullptr;
  EVP_PKEY* key = nullptr;
  if (PKCS12_parse(pkcs12, kPassPhrase, &key, &certificate, nullptr) != 1) std::abort();
  PKCS12_free(pkcs12);
  EVP_MD_CTX* const context = EVP_MD_CTX_new();
  unsigned size = 0;
  if (EVP_DigestInit(context, EVP_sha256()) != 1 ||
      EVP_DigestUpdate(context, data.data(), data.size()) != 1 ||
      EVP_SignFinal(context, signature, &size, key) != 1 || size != kSignatureSize) {
    std::abort();
  }
  EVP_MD_CTX_free(context);
  X509_free(certificate);
  EVP_PKEY_free(key);
}

void Sign(benchmark::State& state, size_t dataSize) {
  const char* const key = FromEnvironment(state, "ZUNETWORK_BENCH_KEY");
  if (key == nullptr) return;
  const std::string data(dataSize, 'x');
  unsigned char ours[kSignatureSize] = {};
  unsigned char floor[kSignatureSize] = {};
  Compare(state, Ratio(1.02),
          Call("SignSHA256withRSA",
               [&] {
                 unsigned size = 0;
                 if (CurlWrapper::gCurlWrapper.SignSHA256withRSA(key, data.data(),
                                                                 static_cast<int>(data.size()),
                                                                 kPassPhrase, ours, &size) != 1) {
                   std::abort();
                 }
               }),
          Call("linked OpenSSL", [&] { SignPlain(key, data, floor); }));
  if (std::memcmp(ours, floor, kSignatureSize) != 0) state.SkipWithError("signatures differ");
}
ROW_OF(Sign, "Signing/1KiB", size_t{1} << 10);
ROW_OF(Sign, "Signing/100MiB", size_t{100} << 20);

}  // namespace
