#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "ZuUtils/ZuError.h"
#include "zu/ZuExport.h"

namespace zu {

// Bytes between a stream and its program, in either direction: what came beyond the line that was
// asked for, or what the peer has not taken yet. It holds up to `limit` bytes in memory that it
// keeps and that may be twice as large. Views into it hold until the next call that is not const.
// One that was moved from is empty and may be used on.
class ZU_API Buffer {
 public:
  explicit Buffer(std::size_t limit = 65536) noexcept;
  Buffer(Buffer&& other) noexcept;
  Buffer& operator=(Buffer&& other) noexcept;

  std::string_view View() const noexcept { return {m_data.get() + m_begin, Size()}; }
  std::size_t Size() const noexcept { return m_end - m_begin; }
  bool IsEmpty() const noexcept { return m_end == m_begin; }

  // ErrorErrNo ENOBUFS beyond the limit: nothing was added then. They are not bytes of its own.
  CZuError Append(std::string_view bytes);

  void Consume(std::size_t size) noexcept;  // drops from the front, at most all

  // Takes what stands before the first delimiter, and the delimiter, from the front; `text` is
  // without it. False, and nothing changed, while it has not come; an empty delimiter never comes.
  // However often it is asked, each byte is looked at once for the same delimiter.
  bool TakeUntil(std::string_view delimiter, std::string_view& text);

  // Takes so many bytes from the front. False, and nothing changed, while there are fewer.
  bool Take(std::size_t size, std::string_view& bytes) noexcept;

 private:
  friend class Stream;

  // Memory behind the last byte, at most `room` bytes of it, at least one below the limit.
  char* Room(std::size_t wanted, std::size_t& room);
  void MakeRoom(std::size_t wanted);
  void Add(std::size_t size) noexcept { m_end += size; }  // these were stored there

  std::unique_ptr<char[]> m_data;
  std::size_t m_capacity = 0, m_begin = 0, m_end = 0, m_limit;
  std::size_t m_searched = 0;  // no m_delimiter begins before
  std::string m_delimiter;
};

}  // namespace zu
