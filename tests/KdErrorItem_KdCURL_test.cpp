#include "ZuNetwork/KdErrorItem_KdCURL.h"

#include <boost/smart_ptr/make_shared.hpp>
#include <climits>
#include <cwchar>

#include "support/Expect.h"

using KdCURL::ErrorKdCURL;
using KdCURL::GetKdCURL;
using KdCURL::IsKdCURL;
using KdCURL::IsNotKdCURL;
using KdCURL::PushKdCURL;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

const FXCodeLocation kPlace{"Place.cpp", "void Place()", 12};
const FXCodeLocation kOther{"Other.cpp", "void Other()", 34};
const std::string kBase = FXErrorItem(kPlace).AsString();

unsigned CodeOf(const CZuError& error) { return static_cast<unsigned>(error.m_hrErrorCode); }

// The text without the line of the result code.
std::string Items(const CZuError& error) {
  const std::string text = error.AsString();
  return text.substr(text.find("\n  ") + 3);
}

TEST(KdErrorItem, ShowsTheCodeInDecimalAndHexadecimal) {
  const struct {
    int code;
    const char* shown;
  } rows[] = {{0, "/KdCURL.0.0x0"},
              {7, "/KdCURL.7.0x7"},
              {28, "/KdCURL.28.0x1C"},
              {0xABCD, "/KdCURL.43981.0xABCD"},
              {-1, "/KdCURL.-1.0xFFFFFFFF"}};
  for (const auto& [code, shown] : rows) {
    EXPECT_EQ(FXErrorItemKdCURL(kPlace, code).AsString(), kBase + shown);
  }
}

TEST(KdErrorItem, ADescriptionFollowsADash) {
  EXPECT_EQ(FXErrorItemKdCURLDescription(kPlace, 28, "too slow").AsString(),
            kBase + "/KdCURL.28.0x1C-too slow");
  EXPECT_EQ(FXErrorItemKdCURLDescription(kPlace, 28, "").AsString(), kBase + "/KdCURL.28.0x1C-");
}

// A class of a user says what it knows in its own way.
class OwnItem : public FXErrorItemKdCURL {
 public:
  using FXErrorItemKdCURL::FXErrorItemKdCURL;
  std::string AsString() const override { return "code " + std::to_string(m_iErrorCode); }
};

class OwnDescription : public FXErrorItemKdCURLDescription {
 public:
  using FXErrorItemKdCURLDescription::FXErrorItemKdCURLDescription;
  std::string AsString() const override {
    return std::to_string(m_iErrorCode) + " is " + m_strDescription;
  }
};

TEST(KdErrorItem, DerivingClassesSeeCodeAndDescription) {
  EXPECT_EQ(OwnItem(kPlace, 28).AsString(), "code 28");
  EXPECT_EQ(OwnDescription(kPlace, 6, "host a").AsString(), "6 is host a");

  CZuError error(static_cast<int>(TransferCode(28)), boost::make_shared<OwnItem>(kPlace, 28));
  error.Push(boost::make_shared<OwnDescription>(kPlace, 6, "host a"));
  EXPECT_EQ(Items(error), "code 28\n  6 is host a");
}

TEST(KdErrorItem, ACopyKeepsClassCodeAndDescription) {
  boost::shared_ptr<FXErrorItem> item =
      boost::make_shared<FXErrorItemKdCURLDescription>(kPlace, 6, "host a");
  const boost::shared_ptr<FXErrorItem> copy = item->Copy();
  EXPECT_NE(copy, item);
  item.reset();
  EXPECT_EQ(copy->AsString(), kBase + "/KdCURL.6.0x6-host a");
  EXPECT_NE(dynamic_cast<FXErrorItemKdCURLDescription*>(copy.get()), nullptr);

  const auto plain = FXErrorItemKdCURL(kPlace, 6).Copy();
  EXPECT_EQ(plain->AsString(), kBase + "/KdCURL.6.0x6");
  EXPECT_EQ(dynamic_cast<FXErrorItemKdCURLDescription*>(plain.get()), nullptr);
  EXPECT_NE(dynamic_cast<FXErrorItemKdCURL*>(plain.get()), nullptr);
}

TEST(ErrorKdCURL, OrsTheCodeIntoTheTransferFacility) {
  const struct {
    int code;
    unsigned result;
  } rows[] = {
      {0, 0xEDD00000}, {7, 0xEDD00007}, {28, 0xEDD0001C}, {0xFFFF, 0xEDD0FFFF}, {-1, 0xFFFFFFFF}};
  for (const auto& [code, result] : rows) {
    EXPECT_EQ(CodeOf(ErrorKdCURL(kPlace, code)), result) << code;
    EXPECT_EQ(CodeOf(ErrorKdCURL(kPlace, code, "text")), result) << code;
    EXPECT_TRUE(Failed(ErrorKdCURL(kPlace, code))) << code;
  }
}

TEST(ErrorKdCURL, HasOneItemOfTheCallersPlace) {
  EXPECT_EQ(Items(ErrorKdCURL(kPlace, 7)), kBase + "/KdCURL.7.0x7");
  EXPECT_EQ(Items(ErrorKdCURL(kPlace, 6, "host %s", "a")), kBase + "/KdCURL.6.0x6-host a");
  EXPECT_EQ(Items(ErrorKdCURL(kPlace, 6, "[%d] [%ld]", 5, 7L)), kBase + "/KdCURL.6.0x6-[5] [7]");
}

TEST(ErrorKdCURL, ANullOrEmptyFormatMakesAPlainItem) {
  const char* const formats[] = {nullptr, ""};
  for (const char* const format : formats) {
    EXPECT_EQ(Items(ErrorKdCURL(kPlace, 6, format)), kBase + "/KdCURL.6.0x6");
    CZuError error = ErrorKdCURL(kOther, 7);
    PushKdCURL(error, kPlace, 6, format);
    EXPECT_THAT(error.AsString(), EndsWith("\n  " + kBase + "/KdCURL.6.0x6"));
  }
}

TEST(ErrorKdCURL, LongDescriptionsAreKeptWhole) {
  const std::string text(100000, 'x');
  EXPECT_EQ(Items(ErrorKdCURL(kPlace, 6, "%s", text.c_str())), kBase + "/KdCURL.6.0x6-" + text);
}

TEST(ErrorKdCURL, ADescriptionThatCannotBeFormattedSaysSo) {
  const wchar_t unprintable[] = {static_cast<wchar_t>(0x7FFFFFFF), L'\0'};
  const CZuError made = ErrorKdCURL(kPlace, 6, "host %ls", unprintable);
  EXPECT_EQ(CodeOf(made), 0xEDD00006);
  EXPECT_EQ(Items(made), kBase + "/KdCURL.6.0x6-[BUFFEROVERFLOW] ");
}

TEST(PushKdCURL, AddsAnItemAndKeepsTheCode) {
  CZuError error = FXErrorUtil::ErrorErrNo(kOther, ENOENT);
  EXPECT_EQ(&PushKdCURL(error, kPlace, 28), &error);
  EXPECT_EQ(&PushKdCURL(error, kPlace, 6, "host %s", "a"), &error);
  EXPECT_EQ(CodeOf(error), ErrNoCode(ENOENT));
  EXPECT_THAT(error.AsString(), EndsWith("\n  " + kBase + "/KdCURL.28.0x1C" + "\n  " + kBase +
                                         "/KdCURL.6.0x6-host a"));
  EXPECT_THAT(error.AsString(), HasSubstr("Other.cpp"));
}

TEST(PushKdCURL, LeavesCopiesAsTheyWere) {
  CZuError error = ErrorKdCURL(kOther, 7);
  const CZuError copy = error;
  PushKdCURL(error, kPlace, 28);
  EXPECT_THAT(copy.AsString(), Not(HasSubstr("/KdCURL.28")));
}

TEST(GetKdCURL, TellsTransferFailuresFromOthers) {
  const auto failure = [](unsigned code) {
    return CZuError(static_cast<int>(code), boost::make_shared<FXErrorItem>(kPlace));
  };
  const struct {
    CZuError error;
    int code;
  } rows[] = {
      {CZuError(), 0},
      {ErrorKdCURL(kPlace, 7), 7},
      {ErrorKdCURL(kPlace, 0), 0},
      {ErrorKdCURL(kPlace, 65535, "x"), 65535},
      {failure(0xEDD0FFFF), 65535},
      {failure(0xFDD00005), 5},   // the reserved bit is not looked at
      {failure(0xADD00005), 5},   // nor is the second severity bit
      {failure(0xCDD00005), -1},  // without the custom-code flag
      {failure(0xEDD10005), -1},  // the next facility
      {failure(0xEDC00005), -1},
      {failure(0xE0010002), -1},
      {failure(0x80070306), -1},
      {ErrorKdCURL(kPlace, -1), -1},  // all bits set
      {FXErrorUtil::ErrorInt(kPlace, 1, "x"), -1},
      {FXErrorUtil::ErrorErrNo(kPlace, ENOENT), -1},
      {FXErrorUtil::ErrorWin32(kPlace, 774), -1},
      {FXErrorUtil::ErrorKDResult(kPlace, 1, "x"), -1},
  };
  for (const auto& [error, code] : rows) EXPECT_EQ(GetKdCURL(error), code) << error.AsString();

  CZuError informational;
  informational.m_hrErrorCode = 0x6DD00005;  // not negative: no failure
  EXPECT_EQ(GetKdCURL(informational), 0);
}

TEST(IsKdCURL, ComparesTheWholeCode) {
  const CZuError error = ErrorKdCURL(kPlace, 7);
  EXPECT_TRUE(IsKdCURL(error, 7));
  EXPECT_FALSE(IsNotKdCURL(error, 7));
  EXPECT_FALSE(IsKdCURL(error, 28));
  EXPECT_TRUE(IsNotKdCURL(error, 28));
  EXPECT_FALSE(IsKdCURL(CZuError(), 0));
  EXPECT_TRUE(IsNotKdCURL(CZuError(), 0));
  EXPECT_TRUE(IsKdCURL(ErrorKdCURL(kPlace, 0), 0));
  EXPECT_FALSE(IsKdCURL(FXErrorUtil::ErrorInt(kPlace, 7, "x"), 7));
}

}  // namespace
