#include "ZuUtils/FXProcess.h"

#include <unistd.h>

FXProcess::FXProcess(long long processId, CTimeStamp startTime, const char* name, bool isSystem)
    : m_processId(processId < 1 ? getpid() : processId),
      m_startTime(startTime),
      m_name(name == nullptr ? "" : name),
      m_isSystem(isSystem) {}
