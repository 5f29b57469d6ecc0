#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "ZuNetwork/CurlWrapper.h"
#include "support/Expect.h"
#include "support/Process.h"
#include "support/TempDir.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

struct Signed {
  int result = -1;
  std::string signature;
  std::string output;  // on standard output meanwhile
};

// OpenSSL keeps its errors for each thread; a new one has none.
Signed Sign(const char* path, const std::string& data, const char* passPhrase) {
  Signed outcome;
  std::string buffer(1024, '?');
  unsigned int size = 0;
  testing::internal::CaptureStdout();
  std::thread([&] {
    outcome.result = CurlWrapper::gCurlWrapper.SignSHA256withRSA(
        path, data.data(), static_cast<int>(data.size()), passPhrase,
        reinterpret_cast<unsigned char*>(buffer.data()), &size);
  }).join();
  outcome.output = testing::internal::GetCapturedStdout();
  outcome.signature = buffer.substr(0, size);
  EXPECT_EQ(buffer.find_first_not_of('?', size), std::string::npos) << "written beyond the size";
  return outcome;
}

// Keys, certificates and PKCS#12 files, made by openssl.
class Keys {
 public:
  // Has a key and a certificate of that many bits.
  const std::string& Key(int bits) {
    std::string& key = m_keys[bits];
    if (!key.empty()) return key;
    key = m_folder / (std::to_string(bits) + ".key");
    Run({"openssl", "genpkey", "-algorithm", "RSA", "-pkeyopt",
         "rsa_keygen_bits:" + std::to_string(bits), "-out", key});
    Run({"openssl", "req", "-x509", "-new", "-key", key, "-subj", "/CN=signer", "-out",
         key + ".pem"});
    Run({"openssl", "pkey", "-in", key, "-pubout", "-out", key + ".pub"});
    return key;
  }

  // A PKCS#12 file of the key; what else openssl is to know stands in `options`.
  std::string Pkcs12(int bits, const std::string& passPhrase,
                     const std::vector<std::string>& options = {}) {
    const std::string path = m_folder / (std::to_string(++m_files) + ".p12");
    std::vector<std::string> command = {
        "openssl", "pkcs12", "-export", "-in", Key(bits) + ".pem", "-passout", "pass:" + passPhrase,
        "-out",    path};
    const bool hasKey = options.empty() || options[0] != "-nokeys";
    if (hasKey) command.insert(command.end(), {"-inkey", Key(bits)});
    command.insert(command.end(), options.begin(), options.end());
    Run(command);
    return path;
  }

  // Whether openssl takes the signature for that of the data by the key.
  bool IsGood(int bits, const std::string& data, const std::string& signature) {
    WriteFile(m_folder / "data", data);
    return IsGoodFor(bits, m_folder / "data", signature);
  }

  // The same for a signature of a file.
  bool IsGoodFor(int bits, const std::string& file, const std::string& signature) {
    WriteFile(m_folder / "signature", signature);
    return Run({"sh", "-c", "openssl dgst -sha256 -verify \"$1\" -signature \"$2\" \"$3\" || true",
                "sh", Key(bits) + ".pub", m_folder / "signature", file}) == "Verified OK\n";
  }

  // A PKCS#12 file of a key for elliptic curves.
  std::string CurveKey(const std::string& passPhrase) {
    const std::string key = m_folder / "curve.key";
    Run({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
         "-nodes", "-keyout", key, "-subj", "/CN=signer", "-out", key + ".pem"});
    Run({"openssl", "pkcs12", "-export", "-in", key + ".pem", "-inkey", key, "-passout",
         "pass:" + passPhrase, "-out", key + ".p12"});
    return key + ".p12";
  }

  std::string File(const std::string& name, const std::string& contents) {
    WriteFile(m_folder / name, contents);
    return m_folder / name;
  }

 private:
  TempDir m_folder;
  std::map<int, std::string> m_keys;
  int m_files = 0;
};

class Signing : public testing::Test {
 protected:
  static void SetUpTestSuite() { m_keys = std::make_unique<Keys>(); }
  static void TearDownTestSuite() { m_keys.reset(); }

  // Signs the file with whatever key it is; nothing may be printed meanwhile, and the signature is
  // left alone when that fails.
  CZuError SignFile(const std::string& key, const std::string& file,
                    const std::string& passPhrase = "secret") {
    m_signature = "as it was";
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    CZuError error =
        CurlWrapper::gCurlWrapper.SignFileSHA256withRSA(key, file, passPhrase, m_signature);
    EXPECT_EQ(testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr(), "");
    if (Failed(error)) {
      EXPECT_EQ(m_signature, "as it was");
    }
    return error;
  }

  static std::unique_ptr<Keys> m_keys;
  std::string m_signature;
};

std::unique_ptr<Keys> Signing::m_keys;

// What the probe and a variant of the fakes print, line by line; with a file to sign it signs that.
std::vector<std::string> Probe(const std::string& variant,
                               const std::vector<std::string>& environment = {},
                               const std::string& file = "") {
  std::vector<std::string> command = {"env", "LD_LIBRARY_PATH=" FAKE_SIGNING_DIR "/" + variant};
  command.insert(command.end(), environment.begin(), environment.end());
  command.insert(command.end(), {SIGNING_PROBE, "/dev/null"});
  if (!file.empty()) command.push_back(file);
  std::vector<std::string> lines;
  const std::string output = Run(command);
  for (size_t start = 0, end; (end = output.find('\n', start)) != std::string::npos;
       start = end + 1) {
    lines.push_back(output.substr(start, end - start));
  }
  return lines;
}

}  // namespace

TEST_F(Signing, SignaturesAreGoodForKeysOfAnySize) {
  const std::string data("signed\0 bytes\xff", 14);
  for (const int bits : {2048, 3072, 4096}) {
    SCOPED_TRACE(bits);
    const Signed outcome = Sign(m_keys->Pkcs12(bits, "secret").c_str(), data, "secret");
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.signature.size(), static_cast<size_t>(bits / 8));
    EXPECT_EQ(outcome.output, "");
    EXPECT_TRUE(m_keys->IsGood(bits, data, outcome.signature));
    EXPECT_FALSE(m_keys->IsGood(bits, data + "!", outcome.signature));
  }
}

TEST_F(Signing, AnyInputCanBeSigned) {
  const std::string file = m_keys->Pkcs12(2048, "secret");
  for (const std::string& data : {std::string(), std::string(1, '\0'), std::string("text"),
                                  std::string(size_t{100} << 20, 'x')}) {
    SCOPED_TRACE(data.size());
    const Signed outcome = Sign(file.c_str(), data, "secret");
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.signature.size(), 256U);
    EXPECT_TRUE(m_keys->IsGood(2048, data, outcome.signature));
  }
}

TEST_F(Signing, ANullInputOfNoBytesIsEmpty) {
  const std::string file = m_keys->Pkcs12(2048, "secret");
  unsigned char signature[256] = {};
  unsigned int size = 0;
  EXPECT_EQ(CurlWrapper::gCurlWrapper.SignSHA256withRSA(file.c_str(), nullptr, 0, "secret",
                                                        signature, &size),
            1);
  const std::string text(reinterpret_cast<const char*>(signature), size);
  EXPECT_TRUE(m_keys->IsGood(2048, "", text));
}

TEST_F(Signing, AChainInTheFileDoesNoHarm) {
  const std::string file =
      m_keys->Pkcs12(2048, "secret", {"-certfile", m_keys->Key(3072) + ".pem"});
  const Signed outcome = Sign(file.c_str(), "data", "secret");
  EXPECT_EQ(outcome.result, 1);
  EXPECT_TRUE(m_keys->IsGood(2048, "data", outcome.signature));
}

TEST_F(Signing, ThePassPhraseMayBeEmpty) {
  const std::string file = m_keys->Pkcs12(2048, "");
  for (const char* const passPhrase : {"", static_cast<const char*>(nullptr)}) {
    const Signed outcome = Sign(file.c_str(), "data", passPhrase);
    EXPECT_EQ(outcome.result, 1);
    EXPECT_TRUE(m_keys->IsGood(2048, "data", outcome.signature));
  }
}

TEST_F(Signing, AFileThatCannotBeParsedIsToldOnce) {
  const std::string good = m_keys->Pkcs12(2048, "secret");
  std::string damaged = ReadFile(good);
  damaged[damaged.size() / 2] = static_cast<char>(~damaged[damaged.size() / 2]);
  const struct {
    const char* what;
    std::string file;
    const char* passPhrase;
  } cases[] = {
      {"wrong pass phrase", good, "Secret"},
      {"empty pass phrase", good, ""},
      {"no pass phrase", good, nullptr},
      {"pass phrase where none is", m_keys->Pkcs12(2048, ""), "secret"},
      {"damaged", m_keys->File("damaged.p12", damaged), "secret"},
      {"old algorithms", m_keys->Pkcs12(2048, "secret", {"-legacy"}), "secret"},
  };
  for (const auto& [what, file, passPhrase] : cases) {
    SCOPED_TRACE(what);
    const Signed outcome = Sign(file.c_str(), "data", passPhrase);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.signature, "");
    EXPECT_THAT(outcome.output,
                MatchesRegex("Failed to parse P12 file " + file +
                             ", error = \\[[1-9][0-9]*\\] file \\[[^]]*[a-z0-9_]+\\.c\\] line "
                             "\\[[1-9][0-9]*\\]\n"));
  }
}

TEST_F(Signing, AWrongPassPhraseIsToldInOpenSslsOwnWords) {
  const Signed outcome = Sign(m_keys->Pkcs12(2048, "secret").c_str(), "data", "wrong");
  EXPECT_THAT(outcome.output, HasSubstr("crypto/pkcs12/p12_"));
}

TEST_F(Signing, WhatIsNoPkcs12FileFailsSilently) {
  const std::string bytes = ReadFile(m_keys->Pkcs12(2048, "secret"));
  const std::string paths[] = {
      m_keys->File("truncated", bytes.substr(0, bytes.size() / 2)),
      m_keys->File("short", bytes.substr(0, bytes.size() - 1)),
      m_keys->File("one byte", bytes.substr(0, 1)),
      m_keys->File("empty", ""),
      m_keys->File("text", "not a key\n"),
      m_keys->Key(2048),
      "/absent/file",
      "",
      "/",
      "/dev/null",
  };
  for (const std::string& path : paths) {
    SCOPED_TRACE(path);
    const Signed outcome = Sign(path.c_str(), "data", "secret");
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.signature, "");
    EXPECT_EQ(outcome.output, "");
  }
}

TEST_F(Signing, AFileWithoutAKeyFailsSilently) {
  const std::string file = m_keys->Pkcs12(2048, "secret", {"-nokeys"});
  const Signed outcome = Sign(file.c_str(), "data", "secret");
  EXPECT_EQ(outcome.result, 0);
  EXPECT_EQ(outcome.output, "");
}

TEST_F(Signing, AFileThatMayNotBeReadFailsSilently) {
  constexpr uid_t kNobody = 65534;
  const std::string file = m_keys->Pkcs12(2048, "secret");
  std::filesystem::permissions(file, std::filesystem::perms{0});
  const uid_t user = geteuid();
  ASSERT_TRUE(user != 0 || seteuid(kNobody) == 0);
  const Signed outcome = Sign(file.c_str(), "data", "secret");
  ASSERT_EQ(seteuid(user), 0);
  EXPECT_EQ(outcome.result, 0);
  EXPECT_EQ(outcome.output, "");
}

TEST_F(Signing, WrongArgumentsFailSilently) {
  const std::string file = m_keys->Pkcs12(2048, "secret");
  unsigned char signature[256] = {7};
  unsigned int size = 5;
  testing::internal::CaptureStdout();
  CurlWrapper& wrapper = CurlWrapper::gCurlWrapper;
  EXPECT_EQ(wrapper.SignSHA256withRSA(nullptr, "data", 4, "secret", signature, &size), 0);
  EXPECT_EQ(wrapper.SignSHA256withRSA(file.c_str(), "data", -1, "secret", signature, &size), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(size, 5U);
  EXPECT_EQ(signature[0], 7);
}

TEST_F(Signing, ThreadsSignAtTheSameTime) {
  const std::string file = m_keys->Pkcs12(2048, "secret");
  const std::string expected = Sign(file.c_str(), "data", "secret").signature;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 5; ++round) {
        unsigned char signature[256] = {};
        unsigned int size = 0;
        EXPECT_EQ(CurlWrapper::gCurlWrapper.SignSHA256withRSA(file.c_str(), "data", 4, "secret",
                                                              signature, &size),
                  1);
        EXPECT_TRUE(std::string(reinterpret_cast<const char*>(signature), size) == expected);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(SigningFunctions, TheOldNamesArePreferred) {
  const auto withOldNames = ElementsAre(
      "d2i_PKCS12_fp", "PKCS12_parse", "pass phrase secret", "PKCS12_free", "EVP_sha256",
      "EVP_MD_CTX_create", "EVP_DigestInit", "EVP_DigestUpdate", "data data", "EVP_SignFinal",
      "EVP_MD_CTX_destroy", "X509_free", "EVP_PKEY_free", "result 1 signed");
  EXPECT_THAT(Probe("complete"), withOldNames);
  EXPECT_THAT(Probe("without_new_names"), withOldNames);
  EXPECT_THAT(Probe("without_old_names"),
              ElementsAre("d2i_PKCS12_fp", "PKCS12_parse", "pass phrase secret", "PKCS12_free",
                          "EVP_sha256", "EVP_MD_CTX_new", "EVP_DigestInit", "EVP_DigestUpdate",
                          "data data", "EVP_SignFinal", "EVP_MD_CTX_free", "X509_free",
                          "EVP_PKEY_free", "result 1 signed"));
}

TEST(SigningFunctions, NothingIsSignedWithoutAFunctionOfTheWay) {
  EXPECT_THAT(Probe("without_d2i_PKCS12_fp"), ElementsAre("result 0 ?"));
  EXPECT_THAT(Probe("without_PKCS12_parse"),
              ElementsAre("d2i_PKCS12_fp", "PKCS12_free", "result 0 ?"));
  for (const char* const variant :
       {"without_EVP_sha256", "without_makers", "without_EVP_DigestInit",
        "without_EVP_DigestUpdate", "without_EVP_SignFinal"}) {
    SCOPED_TRACE(variant);
    const std::vector<std::string> lines = Probe(variant);
    EXPECT_EQ(lines.back(), "result 0 ?");
    for (const char* const freed : {"PKCS12_free", "X509_free", "EVP_PKEY_free"}) {
      EXPECT_THAT(lines, testing::Contains(freed).Times(1));
    }
    EXPECT_THAT(lines, testing::Not(testing::Contains("EVP_SignFinal")));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "EVP_MD_CTX_create"),
              std::count(lines.begin(), lines.end(), "EVP_MD_CTX_destroy"));
  }
}

TEST(SigningFunctions, AMissingReporterOrFreeingFunctionIsSkipped) {
  const std::vector<std::string> all = Probe("complete");
  for (const char* const function : {"PKCS12_free", "X509_free", "EVP_PKEY_free"}) {
    SCOPED_TRACE(function);
    std::vector<std::string> expected = all;
    expected.erase(std::remove(expected.begin(), expected.end(), function), expected.end());
    EXPECT_EQ(Probe(std::string("without_") + function), expected);
  }
  std::vector<std::string> expected = all;
  expected.erase(std::remove(expected.begin(), expected.end(), "EVP_MD_CTX_destroy"),
                 expected.end());
  EXPECT_EQ(Probe("without_breakers"), expected);
  // A context is not given to a freeing function of the other OpenSSL generation.
  EXPECT_EQ(Probe("without_destroy_and_new"), expected);
  EXPECT_EQ(Probe("without_ERR_get_error_line"), all);
  EXPECT_THAT(Probe("without_ERR_get_error_line", {"FAKE_SIGNING_FAILS=PKCS12_parse"}),
              ElementsAre("d2i_PKCS12_fp", "PKCS12_parse", "PKCS12_free", "result 0 ?"));
}

TEST(SigningFunctions, AFailureEndsTheSigning) {
  const struct {
    const char* function;
    std::vector<std::string> lines;
  } cases[] = {
      {"d2i_PKCS12_fp", {"d2i_PKCS12_fp", "result 0 ?"}},
      {"PKCS12_parse",
       {"d2i_PKCS12_fp", "PKCS12_parse", "ERR_get_error_line",
        "Failed to parse P12 file /dev/null, error = [4026531840] file [p12.c] line [77]",
        "PKCS12_free", "result 0 ?"}},
      {"EVP_MD_CTX_create",
       {"d2i_PKCS12_fp", "PKCS12_parse", "pass phrase secret", "PKCS12_free", "EVP_sha256",
        "EVP_MD_CTX_create", "X509_free", "EVP_PKEY_free", "result 0 ?"}},
      {"EVP_sha256",  // its null is handed on, to be refused
       {"d2i_PKCS12_fp", "PKCS12_parse", "pass phrase secret", "PKCS12_free", "EVP_sha256",
        "EVP_MD_CTX_create", "EVP_DigestInit", "no digest", "EVP_MD_CTX_destroy", "X509_free",
        "EVP_PKEY_free", "result 0 ?"}},
      {"EVP_DigestInit",  // an update of a context without a digest is undefined in an old OpenSSL
       {"d2i_PKCS12_fp", "PKCS12_parse", "pass phrase secret", "PKCS12_free", "EVP_sha256",
        "EVP_MD_CTX_create", "EVP_DigestInit", "EVP_MD_CTX_destroy", "X509_free", "EVP_PKEY_free",
        "result 0 ?"}},
      {"EVP_DigestUpdate",
       {"d2i_PKCS12_fp", "PKCS12_parse", "pass phrase secret", "PKCS12_free", "EVP_sha256",
        "EVP_MD_CTX_create", "EVP_DigestInit", "EVP_DigestUpdate", "data data",
        "EVP_MD_CTX_destroy", "X509_free", "EVP_PKEY_free", "result 0 ?"}},
      {"EVP_SignFinal",
       {"d2i_PKCS12_fp", "PKCS12_parse", "pass phrase secret", "PKCS12_free", "EVP_sha256",
        "EVP_MD_CTX_create", "EVP_DigestInit", "EVP_DigestUpdate", "data data", "EVP_SignFinal",
        "EVP_MD_CTX_destroy", "X509_free", "EVP_PKEY_free", "result 0 ?"}},
  };
  for (const auto& [function, lines] : cases) {
    SCOPED_TRACE(function);
    EXPECT_EQ(Probe("complete", {std::string("FAKE_SIGNING_FAILS=") + function}), lines);
  }
}

TEST(SigningFunctions, WithoutLibcurlNothingIsSignedOrPrinted) {
  EXPECT_THAT(Probe("absent"), ElementsAre("result 0 ?"));
}

TEST(SigningFunctions, TheFileIsClosedHoweverTheSigningEnds) {
  const struct {
    const char* what;
    const char* variant;
    const char* failing;
    const char* result;
  } cases[] = {
      {"signed", "complete", "nothing", "result 1 signed"},
      {"no function to read it", "without_d2i_PKCS12_fp", "nothing", "result 0 ?"},
      {"nothing could be read", "complete", "d2i_PKCS12_fp", "result 0 ?"},
      {"cannot be parsed", "complete", "PKCS12_parse", "result 0 ?"},
      {"no libcurl", "absent", "nothing", "result 0 ?"},
  };
  for (const auto& [what, variant, failing, result] : cases) {
    SCOPED_TRACE(what);
    // The probe tells of open files behind the result.
    EXPECT_EQ(Probe(variant, {std::string("FAKE_SIGNING_FAILS=") + failing}).back(), result);
  }
}

TEST(SigningFunctions, AFileThatIsNotNamedIsUnknown) {
  EXPECT_THAT(
      Probe("complete", {"FAKE_SIGNING_FAILS=PKCS12_parse", "FAKE_SIGNING_NO_FILE=1"}),
      testing::Contains(
          "Failed to parse P12 file /dev/null, error = [4026531840] file [unknown] line [77]"));
}

TEST(SigningFunctions, ACertificateThatComesWithoutAKeyIsNotFreed) {
  EXPECT_THAT(Probe("complete", {"FAKE_SIGNING_NO_KEY=1"}),
              ElementsAre("d2i_PKCS12_fp", "PKCS12_parse", "pass phrase secret", "PKCS12_free",
                          "result 0 ?"));
}

TEST_F(Signing, AFileIsSignedAsItsBytesAre) {
  const std::string key = m_keys->Pkcs12(3072, "secret");
  for (const std::string& data :
       {std::string(), std::string("a\0b\n", 4), std::string(300'000, 'x')}) {
    SCOPED_TRACE(data.size());
    ASSERT_OK(SignFile(key, m_keys->File("to sign", data)));
    EXPECT_EQ(m_signature, Sign(key.c_str(), data, "secret").signature);
  }
}

TEST_F(Signing, AFileBeyondTheRangeOfAnIntIsSignedWithoutHoldingIt) {
  const std::string key = m_keys->Pkcs12(2048, "secret");
  const std::string file = m_keys->File("large", "");
  constexpr std::uintmax_t kSize = (std::uintmax_t{1} << 31) + 5;
  std::filesystem::resize_file(file, kSize);  // a hole
  ASSERT_OK(SignFile(key, file));
  rusage usage{};
  ASSERT_EQ(getrusage(RUSAGE_SELF, &usage), 0);
  EXPECT_LT(usage.ru_maxrss, 1 << 20) << "kilobytes";
  EXPECT_TRUE(m_keys->IsGoodFor(2048, file, m_signature));
}

TEST_F(Signing, WhatAPipeGivesIsSignedToItsEnd) {
  const std::string key = m_keys->Pkcs12(2048, "secret");
  const std::string pipe = m_keys->File("pipe", "");
  std::filesystem::remove(pipe);
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::thread writer([&] { WriteFile(pipe, "piped"); });
  EXPECT_OK(SignFile(key, pipe));
  writer.join();
  EXPECT_TRUE(m_keys->IsGood(2048, "piped", m_signature));
}

TEST_F(Signing, TheCausesOfAFailureAreToldApart) {
  const std::string good = m_keys->Pkcs12(2048, "secret");
  const std::string data = m_keys->File("data to sign", "data");
  const std::string bytes = ReadFile(good);
  const std::string half = m_keys->File("half", bytes.substr(0, bytes.size() / 2));
  const struct {
    std::string key;
    std::string file;
    const char* passPhrase;
    unsigned code;
    std::string text;
  } cases[] = {
      {good, "/absent/file", "secret", ErrNoCode(ENOENT), "Failed to open file [/absent/file]"},
      {good, "/", "secret", ErrNoCode(EISDIR), "Failed to open file [/]"},
      {"/absent/key", data, "secret", ErrNoCode(ENOENT), "Failed to open file [/absent/key]"},
      {"/", data, "secret", ErrNoCode(EISDIR), "Failed to read file [/]"},
      {data, data, "secret", IntCode(201), "[" + data + "] is no PKCS#12 file"},
      {half, data, "secret", IntCode(201), "[" + half + "] is no PKCS#12 file"},
      {"/dev/null", data, "secret", IntCode(201), "[/dev/null] is no PKCS#12 file"},
      {good, data, "Secret", IntCode(202), "The pass phrase does not open [" + good + "]"},
      {good, data, "", IntCode(202), "The pass phrase does not open [" + good + "]"},
      {m_keys->Pkcs12(2048, "secret", {"-legacy"}), data, "secret", IntCode(201),
       "OpenSSL 3 does not read old kinds of encryption"},
      {m_keys->Pkcs12(2048, "secret", {"-nokeys"}), data, "secret", IntCode(203),
       "holds no RSA key"},
      {m_keys->CurveKey("secret"), data, "secret", IntCode(203), "holds no RSA key"},
  };
  for (const auto& [key, file, passPhrase, code, text] : cases) {
    SCOPED_TRACE(text);
    EXPECT_FAILS(SignFile(key, file, passPhrase), code, text.c_str());
  }
  EXPECT_OK(SignFile(good, data)) << "none of these is in the way";
}

TEST_F(Signing, AFailureLeavesNothingInTheListOfErrorsOfOpenSsl) {
  const std::string good = m_keys->Pkcs12(2048, "secret");
  const std::string data = m_keys->File("data to sign", "data");
  const std::string damaged = m_keys->File("damaged", "not a key");
  EXPECT_FAILS(SignFile(good, data, "wrong"), IntCode(202), "");
  EXPECT_FAILS(SignFile(damaged, data), IntCode(201), "");
  CZuLibrary openSsl(true);
  ASSERT_OK(openSsl.Load("libcrypto.so.3", false));
  const auto peek = reinterpret_cast<unsigned long (*)()>(openSsl.Find("ERR_peek_error"));
  ASSERT_TRUE(peek);
  EXPECT_EQ(peek(), 0UL);
}

TEST(SigningFunctions, AFileNeedsThemAllToo) {
  TempDir folder;
  const std::string file = folder / "file";
  WriteFile(file, "data");
  EXPECT_THAT(Probe("complete", {}, file),
              ElementsAre("d2i_PKCS12_fp", "PKCS12_parse", "pass phrase secret", "PKCS12_free",
                          "EVP_sha256", "EVP_MD_CTX_create", "EVP_DigestInit", "EVP_DigestUpdate",
                          "data data", "EVP_SignFinal", "EVP_MD_CTX_destroy", "X509_free",
                          "EVP_PKEY_free", "00000000  signed"));
  for (const char* const function :
       {"d2i_PKCS12_fp", "PKCS12_parse", "EVP_sha256", "EVP_DigestInit", "EVP_DigestUpdate",
        "EVP_SignFinal", "EVP_PKEY_size"}) {
    SCOPED_TRACE(function);
    const std::vector<std::string> lines = Probe(std::string("without_") + function, {}, file);
    EXPECT_THAT(lines.back(), MatchesRegex("E00200CC OpenSSL cannot sign: it lacks .* \\?"));
  }
  for (const char* const function : {"EVP_DigestInit", "EVP_DigestUpdate", "EVP_SignFinal"}) {
    SCOPED_TRACE(function);
    const std::vector<std::string> lines =
        Probe("complete", {std::string("FAKE_SIGNING_FAILS=") + function}, file);
    EXPECT_THAT(lines.back(), MatchesRegex("E00200CC OpenSSL cannot sign: .* \\?"));
    EXPECT_THAT(lines, testing::Contains("EVP_MD_CTX_destroy"));
    EXPECT_THAT(lines, testing::Contains("EVP_PKEY_free"));
  }
  EXPECT_THAT(Probe("absent", {}, file).back(),
              MatchesRegex("E00200CC OpenSSL cannot sign: Failed to load \\[libcurl.so\\]: .*"
                           "apt-get install libcurl4-openssl-dev.* \\?"));
}
