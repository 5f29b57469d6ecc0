#pragma once

#include <cstddef>

#include "ZuUtils/ZuUtilsExport.h"

// A zero-terminated character string that holds short texts (below 50 characters: every address,
// most names) inside itself. A null pointer reads as the empty text.
class ZUUTILS_API CZuString {
 public:
  CZuString() noexcept = default;
  CZuString(const char* text);  // NOLINT(google-explicit-constructor): texts are passed as strings
  CZuString(const CZuString& other);
  CZuString& operator=(const char* text);
  CZuString& operator=(const CZuString& other);
  ~CZuString() {
    if (m_pszText != m_internal) delete[] m_pszText;
  }

  const char* c_str() const { return m_pszText; }
  std::size_t Length() const { return m_nLength; }
  bool IsEmpty() const { return m_nLength == 0; }

  // Empties the text and keeps the room it had.
  void Clear();

  // Makes room for `size` characters besides the terminator, keeps the text, and returns the
  // buffer, which the caller may fill up to that size; ReCalculateLength() then takes over what was
  // written. Null, and nothing changed, when memory is short. The pointer is valid until the string
  // is changed in another way.
  char* AllocateBuffer(std::size_t size);

  // Takes the length from the first zero byte of the buffer.
  void ReCalculateLength();

  // Appends `last` unless the text ends with it; an empty text gets it too.
  void CheckAndAppendLastCharacter(char last);

  // Removes the last character if it is `last`.
  void CheckAndRemoveLastCharacter(char last);

 private:
  ZUUTILS_LOCAL void Assign(const char* text, std::size_t length);
  ZUUTILS_LOCAL std::size_t Capacity() const;
  ZUUTILS_LOCAL void TakeOver(char* text, std::size_t capacity);

  static constexpr std::size_t kInternalSize = 50;

  char m_internal[kInternalSize] = {};  // of a text on the heap, its first bytes are the capacity
  char* m_pszText = m_internal;
  std::size_t m_nLength = 0;
};

ZUUTILS_API bool operator==(const CZuString& left, const CZuString& right);
ZUUTILS_API bool operator!=(const CZuString& left, const CZuString& right);
