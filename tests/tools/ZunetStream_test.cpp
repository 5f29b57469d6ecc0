#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <random>

#include "ZuNetwork/ZuSocket.h"
#include "support/Expect.h"
#include "support/Sanitizers.h"
#include "tools/ZunetRun.h"

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

std::string Noise(std::size_t size) {
  std::mt19937_64 random(size);
  std::string noise;
  noise.reserve(size + 8);
  while (noise.size() < size) {
    const std::uint64_t word = random();
    noise.append(reinterpret_cast<const char*>(&word), sizeof word);
  }
  noise.resize(size);
  return noise;
}

// The seconds of processor time that a process has used.
double ProcessorTime(pid_t id) {
  std::ifstream file("/proc/" + std::to_string(id) + "/stat");
  std::string word;
  for (int i = 0; i < 13; ++i) file >> word;  // up to the name and the 11 fields behind it
  double user = 0;
  double system = 0;
  file >> user >> system;
  EXPECT_TRUE(file) << "no statistics of " << id;
  return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

long ResidentKiB(pid_t id) {
  std::ifstream file("/proc/" + std::to_string(id) + "/status");
  std::string word;
  while (file >> word && word != "VmHWM:") {
  }
  long size = 0;
  file >> size;
  return size;
}

class ZunetStream : public testing::Test {
 protected:
  // A connection that the test makes itself, from this address.
  static CZuSocket ConnectFrom(const char* own, int port) {
    CZuIPAddr address;
    EXPECT_OK(address.SetAddressString(own));
    CZuSocket socket;
    EXPECT_OK(socket.Bind(address));
    EXPECT_OK(address.SetAddressString("127.0.0.1"));
    EXPECT_OK(address.SetPortNumber(port));
    EXPECT_OK(socket.Connect(address));
    return socket;
  }

  std::string Connect(int port) { return "connect 127.0.0.1 " + std::to_string(port); }

  std::filesystem::path File(const std::string& name, const std::string& contents) {
    WriteFile(folder / name, contents);
    return folder / name;
  }

  // A pipe with a name.
  std::string MakePipe() {
    std::string path = folder / "pipe";
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    return path;
  }

  // Not EXPECT_EQ, which would print all of it.
  static void ExpectSame(const std::string& left, const std::string& right) {
    EXPECT_EQ(left.size(), right.size());
    EXPECT_TRUE(left == right);
  }

  TempDir folder;
};

TEST_F(ZunetStream, FilesGoBothWaysUnchanged) {
  const std::string large = Noise(64 << 20);
  const std::string small = Noise((1 << 20) + 17);
  const ZunetRun listener(folder, "listen", "listen 0 --timeout 20", File("small", small));
  const ZunetRun client(folder, "connect", Connect(listener.Port()), File("large", large));
  EXPECT_EQ(client.Wait(), 0);
  EXPECT_EQ(listener.Wait(), 0);
  ExpectSame(listener.Output(), large);
  ExpectSame(client.Output(), small);
  EXPECT_THAT(listener.Errors(), HasSubstr("zunet: connected with 127.0.0.1\n"));
  EXPECT_EQ(client.Errors(), "");
}

TEST_F(ZunetStream, PipesWork) {
  const std::string data = Noise(64 << 20);
  const ZunetRun listener(folder, "listen", "listen 0 --timeout 20 | cat");
  const std::string pipe = "cat " + Quoted(File("data", data)) + " | ";
  const Process client({"sh", "-c", pipe + Quoted(ZUNET_PROGRAM) + " " + Connect(listener.Port())},
                       folder / "client.log");
  EXPECT_TRUE(client.WaitForEnd(60s));
  EXPECT_EQ(client.ExitStatus(), 0);
  EXPECT_EQ(listener.Wait(), 0);
  ExpectSame(listener.Output(), data);
}

TEST_F(ZunetStream, BothFamiliesAreListenedTo) {
  const ZunetRun listener(folder, "listen", "listen 0 --timeout 20", File("in", "over IPv6"));
  bool hasIPv6 = false;
  ASSERT_OK(CZuIPAddr::IsIPv6StackPresent(hasIPv6));
  if (!hasIPv6) GTEST_SKIP() << "no IPv6";
  const ZunetRun client(folder, "connect", "connect ::1 " + std::to_string(listener.Port()));
  EXPECT_EQ(client.Wait(), 0);
  EXPECT_EQ(client.Output(), "over IPv6");
  EXPECT_THAT(listener.Errors(), HasSubstr("connected with ::1\n"));
}

TEST_F(ZunetStream, EndOfInputStillReceives) {
  const ZunetRun listener(folder, "listen", "listen 0 --timeout 20", File("in", ""));
  CZuSocket peer = ConnectFrom("127.0.0.1", listener.Port());
  char byte = 0;
  int count = -1;
  int timedOut = -1;
  EXPECT_FAILS(peer.RecvWithTimeout(&byte, 1, 10, &timedOut, 0, &count), Win32Code(774),
               "Socket shutdown detected");
  ASSERT_OK(peer.Send("late\n", 5, 0, &count));
  EXPECT_EQ(listener.WaitForOutput("late"), "late\n");
  EXPECT_FALSE(listener.Program().WaitForEnd(100ms));
  peer.Close();
  EXPECT_EQ(listener.Wait(), 0);
}

TEST_F(ZunetStream, EndOfThePeerStillSends) {
  const std::string pipe = MakePipe();
  const ZunetRun listener(folder, "listen", "listen 0 --timeout 20", pipe);
  std::ofstream input(pipe);
  CZuSocket peer = ConnectFrom("127.0.0.1", listener.Port());
  ASSERT_OK(peer.Shutdown(SHUT_WR));
  std::this_thread::sleep_for(200ms);
  input << "late" << std::flush;
  char buffer[5]{};
  int timedOut = -1;
  ASSERT_OK(peer.RecvWithTimeout(buffer, 4, 10, &timedOut, 0, nullptr));
  EXPECT_STREQ(buffer, "late");
  EXPECT_FALSE(listener.Program().WaitForEnd(100ms));
  input.close();
  EXPECT_EQ(listener.Wait(), 0);
  peer.Close();
}

TEST_F(ZunetStream, ClosedStandardInputIsAnEmptyOne) {
  const ZunetRun listener(folder, "listen", "listen 0 --timeout 20", File("in", "data"));
  const ZunetRun client(folder, "connect", Connect(listener.Port()) + " <&-");
  EXPECT_EQ(client.Wait(), 0);
  EXPECT_EQ(client.Output(), "data");
  EXPECT_EQ(listener.Wait(), 0);
}

TEST_F(ZunetStream, IdleConnectionsAndStuckOutputTakeNoTime) {
  // Opened for both ways, so that it takes something and does not wait for a reader.
  const ZunetRun listener(folder, "listen", "listen 0 --timeout 20 1<>" + Quoted(MakePipe()));
  CZuSocket peer = ConnectFrom("127.0.0.1", listener.Port());
  listener.WaitForError("connected");
  const double start = ProcessorTime(listener.Program().Id());
  std::this_thread::sleep_for(1s);
  const double idle = ProcessorTime(listener.Program().Id());
  EXPECT_LT(idle - start, 0.2);
  ASSERT_OK(peer.SetToNonBlocking());
  const std::string data = Noise(64 << 20);
  int sent = 0;
  EXPECT_FAILS(peer.Send(data.data(), static_cast<int>(data.size()), 0, &sent), ErrNoCode(EAGAIN),
               "Send");
  EXPECT_LT(sent, 32 << 20);
  std::this_thread::sleep_for(300ms);
  const double sentAt = ProcessorTime(listener.Program().Id());
  std::this_thread::sleep_for(1s);
  EXPECT_LT(ProcessorTime(listener.Program().Id()) - sentAt, 0.2);
  EXPECT_TRUE(kSanitized || ResidentKiB(listener.Program().Id()) < 32 << 10);
  peer.Close();
}

TEST_F(ZunetStream, OutputThatNobodyReadsIsAFailedWrite) {
  const std::string pipe = MakePipe();
  const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  const ZunetRun listener(folder, "listen", "listen 0 --timeout 20 >" + Quoted(pipe));
  CZuSocket peer = ConnectFrom("127.0.0.1", listener.Port());
  close(reader);
  ASSERT_OK(peer.Send("data", 4, 0, nullptr));
  EXPECT_EQ(listener.Wait(), 2);
  EXPECT_THAT(listener.Errors(), HasSubstr("Failed to write standard output"));
  peer.Close();
}

TEST_F(ZunetStream, BlacklistedPeersAreRefused) {
  const auto blacklist = File("blacklist", "127.0.0.1\n\n127.0.0.3\n");
  const ZunetRun listener(folder, "listen",
                          "listen 0 --timeout 20 --blacklist " + Quoted(blacklist),
                          File("in", "hello"));
  const int port = listener.Port();
  char buffer[6]{};
  int timedOut = -1;
  for (const char* const address : {"127.0.0.1", "127.0.0.3", "127.0.0.1"}) {
    CZuSocket refused = ConnectFrom(address, port);
    EXPECT_FAILS(refused.RecvWithTimeout(buffer, 1, 10, &timedOut, 0, nullptr), Win32Code(774),
                 "Socket shutdown detected");
    refused.Close();
  }
  CZuSocket welcome = ConnectFrom("127.0.0.2", port);
  ASSERT_OK(welcome.RecvWithTimeout(buffer, 5, 10, &timedOut, 0, nullptr));
  EXPECT_STREQ(buffer, "hello");
  welcome.Close();
  EXPECT_EQ(listener.Wait(), 0);
  EXPECT_THAT(listener.Errors(), HasSubstr("zunet: refused blacklisted 127.0.0.1\n"
                                           "zunet: refused blacklisted 127.0.0.3\n"
                                           "zunet: refused blacklisted 127.0.0.1\n"
                                           "zunet: connected with 127.0.0.2\n"));
}

TEST_F(ZunetStream, NobodyWithinTheTimeOutIsAFailure) {
  const auto start = std::chrono::steady_clock::now();
  const ZunetRun listener(folder, "listen", "listen 0 --timeout 1");
  EXPECT_EQ(listener.Wait(), 2);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_THAT(listener.Errors(), HasSubstr("zunet: nobody came within 1 s\n"));
}

TEST_F(ZunetStream, BlacklistedPeersDoNotStretchTheTimeOut) {
  const auto blacklist = File("blacklist", "127.0.0.1\n");
  const ZunetRun listener(folder, "listen",
                          "listen 0 --timeout 2 --blacklist " + Quoted(blacklist));
  const int port = listener.Port();
  for (int i = 0; i < 40 && !listener.Program().WaitForEnd(200ms); ++i) {
    CZuIPAddr address;
    ASSERT_OK(address.SetAddressString("127.0.0.1"));
    ASSERT_OK(address.SetPortNumber(port));
    CZuSocket peer;
    (void)peer.Connect(address);  // refused in the end
    peer.Close();
  }
  EXPECT_EQ(listener.Wait(0ms), 2);
  EXPECT_THAT(listener.Errors(), HasSubstr("nobody but blacklisted peers came within 2 s"));
}

TEST_F(ZunetStream, FailuresAreReported) {
  const int port = FreePort();
  const ZunetRun holder(folder, "holder", "listen 0 --timeout 60");
  const std::pair<std::string, const char*> failures[] = {
      {Connect(port), "Failed to connect to 127.0.0.1, port"},
      {"connect absent.invalid 1", "Failed to resolve absent.invalid"},
      {"connect 127.0.53.53 1", "DNS name collision occured"},
      {"listen 0 --blacklist " + Quoted(folder / "missing"), "Failed to open file, FileName="},
      {"listen " + std::to_string(holder.Port()), "Address already in use"},
  };
  for (const auto& [arguments, message] : failures) {
    SCOPED_TRACE(arguments);
    const ZunetRun run(folder, "run", arguments);
    EXPECT_EQ(run.Wait(), 2);
    EXPECT_THAT(run.Errors(), HasSubstr(message));
    EXPECT_EQ(run.Output(), "");
  }
}

TEST_F(ZunetStream, BlacklistWithAnUnusedLineIsRefusedOnDemand) {
  const std::string list = Quoted(File("list", "127.0.0.1\r\n"));
  const ZunetRun strict(folder, "strict", "listen 0 --timeout 20 --strict --blacklist " + list);
  EXPECT_EQ(strict.Wait(), 2);
  EXPECT_THAT(strict.Errors(), HasSubstr("list:1 lists nobody: "));
  EXPECT_THAT(strict.Errors(), Not(HasSubstr("listening")));
  const ZunetRun lenient(folder, "lenient", "listen 0 --timeout 20 --blacklist " + list);
  ConnectFrom("127.0.0.1", lenient.Port()).Close();
  EXPECT_EQ(lenient.Wait(), 0);
  EXPECT_THAT(lenient.Errors(), HasSubstr("list:1 lists nobody: "));
}

TEST_F(ZunetStream, SignalEndsTheWaitForAPeer) {
  for (const auto& [signal, status] : {std::pair(SIGHUP, 129), {SIGINT, 130}, {SIGTERM, 143}}) {
    for (const char* const limit : {"", " --timeout 60"}) {
      const std::string name = "signal " + std::to_string(signal) + limit;
      SCOPED_TRACE(name);
      const ZunetRun listener(folder, name, std::string("listen 0") + limit);
      ASSERT_NE(listener.Port(), 0);
      kill(listener.Program().Id(), signal);
      EXPECT_EQ(listener.Wait(10s), status);
    }
  }
}

TEST_F(ZunetStream, IgnoredSignalStaysIgnored) {
  const Process listener({"sh", "-c", "trap '' HUP; exec " ZUNET_PROGRAM " listen 0 --timeout 60"},
                         folder / "listen.err");
  for (int i = 0; i < 500 && ReadFile(folder / "listen.err").empty(); ++i) {
    std::this_thread::sleep_for(10ms);
  }
  kill(listener.Id(), SIGHUP);
  EXPECT_FALSE(listener.WaitForEnd(200ms));
}

TEST_F(ZunetStream, SignalEndsAConnectionInOrder) {
  const std::string pipe = MakePipe();
  const ZunetRun listener(folder, "listen", "listen 0 --timeout 20", pipe);
  std::ofstream input(pipe);  // is there, but empty
  CZuSocket peer = ConnectFrom("127.0.0.1", listener.Port());
  ASSERT_OK(peer.Send("here\n", 5, 0, nullptr));
  EXPECT_EQ(listener.WaitForOutput("here"), "here\n");
  kill(listener.Program().Id(), SIGTERM);
  EXPECT_EQ(listener.Wait(10s), 143);
  char byte = 0;
  int timedOut = -1;
  EXPECT_FAILS(peer.RecvWithTimeout(&byte, 1, 10, &timedOut, 0, nullptr), Win32Code(774),
               "Socket shutdown detected");
  peer.Close();
}

TEST_F(ZunetStream, SignalDoesNotWaitForStuckOutput) {
  // Opened for both ways, so that it takes something and does not wait for a reader.
  const ZunetRun listener(folder, "listen", "listen 0 --timeout 20 1<>" + Quoted(MakePipe()));
  CZuSocket peer = ConnectFrom("127.0.0.1", listener.Port());
  listener.WaitForError("connected");
  ASSERT_OK(peer.SetToNonBlocking());
  const std::string data = Noise(64 << 20);
  EXPECT_FAILS(peer.Send(data.data(), static_cast<int>(data.size()), 0, nullptr), ErrNoCode(EAGAIN),
               "Send");
  kill(listener.Program().Id(), SIGINT);
  EXPECT_EQ(listener.Wait(10s), 130);
  peer.Close();
}

TEST_F(ZunetStream, ResetConnectionIsReported) {
  const ZunetRun listener(folder, "listen", "listen 0 --timeout 20", "/dev/zero");
  CZuSocket peer = ConnectFrom("127.0.0.1", listener.Port());
  linger now{1, 0};
  ASSERT_OK(peer.SetSockOpt(SOL_SOCKET, SO_LINGER, reinterpret_cast<char*>(&now), sizeof now));
  peer.Close();
  EXPECT_EQ(listener.Wait(), 2);
  EXPECT_THAT(listener.Errors(), HasSubstr(" the peer"));
}

}  // namespace
