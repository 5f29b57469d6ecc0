#pragma once

#include <cstdarg>
#include <string>
#include <vector>

#include "ZuUtils/ZuError.h"

// Helpers for std::string. Characters are bytes; case and classes are those of ASCII.
namespace FXString {

// printf-style text of any length; empty when the formatter refuses.
ZUUTILS_API std::string Format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Replaces `text` by the formatted arguments, whatever their length. `args` is used up.
// When the formatter refuses (a wide character without a multibyte form, a field wider than
// INT_MAX), `text` is left empty and the result is ErrorErrNo with the formatter's errno; a null
// format is ErrorWin32 87.
ZUUTILS_API CZuError FormatArgList(std::string& text, const char* fmt, va_list args)
    __attribute__((format(printf, 2, 0)));

// Appends the parts of `text` between separators to `parts`; empty parts are kept, so that there
// is one part more than separators. `limit` above 0 is the most parts to make: the last one then
// holds the rest with its separators. An empty separator separates nothing.
ZUUTILS_API void Split(const std::string& text, const std::string& separator,
                       std::vector<std::string>& parts, unsigned limit);

ZUUTILS_API void ToLower(std::string& text);

// Removes every trailing character that is one of `chars`.
ZUUTILS_API void TrimRight(std::string& text, const std::string& chars);

// Removes one `suffix` from the end, if it is there.
ZUUTILS_API void RemoveRight(std::string& text, const std::string& suffix);

}  // namespace FXString
