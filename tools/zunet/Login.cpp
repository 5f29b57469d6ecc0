#include "Login.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "Commands.h"
#include "Secrets.h"
#include "Signals.h"
#include "ZuUtils/FXString.h"
#include "ZuUtils/ZuFile.h"

namespace {

// The terminal of the program, which does not show what is typed as long as the object lives.
class SilentTerminal {
 public:
  SilentTerminal() : m_descriptor(open("/dev/tty", O_RDWR | O_CLOEXEC)) {
    m_isThere = m_descriptor != -1 && tcgetattr(m_descriptor, &m_old) == 0;
    if (!m_isThere) return;
    termios silent = m_old;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    silent.c_cc[VSUSP] = _POSIX_VDISABLE;  // the shell would come back to a terminal without echo
    tcsetattr(m_descriptor, TCSAFLUSH, &silent);
  }
  ~SilentTerminal() {
    if (m_isThere) tcsetattr(m_descriptor, TCSAFLUSH, &m_old);
    if (m_descriptor != -1) close(m_descriptor);
  }
  SilentTerminal(const SilentTerminal&) = delete;
  SilentTerminal& operator=(const SilentTerminal&) = delete;

  bool IsThere() const { return m_isThere; }

  void Write(const std::string& text) const {
    (void)!write(m_descriptor, text.data(), text.size());  // a prompt that is lost harms nobody
  }

  // False when a signal came first, or the line was ended by the end of input.
  bool ReadLine(std::string& line) const {
    pollfd waited[] = {{m_descriptor, POLLIN, 0}, {SignalDescriptor(), POLLIN, 0}};
    for (char character = 0; character != '\n';) {
      if (poll(waited, 2, -1) < 0 && errno != EINTR) return false;
      if (NotedSignal() != 0) return false;
      if (waited[0].revents == 0) continue;
      if (read(m_descriptor, &character, 1) != 1) return false;
      if (character != '\n') line += character;
    }
    return true;
  }

 private:
  int m_descriptor;
  bool m_isThere = false;
  termios m_old{};
};

}  // namespace

std::string AskForPassword(const std::string& user) {
  NoteSignals();
  std::string password;
  bool isRead = false;
  {
    SilentTerminal terminal;
    if (!terminal.IsThere()) {
      ExitOnFailure(FXErrorUtil::ErrorInt(
          ZU_HERE, kErrorBadInput,
          "No password for %s: there is no terminal to ask on, and ZUNET_PASSWORD is not set",
          user.c_str()));
    }
    terminal.Write("Password of " + user + ": ");
    isRead = terminal.ReadLine(password);
    terminal.Write("\n");
  }
  ExitOnSignal();
  if (!isRead) ExitOnFailure(FXErrorUtil::ErrorInt(ZU_HERE, kErrorBadInput, "No password given"));
  return password;
}

std::pair<std::string, std::string> NameAndPassword(const SessionOptions& options) {
  auto login = SplitAt(options.user, ':');
  if (options.user.find(':') != std::string::npos || !options.key.empty()) return login;
  const char* const password = std::getenv("ZUNET_PASSWORD");
  login.second = password == nullptr ? AskForPassword(login.first) : password;
  return login;
}

std::string ReadPassPhrase(const std::string& path) {
  char* content = nullptr;
  size_t length = 0;
  CZuError error = CZuFile::ReadWholeFile(path.c_str(), &content, length);
  if (FXErrorUtil::IsWin32(error, kErrorEmpty)) return "";
  if (Failed(error)) ExitOnFailure(error.Push(ZU_HERE, "Failed to read %s", path.c_str()));
  const std::unique_ptr<char[]> owner(content);
  std::string phrase(content, length);
  FXString::TrimRight(phrase, "\r\n");
  return phrase;
}

std::string HomeFolder() {
  const char* const home = std::getenv("HOME");
  if (home != nullptr && *home != '\0') return home;
  const passwd* const account = getpwuid(geteuid());
  if (account != nullptr && account->pw_dir != nullptr && *account->pw_dir != '\0') {
    return account->pw_dir;
  }
  ExitOnFailure(FXErrorUtil::ErrorInt(
      ZU_HERE, kErrorBadInput,
      "No home folder, so there is no file of known hosts to check the server's key with; name one "
      "with --known-hosts"));
  return {};
}

std::string RefusedHostKey(const Url& url, const std::string& knownHosts, bool isOther) {
  const std::string port = url.Port().empty() ? "22" : url.Port();
  const std::string host = url.Host();
  const std::string entry = port == "22" ? host : "[" + host + "]:" + port;
  const std::string add = "ssh-keyscan -p " + port + " " + host + " >> " + knownHosts;
  if (isOther) {
    return "The key of " + entry + " is another one than in " + knownHosts +
           ": the server is new, or someone stands between. If it is new: ssh-keygen -R '" + entry +
           "' -f " + knownHosts + "; " + add;
  }
  return "The key of " + entry + " is not in " + knownHosts +
         ". If you trust the way to the server: " + add;
}
