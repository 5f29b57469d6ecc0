#include <cstdio>
#include <exception>

#include "Commands.h"

void ExitOnFailure(const CZuError& error) {
  if (!Failed(error)) return;
  std::fprintf(stderr, "zunet: %s\n", error.AsString().c_str());
  throw CLI::RuntimeError(kExitFailure);
}

int main(int argc, char** argv) try {
  CLI::App app{"Files and addresses on the network, by the ZuNetwork library", "zunet"};
  app.set_version_flag("--version", ZUNET_VERSION);
  app.require_subcommand(1);
  AddTransferCommands(app);
  AddSignCommand(app);
  AddPingCommands(app);
  AddStreamCommands(app);
  AddAddressCommands(app);
  CLI11_PARSE(app, argc, argv);
  return 0;
} catch (const std::exception& exception) {
  std::fprintf(stderr, "zunet: %s\n", exception.what());
  return kExitFailure;
}
