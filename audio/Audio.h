// CAudio: the audio manager behind the control's recording and playback.
//
// Recording: the subject's voice goes into a ".wav" file of the running test
// (named by the test manager), stored at half the capture rate. With
// START_ON_VOLUME it waits for a half-second buffer whose loudest tenth of a
// second is louder than RecAvgVolumeStart and keeps the half second before
// it; with STOP_ON_VOLUME it ends two buffers after one whose quietest tenth
// of a second is quieter than RecAvgVolumeStop. Loudness and the recorded
// time go to the script twice a second. Playback plays a wave file through
// the output device and says when it has ended.
//
// Everything runs on the host thread: the streams' device notices come
// through their hidden windows (see CAudioStream).
#pragma once

#include <windows.h>
#include <mmsystem.h>

#include "audio/AudioStream.h"
#include "control/EventSinks.h"
#include "control/ManagerSite.h"

class CDebugLog;
class CTestManager;
class CWaveFile;

// AudioRecord's flags.
constexpr short START_ON_VOLUME = 1;
constexpr short STOP_ON_VOLUME = 2;
constexpr short DONT_STORE = 4;

// End causes of AudioRecordEnded and AudioPlayEnded.
constexpr short kAudioCompleted = 0;
constexpr short kAudioCancelled = 103;

class CAudio : public IAudioPlayCallback, public IAudioRecordCallback
{
public:
    // Driver-private messages to the wave-input driver that read and write
    // a register of the audio codec.
    static constexpr UINT kCodecRead = 1035;
    static constexpr UINT kCodecWrite = 1034;

    CAudio(HINSTANCE instance, IManagerSite* site);
    virtual ~CAudio();

    CAudio(const CAudio&) = delete;
    CAudio& operator=(const CAudio&) = delete;

    // Collaborators from the site, then the output and input streams.
    BOOL Init();

    // RecFormat: the capture format is taken from a wave file.
    BOOL SetRecFormatFromFile(const wchar_t* name);
    const wchar_t* RecFormatFile() const { return m_recFormatFile; }
    BOOL SetRecordFormat(const WAVEFORMATEX* pFormat);
    const WAVEFORMATEX* CaptureFormat() const { return m_pCaptureFormat; }
    const WAVEFORMATEX* FileFormat() const { return m_pFileFormat; }

    BOOL SetRecStartTimeoutS(short seconds);
    short RecStartTimeoutS() const { return m_recStartTimeoutS; }
    BOOL SetRecAvgVolumeStart(short volume);
    short RecAvgVolumeStart() const { return m_recAvgVolumeStart; }
    BOOL SetRecAvgVolumeStop(short volume);
    short RecAvgVolumeStop() const { return m_recAvgVolumeStop; }

    BOOL Record(short recordFlags, short maxSeconds);
    void EndRecording(BOOL completed);
    bool Recording() const;

    BOOL Play(const wchar_t* fileName);
    void EndPlay(BOOL completed);
    bool Playing() const;

    // The smallest and largest average of |sample| over consecutive windows
    // of windowSamples in a recorded buffer (16-bit mono only).
    BOOL FindPowerMinMax(CAudioBuffer* pBuffer, DWORD windowSamples, WORD* pMin, WORD* pMax);
    // The script's loudness of a window average: 6 or 7 points a doubling,
    // 0 for silence, 93 for full scale.
    static short Loudness(WORD maxAverage);

    // IAudioPlayCallback
    void P_FillBuffer(CAudioBuffer* pBuffer) override;
    void P_PlayFinished() override;
    // IAudioRecordCallback
    void R_EmptyBuffer(CAudioBuffer* pBuffer) override;

private:
    void AdjustCodec(UINT reg, DWORD clear, DWORD set);
    bool StartCodecAndRecording();
    DWORD FrameBytes() const;
    bool StorePreroll();
    void FailRecord(wchar_t* fileName);

    HINSTANCE m_hInstance;
    IManagerSite* m_pSite;
    IAudioEventSink* m_pSink;
    CTestManager* m_pTestManager;
    CDebugLog* m_pDebugLog;

    CWaveFile* m_pPlayFile;
    CAudioStream* m_pOutput;
    WAVEFORMATEX* m_pPlayFormat;

    wchar_t* m_recFormatFile;
    WAVEFORMATEX* m_pCaptureFormat;
    WAVEFORMATEX* m_pFileFormat;
    DWORD m_fracSecAvg;
    short m_recStartTimeoutS;
    WORD m_recordFlags;
    short m_maxSeconds;
    short m_recAvgVolumeStart;
    short m_recAvgVolumeStop;

    CWaveFile* m_pRecordFile;
    CAudioStream* m_pInput;
    DWORD m_samplesCounted;
    DWORD m_startState;
    short m_stopCountdown;
    BYTE* m_pPreroll;
    DWORD m_prerollBytes;
    DWORD m_prerollCapacity;
};
