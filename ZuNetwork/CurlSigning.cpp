#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "ZuNetwork/CurlWrapper.h"
#include "ZuNetwork/internal/Lookup.h"
#include "ZuUtils/internal/OpenFile.h"

namespace {

using FXErrorUtil::ErrorErrNo;
using FXErrorUtil::ErrorInt;

// OpenSSL's own types, by their names in its headers, which nobody needs for this file.
struct PKCS12_st;
struct evp_pkey_st;
struct x509_st;
struct evp_md_st;
struct evp_md_ctx_st;
struct stack_st_X509;

using ReadPkcs12 = PKCS12_st* (*)(std::FILE*, PKCS12_st**);
using ParsePkcs12 = int (*)(PKCS12_st*, const char*, evp_pkey_st**, x509_st**, stack_st_X509**);
using VerifyMac = int (*)(PKCS12_st*, const char*, int);
using FreePkcs12 = void (*)(PKCS12_st*);
using GetErrorLine = unsigned long (*)(const char**, int*);
using PeekError = unsigned long (*)();
using ReasonText = const char* (*)(unsigned long);
using MarkErrors = int (*)();
using GetDigest = const evp_md_st* (*)();
using NewContext = evp_md_ctx_st* (*)();
using FreeContext = void (*)(evp_md_ctx_st*);
using DigestInit = int (*)(evp_md_ctx_st*, const evp_md_st*);
using DigestUpdate = int (*)(evp_md_ctx_st*, const void*, size_t);
using SignFinal = int (*)(evp_md_ctx_st*, unsigned char*, unsigned int*, evp_pkey_st*);
using KeyProperty = int (*)(const evp_pkey_st*);
using FreeCertificate = void (*)(x509_st*);
using FreeKey = void (*)(evp_pkey_st*);

constexpr int kRsa = 6;  // NID_rsaEncryption

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

File OpenFile(const char* path) { return {std::fopen(path, "r"), std::fclose}; }

// The structure that OpenSSL reads from a PKCS#12 file; null when it could not.
class Pkcs12 {
 public:
  Pkcs12(const CZuLibrary& openSsl, std::FILE* file) : m_openSsl(openSsl) {
    const auto read = Lookup<ReadPkcs12>(openSsl, "d2i_PKCS12_fp");
    if (read) m_pkcs12 = read(file, nullptr);
  }
  ~Pkcs12() {
    const auto free = Lookup<FreePkcs12>(m_openSsl, "PKCS12_free");
    if (free && m_pkcs12 != nullptr) free(m_pkcs12);
  }
  Pkcs12(const Pkcs12&) = delete;
  Pkcs12& operator=(const Pkcs12&) = delete;

  PKCS12_st* Get() const { return m_pkcs12; }

 private:
  const CZuLibrary& m_openSsl;
  PKCS12_st* m_pkcs12 = nullptr;
};

// A private key with its certificate, as a PKCS#12 file holds them.
class SigningKey {
 public:
  explicit SigningKey(const CZuLibrary& openSsl) : m_openSsl(openSsl) {}
  ~SigningKey() {
    if (m_key == nullptr) return;  // a certificate that came without a key is not given back
    const auto freeCertificate = Lookup<FreeCertificate>(m_openSsl, "X509_free");
    if (freeCertificate && m_certificate != nullptr) freeCertificate(m_certificate);
    if (const auto freeKey = Lookup<FreeKey>(m_openSsl, "EVP_PKEY_free")) freeKey(m_key);
  }
  SigningKey(const SigningKey&) = delete;
  SigningKey& operator=(const SigningKey&) = delete;

  bool Parse(ParsePkcs12 parse, const Pkcs12& pkcs12, const char* passPhrase) {
    if (parse(pkcs12.Get(), passPhrase, &m_key, &m_certificate, nullptr) == 1) return true;
    m_key = nullptr;
    return false;
  }

  bool IsThere() const { return m_key != nullptr; }
  bool IsRsa() const { return Property("EVP_PKEY_get_base_id", "EVP_PKEY_base_id") == kRsa; }
  int SizeInBytes() const { return Property("EVP_PKEY_get_size", "EVP_PKEY_size"); }
  evp_pkey_st* Get() const { return m_key; }

 private:
  // What OpenSSL tells of the key by a function that OpenSSL 3 renamed; -1 without a key or the
  // function.
  int Property(const char* name, const char* oldName) const {
    auto get = Lookup<KeyProperty>(m_openSsl, name);
    if (!get) get = Lookup<KeyProperty>(m_openSsl, oldName);
    return get && m_key != nullptr ? get(m_key) : -1;
  }

  const CZuLibrary& m_openSsl;
  evp_pkey_st* m_key = nullptr;
  x509_st* m_certificate = nullptr;
};

// A SHA-256 digest that is signed at its end.
class SignedDigest {
 public:
  explicit SignedDigest(const CZuLibrary& openSsl)
      : m_sha256(Lookup<GetDigest>(openSsl, "EVP_sha256")),
        m_init(Lookup<DigestInit>(openSsl, "EVP_DigestInit")),
        m_update(Lookup<DigestUpdate>(openSsl, "EVP_DigestUpdate")),
        m_sign(Lookup<SignFinal>(openSsl, "EVP_SignFinal")),
        m_new(Lookup<NewContext>(openSsl, "EVP_MD_CTX_create")) {
    // OpenSSL 1.1 renamed the makers of contexts.
    m_free = Lookup<FreeContext>(openSsl, m_new ? "EVP_MD_CTX_destroy" : "EVP_MD_CTX_free");
    if (!m_new) m_new = Lookup<NewContext>(openSsl, "EVP_MD_CTX_new");
  }
  ~SignedDigest() {
    if (m_context != nullptr && m_free) m_free(m_context);
  }
  SignedDigest(const SignedDigest&) = delete;
  SignedDigest& operator=(const SignedDigest&) = delete;

  // Nothing else may be called after a failure.
  bool Start() {
    if (!m_sha256 || !m_init || !m_update || !m_sign || !m_new) return false;
    const evp_md_st* const method = m_sha256();
    m_context = m_new();
    return m_context != nullptr && m_init(m_context, method) == 1;
  }
  bool Add(const void* data, size_t size) { return m_update(m_context, data, size) == 1; }
  bool Sign(const SigningKey& key, unsigned char* signature, unsigned int* size) {
    return m_sign(m_context, signature, size, key.Get()) == 1;
  }

 private:
  GetDigest m_sha256;
  DigestInit m_init;
  DigestUpdate m_update;
  SignFinal m_sign;
  NewContext m_new;
  FreeContext m_free;
  evp_md_ctx_st* m_context = nullptr;
};

void PrintParseFailure(const CZuLibrary& openSsl, const char* fileName) {
  const auto getErrorLine = Lookup<GetErrorLine>(openSsl, "ERR_get_error_line");
  if (!getErrorLine) return;
  const char* file = nullptr;
  int line = 0;
  const unsigned long error = getErrorLine(&file, &line);
  std::printf("Failed to parse P12 file %s, error = [%lu] file [%s] line [%d]\n", fileName, error,
              file == nullptr ? "unknown" : file, line);
}

// Leaves OpenSSL's list of errors, which belongs to the thread, as it was before.
class ErrorsOfOpenSsl {
 public:
  explicit ErrorsOfOpenSsl(const CZuLibrary& openSsl) : m_openSsl(openSsl) {
    if (const auto mark = Lookup<MarkErrors>(openSsl, "ERR_set_mark")) mark();
  }
  ~ErrorsOfOpenSsl() {
    if (const auto popToMark = Lookup<MarkErrors>(m_openSsl, "ERR_pop_to_mark")) popToMark();
  }
  ErrorsOfOpenSsl(const ErrorsOfOpenSsl&) = delete;
  ErrorsOfOpenSsl& operator=(const ErrorsOfOpenSsl&) = delete;

  std::string Last() const {
    const auto peek = Lookup<PeekError>(m_openSsl, "ERR_peek_last_error");
    const auto reason = Lookup<ReasonText>(m_openSsl, "ERR_reason_error_string");
    const char* const text = peek && reason ? reason(peek()) : nullptr;
    return text == nullptr ? "no reason given" : text;
  }

 private:
  const CZuLibrary& m_openSsl;
};

CZuError ErrorOpenSsl(const FXCodeLocation& where, const std::string& what) {
  return ErrorInt(where, kErrorOpenSsl, "OpenSSL cannot sign: %s", what.c_str());
}

CZuError ParseKey(const FXCodeLocation& where, const CZuLibrary& openSsl, const Pkcs12& pkcs12,
                  const std::string& path, const std::string& passPhrase, SigningKey& key) {
  const auto parse = Lookup<ParsePkcs12>(openSsl, "PKCS12_parse");
  if (!parse) return ErrorOpenSsl(where, "it lacks PKCS12_parse");
  const ErrorsOfOpenSsl errors(openSsl);
  if (key.Parse(parse, pkcs12, passPhrase.c_str())) {
    if (key.IsRsa()) return {};
    return ErrorInt(where, kErrorNoRsaKey, "[%s] holds no RSA key", path.c_str());
  }
  const std::string reason = errors.Last();
  const auto verifyMac = Lookup<VerifyMac>(openSsl, "PKCS12_verify_mac");
  if (!verifyMac || verifyMac(pkcs12.Get(), passPhrase.c_str(), -1) != 1) {
    return ErrorInt(where, kErrorPassPhrase,
                    "The pass phrase does not open [%s], or the file is damaged", path.c_str());
  }
  return ErrorInt(where, kErrorNotPkcs12,
                  "Failed to decrypt [%s]: %s; OpenSSL 3 does not read old kinds of encryption",
                  path.c_str(), reason.c_str());
}

CZuError ReadKey(const FXCodeLocation& where, const CZuLibrary& openSsl, const std::string& path,
                 const std::string& passPhrase, SigningKey& key) {
  const ErrorsOfOpenSsl errors(openSsl);
  const File file = OpenFile(path.c_str());
  if (!file) return ErrorErrNo(where, errno, "Failed to open file [%s]", path.c_str());
  if (openSsl.Find("d2i_PKCS12_fp") == nullptr)
    return ErrorOpenSsl(where, "it lacks d2i_PKCS12_fp");
  const Pkcs12 pkcs12(openSsl, file.get());
  if (std::ferror(file.get()) != 0) {
    return ErrorErrNo(where, errno, "Failed to read file [%s]", path.c_str());
  }
  if (pkcs12.Get() != nullptr) return ParseKey(where, openSsl, pkcs12, path, passPhrase, key);
  return ErrorInt(where, kErrorNotPkcs12, "[%s] is no PKCS#12 file", path.c_str());
}

// Gives the digest what is left of the file.
CZuError AddFile(const FXCodeLocation& where, int descriptor, const std::string& path,
                 SignedDigest& digest) {
  std::vector<char> buffer(size_t{1} << 16);
  for (;;) {
    const ssize_t length = read(descriptor, buffer.data(), buffer.size());
    if (length == 0) return {};
    if (length > 0 && !digest.Add(buffer.data(), static_cast<size_t>(length))) {
      return ErrorOpenSsl(where, "EVP_DigestUpdate failed");
    }
    if (length == -1 && errno != EINTR) {
      return ErrorErrNo(where, errno, "Failed to read file [%s]", path.c_str());
    }
  }
}

CZuError SignDescriptor(const FXCodeLocation& where, const CZuLibrary& openSsl,
                        const SigningKey& key, int descriptor, const std::string& path,
                        std::string& signature) {
  const ErrorsOfOpenSsl errors(openSsl);
  SignedDigest digest(openSsl);
  const int room = key.SizeInBytes();
  if (room <= 0 || !digest.Start()) return ErrorOpenSsl(where, "it lacks SHA-256 or signing");
  CZuError error = AddFile(where, descriptor, path, digest);
  if (Failed(error)) return error;
  std::string bytes(static_cast<size_t>(room), '\0');
  unsigned int size = 0;
  if (!digest.Sign(key, reinterpret_cast<unsigned char*>(bytes.data()), &size)) {
    return ErrorOpenSsl(where, errors.Last());
  }
  bytes.resize(size);
  signature = std::move(bytes);
  return {};
}

}  // namespace

int CurlWrapper::SignSHA256withRSA(const char* poP12Filename, const char* poStringToSign,
                                   int iStringToSignSize, const char* poStringPassPhrase,
                                   unsigned char* poSignature, unsigned int* iSize) {
  if (poP12Filename == nullptr || iStringToSignSize < 0) return 0;
  File file = OpenFile(poP12Filename);
  if (!file || !Init()) return 0;
  SigningKey key(mZuLibrary);
  {
    const Pkcs12 pkcs12(mZuLibrary, file.get());
    file.reset();
    const auto parse = Lookup<ParsePkcs12>(mZuLibrary, "PKCS12_parse");
    if (pkcs12.Get() == nullptr || !parse) return 0;
    if (!key.Parse(parse, pkcs12, poStringPassPhrase)) {
      PrintParseFailure(mZuLibrary, poP12Filename);
    }
  }
  if (!key.IsThere()) return 0;
  SignedDigest digest(mZuLibrary);
  const bool isSigned = digest.Start() &&
                        digest.Add(poStringToSign, static_cast<size_t>(iStringToSignSize)) &&
                        digest.Sign(key, poSignature, iSize);
  return isSigned ? 1 : 0;
}

CZuError CurlWrapper::SignFileSHA256withRSA(const std::string& p12Path, const std::string& filePath,
                                            const std::string& passPhrase, std::string& signature) {
  CZuError error = CheckLoaded();
  if (Failed(error)) return ErrorOpenSsl(ZU_HERE, error.Message());
  int descriptor = -1;
  error = OpenForReading(ZU_HERE, filePath, descriptor);
  if (Failed(error)) return error;
  SigningKey key(mZuLibrary);
  error = ReadKey(ZU_HERE, mZuLibrary, p12Path, passPhrase, key);
  if (!Failed(error)) {
    error = SignDescriptor(ZU_HERE, mZuLibrary, key, descriptor, filePath, signature);
  }
  close(descriptor);
  return error;
}
