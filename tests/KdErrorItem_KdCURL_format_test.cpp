#include "ZuNetwork/KdErrorItem_KdCURL.h"
#include "ZuUtils/FXString.h"
#include "support/Expect.h"

using testing::EndsWith;
using testing::HasSubstr;

// Stands before the library's own and fails after a part of every text, as one may that writes in
// pieces.
CZuError FXString::FormatArgList(std::string& text, const char* /*fmt*/, va_list /*args*/) {
  text = "host a";
  return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorNotEnoughMemory);
}

TEST(ErrorKdCURL, APartOfADescriptionIsKeptAndMarked) {
  const FXCodeLocation place{"Place.cpp", "void Place()", 12};
  const std::string base = FXErrorItem(place).AsString();
  CZuError error = KdCURL::ErrorKdCURL(place, 6, "host %s, port %d", "abc", 80);
  KdCURL::PushKdCURL(error, place, 7, "port %d", 80);
  EXPECT_THAT(error.AsString(), HasSubstr(base + "/KdCURL.6.0x6-[BUFFEROVERFLOW] host a\n"));
  EXPECT_THAT(error.AsString(), EndsWith("/KdCURL.7.0x7-[BUFFEROVERFLOW] host a"));
}
