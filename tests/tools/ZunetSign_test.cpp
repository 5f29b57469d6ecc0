#include <gmock/gmock.h>

#include <algorithm>

#include "support/Sanitizers.h"
#include "tools/ZunetRun.h"

namespace {

using testing::HasSubstr;

class ZunetSign : public testing::Test {
 protected:
  ZunetSign() {
    WriteFile(folder / "data", "to be signed");
    WriteFile(folder / "phrase", "secret\n");
    MakeKey("key", {"rsa:2048"});
  }

  std::string Path(const std::string& name) const { return folder / name; }

  // NAME.key and NAME.crt; NAME.p12 with the pass phrase "secret".
  void MakeKey(const std::string& name, const std::vector<std::string>& kind) const {
    std::vector<std::string> request{"openssl", "req",
                                     "-x509",   "-nodes",
                                     "-subj",   "/CN=signer",
                                     "-keyout", Path(name + ".key"),
                                     "-out",    Path(name + ".crt"),
                                     "-newkey"};
    request.insert(request.end(), kind.begin(), kind.end());
    ::Run(request);
    ::Run({"openssl", "pkcs12", "-export", "-inkey", Path(name + ".key"), "-in",
           Path(name + ".crt"), "-passout", "pass:secret", "-out", Path(name + ".p12")});
  }

  // The arguments that sign a file with a key.
  std::string Sign(const std::string& file, const std::string& key) const {
    return "sign " + Quoted(Path(file)) + " --key " + Quoted(Path(key));
  }

  std::string WithPhrase() const { return " --pass-file " + Quoted(Path("phrase")); }

  // What openssl says of a signature of the file by the first key.
  std::string Verify(const std::string& file, const std::string& signature) const {
    ::Run({"openssl", "x509", "-in", Path("key.crt"), "-noout", "-pubkey", "-out", Path("public")});
    return ::Run({"openssl", "dgst", "-sha256", "-verify", Path("public"), "-signature",
                  Path(signature), Path(file)});
  }

  TempDir folder;
};

TEST_F(ZunetSign, StandardOutputTakesTheSignatureAndNothingElse) {
  const ZunetRun run(folder, "sign", Sign("data", "key.p12") + WithPhrase());
  EXPECT_EQ(run.Wait(), 0);
  EXPECT_EQ(run.Errors(), "");
  EXPECT_EQ(run.Output().size(), 256u);
  EXPECT_EQ(Verify("data", "sign.out"), "Verified OK\n");
}

TEST_F(ZunetSign, FileTakesTheSignature) {
  const ZunetRun run(folder, "sign",
                     Sign("data", "key.p12") + WithPhrase() + " -o " + Quoted(Path("data.sig")));
  EXPECT_EQ(run.Wait(), 0);
  EXPECT_EQ(run.Output(), "");
  EXPECT_EQ(Verify("data", "data.sig"), "Verified OK\n");
}

TEST_F(ZunetSign, CausesOfAFailureAreToldApart) {
  MakeKey("elliptic", {"ec", "-pkeyopt", "ec_paramgen_curve:P-256"});
  ::Run({"openssl", "pkcs12", "-export", "-nokeys", "-in", Path("key.crt"), "-passout",
         "pass:secret", "-out", Path("empty.p12")});
  const std::pair<std::string, std::string> failures[] = {
      {Sign("data", "none.p12") + WithPhrase(), "none.p12]: No such file or directory; check"},
      {Sign("none", "key.p12") + WithPhrase(), "none]: No such file or directory; check"},
      {Sign("data", "data") + WithPhrase(), "data] is no PKCS#12 file; make one with openssl"},
      {Sign("data", "key.p12"), "pass phrase does not open [" + Path("key.p12")},
      {Sign("data", "key.p12") + " --pass-file " + Quoted(Path("data")), "; name a file with the"},
      {Sign("data", "empty.p12") + WithPhrase(), "empty.p12] holds no RSA key; export an RSA key"},
      {Sign("data", "elliptic.p12") + WithPhrase(), "elliptic.p12] holds no RSA key; "},
      {Sign("data", "key.p12") + " --pass-file " + Quoted(Path("none")), "Failed to read "},
  };
  for (const auto& [arguments, message] : failures) {
    SCOPED_TRACE(arguments);
    const ZunetRun run(folder, "sign", arguments);
    EXPECT_EQ(run.Wait(), 2);
    EXPECT_EQ(run.Output(), "");
    const std::string errors = run.Errors();
    EXPECT_THAT(errors, HasSubstr(message));
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
  }
}

TEST_F(ZunetSign, UnwrittenSignatureIsAFailure) {
  for (const char* const output : {" >/dev/full", " >&-", " -o /dev/full", " -o /none/signature"}) {
    SCOPED_TRACE(output);
    const ZunetRun run(folder, "sign", Sign("data", "key.p12") + WithPhrase() + output);
    EXPECT_EQ(run.Wait(), 2);
    EXPECT_THAT(run.Errors(), testing::StartsWith("zunet: "));
  }
}

TEST_F(ZunetSign, FileMayBeLargerThanTheMemory) {
  if (kSanitized) GTEST_SKIP() << "sanitizers take more address space than is left here";
  WriteFile(folder / "large", "");
  std::filesystem::resize_file(folder / "large", 60 << 20);
  const std::string large = Quoted(ZUNET_PROGRAM) + " " + Sign("large", "key.p12") + WithPhrase();
  ::Run({"sh", "-c", "ulimit -v 60000; exec " + large + " -o " + Quoted(Path("large.sig"))});
  EXPECT_EQ(Verify("large", "large.sig"), "Verified OK\n");
}

}  // namespace
