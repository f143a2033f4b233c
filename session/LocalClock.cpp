#include "session/LocalClock.h"

namespace {

ILocalClock* g_clock = nullptr;

}  // namespace

void LocalClockNow(SYSTEMTIME* local)
{
    if (g_clock != nullptr)
        g_clock->Now(local);
    else
        GetLocalTime(local);
}

ILocalClock* LocalClockInstall(ILocalClock* clock)
{
    ILocalClock* previous = g_clock;
    g_clock = clock;
    return previous;
}
