#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cctype>

#include <cerrno>
#include <memory>
#include <string_view>

#include "Blacklist.h"
#include "Commands.h"
#include "Output.h"
#include "ZuNetwork/ZuIPAddr.h"

namespace {

struct Arguments {
  std::string name;
  std::string address;
  std::string block;
  std::string file;
  std::vector<std::string> addresses;
  bool onlyIPv4 = false;
  bool onlyIPv6 = false;
  bool all = false;
  bool macs = false;
  bool names = false;
  bool isStrict = false;
};

// The value of a numeric text; ends the program for anything else.
CZuIPAddr ParseAddress(const std::string& text) {
  CZuIPAddr address;
  if (Failed(address.SetAddressString(text.c_str()))) {
    ExitOnFailure(FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, "Not an address: [%s]",
                                          text.c_str()),
                  "for the address of a name there is zunet resolve");
  }
  return address;
}

void RequireIPv4(const std::string& text) {
  if (ParseAddress(text).m_Addr.addr.f.family == CZuIPAddr::FAMILY_IPV4) return;
  ExitOnFailure(FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, "Not an IPv4 address: [%s]",
                                        text.c_str()));
}

// A number from 0 to 32, without sign, blanks or more than two digits.
bool IsPrefix(std::string_view text) {
  const auto isDigit = [](unsigned char c) { return std::isdigit(c) != 0; };
  if (text.empty() || text.size() > 2 || !std::all_of(text.begin(), text.end(), isDigit)) {
    return false;
  }
  return text.size() == 1 || text <= "32";
}

// What the library reads as a block that takes in every address is a mistake here.
void RequireBlock(const std::string& text) {
  const size_t slash = text.find('/');
  if (slash == std::string::npos || !IsPrefix(std::string_view(text).substr(slash + 1))) {
    ExitOnFailure(FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument,
                                          "Invalid CIDR block: [%s].", text.c_str()),
                  "a block is an IPv4 address, a slash and a number from 0 to 32");
  }
  RequireIPv4(text.substr(0, slash));
}

std::string TextOf(const CZuIPAddr& address) {
  CZuString text;
  ExitOnFailure(address.GetAddressString(text));
  return text.c_str();
}

void Resolve(const Arguments& arguments) {
  auto family = CZuIPAddr::FAMILY_ANY;
  if (arguments.onlyIPv4) family = CZuIPAddr::FAMILY_IPV4;
  if (arguments.onlyIPv6) family = CZuIPAddr::FAMILY_IPV6;
  std::vector<CZuIPAddr> addresses(arguments.all ? 0 : 1);
  CZuError error = arguments.all
                       ? CZuIPAddr::GetAllByName(arguments.name.c_str(), addresses, family)
                       : CZuIPAddr::GetByName(arguments.name.c_str(), addresses.front(), family);
  if (Failed(error)) {
    ExitOnFailure(error.Push(ZU_HERE, "Failed to resolve %s", arguments.name.c_str()));
  }
  for (const CZuIPAddr& address : addresses) PrintLine(TextOf(address));
}

void PrintName(const Arguments& arguments) {
  CZuString name;
  CZuError error = ParseAddress(arguments.address).GetHostName(name);
  if (Failed(error)) {
    ExitOnFailure(error.Push(ZU_HERE, "Failed to find the name of %s", arguments.address.c_str()),
                  "the name service of this machine knows none");
  }
  PrintLine(Printable(name.c_str()));
}

void PrintMacs() {
  std::vector<std::string> macs;
  ExitOnFailure(CZuIPAddr::GetMACList(macs, CZuIPAddr::FAMILY_ANY));
  for (const std::string& mac : macs) PrintLine(mac);
}

// The library takes a table that cannot be opened for a machine without IPv6. Ends the program
// where addresses are missing for that reason.
void RequireIPv6Table() {
  constexpr char kTable[] = "/proc/net/if_inet6";
  const int table = open(kTable, O_RDONLY | O_CLOEXEC);
  const int err = errno;
  if (table != -1) {
    close(table);
    return;
  }
  bool hasIPv6 = false;
  if (!Failed(CZuIPAddr::IsIPv6StackPresent(hasIPv6)) && !hasIPv6) return;
  ExitOnFailure(FXErrorUtil::ErrorErrNo(
      ZU_HERE, err, "IPv6 addresses are missing here, as %s cannot be read", kTable));
}

void PrintNames() {
  GetAllInterfacesArgs_t wanted;
  GetAllInterfacesRet_t found;
  wanted.getHostnames = true;
  ExitOnFailure(CZuIPAddr::GetAllInterfaces(wanted, found, CZuIPAddr::FAMILY_ANY));
  for (const std::string& name : found.hostnameList) PrintLine(Printable(name));
  RequireIPv6Table();
}

void PrintAddresses() {
  std::vector<std::pair<CZuIPAddr, CZuIPAddr>> interfaces;
  const CZuError error = CZuIPAddr::GetIFList(interfaces, CZuIPAddr::FAMILY_ANY);
  for (const auto& [address, network] : interfaces) {
    PrintLine(TextOf(address) + " " + TextOf(network));
  }
  ExitOnFailure(error);
  RequireIPv6Table();
}

void PrintInterfaces(const Arguments& arguments) {
  if (arguments.macs) {
    PrintMacs();
  } else if (arguments.names) {
    PrintNames();
  } else {
    PrintAddresses();
  }
}

void CheckBlock(const Arguments& arguments) {
  RequireIPv4(arguments.address);
  RequireBlock(arguments.block);
  bool inside = false;
  ExitOnFailure(
      CZuIPAddr::CheckIfIpv4AddressIsWithinCidrBlock(arguments.address, arguments.block, inside));
  PrintLine(inside ? "inside" : "outside");
  if (!inside) throw CLI::RuntimeError(kExitOutside);
}

void CheckBlacklist(const Arguments& arguments) {
  std::vector<CZuIPAddr> addresses;
  for (const std::string& text : arguments.addresses) addresses.push_back(ParseAddress(text));
  CZuIPAddrBlacklist blacklist;
  LoadBlacklist(arguments.file, arguments.isStrict, blacklist);
  bool isAnyListed = false;
  for (const CZuIPAddr& address : addresses) {
    const bool isListed = blacklist.IsAddressBlacklisted(address, nullptr, nullptr);
    PrintLine(TextOf(address) + (isListed ? " listed" : " not listed"));
    isAnyListed = isAnyListed || isListed;
  }
  if (isAnyListed) throw CLI::RuntimeError(kExitListed);
}

CLI::App* AddCommand(CLI::App& app, const std::shared_ptr<Arguments>& arguments,
                     const std::string& name, const std::string& description,
                     void (*run)(const Arguments&)) {
  CLI::App* const command = app.add_subcommand(name, description);
  command->callback([arguments, run] { run(*arguments); });
  return command;
}

}  // namespace

void AddAddressCommands(CLI::App& app) {
  const auto arguments = std::make_shared<Arguments>();

  CLI::App* command = AddCommand(app, arguments, "resolve", "Print the address of a name", Resolve);
  command->add_option("NAME", arguments->name)->required();
  CLI::Option* const v4 = command->add_flag("-4", arguments->onlyIPv4, "IPv4 alone");
  command->add_flag("-6", arguments->onlyIPv6, "IPv6 alone")->excludes(v4);
  command->add_flag("--all", arguments->all, "Every address, not the first alone");

  command = AddCommand(app, arguments, "name", "Print the name of an address", PrintName);
  command->add_option("ADDRESS", arguments->address)->required();

  command = AddCommand(app, arguments, "interfaces",
                       "Print each address of this machine and its network; for IPv6 the fourth "
                       "group of the address, written as the end of an IPv4 address",
                       PrintInterfaces);
  CLI::Option* const macs =
      command->add_flag("--mac", arguments->macs, "Print the hardware addresses instead");
  command->add_flag("--names", arguments->names, "Print the names of the addresses instead")
      ->excludes(macs);

  command = AddCommand(app, arguments, "cidr",
                       "Tell whether an IPv4 address is in a block such as 10.0.0.0/8", CheckBlock);
  command->add_option("ADDRESS", arguments->address)->required();
  command->add_option("BLOCK", arguments->block)->required();

  command = AddCommand(app, arguments, "blacklist",
                       "Tell of each address whether a file of names and addresses lists it",
                       CheckBlacklist);
  command->add_option("FILE", arguments->file, "A name or address a line")->required();
  command->add_option("ADDRESS", arguments->addresses)->required();
  command->add_flag("--strict", arguments->isStrict, "Fail when a line lists nobody");
}
