// The class on top of plain functions that fail as the library's own never do: its source is built
// into this program, since calls inside the library cannot be replaced.

#include "ZuNetwork/ZuFdset.h"

#include <string>

#include "support/Expect.h"
#include "support/SystemFunction.h"

namespace {

using SetFunction = int(KDSOCKET, kdfdset*);
using AllocFunction = int(int, kdfdset*);

SystemFunction<AllocFunction> gAlloc{"kdfdset_alloc"};
SystemFunction<SetFunction> gSet{"kdfdset_set"};
SystemFunction<SetFunction> gClr{"kdfdset_clr"};

}  // namespace

int kdfdset_alloc(int max_sock_cnt, kdfdset* s) { return gAlloc(max_sock_cnt, s); }
int kdfdset_set(KDSOCKET fd, kdfdset* s) { return gSet(fd, s); }
int kdfdset_clr(KDSOCKET fd, kdfdset* s) { return gClr(fd, s); }

namespace {

struct OpenSet : ZuFdset {
  using ZuFdset::isInitialize;
};

struct Operation {
  const char* signature;
  CZuError (ZuFdset::*call)(KDSOCKET);
  SystemFunction<SetFunction>& function;
  const char* unknown;  // what is said of a result without a meaning
};

const Operation kOperations[] = {
    {"ZuFdset::set(KDSOCKET)", &ZuFdset::set, gSet, "Unknown error %d setting fd in fd set"},
    {"ZuFdset::clr(KDSOCKET)", &ZuFdset::clr, gClr, "Unknown error %d clearing fd in fd set"}};

std::string WithNumber(std::string text, int number) {
  return text.replace(text.find("%d"), 2, std::to_string(number));
}

TEST(ZuFdsetFailures, FailedInitLeavesTheSetUnused) {
  for (const int result : {-1, 1}) {
    OpenSet set;
    ASSERT_OK(set.set(9));
    const Replacement<AllocFunction> fail(gAlloc, [result](int, kdfdset*) { return result; });
    EXPECT_FAILS(set.init(), Win32Code(14), "Error allocating fdset");
    EXPECT_FAILS(set.init(), Win32Code(14), "ZuFdset::init()");
    EXPECT_FALSE(set.isInitialize);
  }
}

TEST(ZuFdsetFailures, FailedInitIsReportedByTheOperationThatNeededIt) {
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.signature);
    OpenSet set;
    int calls = 0;
    const Replacement<SetFunction> count(operation.function, [&](KDSOCKET, kdfdset*) {
      ++calls;
      return 0;
    });
    {
      const Replacement<AllocFunction> fail(gAlloc, [](int, kdfdset*) { return -1; });
      const CZuError error = (set.*operation.call)(9);
      EXPECT_FAILS(error, Win32Code(14), "Error allocating fdset");
      const std::string text = error.AsString();
      const std::size_t inner = text.find("ZuFdset::init()");
      ASSERT_NE(inner, std::string::npos) << text;
      EXPECT_NE(text.find(operation.signature, inner), std::string::npos) << text;
    }
    EXPECT_EQ(calls, 0);
    EXPECT_FALSE(set.isInitialize);
    EXPECT_OK((set.*operation.call)(9));  // as soon as there is room
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(set.isInitialize);
  }
}

TEST(ZuFdsetFailures, ResultWithoutAMeaningIsNamed) {
  for (const Operation& operation : kOperations) {
    for (const int result : {1, 2, -3, -2147483647 - 1}) {
      SCOPED_TRACE(WithNumber(operation.unknown, result));
      ZuFdset set;
      const Replacement<SetFunction> fail(operation.function,
                                          [result](KDSOCKET, kdfdset*) { return result; });
      EXPECT_FAILS((set.*operation.call)(9), Win32Code(774),
                   WithNumber(operation.unknown, result).c_str());
      EXPECT_FAILS((set.*operation.call)(9), Win32Code(774), operation.signature);
    }
  }
}

}  // namespace
