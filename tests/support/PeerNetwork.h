#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "support/LeaveOut.h"

// Two machines in one process: moves the calling thread into a network namespace of its own, with
// a peer in another one at the end of a cable (a veth pair). They are gone with the process. Needs
// the program ip, and either root or a system that lets users make namespaces.
class PeerNetwork {
 public:
  static constexpr char kOwn[] = "10.77.0.1";
  static constexpr char kPeer[] = "10.77.0.2";
  static constexpr char kPeersSecond[] = "10.77.0.3";
  static constexpr char kNobody[] = "10.77.0.9";  // in the network, with a known hardware address
  static constexpr char kElsewhere[] = "10.78.0.1";  // no route

  // Throws std::system_error where the system forbids it, std::runtime_error when ip fails.
  PeerNetwork() {
    EnterNewNamespace();
    RunInNewThread([this] {
      if (unshare(CLONE_NEWNET) != 0) throw LastError("unshare");
      m_peer = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
      if (m_peer < 0) throw LastError("/proc/thread-self/ns/net");
    });
    const std::string peer = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(m_peer);
    Ip("link set lo up");
    Ip("link add own type veth peer name peer netns " + peer);
    Ip("addr add " + std::string(kOwn) + "/24 dev own");
    Ip("link set own up");
    Ip("neigh add " + std::string(kNobody) + " lladdr 02:00:00:00:00:09 dev own");
    InPeer([] {
      Ip("link set lo up");
      Ip("addr add " + std::string(kPeer) + "/24 dev peer");
      Ip("addr add " + std::string(kPeersSecond) + "/24 dev peer");
      Ip("link set peer up");
    });
  }
  ~PeerNetwork() { close(m_peer); }
  PeerNetwork(const PeerNetwork&) = delete;
  PeerNetwork& operator=(const PeerNetwork&) = delete;

  // For a thread of the peer: what it opens and starts from here on is there.
  void EnterPeer() const {
    if (setns(m_peer, CLONE_NEWNET) != 0) throw LastError("setns");
  }

  // Runs to its end in a thread of the peer; exceptions come out here.
  void InPeer(const std::function<void()>& work) const {
    RunInNewThread([&] {
      EnterPeer();
      work();
    });
  }

  // A setting below /proc/sys/net of the namespace that the thread is in.
  static void SetSystemValue(const std::string& name, const std::string& value) {
    std::ofstream file("/proc/sys/net/" + name);
    file << value;
    if (!file.flush()) throw LastError(name);
  }

  static void Ip(const std::string& arguments) {
    const std::string command = "PATH=$PATH:/usr/sbin:/sbin ip " + arguments;
    if (std::system(command.c_str()) != 0) throw std::runtime_error(command);
  }

 private:
  static std::system_error LastError(const std::string& what) {
    return {errno, std::generic_category(), what};
  }

  static void RunInNewThread(const std::function<void()>& work) {
    std::exception_ptr failure;
    std::thread([&] {
      try {
        work();
      } catch (...) {
        failure = std::current_exception();
      }
    }).join();
    if (failure) std::rethrow_exception(failure);
  }

  // Without the privilege, as root of a new user namespace.
  static void EnterNewNamespace() {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWNET) == 0) return;
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) throw LastError("unshare");
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
  }

  int m_peer = -1;
};

// Makes the network of a test, which is left out where namespaces are forbidden.
inline void MakeNetwork(std::optional<PeerNetwork>& network) {
  try {
    network.emplace();
  } catch (const std::system_error& error) {
    LeaveOut(std::string("no namespace: ") + error.what());
  }
}
