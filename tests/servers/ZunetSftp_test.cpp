#include "ZunetTest.h"
#include "support/FileServers.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace fs = std::filesystem;

namespace {

constexpr char kBob[] = " --user bob:s3cret";

class ZunetSftp : public ZunetTest {
 protected:
  std::string Url(const std::string& path) const {
    return "'" + Local("sftp", m_server.Port(), path) + "'";
  }

  void MakeKnown(const fs::path& file, const fs::path& publicKey) const {
    std::string key = ReadFile(publicKey);
    WriteFile(file, "[127.0.0.1]:" + std::to_string(m_server.Port()) + " " + key);
  }

  SftpServer m_server;
};

}  // namespace

TEST_F(ZunetSftp, FilesComeAndGo) {
  MakeKnown(m_folder / ".ssh/known_hosts", m_server.Folder() / "host.pub");
  WriteFile(m_folder / "a.txt", "text");
  EXPECT_EQ(RunZunet("put a.txt " + Url("/~/new/a.txt") + kBob).status, 0);
  EXPECT_EQ(ReadFile(m_server.Login() / "new/a.txt"), "text");
  EXPECT_EQ(RunZunet("get " + Url((m_server.Login() / "new/a.txt").string()) + kBob).out, "text");
  EXPECT_EQ(RunZunet("ls " + Url("/~/new") + kBob).out, "a.txt\n");
  EXPECT_EQ(RunZunet("put - " + Url("/~/piped") + kBob, "printf piped |").status, 0);
  EXPECT_EQ(ReadFile(m_server.Login() / "piped"), "piped");
  EXPECT_EQ(RunZunet("delete " + Url("/~/new/a.txt") + kBob).status, 0);
  EXPECT_FALSE(fs::exists(m_server.Login() / "new/a.txt"));
}

TEST_F(ZunetSftp, DeleteRemovesTheFileThatTheUrlNames) {
  const std::pair<const char*, const char*> cases[] = {
      {"/~/a%20b", "a b"},  {"/~/a%22b", "a\"b"},
      {"/~/a%5Cb", "a\\b"}, {"/~/a%27b", "a'b"},
      {"/~/%22", "\""},     {"/~/%5C%22%5C", "\\\"\\"},
      {"/~/%20", " "},      {"/~/a;type=a", "a;type=a"},
      {"/~/a*", "a*"},
  };
  WriteFile(m_server.Login() / "a", "another");
  for (const auto& [path, name] : cases) {
    SCOPED_TRACE(path);
    for (const bool isAbsolute : {false, true}) {
      WriteFile(m_server.Login() / name, "x");
      const std::string url =
          isAbsolute ? Url(m_server.Login().string() + std::string(path).substr(2)) : Url(path);
      EXPECT_EQ(RunZunet("get " + url + kBob + " --insecure", "").out, "x");
      const Outcome outcome = RunZunet("delete " + url + kBob + " --insecure");
      EXPECT_EQ(outcome.status, 0) << outcome.err;
      EXPECT_FALSE(fs::exists(m_server.Login() / name));
    }
  }
  EXPECT_EQ(ReadFile(m_server.Login() / "a"), "another");
}

TEST_F(ZunetSftp, DeleteRefusesControlCharacters) {
  WriteFile(m_server.Login() / "a", "x");
  for (const char* path : {"/~/a%00x", "/~/a%0arm%20b", "/~/folder/", "/~/x/../a"}) {
    EXPECT_GT(RunZunet("delete " + Url(path) + kBob + " --insecure").status, 2) << path;
  }
  EXPECT_TRUE(fs::exists(m_server.Login() / "a"));
}

TEST_F(ZunetSftp, UnknownServerIsRefusedAndTheCureIsTold) {
  WriteFile(m_server.Login() / "a", "x");
  const std::string file = m_folder / ".ssh/known_hosts";
  const Outcome unknown = RunZunet("get " + Url("/~/a") + kBob);
  EXPECT_EQ(unknown.status, 2);
  EXPECT_THAT(unknown.err, HasSubstr("is not in " + file));
  EXPECT_THAT(unknown.err, HasSubstr("ssh-keyscan -p " + std::to_string(m_server.Port()) +
                                     " 127.0.0.1 >> " + file));
  MakeKnown(file, m_server.PublicKey());
  const Outcome other = RunZunet("get " + Url("/~/a") + kBob);
  EXPECT_EQ(other.status, 2);
  EXPECT_THAT(other.err,
              AllOf(HasSubstr("another one than in " + file), HasSubstr("ssh-keygen -R")));
  MakeKnown(file, m_server.Folder() / "host.pub");
  EXPECT_EQ(RunZunet("get " + Url("/~/a") + kBob).out, "x");
}

TEST_F(ZunetSftp, CureOfAnUnknownServerWorks) {
  WriteFile(m_server.Login() / "a", "x");
  fs::create_directories(m_folder / ".ssh");
  const std::string told = RunZunet("get " + Url("/~/a") + kBob).err;
  const size_t start = told.find("ssh-keyscan");
  ASSERT_NE(start, std::string::npos);
  std::string command = told.substr(start, told.find('\n', start) - start);
  command.replace(0, sizeof "ssh-keyscan" - 1, FindProgram("ssh-keyscan"));
  ASSERT_EQ(std::system((command + " 2>/dev/null").c_str()), 0) << command;
  EXPECT_EQ(RunZunet("get " + Url("/~/a") + kBob).out, "x");
}

TEST_F(ZunetSftp, HomeIsThatOfTheAccountWhereTheEnvironmentHasNone) {
  const Outcome outcome = RunZunet("get " + Url("/~/a") + kBob, "env -u HOME");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("/.ssh/known_hosts"));
  MakeKnown(m_folder / "known", m_server.Folder() / "host.pub");
  WriteFile(m_server.Login() / "a", "x");
  EXPECT_EQ(RunZunet("get " + Url("/~/a") + kBob + " --known-hosts known", "env -u HOME").out, "x");
}

TEST_F(ZunetSftp, KeyOpensTheAccountWithItsPassPhrase) {
  WriteFile(m_server.Login() / "a", "x");
  const std::string key = m_folder / "key";
  fs::copy_file(m_server.Key(), key);
  const std::string get = "get " + Url("/~/a") + " --insecure --user bob --key " + key;
  EXPECT_EQ(RunZunet(get).out, "x");
  ::Run({"ssh-keygen", "-q", "-p", "-m", "PEM", "-P", "", "-N", "phr4se", "-f", key});
  EXPECT_EQ(RunZunet(get).status, 2);
  WriteFile(m_folder / "phrase", "phr4se\n");
  EXPECT_EQ(RunZunet(get + " --pass-file phrase").out, "x");
  WriteFile(m_folder / "phrase", "wrong\n");
  EXPECT_EQ(RunZunet(get + " --pass-file phrase").status, 2);
}
