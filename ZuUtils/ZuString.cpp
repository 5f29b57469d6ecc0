#include "ZuUtils/ZuString.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

CZuString::CZuString(const char* text) { *this = text; }

CZuString::CZuString(const CZuString& other) { Assign(other.m_pszText, other.m_nLength); }

CZuString& CZuString::operator=(const char* text) {
  Assign(text, text == nullptr ? 0 : std::strlen(text));
  return *this;
}

CZuString& CZuString::operator=(const CZuString& other) {
  if (this != &other) Assign(other.m_pszText, other.m_nLength);
  return *this;
}

void CZuString::Clear() {
  m_nLength = 0;
  m_pszText[0] = '\0';
}

// A text on the heap needs no room inside: the capacity is kept there, which makes every string,
// and every list of them, smaller.
std::size_t CZuString::Capacity() const {
  if (m_pszText == m_internal) return kInternalSize - 1;
  std::size_t capacity;
  std::memcpy(&capacity, m_internal, sizeof capacity);
  return capacity;
}

// Replaces the buffer by one on the heap.
void CZuString::TakeOver(char* text, std::size_t capacity) {
  if (m_pszText != m_internal) delete[] m_pszText;
  m_pszText = text;
  std::memcpy(m_internal, &capacity, sizeof capacity);
}

char* CZuString::AllocateBuffer(std::size_t size) {
  if (size <= Capacity()) return m_pszText;
  if (size == std::numeric_limits<std::size_t>::max()) return nullptr;
  char* const text = new (std::nothrow) char[size + 1];
  if (text == nullptr) return nullptr;
  std::memcpy(text, m_pszText, m_nLength + 1);
  text[size] = '\0';  // ends a text that fills the whole buffer
  TakeOver(text, size);
  return m_pszText;
}

void CZuString::ReCalculateLength() { m_nLength = strnlen(m_pszText, Capacity()); }

void CZuString::CheckAndAppendLastCharacter(char last) {
  if (m_nLength > 0 && m_pszText[m_nLength - 1] == last) return;
  if (m_nLength == Capacity() && AllocateBuffer(2 * m_nLength) == nullptr) throw std::bad_alloc();
  m_pszText[m_nLength++] = last;
  m_pszText[m_nLength] = '\0';
}

void CZuString::CheckAndRemoveLastCharacter(char last) {
  if (m_nLength == 0 || m_pszText[m_nLength - 1] != last) return;
  m_pszText[--m_nLength] = '\0';
}

// `text` may be part of this string: it is read before the buffer it lies in is given up.
void CZuString::Assign(const char* text, std::size_t length) {
  if (length > Capacity()) {
    char* const longer = new char[length + 1];
    std::memcpy(longer, text, length);
    TakeOver(longer, length);
  } else if (length > 0) {
    std::memmove(m_pszText, text, length);
  }
  m_nLength = length;
  m_pszText[length] = '\0';
}

bool operator==(const CZuString& left, const CZuString& right) {
  return left.Length() == right.Length() &&
         std::memcmp(left.c_str(), right.c_str(), left.Length()) == 0;
}

bool operator!=(const CZuString& left, const CZuString& right) { return !(left == right); }
