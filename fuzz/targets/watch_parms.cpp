// The watch's parameter reply ("***C") as the control keeps it.
#include <cstdint>
#include <cwchar>

#include "watch/WatchParms.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    WatchParms parms;
    const wchar_t* failure = nullptr;
    if (ParseWatchParms(data, static_cast<DWORD>(size), &parms, &failure)) {
        if (parms.samplesRecorded < 0 || parms.text == nullptr)
            __builtin_trap();
        volatile size_t length = wcslen(parms.text);
        (void)length;
        delete[] parms.text;
    } else if (failure == nullptr || parms.text != nullptr) {
        __builtin_trap();
    }
    return 0;
}
