#include "watch/WatchDestroySteps.h"

#include <cwchar>

namespace {

constexpr int kChars = sizeof(WatchDestroyStep::command) / sizeof(wchar_t);

// The watch's recording parameters, sent unchanged.
constexpr BYTE kThirteenParms[13] = {0x14, 0xFF, 0x15, 0x02, 0x09, 0x01, 0x00,
                                     0x06, 0x00, 0x10, 0x40, 0x03, 0x06};

}  // namespace

void MakeWatchSetupSteps(const SYSTEMTIME& start, const BYTE* name, DWORD nameBytes,
                         WatchDestroyStep steps[kWatchSetupSteps])
{
    WatchDestroyStep* s = steps;

    swprintf(s->command, kChars, L"%ls", L"***B");
    for (DWORD i = 0; i < nameBytes && i < kWatchMaxNameBytes; ++i) {
        size_t used = wcslen(s->command);
        swprintf(s->command + used, kChars - used, L"%02X", name[i]);
    }
    s->failure = L"ExecuteWatchDestroySequence: set identity failed.\r\n";
    ++s;

    swprintf(s->command, kChars, L"%ls%02d%02d%02d", L"***D", start.wDay, start.wMonth, start.wYear % 100);
    s->failure = L"ExecuteWatchDestroySequence: set date failed.\r\n";
    ++s;

    swprintf(s->command, kChars, L"%ls%02d%02d", L"***E", start.wHour, start.wMinute);
    s->failure = L"ExecuteWatchDestroySequence: set time failed.\r\n";
    ++s;

    swprintf(s->command, kChars, L"%ls%02X031E", L"***A", 2);
    s->failure = L"ExecuteWatchDestroySequence: set analysis period failed.\r\n";
    ++s;

    swprintf(s->command, kChars, L"%ls1E", L"***S");
    s->failure = L"ExecuteWatchDestroySequence: set G-limit failed.\r\n";
    ++s;

    const BYTE* p = kThirteenParms;
    swprintf(s->command, kChars, L"%ls%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X", L"***Q",
             p[0], p[1], p[2], p[3], p[4], p[5], p[6], p[7], p[8], p[9], p[10], p[11], p[12]);
    s->failure = L"ExecuteWatchDestroySequence: set the 13 parameters failed.\r\n";
    ++s;

    swprintf(s->command, kChars, L"%ls02", L"***I");
    s->failure = L"ExecuteWatchDestroySequence: set Analog Threshold failed.\r\n";
    ++s;

    swprintf(s->command, kChars, L"%ls", L"***GU");
    s->failure = L"ExecuteWatchDestroySequence: restart data acq failed.\r\n";
}

ULONGLONG WatchSecondsToStart(ULONGLONG start, ULONGLONG now)
{
    return (start - now + 50000000ULL) / 10000000ULL;
}

void MakeWatchLogPointerStep(ULONGLONG seconds, bool fixedPointer, WatchDestroyStep* step)
{
    if (fixedPointer)
        swprintf(step->command, kChars, L"%ls01F000", L"***H");
    else
        swprintf(step->command, kChars, L"%ls%06X", L"***H",
                 static_cast<unsigned>((128ULL - seconds / 2) & 0xFFFFFFULL));
    step->failure = L"ExecuteWatchDestroySequence: set logptr failed.\r\n";
}
