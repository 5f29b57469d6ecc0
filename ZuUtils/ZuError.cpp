#include "ZuUtils/ZuError.h"

#include <netdb.h>

#include <boost/container/small_vector.hpp>
#include <boost/smart_ptr/make_shared.hpp>
#include <charconv>
#include <cstdarg>
#include <cstring>
#include <iterator>
#include <limits>
#include <string_view>
#include <typeinfo>
#include <utility>

#include "ZuUtils/FXString.h"

namespace {

// Where a number comes from, in the upper half of the code. The transfer facility belongs to the
// network library, which ORs it in itself; it is here for its name alone.
constexpr std::uint32_t kFacilityWin32 = 0x80070000;
constexpr std::uint32_t kFacilityErrNo = 0xE0010000;
constexpr std::uint32_t kFacilityInt = 0xE0020000;
constexpr std::uint32_t kFacilityKDResult = 0xE0030000;
constexpr std::uint32_t kFacilityTransfer = 0xEDD00000;
constexpr std::uint32_t kNumberMask = 0xFFFF;

constexpr struct {
  std::uint32_t facility;
  const char* kind;
} kKinds[] = {
    {kFacilityWin32, "system"},    {kFacilityErrNo, "errno"},       {kFacilityInt, "library"},
    {kFacilityKDResult, "result"}, {kFacilityTransfer, "transfer"},
};

int MakeCode(std::uint32_t facility, int number) {
  return static_cast<int>(facility | (static_cast<std::uint32_t>(number) & kNumberMask));
}

int MakeWin32Code(unsigned code) {
  const int number = static_cast<int>(code);
  return number < 0 ? number : MakeCode(kFacilityWin32, number);
}

void AppendNumber(int number, std::string& text) {
  char digits[std::numeric_limits<int>::digits10 + 2];
  const auto end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
  text.append(digits, end);
}

// "file:line, function"
void AppendPlace(const FXCodeLocation& where, std::string& text) {
  text.append(where.m_pcszFile) += ':';
  AppendNumber(where.m_iLine, text);
  text.append(", ").append(where.m_pcszFunction);
}

class MessageItem : public FXErrorItem {
 public:
  MessageItem(const FXCodeLocation& where, std::string message)
      : FXErrorItem(where), m_message(std::move(message)) {}

  void AppendTo(std::string& text) const {
    AppendPlace(FXErrorItem::GetLocation(), text);
    text.append(", ").append(m_message);
  }

  std::string AsString() const override {
    std::string text;
    AppendTo(text);
    return text;
  }

  boost::shared_ptr<FXErrorItem> Copy() const override {
    return boost::make_shared<MessageItem>(*this);
  }

 private:
  std::string m_message;
};

// What AsString of the item returns, for the two classes of this file without a string of its own.
void AppendItem(const FXErrorItem& item, std::string& text) {
  const std::type_info& type = typeid(item);
  if (type == typeid(MessageItem)) {
    static_cast<const MessageItem&>(item).AppendTo(text);
  } else if (type == typeid(FXErrorItem)) {
    AppendPlace(item.FXErrorItem::GetLocation(), text);
  } else {
    text.append(item.AsString());
  }
}

// A format that cannot be rendered still says more than no message.
__attribute__((format(printf, 1, 0))) std::string FormatMessage(const char* fmt, va_list args) {
  std::string message;
  if (Failed(FXString::FormatArgList(message, fmt, args)) && fmt != nullptr) message.assign(fmt);
  return message;
}

CZuError MakeError(int code, const FXCodeLocation& where, std::string message) {
  return CZuError(code, boost::make_shared<MessageItem>(where, std::move(message)));
}

// The number in the lower half. A resolver's code, which is negative, came through the maker for
// errno values and lost its upper half there.
void AppendKind(std::uint32_t code, const char* kind, std::string& text) {
  const auto number = static_cast<std::int16_t>(code & kNumberMask);
  const bool isResolver = (code & ~kNumberMask) == kFacilityErrNo && number < 0;
  text.append(" (").append(isResolver ? "resolver" : kind) += ' ';
  AppendNumber(isResolver ? number : static_cast<int>(code & kNumberMask), text);
  text += ')';
}

// "0x80070306 (system 774)"
void AppendCode(std::uint32_t code, std::string& text) {
  constexpr int kLastNibble = 28;
  text += "0x";
  for (int shift = kLastNibble; shift >= 0; shift -= 4)
    text += "0123456789ABCDEF"[code >> shift & 15];
  if (static_cast<std::int32_t>(code) >= 0) text += " (success)";
  for (const auto& [facility, kind] : kKinds) {
    if ((code & ~kNumberMask) == facility) AppendKind(code, kind, text);
  }
}

std::string SystemText(int err) {
  if (err < 0) return gai_strerror(err);
  char buffer[128];
  return strerror_r(err, buffer, sizeof buffer);
}

}  // namespace

FXErrorItem::~FXErrorItem() = default;

std::string FXErrorItem::AsString() const {
  std::string text;
  AppendPlace(m_location, text);
  return text;
}

const FXCodeLocation& FXErrorItem::GetLocation() const { return m_location; }

boost::shared_ptr<FXErrorItem> FXErrorItem::Copy() const {
  return boost::make_shared<FXErrorItem>(*this);
}

std::string FXErrorItem::Message() const {
  std::string text = AsString();
  const std::string place = FXErrorItem::AsString();
  if (text.compare(0, place.size(), place) != 0) return text;
  text.erase(0, place.size());
  for (const std::string_view separator : {", ", "/", " "}) {
    if (text.compare(0, separator.size(), separator) == 0) return text.substr(separator.size());
  }
  return text;
}

struct CZuError::Private {
  // Most errors pass a few functions only; these need no allocation of their own.
  boost::container::small_vector<boost::shared_ptr<FXErrorItem>, 4> items;
};

CZuError::CZuError(int code, boost::shared_ptr<FXErrorItem> item) : m_hrErrorCode(code) {
  Push(std::move(item));
}

CZuError& CZuError::Push(const FXCodeLocation& where) {
  return Push(boost::make_shared<FXErrorItem>(where));
}

CZuError& CZuError::Push(const FXCodeLocation& where, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string message = FormatMessage(fmt, args);
  va_end(args);
  return Push(boost::make_shared<MessageItem>(where, std::move(message)));
}

CZuError& CZuError::Push(boost::shared_ptr<FXErrorItem> item) {
  if (!item) return *this;
  if (!m_ptrPrivate) {
    m_ptrPrivate = boost::make_shared<Private>();
  } else if (m_ptrPrivate.use_count() > 1) {
    m_ptrPrivate = boost::make_shared<Private>(*m_ptrPrivate);
  }
  m_ptrPrivate->items.push_back(std::move(item));
  return *this;
}

std::string CZuError::AsString() const {
  constexpr std::size_t kUsualLength = 512;
  std::string text;
  text.reserve(kUsualLength);
  AppendCode(static_cast<std::uint32_t>(m_hrErrorCode), text);
  if (m_ptrPrivate) {
    for (const auto& item : m_ptrPrivate->items) AppendItem(*item, text.append("\n  "));
  }
  return text;
}

std::string CZuError::Message() const {
  std::string text;
  if (!Failed(*this)) return text;
  if (m_ptrPrivate) {
    for (const auto& item : m_ptrPrivate->items) {
      text = item->Message();
      if (!text.empty()) return text;
    }
  }
  AppendCode(static_cast<std::uint32_t>(m_hrErrorCode), text);
  return text;
}

std::vector<boost::shared_ptr<const FXErrorItem>> CZuError::GetItems() const {
  if (!m_ptrPrivate) return {};
  return {m_ptrPrivate->items.begin(), m_ptrPrivate->items.end()};
}

namespace FXErrorUtil {

CZuError ErrorErrNo(const FXCodeLocation& where, int err) {
  return MakeError(MakeCode(kFacilityErrNo, err), where, SystemText(err));
}

CZuError ErrorErrNo(const FXCodeLocation& where, int err, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string message = FormatMessage(fmt, args);
  va_end(args);
  message.append(": ").append(SystemText(err));
  return MakeError(MakeCode(kFacilityErrNo, err), where, std::move(message));
}

CZuError ErrorWin32(const FXCodeLocation& where, unsigned code) {
  return CZuError(MakeWin32Code(code), boost::make_shared<FXErrorItem>(where));
}

CZuError ErrorWin32(const FXCodeLocation& where, unsigned code, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string message = FormatMessage(fmt, args);
  va_end(args);
  return MakeError(MakeWin32Code(code), where, std::move(message));
}

CZuError ErrorInt(const FXCodeLocation& where, int code, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string message = FormatMessage(fmt, args);
  va_end(args);
  return MakeError(MakeCode(kFacilityInt, code), where, std::move(message));
}

CZuError ErrorKDResult(const FXCodeLocation& where, int result, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string message = FormatMessage(fmt, args);
  va_end(args);
  return MakeError(MakeCode(kFacilityKDResult, result), where, std::move(message));
}

bool IsErrNo(const CZuError& error, int err) { return error.Is(MakeCode(kFacilityErrNo, err)); }

bool IsWin32(const CZuError& error, unsigned code) { return error.Is(MakeWin32Code(code)); }

bool IsInt(const CZuError& error, int code) { return error.Is(MakeCode(kFacilityInt, code)); }

bool IsKDResult(const CZuError& error, int result) {
  return error.Is(MakeCode(kFacilityKDResult, result));
}

}  // namespace FXErrorUtil
