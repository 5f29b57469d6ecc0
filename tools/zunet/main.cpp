#include <algorithm>
#include <cstdio>
#include <exception>
#include <iterator>
#include <sstream>

#include "Commands.h"
#include "Output.h"
#include "Secrets.h"
#include "Usage.h"

namespace {

void AddVerboseFlag(CLI::App& app) {
  for (CLI::App* const command : app.get_subcommands(nullptr)) {
    if (command->get_option_no_throw("--verbose") != nullptr) continue;
    command->add_flag("-v,--verbose", gIsVerbose, "Tell each place that a failure passed");
  }
}

// The exit status.
int Run(CLI::App& app, int argc, char** argv) {
  std::vector<std::string> words(std::make_reverse_iterator(argv + argc),
                                 std::make_reverse_iterator(argv + std::min(argc, 1)));
  HideSecrets(argc, argv);
  try {
    app.parse(std::move(words));
  } catch (const CLI::ParseError& error) {
    std::ostringstream output;
    const int status = app.exit(error, output);
    if (status == kExitFailure) return status;  // told already
    Print(output.str());
    FlushOutput();
    return status;
  }
  FlushOutput();
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  FillStandardStreams();
  CLI::App app{"Files and addresses on the network, by the ZuNetwork library", "zunet"};
  app.set_version_flag("--version", ZUNET_VERSION);
  app.require_subcommand(1);
  app.failure_message(
      [](const CLI::App* failed, const CLI::Error& error) { return ExplainUsage(*failed, error); });
  AddTransferCommands(app);
  AddSignCommand(app);
  AddPingCommands(app);
  AddStreamCommands(app);
  AddAddressCommands(app);
  AddVerboseFlag(app);
  return Run(app, argc, argv);
} catch (const CLI::RuntimeError& ended) {
  return ended.get_exit_code();
} catch (const std::exception& exception) {
  std::fprintf(stderr, "zunet: %s\n", exception.what());
  return kExitFailure;
}
