#pragma once

#include "ZuUtils/ZuError.h"

// KdProtocolReq has several sources, by subject. All of them name the file of the class in their
// errors, by which logs and programs know it; the function's signature tells which source it is.
#undef ZU_HERE
#define ZU_HERE (FXCodeLocation{"KdProtocolReq.cpp", __PRETTY_FUNCTION__, __LINE__})
