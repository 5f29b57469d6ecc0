#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "ZuUtils/ZuError.h"

// Assertions for functions that return CZuError; a failure prints the whole error.

inline testing::AssertionResult IsOk(const CZuError& error) {
  if (!Failed(error)) return testing::AssertionSuccess();
  return testing::AssertionFailure() << error.AsString();
}

// `code` is the whole result code; `text` must stand in the error as it is rendered.
inline testing::AssertionResult IsFailure(const CZuError& error, unsigned code, const char* text) {
  const auto actual = static_cast<unsigned>(error.m_hrErrorCode);
  const std::string rendered = error.AsString();
  if (actual == code && rendered.find(text) != std::string::npos) {
    return testing::AssertionSuccess();
  }
  char expected[16];
  std::snprintf(expected, sizeof expected, "0x%08X", code);
  return testing::AssertionFailure()
         << "expected " << expected << " with \"" << text << "\", got " << rendered;
}

#define ASSERT_OK(expr) ASSERT_TRUE(IsOk(expr))
#define EXPECT_OK(expr) EXPECT_TRUE(IsOk(expr))
#define ASSERT_FAILS(expr, code, text) ASSERT_TRUE(IsFailure(expr, code, text))
#define EXPECT_FAILS(expr, code, text) EXPECT_TRUE(IsFailure(expr, code, text))

// The result codes of the makers in FXErrorUtil and of KdCURL::ErrorKdCURL.
constexpr unsigned ErrNoCode(int err) {
  return 0xE0010000u | (static_cast<unsigned>(err) & 0xFFFFu);
}
constexpr unsigned Win32Code(unsigned code) {
  return code > 0x7FFFFFFFu ? code : 0x80070000u | (code & 0xFFFFu);
}
constexpr unsigned IntCode(unsigned code) { return 0xE0020000u | code; }
constexpr unsigned KDResultCode(unsigned code) { return 0xE0030000u | code; }
constexpr unsigned TransferCode(int code) { return 0xEDD00000u | static_cast<unsigned>(code); }
