#pragma once

#include "ZuUtils/ZuUtilsExport.h"

// Sleeps for `ms` milliseconds and tells the sleep hook who asked for it.
#define ZUSLEEP(ms) ZUSLEEP_InTeRnAl((ms), __FILE__, __LINE__)

// What the sleep hook is told.
struct ZuSleepCallBackStruct {
  int nMilliseconds;
  const char* pFile;  // of the caller; may be null
  int nLine;
};

using ZuSleepCallBack = void (*)(const ZuSleepCallBackStruct& sleep);

extern "C" {

// Suspends the calling thread for `milliseconds`, by the monotonic clock; a signal does not shorten
// it. Values below 1 return at once. The hook, if any, is called first, on the calling thread.
ZUUTILS_API void ZUSLEEP_InTeRnAl(int milliseconds, const char* file, int line);

// Installs the hook that is told of every sleep of the process; null removes it. Returns the hook
// that it replaces. May be called from any thread.
ZUUTILS_API ZuSleepCallBack ZuSetSleepCallBack(ZuSleepCallBack callBack);
}
