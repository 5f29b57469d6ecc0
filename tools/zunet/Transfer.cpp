#include "Transfer.h"

#include <memory>

#include "Commands.h"

namespace {

constexpr int kLongestLimit = 2'000'000;  // what libcurl can count in milliseconds, about

using Arguments = std::shared_ptr<TransferArguments>;

void AddConnectionOptions(CLI::App& command, SessionOptions& session) {
  command.add_option("--cacert", session.caBundle,
                     "Verify the server against this CA bundle; without it that of CURL_CA_BUNDLE, "
                     "SSL_CERT_FILE or the system");
  command.add_flag("--insecure", session.isInsecure, "Do not verify the server");
  command.add_flag("--insecure-redirects", session.isDowngraded,
                   "Follow redirects from https to http");
  command.add_option("--proxy", session.proxy,
                     "Go through \"[SCHEME://][name:password@]host[:port]\"; the "
                     "port is 1080 without one");
  command.add_option("--proxy-auth", session.proxyAuth, "How the proxy is told who asks")
      ->check(CLI::IsMember({"basic", "digest", "any"}));
  auto* const tls = command.add_flag("--tls", session.isTls, "Require TLS for all of FTP");
  command
      .add_flag("--tls-control", session.isTlsControl,
                "Require TLS for FTP's control connection, and leave files in clear")
      ->excludes(tls);
  command.add_flag("--active", session.isActive, "Let the server connect back (FTP)");
  command.add_option("--limit-time", session.limitSecs, "Give up after so many seconds")
      ->check(WholeNumber(1, kLongestLimit, " seconds"));
  auto* const idle =
      command
          .add_option("--limit-idle", session.idleSecs, "Give up when no byte comes for so long")
          ->check(WholeNumber(1, kLongestLimit, " seconds"))
          ->capture_default_str();
  command.add_flag("--no-limit", session.isUnlimited, "Wait for a silent server")->excludes(idle);
  command.add_option("-H,--header", session.headers, "Send the header \"Name: value\" (HTTP)")
      ->allow_extra_args(false);
  command.add_flag("-v,--verbose", gIsVerbose, "Trace the exchange on standard error");
}

void AddLoginOptions(CLI::App& command, SessionOptions& session) {
  command.add_option("--user", session.user,
                     "Log in as \"name\", with the password of ZUNET_PASSWORD or one that is asked "
                     "for, or as \"name:password\"");
  command.add_flag("--netrc", session.isNetrc, "Log in as ~/.netrc says");
  auto* const key = command.add_option("--key", session.key, "Log in with this private key (SFTP)");
  command
      .add_option("--pass-file", session.passPhraseFile, "A file with the pass phrase of the key")
      ->needs(key);
  command.add_option("--known-hosts", session.knownHosts,
                     "Check the server's key with this file (SFTP) instead of ~/.ssh/known_hosts");
}

CLI::App* AddCommand(CLI::App& app, const std::string& name, const std::string& description,
                     const Arguments& arguments, void (*run)(const TransferArguments&)) {
  CLI::App* const command = app.add_subcommand(name, description);
  AddLoginOptions(*command, arguments->session);
  AddConnectionOptions(*command, arguments->session);
  command->callback([arguments, run] { run(*arguments); });
  return command;
}

void AddUrl(CLI::App* command, const Arguments& arguments) {
  command->add_option("URL", arguments->url, "http, https, ftp, ftps or sftp")->required();
}

void AddPost(CLI::App& app, const Arguments& arguments) {
  CLI::App* const command =
      AddCommand(app, "post", "POST a body or a form (HTTP)", arguments, Post);
  AddUrl(command, arguments);
  command->add_option("-o,--output", arguments->output, "Write the answer to this file");
  CLI::Option* const data =
      command
          ->add_option("-d,--data", arguments->data,
                       "The body as text, or as @file for the text of a file without line ends; "
                       "several are joined by \"&\"")
          ->allow_extra_args(false);
  CLI::Option* const file =
      command->add_option("-f,--file", arguments->file, "The body as a file, - for standard input");
  CLI::Option* const form =
      command->add_option("-F,--form", arguments->fields, "A form field: name=value or name=@path")
          ->allow_extra_args(false);
  data->excludes(file)->excludes(form);
  file->excludes(form);
}

}  // namespace

void AddTransferCommands(CLI::App& app) {
  const auto arguments = std::make_shared<TransferArguments>();

  CLI::App* command = AddCommand(app, "get", "Download a file", arguments, Get);
  AddUrl(command, arguments);
  CLI::Option* const output = command->add_option(
      "-o,--output", arguments->output,
      "Write to this file, which is replaced only by a complete download; - for standard output");
  command
      ->add_flag("--resume", arguments->isResumed, "Go on with FILE.part, and keep it if cut off")
      ->needs(output);

  command = AddCommand(app, "put", "Upload a file", arguments, Put);
  command->add_option("FILE", arguments->file, "- for standard input")->required();
  AddUrl(command, arguments);

  AddPost(app, arguments);
  AddUrl(AddCommand(app, "delete", "Delete a file", arguments, Delete), arguments);
  AddUrl(AddCommand(app, "ls", "List a folder", arguments, List), arguments);
  AddUrl(AddCommand(app, "size", "Print the size of a file", arguments, Size), arguments);
  AddUrl(AddCommand(app, "head", "Print the status and the headers of an answer (HTTP)", arguments,
                    Head),
         arguments);
  AddUrl(AddCommand(app, "exists", "Tell whether a file, or a folder (ending in a slash), exists",
                    arguments, Exists),
         arguments);
}
