#include "diag/DebugLog.h"

CDebugLog::~CDebugLog() = default;

void CDebugLog::Write(const wchar_t* message)
{
    // Deliberately empty: the device keeps no debug log of the script's messages.
    (void)message;
}
