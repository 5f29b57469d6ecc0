#include "ZuNetwork/KdErrorItem_KdCURL.h"

#include <boost/smart_ptr/make_shared.hpp>
#include <cstdarg>
#include <cstdint>

#include "ZuUtils/FXString.h"

namespace {

constexpr std::uint32_t kTransferFacility = 0xEDD00000;
constexpr std::uint32_t kCustomCodeFlag = 0x20000000;
constexpr std::uint32_t kFacilityMask = 0x0FFF0000;
constexpr std::uint32_t kNumberMask = 0xFFFF;

int ResultCode(int code) {
  return static_cast<int>(kTransferFacility | static_cast<std::uint32_t>(code));
}

boost::shared_ptr<FXErrorItem> MakeItem(const FXCodeLocation& location, int code) {
  return boost::make_shared<FXErrorItemKdCURL>(location, code);
}

__attribute__((format(printf, 3, 0))) boost::shared_ptr<FXErrorItem> MakeItem(
    const FXCodeLocation& location, int code, const char* format, va_list args) {
  if (format == nullptr || *format == '\0') return MakeItem(location, code);
  std::string description;
  if (Failed(FXString::FormatArgList(description, format, args))) {
    description.insert(0, "[BUFFEROVERFLOW] ");
  }
  return boost::make_shared<FXErrorItemKdCURLDescription>(location, code, description);
}

}  // namespace

FXErrorItemKdCURL::FXErrorItemKdCURL(const FXCodeLocation& location, int errorCode)
    : FXErrorItem(location), m_iErrorCode(errorCode) {}

std::string FXErrorItemKdCURL::AsString() const {
  return FXErrorItem::AsString() +
         FXString::Format("/KdCURL.%d.0x%X", m_iErrorCode, static_cast<unsigned>(m_iErrorCode));
}

boost::shared_ptr<FXErrorItem> FXErrorItemKdCURL::Copy() const {
  return boost::make_shared<FXErrorItemKdCURL>(*this);
}

FXErrorItemKdCURLDescription::FXErrorItemKdCURLDescription(const FXCodeLocation& location,
                                                           int errorCode,
                                                           const std::string& description)
    : FXErrorItemKdCURL(location, errorCode), m_strDescription(description) {}

std::string FXErrorItemKdCURLDescription::AsString() const {
  return FXErrorItemKdCURL::AsString() + "-" + m_strDescription;
}

boost::shared_ptr<FXErrorItem> FXErrorItemKdCURLDescription::Copy() const {
  return boost::make_shared<FXErrorItemKdCURLDescription>(*this);
}

namespace KdCURL {

CZuError ErrorKdCURL(const FXCodeLocation& location, int code) {
  return CZuError(ResultCode(code), MakeItem(location, code));
}

CZuError ErrorKdCURL(const FXCodeLocation& location, int code, const char* format, ...) {
  va_list args;
  va_start(args, format);
  CZuError error(ResultCode(code), MakeItem(location, code, format, args));
  va_end(args);
  return error;
}

CZuError& PushKdCURL(CZuError& error, const FXCodeLocation& location, int code) {
  return error.Push(MakeItem(location, code));
}

CZuError& PushKdCURL(CZuError& error, const FXCodeLocation& location, int code, const char* format,
                     ...) {
  va_list args;
  va_start(args, format);
  error.Push(MakeItem(location, code, format, args));
  va_end(args);
  return error;
}

bool IsKdCURL(const CZuError& error, int code) { return error.Is(ResultCode(code)); }

bool IsNotKdCURL(const CZuError& error, int code) { return error.IsNot(ResultCode(code)); }

int GetKdCURL(const CZuError& error) {
  if (!Failed(error)) return 0;
  const auto code = static_cast<std::uint32_t>(error.m_hrErrorCode);
  const bool isTransfer = (code & kCustomCodeFlag) != 0 &&
                          (code & kFacilityMask) == (kTransferFacility & kFacilityMask);
  return isTransfer ? static_cast<int>(code & kNumberMask) : -1;
}

}  // namespace KdCURL
