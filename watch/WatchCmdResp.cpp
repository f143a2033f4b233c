#include "watch/WatchCmdResp.h"

#include <objbase.h>

#include <cstring>

#include "diag/Assert.h"
#include "diag/DebugOut.h"

WatchCmdResp* MakeWatchCmdResp(short cmdRespID, bool success, DWORD size, const void* data)
{
    if (size != 0 && data == nullptr) {
        ASSERT(false);
        DebugOut(L"ERROR: MakeWatchCmdResp: non-zero sized null pBlk.\r\n");
        return nullptr;
    }
    if (cmdRespID < kWatchCmdReadParms || cmdRespID > kWatchRespDestroyEnded) {
        ASSERT(false);
        DebugOut(L"ERROR: MakeWatchCmdResp: unknown cmdRespID.\r\n");
        return nullptr;
    }
    auto* record = static_cast<WatchCmdResp*>(CoTaskMemAlloc(sizeof(WatchCmdResp) + size));
    if (record == nullptr) {
        ASSERT(false);
        DebugOut(L"ERROR: MakeWatchCmdResp: new WatchCmdResp failed.\r\n");
        return nullptr;
    }
    record->next = nullptr;
    record->cmdRespID = cmdRespID;
    record->success = success ? 1 : 0;
    record->size = size;
    if (size != 0)
        memcpy(record->Data(), data, size);
    return record;
}

void FreeWatchCmdResp(WatchCmdResp* record)
{
    CoTaskMemFree(record);
}
