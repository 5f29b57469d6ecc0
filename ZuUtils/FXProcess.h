#pragma once

#include <string>

#include "ZuUtils/TimeStamp.h"
#include "ZuUtils/ZuUtilsExport.h"

// A description of a process, by default of the calling one.
class ZUUTILS_API FXProcess {
 public:
  // `processId` below 1 means the calling process. `name` may be null. `isSystem` marks a process
  // of the system itself (a daemon, a kernel thread). All but the id is kept as it is given.
  explicit FXProcess(long long processId = 0, CTimeStamp startTime = CTimeStamp(),
                     const char* name = nullptr, bool isSystem = false);

  long long getProcessId() const { return m_processId; }
  CTimeStamp getStartTime() const { return m_startTime; }
  const std::string& getName() const { return m_name; }
  bool isSystem() const { return m_isSystem; }

 private:
  long long m_processId;
  CTimeStamp m_startTime;
  std::string m_name;
  bool m_isSystem;
};
