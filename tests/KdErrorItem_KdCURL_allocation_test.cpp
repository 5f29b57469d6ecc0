#include <cstdint>
#include <cstdlib>
#include <functional>
#include <new>

#include "ZuNetwork/KdErrorItem_KdCURL.h"
#include "support/Expect.h"
#include "support/Heap.h"

using KdCURL::ErrorKdCURL;
using KdCURL::PushKdCURL;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

constexpr FXCodeLocation kPlace{"Place.cpp", "void Place()", 12};
constexpr FXCodeLocation kOther{"Other.cpp", "void Other()", 34};

// Whether `body` ended by std::bad_alloc when it could have that many allocations.
bool RunsOutOfMemory(std::size_t available, const std::function<void()>& body) {
  const heap::Failing failing(heap::kNew, 0, SIZE_MAX, available);
  try {
    body();
  } catch (const std::bad_alloc&) {
    return true;
  }
  return false;
}

// Calls `attempt` with the numbers of available allocations from 0 on until it has enough, which
// its result tells; how many failed.
std::size_t CountFailures(const std::function<bool(std::size_t available)>& attempt) {
  constexpr std::size_t kMost = 50;
  for (std::size_t available = 0; available < kMost; ++available) {
    const std::ptrdiff_t alive = heap::Alive();
    const bool isEnough = attempt(available);
    EXPECT_EQ(heap::Alive(), alive) << "leaked with " << available << " allocations";
    if (isEnough) return available;
  }
  ADD_FAILURE() << "an allocation that failed was not told";
  return kMost;
}

CZuError Stack(int items) {
  CZuError error = ErrorKdCURL(kOther, 7);
  for (int i = 1; i < items; ++i) error.Push(kOther);
  return error;
}

const std::string kLong(1000, 'x');  // in no string's or formatter's own buffer

}  // namespace

TEST(KdErrorItemAllocation, AnErrorThatCannotBeBuiltIsThrownAndLeaksNothing) {
  const struct {
    const char* what;
    CZuError (*make)();
    const char* end;
  } rows[] = {
      {"plain", [] { return ErrorKdCURL(kPlace, 28); }, "/KdCURL.28.0x1C"},
      {"empty text", [] { return ErrorKdCURL(kPlace, 28, "%s", ""); }, "/KdCURL.28.0x1C-"},
      {"short", [] { return ErrorKdCURL(kPlace, 6, "host %s", "a"); }, "/KdCURL.6.0x6-host a"},
      {"long", [] { return ErrorKdCURL(kPlace, 6, "%s!", kLong.c_str()); }, "xxx!"},
  };
  for (const auto& [what, make, end] : rows) {
    SCOPED_TRACE(what);
    const auto& maker = make;
    const std::size_t failures = CountFailures([&maker, end = end](std::size_t available) {
      CZuError error;
      if (RunsOutOfMemory(available, [&] { error = maker(); })) {
        EXPECT_FALSE(Failed(error));
        return false;
      }
      EXPECT_THAT(error.AsString(), AllOf(HasSubstr("Place.cpp:12"), EndsWith(end)));
      return true;
    });
    EXPECT_GE(failures, 2u) << "the item and the stack of the error";
  }
}

TEST(KdErrorItemAllocation, APushThatFailsIsThrownAndLeavesTheError) {
  const struct {
    const char* what;
    void (*push)(CZuError&);
    const char* end;
  } pushes[] = {
      {"plain", [](CZuError& error) { PushKdCURL(error, kPlace, 28); }, "/KdCURL.28.0x1C"},
      {"short", [](CZuError& error) { PushKdCURL(error, kPlace, 6, "host %s", "a"); },
       "/KdCURL.6.0x6-host a"},
      {"long", [](CZuError& error) { PushKdCURL(error, kPlace, 6, "%s!", kLong.c_str()); }, "xxx!"},
  };
  // The stack of an error grows by itself at some of these.
  for (const int items : {1, 2, 3, 4, 5, 8, 9, 16}) {
    for (const bool isShared : {false, true}) {
      for (const auto& [what, push, end] : pushes) {
        SCOPED_TRACE(what + std::string(" on ") + std::to_string(items) +
                     (isShared ? " shared items" : " items"));
        const std::string before = Stack(items).AsString();
        const auto& pusher = push;
        const std::size_t failures = CountFailures([&, end = end](std::size_t available) {
          CZuError error = Stack(items);
          const CZuError copy = isShared ? error : CZuError();
          const bool hasFailed = RunsOutOfMemory(available, [&] { pusher(error); });
          if (isShared) {
            EXPECT_EQ(copy.AsString(), before);
          }
          if (hasFailed) {
            EXPECT_EQ(error.AsString(), before);
          } else {
            EXPECT_THAT(error.AsString(), AllOf(testing::StartsWith(before), EndsWith(end)));
          }
          return !hasFailed;
        });
        EXPECT_GE(failures, isShared ? 2u : 1u);
      }
    }
  }
}
