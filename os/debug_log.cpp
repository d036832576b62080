#include "os/debug_log.h"

ULONG DebugLogMask = DEBUG_LOG_MASK_DEFAULT;
