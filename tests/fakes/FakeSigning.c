// A libcurl.so that brings along nothing but OpenSSL's signing functions. Each writes its name to
// standard output and fails when the environment's FAKE_SIGNING_FAILS names it. PKCS12_parse gives
// no key when FAKE_SIGNING_NO_KEY is set, and ERR_get_error_line no file when FAKE_SIGNING_NO_FILE
// is. As OpenSSL does, EVP_DigestInit fails without a digest. What only tells of a key is silent;
// its functions have the names of before OpenSSL 3.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int gPkcs12;
static int gKey;
static int gCertificate;
static int gDigest;
static int gContext;

static int Succeeds(const char* name) {
  const char* const failing = getenv("FAKE_SIGNING_FAILS");
  printf("%s\n", name);
  return failing == NULL || strcmp(failing, name) != 0;
}

static void Check(const void* given, const void* expected) {
  if (given != expected) printf("misuse\n");
}

void* d2i_PKCS12_fp(FILE* file, void** pkcs12) {
  if (file == NULL || pkcs12 != NULL) printf("misuse\n");
  return Succeeds("d2i_PKCS12_fp") ? &gPkcs12 : NULL;
}

int PKCS12_parse(void* pkcs12, const char* passPhrase, void** key, void** certificate,
                 void** chain) {
  Check(pkcs12, &gPkcs12);
  Check(chain, NULL);
  if (!Succeeds("PKCS12_parse")) return 0;
  printf("pass phrase %s\n", passPhrase);
  *key = getenv("FAKE_SIGNING_NO_KEY") == NULL ? &gKey : NULL;
  *certificate = &gCertificate;
  return 1;
}

unsigned long ERR_get_error_line(const char** file, int* line) {
  Succeeds("ERR_get_error_line");
  *file = getenv("FAKE_SIGNING_NO_FILE") == NULL ? "p12.c" : NULL;
  *line = 77;
  return 4026531840ul;
}

void PKCS12_free(void* pkcs12) {
  Check(pkcs12, &gPkcs12);
  Succeeds("PKCS12_free");
}

int EVP_PKEY_base_id(const void* key) {
  Check(key, &gKey);
  return 6;
}

int EVP_PKEY_size(const void* key) {
  Check(key, &gKey);
  return 8;
}

const void* EVP_sha256(void) { return Succeeds("EVP_sha256") ? &gDigest : NULL; }

void* EVP_MD_CTX_create(void) { return Succeeds("EVP_MD_CTX_create") ? &gContext : NULL; }

void* EVP_MD_CTX_new(void) { return Succeeds("EVP_MD_CTX_new") ? &gContext : NULL; }

int EVP_DigestInit(void* context, const void* digest) {
  Check(context, &gContext);
  const int result = Succeeds("EVP_DigestInit");
  if (digest == NULL) {
    printf("no digest\n");
    return 0;
  }
  Check(digest, &gDigest);
  return result;
}

int EVP_DigestUpdate(void* context, const void* data, size_t size) {
  Check(context, &gContext);
  const int result = Succeeds("EVP_DigestUpdate");
  printf("data %.*s\n", (int)size, (const char*)data);
  return result;
}

int EVP_SignFinal(void* context, unsigned char* signature, unsigned int* size, void* key) {
  Check(context, &gContext);
  Check(key, &gKey);
  if (!Succeeds("EVP_SignFinal")) return 0;
  memcpy(signature, "signed", 6);
  *size = 6;
  return 1;
}

void EVP_MD_CTX_destroy(void* context) {
  Check(context, &gContext);
  Succeeds("EVP_MD_CTX_destroy");
}

void EVP_MD_CTX_free(void* context) {
  Check(context, &gContext);
  Succeeds("EVP_MD_CTX_free");
}

void X509_free(void* certificate) {
  Check(certificate, &gCertificate);
  Succeeds("X509_free");
}

void EVP_PKEY_free(void* key) {
  Check(key, &gKey);
  Succeeds("EVP_PKEY_free");
}
