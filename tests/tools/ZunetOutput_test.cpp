#include <gmock/gmock.h>

#include "tools/ZunetRun.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class ZunetOutput : public testing::Test {
 protected:
  ZunetOutput() { WriteFile(folder / "list", "10.0.0.1\n"); }

  // One for each command that prints and needs no server.
  std::vector<std::string> Commands() const {
    return {"--version",
            "--help",
            "get --help",
            "resolve 192.0.2.1",
            "name 127.0.0.1",
            "interfaces",
            "interfaces --mac --help",
            "cidr 10.0.0.1 10.0.0.0/8",
            "cidr 11.0.0.1 10.0.0.0/8",
            "blacklist " + Quoted(folder / "list") + " 10.0.0.1"};
  }

  TempDir folder;
};

TEST_F(ZunetOutput, FullOutputIsAFailure) {
  for (const std::string& command : Commands()) {
    SCOPED_TRACE(command);
    const ZunetRun run(folder, "full", command + " >/dev/full");
    EXPECT_EQ(run.Wait(), 2);
    EXPECT_EQ(run.Errors(),
              "zunet: Failed to write standard output: No space left on device; make room\n");
  }
}

TEST_F(ZunetOutput, ClosedOutputIsAFailure) {
  for (const std::string& command : Commands()) {
    SCOPED_TRACE(command);
    const ZunetRun run(folder, "closed", command + " >&-");
    EXPECT_EQ(run.Wait(), 2);
    EXPECT_EQ(run.Errors(), "zunet: Failed to write standard output: Bad file descriptor\n");
  }
}

TEST_F(ZunetOutput, ClosedInputAndErrorsDoNoHarm) {
  for (const std::string& command : Commands()) {
    SCOPED_TRACE(command);
    const ZunetRun good(folder, "good", command);
    const ZunetRun run(folder, "closed", command + " <&- 2>&-");
    EXPECT_EQ(run.Wait(), good.Wait());
    EXPECT_EQ(run.Output(), good.Output());
    EXPECT_NE(run.Output(), "");
  }
}

// The descriptor of the target must not be that of standard error, where the report goes.
TEST_F(ZunetOutput, FileGetsNoStandardStream) {
  const ZunetRun run(folder, "closed",
                     "get http://127.0.0.1:1/x -v -o " + Quoted(folder / "target") + " 2>&- >&-");
  EXPECT_EQ(run.Wait(), 2);
  EXPECT_FALSE(std::filesystem::exists(folder / "target"));
}

TEST_F(ZunetOutput, ControlCharactersAreShownAsNumbers) {
  const std::pair<const char*, const char*> words[] = {
      {R"('a\033[31mb')", R"([a\x1b[31mb])"},
      {R"('a\nb')", R"([a\x0ab])"},
      {R"('a\177b')", R"([a\x7fb])"},
      {R"('\302\233b')", R"([\xc2\x9bb])"},
      {R"('\233b')", R"([\x9bb])"},
      {R"('\303\244')", "[\303\244]"},
      {R"('\360\237\230\200')", "[\360\237\230\200]"},
      {R"('\303')", R"([\xc3])"},
      {R"('\342\202')", R"([\xe2\x82])"},
      {R"('a\\b')", R"([a\b])"},
  };
  for (const auto& [word, shown] : words) {
    SCOPED_TRACE(word);
    const ZunetRun run(folder, "name", std::string("name \"$(printf ") + word + ")\"");
    EXPECT_EQ(run.Wait(), 2);
    EXPECT_THAT(run.Errors(), HasSubstr(std::string("Not an address: ") + shown));
  }
}

TEST_F(ZunetOutput, FailureIsOneLineAndThePlacesComeOnDemand) {
  const ZunetRun brief(folder, "brief", "connect 127.0.0.1 1");
  EXPECT_EQ(brief.Wait(), 2);
  EXPECT_THAT(brief.Errors(),
              testing::MatchesRegex("zunet: Failed to connect to 127.0.0.1, port 1: "
                                    "[^\n]*Connection refused; check the port[^\n]*\n"));
  const ZunetRun verbose(folder, "verbose", "connect 127.0.0.1 1 -v");
  EXPECT_EQ(verbose.Wait(), 2);
  EXPECT_THAT(verbose.Errors(), StartsWith(brief.Errors()));
  EXPECT_THAT(verbose.Errors(), HasSubstr("CZuSocket::Connect"));
}

TEST_F(ZunetOutput, WrongWordsAreNamedWithWhatMayBeMeant) {
  const std::pair<const char*, const char*> words[] = {
      {"gett http://host/x",
       "zunet: no command gett: did you mean get? (zunet --help tells more)\n"},
      {"ls-a ftp://host", "no command ls-a: did you mean ls?"},
      {"resolv localhost", "did you mean resolve?"},
      {"lisent 7000", "did you mean listen?"},
      {"teleport host", "zunet: no command teleport (zunet --help tells more)\n"},
      {"--verison", "no option --verison: did you mean --version?"},
      {"get http://host/x --ouptut=file",
       "no option --ouptut: did you mean --output? (zunet get --help tells more)\n"},
      {"get http://host/x --frobnicate", "zunet: no option --frobnicate (zunet get --help"},
      {"resolve localhost other", "one argument too many, other"},
      {"", "A subcommand is required"},
      {"get http://host/x --limit-time 0", "--limit-time: takes 1 to 2000000 seconds, not 0"},
      {"get http://host/x --limit-time 2e3", "--limit-time: takes 1 to 2000000 seconds, not 2e3"},
      {"listen 65536", "PORT: takes 0 to 65535, not 65536"},
      {"connect localhost 0", "PORT: takes 1 to 65535, not 0"},
      {"listen 7000 --timeout 0", "--timeout: takes 1 to 1000000 seconds, not 0"},
  };
  for (const auto& [arguments, text] : words) {
    SCOPED_TRACE(arguments);
    const ZunetRun run(folder, "usage", arguments);
    EXPECT_GT(run.Wait(), 100);
    EXPECT_THAT(run.Errors(), HasSubstr(text));
    EXPECT_EQ(run.Output(), "");
  }
}

}  // namespace
