#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Session.h"
#include "ZuNetwork/KdTransferIO.h"

struct TransferArguments {
  SessionOptions session;
  std::string url;
  std::string file;
  std::string output;
  std::vector<std::string> data;
  std::vector<std::string> fields;
  bool isResumed = false;
};

// One command each.
void Get(const TransferArguments& arguments);
void Put(const TransferArguments& arguments);
void Post(const TransferArguments& arguments);
void Delete(const TransferArguments& arguments);
void List(const TransferArguments& arguments);
void Size(const TransferArguments& arguments);
void Head(const TransferArguments& arguments);
void Exists(const TransferArguments& arguments);

// Receives the answer of one operation: what was asked for goes to the sink, the page that comes
// with a refusal goes nowhere.
class Response {
 public:
  explicit Response(Session& session) : m_session(session) {}

  // A file, which is replaced only by a complete answer, or standard output ("-" or empty).
  void Open(const std::string& output);
  KdCURL::FileSink& Sink() { return m_sink; }

  // Asked once, before the first byte; false ends the transfer.
  void SetJudge(std::function<bool()> judge) { m_judge = std::move(judge); }

  // Comes before the operation ...
  void Receive();

  // ... and these after it: whether the judge agreed, what came, and the end of the program unless
  // all went well.
  bool Accept();
  bool IsRejected() const { return m_isRejected; }
  std::int64_t Received() const { return m_received; }
  void Finish(const CZuError& error);

  // The reason goes to the report when a write failed.
  void ExitUnlessDone(const CZuError& error);

 private:
  static size_t TakeBody(char* data, size_t size, size_t count, void* instance);

  Session& m_session;
  KdCURL::FileSink m_sink;
  std::function<bool()> m_judge;
  bool m_isAccepted = false;
  bool m_isRejected = false;
  std::int64_t m_received = 0;
  bool m_isUnwritten = false;
};
