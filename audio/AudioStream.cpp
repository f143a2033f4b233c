#include "audio/AudioStream.h"

#include <new>

#include "audio/WaveFile.h"
#include "control/MessageWindow.h"
#include "diag/Assert.h"
#include "diag/DebugOut.h"

namespace {

const wchar_t kClassName[] = L"AudioMessageWin";
const wchar_t kTitle[] = L"Audio Messages";
// The window timer that finishes playback once the end has been heard.
constexpr UINT_PTR kHeardTimer = 1;
constexpr UINT kHeardMs = 60;

// Removes every message of one kind still queued for the window.
void RemoveQueued(HWND hwnd, UINT msg)
{
    MSG m;
    while (PeekMessageW(&m, hwnd, msg, msg, PM_REMOVE)) {
    }
}

}  // namespace

CAudioStream::CAudioStream(HINSTANCE instance)
    : m_hInstance(instance),
      m_hWnd(nullptr),
      m_direction(kOutput),
      m_pFormat(nullptr),
      m_hWaveOut(nullptr),
      m_hWaveIn(nullptr),
      m_pPlay(nullptr),
      m_pRecord(nullptr),
      m_ring(nullptr),
      m_slots(0),
      m_nextFill(0),
      m_nextSubmit(0),
      m_oldest(0),
      m_stopMark(0),
      m_finishing(false)
{
}

CAudioStream::~CAudioStream()
{
    Close();
    MessageWindowDestroy(m_hWnd, m_hInstance, kClassName, L"CAudioStream: DestroyWindow failed.\r\n");
}

BOOL CAudioStream::Init()
{
    if (!MessageWindowRegister(m_hInstance, kClassName, MessageWindowProc<CAudioStream>))
        return 0;
    m_hWnd = MessageWindowCreate(m_hInstance, kClassName, kTitle, this);
    return m_hWnd != nullptr ? 1 : 0;
}

BOOL CAudioStream::Open(int direction, const WAVEFORMATEX* pFormat, DWORD bufferCount,
                        DWORD framesPerBuffer)
{
    if (IsOpen() || pFormat == nullptr) {
        ASSERT(!IsOpen() && pFormat != nullptr);
        return 0;
    }
    m_direction = direction;
    m_pFormat = CWaveFile::CopyFormat(pFormat);
    if (m_pFormat == nullptr) {
        Close();
        return 0;
    }
    const DWORD frameBytes = (pFormat->wBitsPerSample / 8) * pFormat->nChannels;
    const DWORD capacity = frameBytes * framesPerBuffer;
    if (pFormat->nBlockAlign == 0 || capacity % pFormat->nBlockAlign != 0 || capacity == 0) {
        ASSERT(false);
        Close();
        return 0;
    }
    // Behind each input block a zeroed tail a fifth of its size: the
    // loudness scan's last window may run past the recorded end.
    const DWORD spare = direction == kInput ? capacity / 5 + 2 * frameBytes : 0;
    m_slots = bufferCount + 1;
    m_ring = new (std::nothrow) CAudioBuffer*[m_slots]();
    if (m_ring == nullptr) {
        m_slots = 0;
        Close();
        return 0;
    }
    for (size_t i = 0; i < m_slots; ++i) {
        m_ring[i] = new (std::nothrow) CAudioBuffer();
        if (m_ring[i] == nullptr || !m_ring[i]->Allocate(capacity, spare)) {
            Close();
            return 0;
        }
    }
    m_nextFill = m_nextSubmit = m_oldest = m_stopMark = 0;
    return 1;
}

void CAudioStream::FreeRing()
{
    if (m_ring != nullptr) {
        for (size_t i = 0; i < m_slots; ++i)
            delete m_ring[i];
        delete[] m_ring;
    }
    m_ring = nullptr;
    m_slots = 0;
    m_nextFill = m_nextSubmit = m_oldest = m_stopMark = 0;
}

void CAudioStream::Close()
{
    if (m_hWaveOut != nullptr)
        StopOutput();
    if (m_hWaveIn != nullptr)
        StopRecord(false);
    m_direction = kOutput;
    CWaveFile::FreeFormat(m_pFormat);
    m_pFormat = nullptr;
    FreeRing();
    m_pPlay = nullptr;
    m_pRecord = nullptr;
}

// ---------------------------------------------------------------------------
// Output

BOOL CAudioStream::StartPlay(IAudioPlayCallback* pCallback)
{
    if (m_direction != kOutput || !IsOpen() || m_hWaveOut != nullptr || pCallback == nullptr) {
        ASSERT(false);
        return 0;
    }
    if (waveOutOpen(nullptr, WAVE_MAPPER, m_pFormat, 0, 0, WAVE_FORMAT_QUERY) != MMSYSERR_NOERROR)
        return 0;
    HWAVEOUT device = nullptr;
    const MMRESULT result = waveOutOpen(&device, WAVE_MAPPER, m_pFormat,
                                        reinterpret_cast<DWORD_PTR>(m_hWnd), 0, CALLBACK_WINDOW);
    if (result != MMSYSERR_NOERROR) {
        char text[80];
        if (waveOutGetErrorTextA(result, text, sizeof(text)) == MMSYSERR_NOERROR)
            DebugOutF(L"ERROR: waveOutOpen failed: %hs.\r\n", text);
        else
            DebugOutF(L"ERROR: waveOutOpen returned 0x%08x.\r\n", result);
        return 0;
    }
    m_hWaveOut = device;
    m_pPlay = pCallback;

    while (Next(m_nextFill) != m_stopMark) {
        CAudioBuffer* buffer = m_ring[m_nextFill];
        buffer->SetLast(false);
        m_nextFill = Next(m_nextFill);
        m_pPlay->P_FillBuffer(buffer);
    }
    if (!SubmitFilled()) {
        StopOutput();
        return 0;
    }
    return 1;
}

bool CAudioStream::SubmitFilled()
{
    while (m_nextSubmit != m_nextFill) {
        if (m_ring[m_nextSubmit]->Write(m_hWaveOut) != MMSYSERR_NOERROR)
            return false;
        m_nextSubmit = Next(m_nextSubmit);
    }
    return true;
}

void CAudioStream::StopOutput()
{
    if (m_finishing) {
        KillTimer(m_hWnd, kHeardTimer);
        m_finishing = false;
    }
    if (m_hWaveOut == nullptr)
        return;
    waveOutReset(m_hWaveOut);
    for (size_t i = m_oldest; i != m_nextSubmit; i = Next(i))
        m_ring[i]->UnprepareOut(m_hWaveOut);
    m_oldest = m_nextSubmit;
    waveOutClose(m_hWaveOut);
    m_hWaveOut = nullptr;
    RemoveQueued(m_hWnd, MM_WOM_DONE);
}

void CAudioStream::OnOutputDone(WAVEHDR* pHeader)
{
    if (m_hWaveOut == nullptr || !IsOpen() || m_finishing || m_oldest == m_nextSubmit ||
        pHeader != m_ring[m_oldest]->Header())
        return;
    CAudioBuffer* done = m_ring[m_oldest];
    done->UnprepareOut(m_hWaveOut);
    m_oldest = Next(m_oldest);
    m_stopMark = m_oldest;
    if (!done->IsLast()) {
        if (Next(m_nextFill) != m_stopMark) {
            CAudioBuffer* buffer = m_ring[m_nextFill];
            buffer->SetLast(false);
            m_nextFill = Next(m_nextFill);
            m_pPlay->P_FillBuffer(buffer);
        }
        if (SubmitFilled())
            return;
        // The device took no more: the sound cannot go on.
    }
    done->SetLast(false);
    // A driver may call a buffer done once the sound server holds it, a
    // little before it is heard (Wine's does); stopping the device at once
    // would cut the end off. The buffer after it (silence) keeps the device
    // going while the end is heard, and playback finishes a moment later.
    m_finishing = true;
    if (SetTimer(m_hWnd, kHeardTimer, kHeardMs, nullptr) == 0)
        FinishPlay();
}

void CAudioStream::FinishPlay()
{
    KillTimer(m_hWnd, kHeardTimer);
    m_finishing = false;
    StopOutput();
    m_pPlay->P_PlayFinished();
}

// ---------------------------------------------------------------------------
// Input

BOOL CAudioStream::StartRecord(IAudioRecordCallback* pCallback)
{
    if (m_direction != kInput || !IsOpen() || m_hWaveIn != nullptr || pCallback == nullptr) {
        ASSERT(false);
        return 0;
    }
    if (waveInOpen(nullptr, WAVE_MAPPER, m_pFormat, 0, 0, WAVE_FORMAT_QUERY) != MMSYSERR_NOERROR)
        return 0;
    HWAVEIN device = nullptr;
    if (waveInOpen(&device, WAVE_MAPPER, m_pFormat, reinterpret_cast<DWORD_PTR>(m_hWnd), 0,
                   CALLBACK_WINDOW) != MMSYSERR_NOERROR)
        return 0;
    m_hWaveIn = device;
    m_pRecord = pCallback;
    if (!QueueFree() || waveInStart(m_hWaveIn) != MMSYSERR_NOERROR) {
        StopRecord(false);
        return 0;
    }
    return 1;
}

bool CAudioStream::QueueFree()
{
    while (Next(m_nextSubmit) != m_oldest) {
        CAudioBuffer* buffer = m_ring[m_nextSubmit];
        ASSERT(buffer->Header()->dwBytesRecorded == 0);
        if (buffer->Add(m_hWaveIn) != MMSYSERR_NOERROR)
            return false;
        m_nextSubmit = Next(m_nextSubmit);
    }
    return true;
}

void CAudioStream::StopRecord(bool flush)
{
    if (m_hWaveIn == nullptr)
        return;
    waveInReset(m_hWaveIn);
    const size_t first = m_oldest;
    size_t queued = 0;
    for (size_t i = m_oldest; i != m_nextSubmit; i = Next(i), ++queued)
        m_ring[i]->UnprepareIn(m_hWaveIn);
    m_oldest = m_nextSubmit;
    waveInClose(m_hWaveIn);
    m_hWaveIn = nullptr;
    RemoveQueued(m_hWnd, MM_WIM_DATA);
    if (!flush || m_pRecord == nullptr)
        return;
    // Delivered after the device is gone, so the callback may close the
    // stream; nothing is touched once it has.
    size_t slot = first;
    for (size_t n = 0; n < queued && IsOpen(); ++n, slot = Next(slot))
        m_pRecord->R_EmptyBuffer(m_ring[slot]);
}

void CAudioStream::OnInputData(WAVEHDR* pHeader)
{
    if (m_hWaveIn == nullptr || !IsOpen() || m_oldest == m_nextSubmit ||
        pHeader != m_ring[m_oldest]->Header())
        return;
    CAudioBuffer* full = m_ring[m_oldest];
    full->UnprepareIn(m_hWaveIn);
    m_oldest = Next(m_oldest);
    m_pRecord->R_EmptyBuffer(full);
    // The callback may have ended the recording.
    if (m_hWaveIn != nullptr && IsOpen() && !QueueFree()) {
        // A slot the device refused is never filled; what is queued goes on.
        DebugOut(L"ERROR: waveInAddBuffer failed.\r\n");
    }
}

LRESULT CAudioStream::WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    switch (msg) {
    case MM_WOM_DONE:
        OnOutputDone(reinterpret_cast<WAVEHDR*>(lParam));
        return 0;
    case MM_WIM_DATA:
        OnInputData(reinterpret_cast<WAVEHDR*>(lParam));
        return 0;
    case WM_TIMER:
        if (wParam == kHeardTimer && m_finishing && m_hWaveOut != nullptr)
            FinishPlay();
        return 0;
    default:
        return MessageWindowDefault(hwnd, msg, wParam, lParam, L"Audio");
    }
}
