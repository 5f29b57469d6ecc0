#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "ZuNetwork/CurlWrapper.h"
#include "ZuUtils/ZuError.h"

namespace KdCURL {

// Ready sinks for what a request receives and sources for what it sends. Each has a static function
// that goes with the object as a callback pair:
//
//   KdCURL::FileSink sink;
//   CZuError error = sink.Open("today.csv");
//   request.setWriteCallBack(&sink, KdCURL::FileSink::Write);
//   if (!Failed(error)) error = request.download("/today.csv", {});
//   if (!Failed(error)) error = sink.Commit();
//
// The callback of a sink that fails ends the transfer with libcurl's code 23, that of a source with
// code 42. An object serves one request at a time and is used by one thread. A failed system call
// is ErrorErrNo with the path in the message.

// Receives into a file that appears under its name only when it is complete and on the disk: until
// Commit() the bytes lie in a temporary file beside it, which is removed when the sink is
// destroyed, opened anew or told to use something else. The permissions of a file that is replaced
// stay, but for set-id bits; owner and group become those of the process. A name that is no regular
// file (a device, a pipe) is written to directly.
//
// A symbolic link is followed by the system, with the system's protection of links in folders that
// everybody may write, and stays a link; where it leads to nothing an empty file stands until
// Commit(). Temporary files are never links. To replace a file its folder has to be writable.
class ZUNETWORK_API FileSink {
 public:
  FileSink() = default;
  ~FileSink();
  FileSink(const FileSink&) = delete;
  FileSink& operator=(const FileSink&) = delete;

  // ErrorWin32 774 while a file is open; it then stays open.
  CZuError Open(const std::string& path);

  // Goes on with what an interrupted download left in the file "`path`.part", which also stays when
  // this one is interrupted. `offset` is what is there, for KdProtocolReq::setResumeOffset(); it is
  // left alone where there can be no such file: beside a device or a pipe. The file is locked by
  // flock(2) as long as it is open: EWOULDBLOCK when another sink, here or in another process, has
  // it. A symbolic link of that name is ELOOP.
  CZuError OpenForResume(const std::string& path, std::int64_t& offset);

  // Throws away what the file has so far, to receive it from its first byte on. A device, a pipe or
  // a descriptor of the caller's keeps what it got.
  CZuError StartOver();

  // Writes to a descriptor of the caller's, such as standard output, which stays open. A file that
  // is open is given up.
  void Use(int descriptor);

  // Brings the bytes to the disk, gives the file its name and closes it; tells the reason when that
  // cannot be done, and then gives the file up. Once more after a success it does nothing;
  // ErrorWin32 774 when nothing was opened. Of a descriptor it only tells whether all could be
  // written.
  CZuError Commit();

  // Takes nothing (libcurl's code 23) while no file is open.
  static std::size_t Write(char* data, std::size_t size, std::size_t count, void* instance);

 private:
  ZUNETWORK_LOCAL CZuError Locate(const FXCodeLocation& where, const std::string& path);
  ZUNETWORK_LOCAL CZuError OpenDirectly(const FXCodeLocation& where);
  ZUNETWORK_LOCAL CZuError OpenBeside(const FXCodeLocation& where);
  ZUNETWORK_LOCAL CZuError OpenPart(const FXCodeLocation& where, std::int64_t& offset);
  ZUNETWORK_LOCAL CZuError LockPart(const FXCodeLocation& where, const std::string& path,
                                    std::int64_t& offset);
  ZUNETWORK_LOCAL bool WriteAll(const char* data, std::size_t size);
  ZUNETWORK_LOCAL CZuError Finish(const FXCodeLocation& where);
  ZUNETWORK_LOCAL int CloseFile();
  ZUNETWORK_LOCAL void GiveUp();

  int m_descriptor = -1;
  int m_lock = -1;  // the part's, on a descriptor of its own
  bool m_isOwner = false;
  bool m_isKept = false;         // the temporary file, when it is not complete
  bool m_isPlaceholder = false;  // the file at m_path: it was made for a link that led to nothing
  bool m_isCommitted = false;
  bool m_isDirect = false;  // the target is no regular file
  int m_mode = -1;          // permissions of the file to replace; -1: there is none
  int m_writeError = 0;
  std::string m_path;
  std::string m_temporaryPath;  // empty when the target is written directly
};

// Receives into a string of at most `limit` bytes; what goes beyond is refused.
class ZUNETWORK_API StringSink {
 public:
  explicit StringSink(std::size_t limit) : m_limit(limit) {}

  const std::string& GetText() const { return m_text; }
  bool IsOverLimit() const { return m_isOverLimit; }

  static std::size_t Write(char* data, std::size_t size, std::size_t count, void* instance);

 private:
  std::string m_text;
  std::size_t m_limit;
  bool m_isOverLimit = false;
};

// Sends a file of any size, which is never held in memory.
class ZUNETWORK_API FileSource {
 public:
  FileSource() = default;
  ~FileSource();
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;

  // Opens the file to be read from the byte `offset` on; one that is open is closed before.
  CZuError Open(const std::string& path, std::int64_t offset = 0);

  // Opens the file for a request that tells the size beforehand: so many bytes are given even when
  // the file grows meanwhile; one that becomes shorter ends the transfer, with ENODATA. `size` is
  // -1 where it is not known beforehand: for pipes, devices and most files of /proc.
  CZuError OpenSized(const std::string& path, std::int64_t& size);

  void Close();

  // The errno value that ended the reading, 0 when none did.
  int GetReadError() const { return m_readError; }

  static std::size_t Read(char* buffer, std::size_t size, std::size_t count, void* instance);

  // For CURLOPT_SEEKFUNCTION: a body that has to be sent once more, after a redirect or a request
  // for a login, goes from its start.
  static int Seek(void* instance, curl_off_t offset, int origin);

 private:
  ZUNETWORK_LOCAL ssize_t ReadOnce(char* buffer, std::size_t size);

  int m_descriptor = -1;
  int m_readError = 0;
  std::int64_t m_size = -1;  // of a sized file; -1: to the end
  std::int64_t m_left = 0;   // of m_size
};

// Sends bytes of the caller's, which need to live as long as the object is used.
class ZUNETWORK_API MemorySource {
 public:
  MemorySource(const void* data, std::size_t size)
      : m_data(static_cast<const char*>(data)), m_size(size) {}

  static std::size_t Read(char* buffer, std::size_t size, std::size_t count, void* instance);

 private:
  const char* m_data;
  std::size_t m_size;  // what is left
};

}  // namespace KdCURL
