#include <unistd.h>

#include <utility>

#include "Commands.h"
#include "Login.h"
#include "ZuNetwork/CurlWrapper.h"
#include "ZuNetwork/KdTransferIO.h"

namespace {

struct Arguments {
  std::string file;
  std::string key;
  std::string passPhraseFile;
  std::string output;
};

const char* AdviceFor(const CZuError& error) {
  constexpr std::pair<int, const char*> kAdvice[] = {
      {kErrorNotPkcs12, "make one with openssl pkcs12 -export -inkey KEY -in CERTIFICATE"},
      {kErrorPassPhrase, "name a file with the pass phrase by --pass-file"},
      {kErrorNoRsaKey, "export an RSA key with openssl pkcs12 -export -inkey KEY -in CERTIFICATE"},
  };
  for (const auto& [code, advice] : kAdvice) {
    if (FXErrorUtil::IsInt(error, code)) return advice;
  }
  return nullptr;
}

void Sign(const Arguments& arguments) {
  std::string passPhrase;
  if (!arguments.passPhraseFile.empty()) passPhrase = ReadPassPhrase(arguments.passPhraseFile);
  std::string signature;
  CZuError error = CurlWrapper::gCurlWrapper.SignFileSHA256withRSA(arguments.key, arguments.file,
                                                                   passPhrase, signature);
  if (Failed(error)) error.Push(ZU_HERE, "Failed to sign %s", arguments.file.c_str());
  ExitOnFailure(error, AdviceFor(error));

  KdCURL::FileSink sink;
  if (arguments.output.empty()) {
    sink.Use(STDOUT_FILENO);
  } else {
    ExitOnFailure(sink.Open(arguments.output));
  }
  KdCURL::FileSink::Write(signature.data(), 1, signature.size(), &sink);
  ExitOnFailure(sink.Commit());
}

}  // namespace

void AddSignCommand(CLI::App& app) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App* const command =
      app.add_subcommand("sign", "Sign a file with RSA over its SHA-256 digest");
  command->add_option("FILE", arguments->file)->required();
  command->add_option("--key", arguments->key, "The PKCS#12 file with the private key")->required();
  command->add_option("--pass-file", arguments->passPhraseFile,
                      "A file with the pass phrase of the key; without it the phrase is empty");
  command->add_option("-o,--output", arguments->output,
                      "Write the signature to this file instead of standard output");
  command->callback([arguments] { Sign(*arguments); });
}
