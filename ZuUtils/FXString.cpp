#include "ZuUtils/FXString.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace FXString {

std::string Format(const char* fmt, ...) {
  std::string text;
  va_list args;
  va_start(args, fmt);
  (void)FormatArgList(text, fmt, args);  // the empty text is the report
  va_end(args);
  return text;
}

CZuError FormatArgList(std::string& text, const char* fmt, va_list args) {
  text.clear();
  if (fmt == nullptr) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, "Null parameter passed");
  }
  if (std::strchr(fmt, '%') == nullptr) {
    text.assign(fmt);
    return {};
  }
  va_list again;
  va_copy(again, args);
  char buffer[256];
  const int length = std::vsnprintf(buffer, sizeof buffer, fmt, args);
  if (length < 0) {
    const int err = errno;
    va_end(again);
    return FXErrorUtil::ErrorErrNo(ZU_HERE, err, "Failed to format the text");
  }
  const auto size = static_cast<std::size_t>(length);
  if (size < sizeof buffer) {
    text.assign(buffer, size);
  } else {
    text.resize(size);
    std::vsnprintf(text.data(), size + 1, fmt, again);  // the terminator lands on the string's own
  }
  va_end(again);
  return {};
}

void Split(const std::string& text, const std::string& separator, std::vector<std::string>& parts,
           unsigned limit) {
  std::size_t start = 0;
  for (unsigned made = 1; limit == 0 || made < limit; ++made) {
    const std::size_t end = separator.empty() ? std::string::npos : text.find(separator, start);
    if (end == std::string::npos) break;
    parts.push_back(text.substr(start, end - start));
    start = end + separator.size();
  }
  parts.push_back(text.substr(start));
}

void ToLower(std::string& text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
}

void TrimRight(std::string& text, const std::string& chars) {
  text.erase(text.find_last_not_of(chars) + 1);
}

void RemoveRight(std::string& text, const std::string& suffix) {
  if (text.size() < suffix.size()) return;
  const std::size_t start = text.size() - suffix.size();
  if (text.compare(start, suffix.size(), suffix) == 0) text.erase(start);
}

}  // namespace FXString
