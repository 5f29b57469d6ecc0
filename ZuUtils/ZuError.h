#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "ZuUtils/ZuUtilsExport.h"

// The error value of the whole product: a result code and the list of places it passed.
//
// A fallible function returns a CZuError by value. Success is code 0 without items; a failure has
// a negative code and at least one item. Whoever receives a failure pushes the own location and
// returns the same error, so that the caller reads every function on the way, innermost first:
//
//   CZuError error = file.Open(path, 0, 0);
//   if (Failed(error)) return error.Push(ZU_HERE, "Failed to open response file.");
//
// Copies share their items by an atomic reference count; pushing on one copy leaves the others as
// they were. Distinct values may be used on distinct threads, also when they share items.

// Where an error arose or passed. The texts are static and never owned.
struct FXCodeLocation {
  const char* m_pcszFile = "";      // base name of the source file
  const char* m_pcszFunction = "";  // full signature of the function
  int m_iLine = 0;
};

// The base name of the source file, also with compilers that do not tell it (GCC before 12).
#ifdef __FILE_NAME__
#define ZU_FILE_NAME __FILE_NAME__
#else
#define ZU_FILE_NAME (__builtin_strrchr("/" __FILE__, '/') + 1)
#endif

// The location of the line it stands on. Not for lambdas and templates, whose signature says
// nothing to a reader: hand them the location of the function that uses them.
#define ZU_HERE (FXCodeLocation{ZU_FILE_NAME, __PRETTY_FUNCTION__, __LINE__})

// One entry of an error's list. Items are immutable and shared between copies of an error.
class ZUUTILS_API FXErrorItem {
 public:
  explicit FXErrorItem(const FXCodeLocation& location) : m_location(location) {}
  virtual ~FXErrorItem();

  // "file:line, function", with what a derived item has to say behind it.
  virtual std::string AsString() const;
  virtual const FXCodeLocation& GetLocation() const;
  virtual boost::shared_ptr<FXErrorItem> Copy() const;

  // What the item says without its place: the part that AsString of the derived class adds, without
  // the separator in front (", ", "/" or a blank). Empty for an item that is a place alone; the
  // whole of AsString where a derived class does not begin with the place.
  std::string Message() const;

 private:
  FXCodeLocation m_location;
};

class [[nodiscard]] ZUUTILS_API CZuError {
 public:
  CZuError() noexcept = default;

  // A failure with this result code (see FXErrorUtil for the makers of codes) and one item.
  CZuError(int code, boost::shared_ptr<FXErrorItem> item);

  // Each adds one item on top and keeps the code; the result is this same error. A null item is
  // none.
  CZuError& Push(const FXCodeLocation& where);
  CZuError& Push(const FXCodeLocation& where, const char* fmt, ...)
      __attribute__((format(printf, 3, 4)));
  CZuError& Push(boost::shared_ptr<FXErrorItem> item);

  bool Is(int code) const { return m_hrErrorCode == code; }
  bool IsNot(int code) const { return m_hrErrorCode != code; }

  // For people: the code in hexadecimal and its kind, then one line an item, innermost first.
  std::string AsString() const;

  // For people, without file and function: the message of the innermost item that has one. Of a
  // failure without any message it is the code as AsString shows it; of a success it is empty.
  std::string Message() const;

  // For programs: the items, innermost first. They may be kept longer than the error.
  std::vector<boost::shared_ptr<const FXErrorItem>> GetItems() const;

  std::int32_t m_hrErrorCode = 0;  // 0 is success, a negative value a failure

 private:
  struct Private;
  boost::shared_ptr<Private> m_ptrPrivate;
};

inline bool Failed(const CZuError& error) { return error.m_hrErrorCode < 0; }

// Codes of the Windows system-error numbering that the product uses, for ErrorWin32.
constexpr unsigned kErrorNotEnoughMemory = 8;         // ERROR_NOT_ENOUGH_MEMORY
constexpr unsigned kErrorOutOfMemory = 14;            // ERROR_OUTOFMEMORY
constexpr unsigned kErrorInvalidArgument = 87;        // ERROR_INVALID_PARAMETER
constexpr unsigned kErrorNoMoreItems = 259;           // ERROR_NO_MORE_ITEMS
constexpr unsigned kErrorInvalidState = 774;          // bad state of a socket, set, file or library
constexpr unsigned kErrorEmpty = 4306;                // ERROR_EMPTY: a file without content
constexpr unsigned kErrorNotASocket = 10038;          // WSAENOTSOCK
constexpr unsigned kErrorNameCollision = 0xFFFFFFFE;  // a name that resolves to 127.0.53.53

// Codes of the transfer classes, for ErrorInt.
constexpr int kErrorBadInput = 1;        // bad argument, missing buffer, not initialised
constexpr int kErrorNotSupported = 101;  // operation type not supported, empty URL

// Makers and tests of failures, by where the number comes from. Every maker returns a negative
// code, whatever the number; where a formatted message is given it is part of the one item.
namespace FXErrorUtil {

// An errno value, or a resolver's code (EAI_*, negative). The system's own text is added.
ZUUTILS_API CZuError ErrorErrNo(const FXCodeLocation& where, int err);
ZUUTILS_API CZuError ErrorErrNo(const FXCodeLocation& where, int err, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

ZUUTILS_API CZuError ErrorWin32(const FXCodeLocation& where, unsigned code);
ZUUTILS_API CZuError ErrorWin32(const FXCodeLocation& where, unsigned code, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

ZUUTILS_API CZuError ErrorInt(const FXCodeLocation& where, int code, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

// A result of the product's own numbering, such as ZUPING_RESULT.
ZUUTILS_API CZuError ErrorKDResult(const FXCodeLocation& where, int result, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

// Whether the error was made from that number by the maker of the same name.
ZUUTILS_API bool IsErrNo(const CZuError& error, int err);
ZUUTILS_API bool IsWin32(const CZuError& error, unsigned code);
ZUUTILS_API bool IsInt(const CZuError& error, int code);
ZUUTILS_API bool IsKDResult(const CZuError& error, int result);

}  // namespace FXErrorUtil
