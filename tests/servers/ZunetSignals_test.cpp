#include <signal.h>

#include <chrono>
#include <thread>

#include "ZunetTest.h"
#include "support/FileServers.h"
#include "support/RawServer.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace fs = std::filesystem;

namespace {

class ZunetSignals : public ZunetTest {
 protected:
  // Runs until the files of the folder are as many, sends the signal and tells how it ended.
  int EndBySignal(int signal, const std::string& arguments, size_t files,
                  const std::string& before = "") {
    const std::string folder = m_folder.Path();
    const Process shell({"sh", "-c",
                         "cd '" + folder + "'; export TMPDIR='" + folder + "'; " + before +
                             " exec " ZUNET_PROGRAM " " + arguments},
                        m_folder / "stderr");
    for (int i = 0; i < 1000 && Files().size() < files; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(Files().size(), files) << "it has not begun";
    kill(shell.Id(), signal);
    if (!shell.WaitForEnd(std::chrono::seconds(10))) return -1000;
    return shell.ExitStatus();
  }

  RawServer m_silent{{[](Peer& peer) {
    peer.ReadHttpRequest();
    peer.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\nETag: \"a\"\r\n\r\npart");
    peer.WaitForClose();
  }}};
  std::string m_url = Local("http", m_silent.Port(), "/file");
};

}  // namespace

TEST_F(ZunetSignals, TemporaryFilesGoAndTheStatusTellsTheSignal) {
  const std::string commands[] = {"get " + m_url + " -o good", "post -d x " + m_url + " -o good",
                                  "ls " + m_url};
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    for (const std::string& command : commands) {
      SCOPED_TRACE(command + ", signal " + std::to_string(signal));
      WriteFile(m_folder / "good", "good");
      EXPECT_EQ(EndBySignal(signal, command, 2), 128 + signal);
      EXPECT_EQ(ReadFile(m_folder / "good"), "good");
      EXPECT_THAT(Files(), ElementsAre("good"));
    }
  }
}

TEST_F(ZunetSignals, ResumedDownloadKeepsItsPart) {
  EXPECT_EQ(EndBySignal(SIGTERM, "get " + m_url + " -o file --resume", 2), 128 + SIGTERM);
  EXPECT_THAT(Files(), ElementsAre("file.part", "file.part.tag"));
}

TEST_F(ZunetSignals, IgnoredSignalStaysIgnored) {
  RawServer slow({[](Peer& peer) {
    peer.ReadHttpRequest();
    peer.Send("HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\nhalf");
    std::this_thread::sleep_for(std::chrono::seconds(2));
    peer.Send("half");
  }});
  EXPECT_EQ(EndBySignal(SIGHUP, "get " + Local("http", slow.Port(), "/x") + " -o file", 1,
                        "trap '' HUP;"),
            0);
  EXPECT_EQ(ReadFile(m_folder / "file"), "halfhalf");
}

TEST_F(ZunetSignals, OutputThatNobodyReadsHoldsNobodyUp) {
  const NginxServer server("location / { }");
  WriteFile(server.Folder() / "www/large", std::string(1 << 20, 'x'));
  const std::string folder = m_folder.Path();
  // The shell waits for zunet to be stuck in its pipe.
  const std::string script = "cd '" + folder + "'; mkfifo pipe; sleep 60 <pipe & reader=$!; " +
                             ZUNET_PROGRAM " get " + Local("http", server.Port(), "/large") +
                             " >pipe & zunet=$!; sleep 1; kill -TERM $zunet; wait $zunet; "
                             "echo $? >status; kill $reader";
  const Process shell({"sh", "-c", script}, m_folder / "stderr");
  ASSERT_TRUE(shell.WaitForEnd(std::chrono::seconds(20)));
  EXPECT_EQ(ReadFile(m_folder / "status"), "143\n");
}
