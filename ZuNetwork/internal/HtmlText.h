#pragma once

#include <string>
#include <string_view>

// The value of an HTML attribute with its character references decoded: numbers in both notations,
// and the names of HTML 4 and XML. Takes time in proportion to the text. What is no reference, or
// has no semicolon, stays as it is; a number that is no character becomes U+FFFD.
std::string DecodeEntities(std::string_view text);
