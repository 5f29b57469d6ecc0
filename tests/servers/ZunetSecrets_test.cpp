#include <signal.h>

#include <chrono>
#include <thread>

#include "ZunetTest.h"
#include "support/FileServers.h"
#include "support/RawServer.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace fs = std::filesystem;

namespace {

constexpr char kCanary[] = "c4n4ry";

class ZunetSecrets : public ZunetTest {
 protected:
  // Runs it on a terminal where somebody types.
  std::string RunOnTerminal(const std::string& arguments, const std::string& typed,
                            const std::string& options = "") const {
    const std::string folder = m_folder.Path();
    WriteFile(m_folder / "typed", typed);
    const std::string command =
        "cd '" + folder + "' && unset ZUNET_PASSWORD; export HOME='" + folder +
        "'; (sleep 1; cat typed; sleep 1) | timeout 30 script -qec '" + options +
        " " ZUNET_PROGRAM " " + arguments + "' terminal >/dev/null";
    m_status = std::system(command.c_str());
    return ReadFile(m_folder / "terminal");
  }

  mutable int m_status = -1;
};

// The words as ps shows them, a blank behind each.
std::string Words(pid_t process) {
  std::string words = ReadFile("/proc/" + std::to_string(process) + "/cmdline");
  std::replace(words.begin(), words.end(), '\0', ' ');
  return words;
}

const std::string kEcho = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nfile";

}  // namespace

TEST_F(ZunetSecrets, ListOfProcessesShowsNone) {
  const std::string canary = kCanary;
  const std::vector<std::vector<std::string>> cases = {
      {"--user", "bob:" + canary},
      {"--user=bob:" + canary},
      {"-H", "Authorization: Bearer " + canary},
      {"-HX-Api-Key: " + canary},
      {"--header=Cookie: a=" + canary},
      {"--proxy", "ann:" + canary + "@127.0.0.1:"},
      {"--proxy=http://ann:" + canary + "@127.0.0.1:"},
  };
  for (const auto& options : cases) {
    SCOPED_TRACE(options.back());
    const RawServer silent({[](Peer& peer) { peer.WaitForClose(); }});
    const std::string port = std::to_string(silent.Port());
    std::vector<std::string> command = {
        ZUNET_PROGRAM, "get",
        "http://ann:" + canary + "@127.0.0.1:" + port + "/x?a=b&token=" + canary + "&c=d"};
    for (std::string option : options) {
      if (option.back() == ':') option += port;
      command.push_back(option);
    }
    const Process zunet(command, m_folder / "log");
    std::string words;
    // What the system shows before the program's first statement cannot be helped; while the
    // program is put in place it shows nothing.
    for (int i = 0; i < 500; ++i) {
      words = Words(zunet.Id());
      if (!words.empty() && words.find(canary) == std::string::npos) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_THAT(words, Not(HasSubstr(canary)));
    EXPECT_THAT(words,
                AllOf(HasSubstr("@127.0.0.1:" + port + "/x?a=b&token="), HasSubstr("&c=d ")));
    ASSERT_FALSE(zunet.WaitForEnd(std::chrono::milliseconds(0)));
  }
}

TEST_F(ZunetSecrets, BlankedArgumentsAreSentAllTheSame) {
  RawServer server({RawServer::Answer(kEcho)});
  EXPECT_EQ(
      RunZunet("get '" + Local("http", server.Port(), "/x?token=t0k&a=b") + "' -H 'X-Api-Key: k3y'")
          .out,
      "file");
  EXPECT_THAT(server.Received(1)[0],
              AllOf(HasSubstr("GET /x?token=t0k&a=b "), HasSubstr("X-Api-Key: k3y\r\n")));
}

class ZunetSecretsOf : public ZunetSecrets, public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Commands, ZunetSecretsOf,
                         testing::Values("get", "put a.txt", "post -d password=c4n4ry", "delete",
                                         "ls", "size", "exists"));

TEST_P(ZunetSecretsOf, AreNotPrinted) {
  const std::string command = GetParam();
  const std::string canary = kCanary;
  const std::string challenge =
      "HTTP/1.1 401 No\r\nWWW-Authenticate: Basic realm=\"x\"\r\nContent-Length: 0\r\n\r\n";
  const std::string moved = "HTTP/1.1 302 Found\r\nLocation: /x?access_token=" + canary +
                            "\r\nSet-Cookie: id=" + canary + "\r\nContent-Length: 0\r\n\r\n";
  const std::string missing = "HTTP/1.1 404 No\r\nContent-Length: 0\r\n\r\n";
  const auto talk = [&](Peer& peer) {
    for (const std::string& answer : {moved, challenge, missing}) {
      peer.ReadHttpRequest();
      peer.Send(answer);
    }
  };
  WriteFile(m_folder / "a.txt", "text");
  const FtpServer ftp;
  const SftpServer sftp;
  const TinyProxy proxy("ann", canary);
  const std::string proxied =
      " --proxy ann:" + canary + "@127.0.0.1:" + std::to_string(proxy.Port());
  const std::string headers = " -H 'X-Api-Key: " + canary + "' -H 'PRIVATE-TOKEN: " + canary + "'";
  for (const std::string& user : {" --user bob:" + canary, std::string()}) {
    const RawServer server({talk});
    const std::string place = (user.empty() ? "bob:" + canary + "@" : "") + "127.0.0.1:";
    const std::string login = "/x?a=b&token=" + canary + "' -v" + user;
    const std::string urls[] = {
        "'http://" + place + std::to_string(server.Port()) + login + headers,
        "'http://" + place + std::to_string(server.Port()) + login + proxied,
        "'http://" + place + "1" + login,
        "'ftp://" + place + std::to_string(ftp.Port()) + login,
        "'sftp://" + place + std::to_string(sftp.Port()) + login + " --insecure",
        "'sftp://" + place + std::to_string(sftp.Port()) + login,
        "'gopher://" + place + "1" + login,
        "'http://" + place + "1/\t" + login,
    };
    for (const std::string& url : urls) {
      SCOPED_TRACE(url);
      const Outcome outcome = RunZunet(command + " " + url + " --limit-time 5");
      EXPECT_NE(outcome.status, 0);
      EXPECT_THAT(outcome.out, Not(HasSubstr(canary)));
      EXPECT_THAT(outcome.err, Not(HasSubstr(canary)));
      // "bob:c4n4ry" and "ann:c4n4ry", as logins over HTTP have them.
      EXPECT_THAT(outcome.err, Not(HasSubstr("OmM0bjRyeQ")));
      EXPECT_THAT(outcome.err, Not(HasSubstr("6YzRuNHJ5")));
    }
  }
}

TEST_F(ZunetSecrets, TraceShowsEverythingElse) {
  RawServer server(
      {RawServer::Answer("HTTP/1.1 401 No\r\nWWW-Authenticate: Basic realm=\"here\"\r\n"
                         "X-Thing: seen\x1b[31m\r\nContent-Length: 0\r\n\r\n")});
  const Outcome outcome = RunZunet("get '" + Local("http", server.Port(), "/x?a=seen2&key=k3y") +
                                   "' -v -H 'X-Other: seen3' --limit-time 5");
  EXPECT_THAT(
      outcome.err,
      AllOf(HasSubstr("> GET /x?a=seen2&key=(not shown) HTTP/1.1"), HasSubstr("< HTTP/1.1 401"),
            HasSubstr("< X-Thing: seen\\x1b[31m\n"), HasSubstr("> X-Other: seen3\n"),
            HasSubstr("< WWW-Authenticate: Basic realm=\"here\"")));
}

TEST_F(ZunetSecrets, PasswordIsThatOfTheEnvironmentWhenNoneIsGiven) {
  const NginxServer files("location / { auth_basic x; auth_basic_user_file passwords; }");
  WriteFile(files.Folder() / "passwords", "bob:{PLAIN}s3cret\n");
  WriteFile(files.Folder() / "www/a", "in");
  const std::string url = "get " + Local("http", files.Port(), "/a");
  EXPECT_EQ(RunZunet(url + " --user bob", "ZUNET_PASSWORD=s3cret").out, "in");
  EXPECT_EQ(RunZunet(url + " --user bob", "ZUNET_PASSWORD=wrong").status, 2);
  EXPECT_EQ(RunZunet(url + " --user bob:s3cret", "ZUNET_PASSWORD=wrong").out, "in");
}

TEST_F(ZunetSecrets, WithoutATerminalNobodyIsAsked) {
  const Outcome outcome = RunZunet("get http://127.0.0.1:1/ --user bob", "setsid -w");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, AllOf(HasSubstr("bob"), HasSubstr("ZUNET_PASSWORD")));
}

TEST_F(ZunetSecrets, PasswordIsAskedForOnTheTerminalAndNotShown) {
  const NginxServer files("location / { auth_basic x; auth_basic_user_file passwords; }");
  WriteFile(files.Folder() / "passwords", "bob:{PLAIN}s3cret\n");
  WriteFile(files.Folder() / "www/a", "the file");
  const std::string shown =
      RunOnTerminal("get " + Local("http", files.Port(), "/a") + " --user bob", "s3cret\n");
  EXPECT_EQ(m_status, 0) << shown;
  EXPECT_THAT(shown, AllOf(HasSubstr("Password of bob: "), HasSubstr("the file")));
  EXPECT_THAT(shown, Not(HasSubstr("s3cret")));
}

TEST_F(ZunetSecrets, SignalAtThePromptGivesTheTerminalBack) {
  // Ctrl-C is typed; then the shell tells how it left the terminal.
  const std::string shown = RunOnTerminal(
      "get http://127.0.0.1:1/ --user bob; echo status $?; stty -a", "\x03", "trap : INT;");
  EXPECT_THAT(shown, AllOf(HasSubstr("Password of bob: "), HasSubstr("status 130")));
  EXPECT_THAT(shown, AllOf(HasSubstr(" echo "), HasSubstr("susp = ^Z"), Not(HasSubstr("-echo "))));
}

TEST_F(ZunetSecrets, NetrcTellsTheLogin) {
  const NginxServer files("location / { auth_basic x; auth_basic_user_file passwords; }");
  WriteFile(files.Folder() / "passwords", "bob:{PLAIN}s3cret\n");
  WriteFile(files.Folder() / "www/a", "in");
  WriteFile(m_folder / ".netrc", "machine 127.0.0.1 login bob password s3cret\n");
  const std::string url = "get " + Local("http", files.Port(), "/a");
  EXPECT_EQ(RunZunet(url + " --netrc").out, "in");
  EXPECT_EQ(RunZunet(url).status, 2);
  EXPECT_EQ(RunZunet(url + " --netrc --user bob:wrong").status, 2);
  const FtpServer ftp;
  WriteFile(ftp.Login() / "a", "by ftp");
  EXPECT_EQ(RunZunet("get " + Local("ftp", ftp.Port(), "/a") + " --netrc").out, "by ftp");
}
