// The session schedule query, as a UI script polls it (InSessionWindow,
// GetNextSessionStart): its cost grows with the number of slots since the
// first session, so it is measured for studies of different ages.
//
//   scripts/bench            (runs every benchmark)
#include <windows.h>
#include <ole2.h>

#include <cstdio>
#include <string>

#include "control/Brennock.h"
#include "control/Module.h"
#include "session/LocalClock.h"
#include "session/StoredParams.h"
#include "session/TestManager.h"

namespace {

// The clock stands at 10:00 on the first session's weekday, years later.
class FixedClock final : public ILocalClock
{
public:
    SYSTEMTIME now = {};
    void Now(SYSTEMTIME* local) override { *local = now; }
};

bool WriteParams(int intervalDays)
{
    CreateDirectoryW(L"\\Hard Disk", nullptr);
    const std::string text = "FirstSessionDateTime=Mon 02 Feb 2004 09:00:00\r\nSessionWindowHours=2\r\n"
                             "EndPracticeDate=Thu 01 Jan 2004\r\nRealTestIntervalDays=" +
                             std::to_string(intervalDays) +
                             "\r\nPracticeTestIntervalDays=1\r\nMakeupDays=2\r\nMinFreeSpaceMB=10\r\nDebug=0\r\n";
    HANDLE h = CreateFileW(L"\\Hard Disk\\params.txt", GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    const bool ok = h != INVALID_HANDLE_VALUE && WriteFile(h, text.data(), (DWORD)text.size(), &written, nullptr);
    if (h != INVALID_HANDLE_VALUE)
        CloseHandle(h);
    return ok;
}

void Measure(int years, int intervalDays, FixedClock& clock)
{
    ScriptToSystemDateTime(L"Mon 02 Feb 2004 10:00:00", &clock.now);
    clock.now.wYear = static_cast<WORD>(2004 + years);
    if (!WriteParams(intervalDays))
        return;
    IBrennock* control = nullptr;
    CBrennock::CreateInstance(nullptr, IID_IBrennock, reinterpret_cast<void**>(&control));
    short ok = 0;
    control->Open(&ok);
    CTestManager* manager = static_cast<CBrennock*>(control)->GetTestManager();
    if (ok != 1 || manager == nullptr) {
        printf("could not open the control\n");
        return;
    }

    LARGE_INTEGER f, a, b;
    QueryPerformanceFrequency(&f);
    SYSTEMTIME start, end;
    bool inWindow = false;
    double best = 1e9;
    for (int run = 0; run < 3; ++run) {
        int calls = 0;
        QueryPerformanceCounter(&a);
        do {
            manager->GetNextSessionBounds(&start, &end, &inWindow);
            ++calls;
            QueryPerformanceCounter(&b);
        } while (b.QuadPart - a.QuadPart < f.QuadPart / 4);
        const double us = 1e6 * static_cast<double>(b.QuadPart - a.QuadPart) / f.QuadPart / calls;
        best = us < best ? us : best;
    }
    const int slots = years * 365 / intervalDays;
    printf("| %2d | %d | %6d | %6.1f |\n", years, intervalDays, slots, best);
    control->Close();
    control->Release();
}

}  // namespace

int main()
{
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    BrennockModule::Init(GetModuleHandleW(nullptr));
    FixedClock clock;
    LocalClockInstall(&clock);
    printf("| study age (years) | interval (days) | slots walked | us per query |\n|---|---|---|---|\n");
    for (int years : {1, 5, 20}) {
        Measure(years, 7, clock);
        Measure(years, 1, clock);
    }
    LocalClockInstall(nullptr);
    CoUninitialize();
    return 0;
}
