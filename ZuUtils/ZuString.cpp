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

char* CZuString::AllocateBuffer(std::size_t size) {
  if (size <= m_nCapacity) return m_pszText;
  if (size == std::numeric_limits<std::size_t>::max()) return nullptr;
  char* const text = new (std::nothrow) char[size + 1];
  if (text == nullptr) return nullptr;
  std::memcpy(text, m_pszText, m_nLength + 1);
  text[size] = '\0';  // ends a text that fills the whole buffer
  if (m_pszText != m_internal) delete[] m_pszText;
  m_pszText = text;
  m_nCapacity = size;
  return m_pszText;
}

void CZuString::ReCalculateLength() { m_nLength = strnlen(m_pszText, m_nCapacity); }

void CZuString::CheckAndAppendLastCharacter(char last) {
  if (m_nLength > 0 && m_pszText[m_nLength - 1] == last) return;
  if (m_nLength == m_nCapacity && AllocateBuffer(2 * m_nCapacity) == nullptr)
    throw std::bad_alloc();
  m_pszText[m_nLength++] = last;
  m_pszText[m_nLength] = '\0';
}

void CZuString::CheckAndRemoveLastCharacter(char last) {
  if (m_nLength == 0 || m_pszText[m_nLength - 1] != last) return;
  m_pszText[--m_nLength] = '\0';
}

// `text` may be part of this string: it is read before the buffer it lies in is given up.
void CZuString::Assign(const char* text, std::size_t length) {
  if (length > m_nCapacity) {
    CZuString longer;
    if (longer.AllocateBuffer(length) == nullptr) throw std::bad_alloc();
    longer.Assign(text, length);
    if (m_pszText != m_internal) delete[] m_pszText;
    m_pszText = longer.m_pszText;
    m_nCapacity = longer.m_nCapacity;
    longer.m_pszText = longer.m_internal;
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
