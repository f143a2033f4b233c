// The device's local clock.
//
// Everything that decides by the time of day (the session schedule, practice
// mode, the names of session files, the default "previous session" of a blank
// NVRAM) reads "now" through LocalClockNow. On the device that is the system's
// local time; a bench or test harness can put another clock in its place, so
// that the schedule can be driven to the instants that matter (the edge of a
// window, a daylight-saving change) without waiting for them.
#pragma once

#include <windows.h>

// A source of the current local time.
struct ILocalClock
{
    virtual void Now(SYSTEMTIME* local) = 0;

protected:
    ~ILocalClock() = default;
};

// The current local time, milliseconds included.
void LocalClockNow(SYSTEMTIME* local);

// Makes clock the source of LocalClockNow (null: the system's local time
// again) and returns the one it replaces. Host thread only.
ILocalClock* LocalClockInstall(ILocalClock* clock);
