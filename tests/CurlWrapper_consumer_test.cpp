// A program that disables libcurl's deprecation warnings itself does so before it includes anything
// else, with a value of its own; the library's header has to leave that definition alone.
#define CURL_DISABLE_DEPRECATION 1
#include "ZuNetwork/CurlWrapper.h"
#include "support/Expect.h"

static_assert(CURL_DISABLE_DEPRECATION == 1, "as the program defined it");

TEST(CurlWrapperConsumer, MayDisableTheDeprecationWarningsItself) {
  EXPECT_STREQ(CurlWrapper::gCurlWrapper.Curl_version(), "libcurl/fake");
}
