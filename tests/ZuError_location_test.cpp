// Where an error says it arose. This file is compiled without the compiler's own name for a file.
#include "ZuUtils/ZuError.h"

#include <gtest/gtest.h>

namespace {

TEST(ZuErrorLocation, NamesTheFileWithoutItsFolderWhereTheCompilerDoesNotTellIt) {
  EXPECT_STREQ(ZU_HERE.m_pcszFile, "ZuError_location_test.cpp");
#line 1 "no_folder.cpp"
  EXPECT_STREQ(ZU_HERE.m_pcszFile, "no_folder.cpp");
#line 1 "./a/b.c/header.h"
  EXPECT_STREQ(ZU_HERE.m_pcszFile, "header.h");
}

}  // namespace
