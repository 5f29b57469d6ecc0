#include "Signals.h"

#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "Commands.h"

namespace {

volatile sig_atomic_t gSignal = 0;
int gDescriptor = -1;

void Note(int signal) {
  const int err = errno;
  gSignal = signal;
  const std::uint64_t one = 1;
  (void)!write(gDescriptor, &one, sizeof one);
  errno = err;
}

}  // namespace

void NoteSignals() {
  if (gDescriptor != -1) return;
  gDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (gDescriptor == -1) ExitOnFailure(FXErrorUtil::ErrorErrNo(ZU_HERE, errno, "No event counter"));
  struct sigaction note {};
  note.sa_handler = Note;
  note.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
    struct sigaction old {};
    sigaction(signal, nullptr, &old);
    if (old.sa_handler != SIG_IGN) sigaction(signal, &note, nullptr);
  }
}

int NotedSignal() { return gSignal; }

int SignalDescriptor() { return gDescriptor; }

void ExitOnSignal() {
  if (gSignal != 0) throw CLI::RuntimeError(kSignalStatus + gSignal);
}
