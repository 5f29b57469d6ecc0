#pragma once

#include <cstdint>
#include <string>

#include "Session.h"
#include "ZuNetwork/KdTransferIO.h"

// What an interrupted download left: "FILE.part" with the bytes, and beside it "FILE.part.tag" with
// what tells whether the server still has the file that they belong to. The tag holds
//   a number made of the URL (which may hold secrets itself),
//   the ETag, the date or the time of the file,
//   its size, -1 when unknown
// one a line. A part without a tag that fits is worth nothing.
class Part {
 public:
  Part(const std::string& output, const Url& url);

  // Opens the sink for the part and reads the tag.
  void Open(KdCURL::FileSink& sink);

  // The bytes that are there and may be kept, 0 when all have to come.
  std::int64_t Offset() const { return m_offset; }
  void Forget() { m_offset = 0; }

  // Puts the question for the rest of the file, or for all of it.
  void Ask(Session& session) const;

  // Whether the answer that begins is the rest of the file. One that is the whole file empties the
  // part and renews the tag.
  bool Accept(const Session& session, KdCURL::FileSink& sink);

  // Why the part or its tag could not be written, when that made the answer unacceptable.
  const CZuError& Error() const { return m_error; }

  // The size of the file, -1 while unknown.
  std::int64_t Total() const { return m_tag.size; }

  void RemoveTag() const;

 private:
  struct Tag {
    std::string url;
    std::string validator;
    std::int64_t size = -1;
  };

  Tag ReadTag() const;
  CZuError WriteTag() const;
  bool IsRest(const Session& session);
  CZuError StartOver(const Session& session, KdCURL::FileSink& sink);

  std::string m_output;
  std::string m_tagPath;
  Tag m_tag;
  std::int64_t m_offset = 0;
  CZuError m_error;
};
