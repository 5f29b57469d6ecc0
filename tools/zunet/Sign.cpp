#include <unistd.h>

#include <cstdio>
#include <limits>
#include <memory>

#include "Commands.h"
#include "ZuNetwork/CurlWrapper.h"
#include "ZuNetwork/KdTransferIO.h"
#include "ZuUtils/FXString.h"
#include "ZuUtils/ZuFile.h"

namespace {

struct Arguments {
  std::string file;
  std::string key;
  std::string passPhraseFile;
  std::string output;
};

// A file as text; an empty one is an empty text.
std::string ReadText(const std::string& path) {
  char* content = nullptr;
  size_t length = 0;
  const CZuError error = CZuFile::ReadWholeFile(path.c_str(), &content, length);
  if (FXErrorUtil::IsWin32(error, kErrorEmpty)) return "";
  ExitOnFailure(error);
  const std::unique_ptr<char[]> owner(content);
  return {content, length};
}

void Sign(const Arguments& arguments) {
  constexpr size_t kLargestSignature = 4096;  // a key of 32768 bits
  const std::string data = ReadText(arguments.file);
  if (data.size() > std::numeric_limits<int>::max()) {
    throw CLI::ValidationError("FILE: more than 2 GiB cannot be signed");
  }
  std::string passPhrase;
  if (!arguments.passPhraseFile.empty()) passPhrase = ReadText(arguments.passPhraseFile);
  FXString::TrimRight(passPhrase, "\r\n");

  unsigned char signature[kLargestSignature];
  unsigned int size = 0;
  if (CurlWrapper::gCurlWrapper.SignSHA256withRSA(arguments.key.c_str(), data.data(),
                                                  static_cast<int>(data.size()), passPhrase.c_str(),
                                                  signature, &size) != 1) {
    ExitOnFailure(FXErrorUtil::ErrorInt(ZU_HERE, kErrorBadInput, "Cannot sign with the key of [%s]",
                                        arguments.key.c_str()));
  }
  KdCURL::FileSink sink;
  if (arguments.output.empty()) {
    sink.Use(STDOUT_FILENO);
  } else {
    ExitOnFailure(sink.Open(arguments.output));
  }
  KdCURL::FileSink::Write(reinterpret_cast<char*>(signature), 1, size, &sink);
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
