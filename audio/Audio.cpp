#include "audio/Audio.h"

#include <cstring>
#include <new>

#include "audio/WaveFile.h"
#include "diag/Assert.h"
#include "diag/DebugOut.h"
#include "session/TestManager.h"

namespace {

constexpr short kDefaultStartTimeoutS = 10;
constexpr short kDefaultVolumeStart = 200;
constexpr short kDefaultVolumeStop = 150;
constexpr DWORD kSmallestWindow = 25;
constexpr DWORD kInputBuffers = 4;
constexpr DWORD kOutputBuffers = 2;
// Start states of a recording.
constexpr DWORD kStoring = 0;
constexpr DWORD kWaiting = 1;
constexpr DWORD kFirstBuffer = 2;
// Buffers stored after the quiet one, that one included.
constexpr short kStopBuffers = 3;

}  // namespace

CAudio::CAudio(HINSTANCE instance, IManagerSite* site)
    : m_hInstance(instance),
      m_pSite(site),
      m_pSink(nullptr),
      m_pTestManager(nullptr),
      m_pDebugLog(nullptr),
      m_pPlayFile(nullptr),
      m_pOutput(nullptr),
      m_pPlayFormat(nullptr),
      m_recFormatFile(nullptr),
      m_pCaptureFormat(nullptr),
      m_pFileFormat(nullptr),
      m_fracSecAvg(0),
      m_recStartTimeoutS(kDefaultStartTimeoutS),
      m_recordFlags(0),
      m_maxSeconds(0),
      m_recAvgVolumeStart(kDefaultVolumeStart),
      m_recAvgVolumeStop(kDefaultVolumeStop),
      m_pRecordFile(nullptr),
      m_pInput(nullptr),
      m_samplesCounted(0),
      m_startState(kStoring),
      m_stopCountdown(0),
      m_pPreroll(nullptr),
      m_prerollBytes(0),
      m_prerollCapacity(0)
{
    ASSERT(site != nullptr);
}

CAudio::~CAudio()
{
    // No events from here: the streams stop without their callbacks, and a
    // recording's file is finished so that what was stored stays readable.
    delete m_pInput;
    delete m_pOutput;
    if (m_pRecordFile != nullptr)
        m_pRecordFile->Close();
    delete m_pRecordFile;
    delete m_pPlayFile;
    CWaveFile::FreeFormat(m_pPlayFormat);
    CWaveFile::FreeFormat(m_pCaptureFormat);
    CWaveFile::FreeFormat(m_pFileFormat);
    delete[] m_recFormatFile;
    delete[] m_pPreroll;
}

BOOL CAudio::Init()
{
    if (m_pOutput != nullptr || m_pInput != nullptr) {
        ASSERT(false);
        return 0;
    }
    if (m_pSite != nullptr) {
        m_pSink = m_pSite->GetAudioEventSink();
        m_pTestManager = m_pSite->GetTestManager();
        m_pDebugLog = m_pSite->GetDebugLog();
    }
    ASSERT(m_pSink != nullptr);
    ASSERT(m_pTestManager != nullptr);
    ASSERT(m_pDebugLog != nullptr);

    m_pOutput = new (std::nothrow) CAudioStream(m_hInstance);
    bool ok = m_pOutput != nullptr && m_pOutput->Init();
    if (ok) {
        m_pInput = new (std::nothrow) CAudioStream(m_hInstance);
        ok = m_pInput != nullptr && m_pInput->Init();
    }
    if (!ok) {
        delete m_pOutput;
        delete m_pInput;
        m_pOutput = nullptr;
        m_pInput = nullptr;
        return 0;
    }
    return 1;
}

bool CAudio::Recording() const
{
    return m_pInput != nullptr && m_pInput->IsOpen();
}

bool CAudio::Playing() const
{
    return m_pOutput != nullptr && m_pOutput->IsOpen();
}

// ---------------------------------------------------------------------------
// Settings

BOOL CAudio::SetRecFormatFromFile(const wchar_t* name)
{
    if (name == nullptr || m_pTestManager == nullptr)
        return 0;
    wchar_t* path = m_pTestManager->MakeFullPath(name);
    if (path == nullptr)
        return 0;
    CWaveFile file;
    WAVEFORMATEX* format = nullptr;
    if (!file.Open(path, &format)) {
        delete[] path;
        return 0;
    }
    file.Close();
    const BOOL ok = SetRecordFormat(format);
    CWaveFile::FreeFormat(format);
    if (!ok) {
        delete[] path;
        return 0;
    }
    delete[] m_recFormatFile;
    m_recFormatFile = path;
    return 1;
}

BOOL CAudio::SetRecordFormat(const WAVEFORMATEX* pFormat)
{
    if (pFormat == nullptr || Recording())
        return 0;
    const DWORD window = pFormat->nSamplesPerSec / 10;
    if (window < kSmallestWindow) {
        DebugOut(L"FRACSEC_AVG too small for this speed.\r\n");
        return 0;
    }
    WAVEFORMATEX* capture = CWaveFile::CopyFormat(pFormat);
    WAVEFORMATEX* file = CWaveFile::CopyFormat(pFormat);
    if (capture == nullptr || file == nullptr) {
        CWaveFile::FreeFormat(capture);
        CWaveFile::FreeFormat(file);
        return 0;
    }
    // Recordings are stored at half the capture rate.
    file->nSamplesPerSec = pFormat->nSamplesPerSec / 2;
    file->nAvgBytesPerSec = file->nBlockAlign * file->nSamplesPerSec;
    CWaveFile::FreeFormat(m_pCaptureFormat);
    CWaveFile::FreeFormat(m_pFileFormat);
    m_pCaptureFormat = capture;
    m_pFileFormat = file;
    m_fracSecAvg = window;
    return 1;
}

BOOL CAudio::SetRecStartTimeoutS(short seconds)
{
    if (seconds < 1) {
        DebugOut(L"SetRecStartTimeoutS - timeout < 1\r\n");
        return 0;
    }
    if (Recording())
        return 0;
    m_recStartTimeoutS = seconds;
    return 1;
}

BOOL CAudio::SetRecAvgVolumeStart(short volume)
{
    m_recAvgVolumeStart = volume;
    return 1;
}

BOOL CAudio::SetRecAvgVolumeStop(short volume)
{
    m_recAvgVolumeStop = volume;
    return 1;
}

// ---------------------------------------------------------------------------
// Recording

DWORD CAudio::FrameBytes() const
{
    return m_pCaptureFormat->wBitsPerSample * m_pCaptureFormat->nChannels / 8;
}

void CAudio::AdjustCodec(UINT reg, DWORD clear, DWORD set)
{
    DWORD value = 0xFFFFFFFF;
    // The register messages go to the wave-input driver itself: no device
    // handle. A driver without the codec refuses them; recording goes on.
    if (waveInMessage(nullptr, kCodecRead, reg, reinterpret_cast<DWORD_PTR>(&value)) != MMSYSERR_NOERROR)
        ASSERT(false);
    value = (value & ~clear) | set;
    if (waveInMessage(nullptr, kCodecWrite, reg, value) != MMSYSERR_NOERROR)
        ASSERT(false);
}

bool CAudio::StartCodecAndRecording()
{
    AdjustCodec(20, 0x0040, 0);
    AdjustCodec(34, 0x0C00, 0x0400);
    if (!m_pInput->StartRecord(this))
        return false;
    AdjustCodec(18, 0x7F00, 0x0200);
    return true;
}

void CAudio::FailRecord(wchar_t* fileName)
{
    // A refused recording leaves no file behind.
    if (m_pRecordFile != nullptr) {
        m_pRecordFile->Close();
        delete m_pRecordFile;
        m_pRecordFile = nullptr;
        if (fileName != nullptr)
            DeleteFileW(fileName);
    }
    delete[] fileName;
    m_pInput->Close();
}

BOOL CAudio::Record(short recordFlags, short maxSeconds)
{
    if (m_pInput == nullptr) {
        ASSERT(false);
        return 0;
    }
    if (m_pInput->IsOpen() || m_pCaptureFormat == nullptr)
        return 0;
    if (m_pFileFormat == nullptr) {
        ASSERT(false);
        return 0;
    }
    if (maxSeconds <= 0)
        return 0;
    if ((recordFlags & DONT_STORE) && (recordFlags & START_ON_VOLUME)) {
        DebugOut(L"ERROR: DONT_STORE combined with START/STOP ON VOLUME\r\n.");
        return 0;
    }
    m_recordFlags = static_cast<WORD>(recordFlags);
    m_maxSeconds = maxSeconds;

    wchar_t* fileName = nullptr;
    if (!(m_recordFlags & DONT_STORE)) {
        if (m_pTestManager == nullptr || !m_pTestManager->ActivityRunning()) {
            DebugOut(L"ERROR: Record: not running a test activity.\r\n");
            return 0;
        }
        fileName = m_pTestManager->MakeTempFilename(nullptr, L".wav");
        if (fileName == nullptr) {
            ASSERT(false);
            return 0;
        }
        m_pRecordFile = new (std::nothrow) CWaveFile();
        if (m_pRecordFile == nullptr) {
            DebugOut(L"new CWaveFile failed.\r\n");
            delete[] fileName;
            return 0;
        }
        if (!m_pRecordFile->Create(fileName, m_pFileFormat)) {
            CWaveFile::PrintFileError(L"File open failed: ", fileName);
            delete m_pRecordFile;
            m_pRecordFile = nullptr;
            delete[] fileName;
            return 0;
        }
    }

    m_startState = (m_recordFlags & START_ON_VOLUME) ? kFirstBuffer : kStoring;
    delete[] m_pPreroll;
    m_pPreroll = nullptr;
    m_prerollBytes = 0;
    m_prerollCapacity = 0;
    m_samplesCounted = 0;
    m_stopCountdown = 0;

    // Four buffers of half a second each.
    if (!m_pInput->Open(CAudioStream::kInput, m_pCaptureFormat, kInputBuffers,
                        m_pCaptureFormat->nSamplesPerSec / 2) ||
        !StartCodecAndRecording()) {
        FailRecord(fileName);
        return 0;
    }
    delete[] fileName;
    return 1;
}

BOOL CAudio::FindPowerMinMax(CAudioBuffer* pBuffer, DWORD windowSamples, WORD* pMin, WORD* pMax)
{
    if (m_pCaptureFormat == nullptr || m_pCaptureFormat->wBitsPerSample != 16 ||
        m_pCaptureFormat->nChannels != 1) {
        ASSERT(false);
        DebugOut(L"FindPowerMinMax: sample != 16 bits or nChannels != 1.\r\n");
        return 0;
    }
    const DWORD n = pBuffer->Header()->dwBytesRecorded / 2;
    if (windowSamples > n) {
        *pMin = *pMax = 0;
        return 1;
    }
    if (n == 0 || windowSamples == 0) {
        *pMin = 32767;
        *pMax = 0;
        return 1;
    }
    const short* samples = reinterpret_cast<const short*>(pBuffer->Data());
    WORD least = 32767;
    WORD most = 0;
    DWORD start = 0;
    bool last = false;
    for (;;) {
        // A window that straddles the recorded end still spans a whole
        // window; the buffer's zeroed tail makes up the rest.
        const short* s = samples + start;
        ULONGLONG sum = 0;
        for (DWORD i = 0; i < windowSamples; ++i)
            sum += s[i] < 0 ? -static_cast<LONG>(s[i]) : s[i];
        const WORD average = static_cast<WORD>(sum / windowSamples);
        if (average < least)
            least = average;
        if (average > most)
            most = average;
        if (last)
            break;
        start += windowSamples;
        if (start > n - 1) {
            start = n - windowSamples;
            last = true;
        }
    }
    *pMin = least;
    *pMax = most;
    return 1;
}

short CAudio::Loudness(WORD maxAverage)
{
    const DWORD value = static_cast<DWORD>(maxAverage) + 1;
    int bit = 16;
    while (bit > 0 && !(value & (1UL << bit)))
        --bit;
    return static_cast<short>((bit * 100) / 16);
}

bool CAudio::StorePreroll()
{
    if (m_prerollBytes == 0 || (m_recordFlags & DONT_STORE) || m_pRecordFile == nullptr)
        return true;
    return m_pRecordFile->WriteDecimated(m_pCaptureFormat, m_pPreroll, m_prerollBytes) != 0;
}

void CAudio::R_EmptyBuffer(CAudioBuffer* pBuffer)
{
    WAVEHDR* header = pBuffer->Header();
    if (m_pPreroll == nullptr) {
        ASSERT(pBuffer->Capacity() != 0);
        m_pPreroll = new (std::nothrow) BYTE[pBuffer->Capacity() > 0 ? pBuffer->Capacity() : 1];
        m_prerollCapacity = pBuffer->Capacity();
        m_prerollBytes = 0;
        if (m_pPreroll == nullptr) {
            DebugOut(L"ERROR: R_EmptyBuffer:out of memory for preroll.\r\n");
            EndRecording(0);
            return;
        }
    }

    WORD least = 0;
    WORD most = 0;
    if (!FindPowerMinMax(pBuffer, m_fracSecAvg, &least, &most))
        least = most = 0;

    if (m_startState >= kFirstBuffer) {
        --m_startState;
    } else if (m_startState == kWaiting) {
        ASSERT(m_recordFlags & START_ON_VOLUME);
        if (static_cast<LONG>(most) > m_recAvgVolumeStart) {
            m_startState = kStoring;
            if (!StorePreroll()) {
                EndRecording(0);
                return;
            }
            m_samplesCounted = m_prerollBytes / FrameBytes();
        }
    } else if ((m_recordFlags & STOP_ON_VOLUME) && m_stopCountdown == 0 &&
               static_cast<LONG>(least) < m_recAvgVolumeStop) {
        m_stopCountdown = kStopBuffers;
    }

    const short loudness = Loudness(most);

    const DWORD recorded = header->dwBytesRecorded;
    if (!(m_recordFlags & DONT_STORE)) {
        if (m_startState == kStoring) {
            if (recorded > 0 && !m_pRecordFile->WriteDecimated(m_pCaptureFormat, pBuffer->Data(), recorded)) {
                EndRecording(0);
                return;
            }
        } else {
            const DWORD kept = recorded < m_prerollCapacity ? recorded : m_prerollCapacity;
            std::memcpy(m_pPreroll, pBuffer->Data(), kept);
            m_prerollBytes = kept;
        }
    }

    m_samplesCounted += recorded / FrameBytes();
    const short seconds = static_cast<short>(m_samplesCounted / m_pCaptureFormat->nSamplesPerSec);
    const bool waiting = m_startState != kStoring;
    if (m_pSink != nullptr)
        m_pSink->AudioRecordProgress(loudness, waiting ? 0 : seconds);
    // The script may have cancelled from its progress handler.
    if (!Recording())
        return;

    header->dwBytesRecorded = 0;

    if (waiting && seconds >= m_recStartTimeoutS) {
        EndRecording(0);  // the trigger never came
    } else if (seconds >= m_maxSeconds) {
        EndRecording(1);
    } else if (m_stopCountdown > 0) {
        if (--m_stopCountdown == 0)
            EndRecording(1);
    }
}

void CAudio::EndRecording(BOOL completed)
{
    if (!completed && !Recording())
        return;
    if (m_pInput != nullptr)
        m_pInput->Close();
    if (m_pRecordFile != nullptr) {
        if (!m_pRecordFile->Close())
            DebugOut(L"ERROR: on close of recording.\r\n");
        delete m_pRecordFile;
        m_pRecordFile = nullptr;
    }
    if (m_pSink != nullptr)
        m_pSink->AudioRecordEnded(completed ? kAudioCompleted : kAudioCancelled);
}

// ---------------------------------------------------------------------------
// Playback

BOOL CAudio::Play(const wchar_t* fileName)
{
    if (fileName == nullptr || m_pOutput == nullptr) {
        ASSERT(false);
        return 0;
    }
    if (m_pOutput->IsOpen() || m_pTestManager == nullptr)
        return 0;
    wchar_t* path = m_pTestManager->MakeFullPath(fileName);
    if (path == nullptr)
        return 0;
    m_pPlayFile = new (std::nothrow) CWaveFile();
    if (m_pPlayFile == nullptr) {
        DebugOut(L"new CWaveFile failed.\r\n");
        delete[] path;
        return 0;
    }
    bool ok = m_pPlayFile->Open(path, &m_pPlayFormat) != 0;
    if (!ok)
        CWaveFile::PrintFileError(L"File open failed: ", path);
    delete[] path;
    // Two buffers of half a second each.
    if (ok)
        ok = m_pOutput->Open(CAudioStream::kOutput, m_pPlayFormat, kOutputBuffers,
                             m_pPlayFormat->nSamplesPerSec / 2) &&
             m_pOutput->StartPlay(this);
    if (!ok) {
        delete m_pPlayFile;
        m_pPlayFile = nullptr;
        m_pOutput->Close();
        CWaveFile::FreeFormat(m_pPlayFormat);
        m_pPlayFormat = nullptr;
        return 0;
    }
    return 1;
}

void CAudio::P_FillBuffer(CAudioBuffer* pBuffer)
{
    const DWORD capacity = pBuffer->Capacity();
    DWORD total = 0;
    bool failed = false;
    while (total < capacity && m_pPlayFile != nullptr) {
        DWORD got = 0;
        if (!m_pPlayFile->Read(pBuffer->Data() + total, capacity - total, &got)) {
            total += got;
            failed = true;
            break;
        }
        if (got == 0)
            break;
        total += got;
    }
    pBuffer->Header()->dwBufferLength = total;
    if (failed || total < capacity)
        pBuffer->SetLast(true);
    if (total == 0) {
        const DWORD frameBytes = m_pPlayFormat->wBitsPerSample * m_pPlayFormat->nChannels / 8;
        pBuffer->FillSilence(m_pPlayFormat, frameBytes > 0 ? capacity / frameBytes : 0);
    }
}

void CAudio::P_PlayFinished()
{
    EndPlay(1);
}

void CAudio::EndPlay(BOOL completed)
{
    if (!completed && !Playing())
        return;
    if (m_pOutput != nullptr)
        m_pOutput->Close();
    if (m_pPlayFile != nullptr) {
        m_pPlayFile->Close();
        delete m_pPlayFile;
        m_pPlayFile = nullptr;
    }
    CWaveFile::FreeFormat(m_pPlayFormat);
    m_pPlayFormat = nullptr;
    if (m_pSink != nullptr)
        m_pSink->AudioPlayEnded(completed ? kAudioCompleted : kAudioCancelled);
}
