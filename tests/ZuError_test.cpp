#include "ZuUtils/ZuError.h"

#include "support/Expect.h"

TEST(ZuError, SuccessIsCodeZeroWithoutItems) { EXPECT_EQ(CZuError().AsString(), "0x00000000 (success)"); }
