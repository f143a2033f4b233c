// The managers' one link to the control: each manager gets this in its
// constructor and fetches its collaborators and its event sink from it.
// Manager accessors record an assertion when the manager does not exist and
// return null all the same. There is deliberately no accessor for the audio
// manager: nothing reaches it through the site.
#pragma once

#include "control/EventSinks.h"

class CTestManager;
class CDebugLog;
class CGpioPins;
class CWatch;
class CHC08;
class CNVRAMBoard;
class CStoredParams;

struct IManagerSite
{
    virtual CTestManager* GetTestManager() = 0;
    virtual CDebugLog* GetDebugLog() = 0;
    virtual CGpioPins* GetGpio() = 0;
    virtual CWatch* GetWatch() = 0;
    virtual CHC08* GetHC08() = 0;
    virtual CNVRAMBoard* GetNVRAM() = 0;
    virtual CStoredParams* GetStoredParams() = 0;
    virtual IHC08EventSink* GetHC08EventSink() = 0;
    virtual IGpioEventSink* GetGpioEventSink() = 0;
    virtual IWatchEventSink* GetWatchEventSink() = 0;
    virtual IAudioEventSink* GetAudioEventSink() = 0;
    virtual ITestManagerEventSink* GetTestManagerEventSink() = 0;

protected:
    ~IManagerSite() = default;
};
