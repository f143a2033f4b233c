#include "panel/TickCount.h"

#include <mmsystem.h>

namespace {
volatile LONG g_shift = 0;
}

DWORD GpioTickCount()
{
    return timeGetTime() + static_cast<DWORD>(g_shift);
}

void GpioTickCountShift(DWORD ms)
{
    InterlockedExchange(&g_shift, static_cast<LONG>(ms));
}
