#include "zu/Buffer.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

namespace zu {

namespace {

constexpr std::size_t kLeastCapacity = 4096;

}  // namespace

Buffer::Buffer(std::size_t limit) noexcept
    : m_limit(std::min<std::size_t>(limit, PTRDIFF_MAX / 2)) {}

Buffer::Buffer(Buffer&& other) noexcept : m_limit(other.m_limit) { *this = std::move(other); }

Buffer& Buffer::operator=(Buffer&& other) noexcept {
  if (this == &other) return *this;
  m_data = std::move(other.m_data);
  m_capacity = std::exchange(other.m_capacity, 0);
  m_begin = std::exchange(other.m_begin, 0);
  m_end = std::exchange(other.m_end, 0);
  m_searched = std::exchange(other.m_searched, 0);
  m_delimiter.swap(other.m_delimiter);
  other.m_delimiter.clear();
  m_limit = other.m_limit;
  return *this;
}

CZuError Buffer::Append(std::string_view bytes) {
  if (bytes.size() > m_limit - Size()) {
    return FXErrorUtil::ErrorErrNo(ZU_HERE, ENOBUFS, "%zu bytes beside %zu in a buffer of %zu",
                                   bytes.size(), Size(), m_limit);
  }
  if (bytes.empty()) return {};
  std::size_t room = 0;
  char* const data = Room(bytes.size(), room);
  std::memcpy(data, bytes.data(), bytes.size());
  Add(bytes.size());
  return {};
}

void Buffer::Consume(std::size_t size) noexcept {
  m_begin += std::min(size, Size());
  if (!IsEmpty()) return;
  m_begin = m_end = m_searched = 0;  // the bytes stay for views that were handed out
}

bool Buffer::TakeUntil(std::string_view delimiter, std::string_view& text) {
  if (delimiter.empty()) return false;
  if (m_delimiter != delimiter) {
    m_delimiter = delimiter;
    m_searched = m_begin;
  }
  const std::string_view view = View();
  const std::size_t from = std::max(m_searched, m_begin) - m_begin;
  const std::size_t found = view.find(delimiter, from);
  if (found == std::string_view::npos) {
    const std::size_t tail = std::min(Size() - from, delimiter.size() - 1);
    m_searched = m_end - tail;
    return false;
  }
  text = view.substr(0, found);
  Consume(found + delimiter.size());
  return true;
}

bool Buffer::Take(std::size_t size, std::string_view& bytes) noexcept {
  if (size > Size()) return false;
  bytes = View().substr(0, size);
  Consume(size);
  return true;
}

char* Buffer::Room(std::size_t wanted, std::size_t& room) {
  wanted = std::min(wanted, m_limit - Size());
  if (m_capacity - m_end < wanted) MakeRoom(wanted);
  room = std::min(m_capacity - m_end, m_limit - Size());
  return m_data.get() + m_end;
}

// Moves the bytes to the front only when no more than was consumed have to be moved, so that a byte
// costs the same however the buffer is used; for that it takes memory for twice the limit.
void Buffer::MakeRoom(std::size_t wanted) {
  const std::size_t size = Size();
  const bool isCheap = m_begin >= size && m_capacity - size >= wanted;
  if (isCheap) {
    std::memmove(m_data.get(), m_data.get() + m_begin, size);
  } else {
    const std::size_t enough = std::max({size + wanted, m_capacity * 2, kLeastCapacity});
    const std::size_t capacity = std::max(size + wanted, std::min(enough, m_limit * 2));
    std::unique_ptr<char[]> data(new char[capacity]);
    if (size != 0) std::memcpy(data.get(), m_data.get() + m_begin, size);
    m_data = std::move(data);
    m_capacity = capacity;
  }
  m_searched -= std::min(m_searched, m_begin);
  m_begin = 0;
  m_end = size;
}

}  // namespace zu
