#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "Commands.h"
#include "Output.h"
#include "ZuNetwork/CurlWrapper.h"
#include "ZuNetwork/KdErrorItem_KdCURL.h"

bool gIsVerbose = false;

namespace {

struct Advice {
  int number;
  const char* text;
};

// By errno values and resolver's codes.
constexpr Advice kSystemAdvice[] = {
    {ECONNREFUSED, "check the port, and that a server runs there"},
    {ETIMEDOUT, "check host and port; a firewall may drop what is sent"},
    {ENETUNREACH, "check the network of this machine"},
    {EHOSTUNREACH, "check the address, and that the host is up"},
    {EADDRINUSE, "take another port; 0 takes one that is free"},
    {ENOENT, "check the path"},
    {ENOTDIR, "check the path"},
    {EISDIR, "name a file"},
    {EACCES, "check the permissions"},
    {ENOSPC, "make room"},
    {EPIPE, "whoever read the output has gone"},
    {EAI_NONAME, "check the spelling"},
    {EAI_AGAIN, "the name server does not answer: check the network"},
};

// By libcurl's codes.
constexpr Advice kTransferAdvice[] = {
    {CURLE_COULDNT_RESOLVE_PROXY, "check the spelling of the proxy"},
    {CURLE_COULDNT_RESOLVE_HOST, "check the spelling of the host"},
    {CURLE_COULDNT_CONNECT, "check host and port, and that a server runs there"},
    {CURLE_REMOTE_ACCESS_DENIED, "check the path, and that the user may do that"},
    {CURLE_OPERATION_TIMEDOUT, "the server is slow or silent: try later, or allow more time"},
    {CURLE_SSL_CONNECT_ERROR, "check that the server speaks TLS on this port"},
    {CURLE_PEER_FAILED_VERIFICATION, "name the server's authority with --cacert"},
    {CURLE_SSL_CACERT_BADFILE, "check the file of --cacert"},
    {CURLE_LOGIN_DENIED, "check name and password, or the key"},
    {CURLE_REMOTE_FILE_NOT_FOUND, "check the path"},
    {CURLE_PARTIAL_FILE, "the connection broke off: try again"},
    {CURLE_GOT_NOTHING, "check the port: what listens there may speak another protocol"},
    {CURLE_RECV_ERROR, "the connection broke off: try again"},
    {CURLE_SEND_ERROR, "the connection broke off: try again"},
};

// By the status with which an HTTP server refuses.
constexpr Advice kStatusAdvice[] = {
    {401, "log in with --user"},
    {403, "the server lets this user not do that"},
    {404, "check the path"},
    {405, "the server does not do that with this path"},
    {407, "log in to the proxy: --proxy name:password@host"},
};

constexpr char kServerStatus[] = "Response code from server: [";

template <std::size_t Count, typename IsIt>
const char* Find(const Advice (&list)[Count], const IsIt& isIt) {
  for (const Advice& advice : list) {
    if (isIt(advice.number)) return advice.text;
  }
  return nullptr;
}

const char* AdviceFor(const CZuError& error) {
  if (const char* const text =
          Find(kTransferAdvice, [&](int code) { return KdCURL::IsKdCURL(error, code); })) {
    return text;
  }
  const std::string message = error.Message();
  const size_t status =
      KdCURL::IsKdCURL(error, 0) ? message.find(kServerStatus) : std::string::npos;
  if (status != std::string::npos) {
    const int number = std::atoi(message.c_str() + status + sizeof kServerStatus - 1);
    return Find(kStatusAdvice, [&](int code) { return code == number; });
  }
  return Find(kSystemAdvice, [&](int err) {
    return FXErrorUtil::IsErrNo(error, err) ||
           (err > 0 && FXErrorUtil::IsWin32(error, static_cast<unsigned>(err)));
  });
}

// The text between a mark and the last bracket behind it, if the mark is there.
std::optional<std::string> Bracketed(const std::string& message, std::string_view mark) {
  const size_t start = message.find(mark);
  if (start == std::string::npos) return std::nullopt;
  const size_t end = std::min(message.rfind(']'), message.size());
  return message.substr(start + mark.size(), end - start - mark.size());
}

// What libcurl or the server said, out of a transfer's message. "KdCURL.7.0x7-…" is the form of all
// of them.
std::string WithoutCodes(std::string message) {
  if (message.rfind("KdCURL.", 0) != 0) return message;
  message.erase(0, std::min(message.find('-'), message.size() - 1) + 1);
  if (const auto text = Bracketed(message, "Error Message : [")) return *text;
  const auto status = Bracketed(message, kServerStatus);
  return status ? "the server answered " + *status : message;
}

// The outermost message, which says what was tried, and the innermost, which says why it failed.
std::string Explain(const CZuError& error) {
  std::string what;
  std::string why;
  for (const auto& item : error.GetItems()) {
    const std::string text = WithoutCodes(item->Message());
    if (text.empty()) continue;
    if (why.empty()) {
      why = text;
    } else {
      what = text;
    }
  }
  if (why.empty()) why = error.Message();
  return what.empty() || what == why ? why : what + ": " + why;
}

void PrintPlaces(const CZuError& error) {
  const std::string text = error.AsString();
  for (std::string_view rest = text; !rest.empty();) {
    const size_t end = std::min(rest.find('\n'), rest.size());
    std::fprintf(stderr, "%s\n", Printable(rest.substr(0, end)).c_str());
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
}

}  // namespace

void ExitOnFailure(const CZuError& error, const char* advice) {
  if (!Failed(error)) return;
  if (advice == nullptr) advice = AdviceFor(error);
  std::fprintf(stderr, "zunet: %s%s%s\n", Printable(Explain(error)).c_str(),
               advice == nullptr ? "" : "; ", advice == nullptr ? "" : advice);
  if (gIsVerbose) PrintPlaces(error);
  throw CLI::RuntimeError(kExitFailure);
}
