#include <CLI/CLI.hpp>

int main(int argc, char** argv) {
  CLI::App app{"The network library at your fingertips", "zunet"};
  CLI11_PARSE(app, argc, argv);
  return 0;
}
