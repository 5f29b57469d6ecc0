#include <filesystem>

#include "Commands.h"
#include "Part.h"
#include "Signals.h"
#include "Transfer.h"
#include "ZuNetwork/KdErrorItem_KdCURL.h"

namespace {

namespace fs = std::filesystem;

enum class Attempt { kDone, kGoOn, kStartOver };

// Whether the server says that there is no such part of the file.
bool IsRangeRefused(const Session& session, const CZuError& error) {
  constexpr int kRangeNotSatisfiable = 416;
  return KdCURL::IsKdCURL(error, CURLE_BAD_DOWNLOAD_RESUME) ||
         KdCURL::IsKdCURL(error, CURLE_FTP_COULDNT_USE_REST) ||
         (KdCURL::IsKdCURL(error, CURLE_OK) && session.Status() == kRangeNotSatisfiable);
}

[[noreturn]] void RefuseAnswer(const char* reason) {
  ExitOnFailure(FXErrorUtil::ErrorInt(ZU_HERE, kErrorBadInput, "%s", reason));
  throw CLI::RuntimeError(kExitFailure);
}

// An answer may bring less than what is missing.
Attempt Continue(const Part& part, const Response& response, KdCURL::FileSink& sink) {
  const std::int64_t size = part.Offset() + response.Received();
  if (part.Total() == -1 || size == part.Total()) return Attempt::kDone;
  if (size < part.Total() && response.Received() > 0) return Attempt::kGoOn;
  part.RemoveTag();
  ExitOnFailure(sink.StartOver());
  RefuseAnswer("The server sent another number of bytes than it announced");
}

// A fresh attempt leaves nothing to start over.
Attempt GetPart(const TransferArguments& arguments, bool isFresh) {
  Session session(arguments.url, arguments.session);
  Response response(session);
  Part part(arguments.output, session.Target());
  part.Open(response.Sink());
  if (isFresh) part.Forget();
  const bool isRest = part.Offset() > 0;
  part.Ask(session);
  session.ShowProgress();
  response.SetJudge([&] { return part.Accept(session, response.Sink()); });
  response.Receive();
  const CZuError error = session.Request().download(session.Text().c_str(), {});
  if (!Failed(error)) response.Accept();  // of no byte
  ExitOnFailure(part.Error());
  if (isRest && (response.IsRejected() || IsRangeRefused(session, error))) {
    return Attempt::kStartOver;
  }
  if (response.IsRejected()) RefuseAnswer("The server sent a part of the file instead of all");
  response.ExitUnlessDone(error);
  const Attempt attempt = Continue(part, response, response.Sink());
  if (attempt != Attempt::kDone) return attempt;
  ExitOnFailure(response.Sink().Commit());
  part.RemoveTag();
  return Attempt::kDone;
}

// Conditions of the caller's would get in the way of those of a download that goes on.
void CheckHeaders(const TransferArguments& arguments) {
  for (const std::string& header : arguments.session.headers) {
    const std::string name = Lower(header.substr(0, 6));
    if (StartsWith(name, "if-") || name == "range:") {
      throw CLI::ValidationError("--resume: goes with no condition and no range of your own");
    }
  }
}

void Resume(const TransferArguments& arguments) {
  if (arguments.output == "-") throw CLI::ValidationError("--resume: needs a file to go on with");
  CheckHeaders(arguments);
  NoteSignals();
  Attempt attempt = Attempt::kGoOn;
  while (attempt != Attempt::kDone) {
    attempt = GetPart(arguments, attempt == Attempt::kStartOver);
  }
}

// A device or a pipe keeps no part.
bool HasPart(const std::string& output) {
  std::error_code failure;
  return !fs::exists(output, failure) || fs::is_regular_file(output, failure);
}

}  // namespace

void Get(const TransferArguments& arguments) {
  if (arguments.isResumed && HasPart(arguments.output)) return Resume(arguments);
  Session session(arguments.url, arguments.session);
  Response response(session);
  response.Open(arguments.output);
  if (!arguments.output.empty()) session.ShowProgress();
  response.Receive();
  response.Finish(session.Request().download(session.Text().c_str(), {}));
}
