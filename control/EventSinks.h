// The control's internal event sinks. Managers call these on the host thread;
// each operation fires the script event of the same name. They carry no COM
// identity and are never reference counted: the control outlives the managers.
#pragma once

class CHC08;
class CGpioPins;

struct IHC08EventSink
{
    virtual void Attach(CHC08* pHC08) = 0;
    virtual void TimerGo(long ticksAtGo) = 0;
    virtual void TimerRollover() = 0;
    virtual void DigitoLeftDownward(long ticksSinceGo, long bDeltaTicks) = 0;
    virtual void DigitoLeftUpward(long ticksSinceGo, long bDeltaTicks) = 0;
    virtual void DigitoRightDownward(long ticksSinceGo, long bDeltaTicks) = 0;
    virtual void DigitoRightUpward(long ticksSinceGo, long bDeltaTicks) = 0;
    virtual void CapsitLeftDown(long ticksSinceGo) = 0;
    virtual void CapsitLeftUp(long ticksSinceGo) = 0;
    virtual void CapsitRightDown(long ticksSinceGo) = 0;
    virtual void CapsitRightUp(long ticksSinceGo) = 0;
    virtual void PegsMap(long ticksSinceGo, short pegsInLeft, short pegsInRight) = 0;
    virtual void HC08Reset(short hc08Rev, short hc08Build, short resetSource, long tickHz,
                           short postResult) = 0;

protected:
    ~IHC08EventSink() = default;
};

struct IGpioEventSink
{
    virtual void Attach(CGpioPins* pGpio) = 0;
    virtual void BlinkEnded(short ledID) = 0;
    virtual void TimerEnded(short endCauseID, short timerID) = 0;
    virtual void LidMoved(bool isOpen) = 0;
    virtual long DataStoreVisible(short isVisible) = 0;

protected:
    ~IGpioEventSink() = default;
};

struct IWatchEventSink
{
    virtual void WatchVisible(bool isVisible) = 0;
    virtual long WatchParametersRead(short endCauseID) = 0;
    virtual void WatchSaveProgress(short percent) = 0;
    virtual void WatchSaveEnded(short endCauseID) = 0;
    virtual void WatchDataDestroyEnded(short endCauseID) = 0;

protected:
    ~IWatchEventSink() = default;
};

struct IAudioEventSink
{
    virtual void AudioPlayEnded(short endCauseID) = 0;
    virtual void AudioRecordEnded(short endCauseID) = 0;
    virtual void AudioRecordProgress(short maxVolume, short secondsRecorded) = 0;

protected:
    ~IAudioEventSink() = default;
};

struct ITestManagerEventSink
{
    virtual long SessionEnded(short endCauseID) = 0;
    virtual void ActivityEnded(short causeID, short testID) = 0;

protected:
    ~ITestManagerEventSink() = default;
};
