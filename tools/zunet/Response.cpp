#include <unistd.h>

#include <cstdio>

#include "Commands.h"
#include "Signals.h"
#include "Transfer.h"

void Response::Open(const std::string& output) {
  if (output.empty() || output == "-") {
    m_sink.Use(STDOUT_FILENO);
  } else {
    NoteSignals();
    ExitOnFailure(m_sink.Open(output));
  }
}

void Response::Receive() {
  m_session.Request().setWriteCallBack(this, TakeBody);
  m_session.ReceiveHeader();
}

// An empty body is judged after the transfer.
bool Response::Accept() {
  if (!m_isAccepted && !m_isRejected) m_isAccepted = !m_judge || m_judge();
  m_isRejected = !m_isAccepted;
  return m_isAccepted;
}

size_t Response::TakeBody(char* data, size_t size, size_t count, void* instance) {
  auto* const response = static_cast<Response*>(instance);
  if (response->m_session.IsRefused()) return size * count;
  if (!response->Accept()) return 0;
  const size_t written = KdCURL::FileSink::Write(data, size, count, &response->m_sink);
  response->m_isUnwritten = written != size * count;
  response->m_received += static_cast<std::int64_t>(written);
  return written;
}

void Response::ExitUnlessDone(const CZuError& error) {
  m_session.EndProgress();
  if (m_isUnwritten) ExitOnFailure(m_sink.Commit());
  m_session.ExitUnlessDone(error);
}

void Response::Finish(const CZuError& error) {
  constexpr int kNotModified = 304;
  ExitUnlessDone(error);
  if (m_session.Http() != nullptr && m_session.Status() == kNotModified) {
    std::fputs("zunet: not modified\n", stderr);
    return;
  }
  ExitOnFailure(m_sink.Commit());
}
