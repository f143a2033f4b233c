// CAudioStream: one wave device, output or input, run with a ring of
// CAudioBuffers.
//
// The device reports finished buffers as MM_WOM_DONE / MM_WIM_DATA messages
// to the stream's hidden "AudioMessageWin" window, so every callback runs on
// the thread that created the stream (the host thread) and nothing here
// takes a lock.
//
// The ring has one slot more than the buffers asked for, so that full and
// empty differ. Output fills and submits every slot up to the stop mark (the
// oldest slot still playing); each finished buffer frees one slot, which is
// filled and submitted at once, until a buffer marked last has played: then
// the device is stopped and the callback told. Input keeps every free slot
// queued; each full buffer goes to the callback and its slot is queued
// again.
#pragma once

#include <windows.h>
#include <mmsystem.h>

#include "audio/AudioBuffer.h"

// What an output stream asks of its owner, in this order.
struct IAudioPlayCallback
{
    // Fill this buffer (set its length, and mark it last at the end).
    virtual void P_FillBuffer(CAudioBuffer* pBuffer) = 0;
    // The buffer marked last has played; the device is stopped.
    virtual void P_PlayFinished() = 0;

protected:
    ~IAudioPlayCallback() = default;
};

// What an input stream hands its owner.
struct IAudioRecordCallback
{
    // A buffer came back full. The owner resets its recorded-byte count to
    // 0; the stream queues the slot again later.
    virtual void R_EmptyBuffer(CAudioBuffer* pBuffer) = 0;

protected:
    ~IAudioRecordCallback() = default;
};

class CAudioStream
{
public:
    static constexpr int kInput = 0;
    static constexpr int kOutput = 1;

    explicit CAudioStream(HINSTANCE instance);
    virtual ~CAudioStream();

    CAudioStream(const CAudioStream&) = delete;
    CAudioStream& operator=(const CAudioStream&) = delete;

    // The hidden window.
    BOOL Init();
    // bufferCount buffers of framesPerBuffer sample frames, in direction.
    BOOL Open(int direction, const WAVEFORMATEX* pFormat, DWORD bufferCount, DWORD framesPerBuffer);
    bool IsOpen() const { return m_ring != nullptr; }
    bool DeviceOpen() const { return m_hWaveOut != nullptr || m_hWaveIn != nullptr; }
    BOOL StartPlay(IAudioPlayCallback* pCallback);
    BOOL StartRecord(IAudioRecordCallback* pCallback);
    // Stops the input device; with flush every buffer still queued goes to
    // the callback (with what it holds), without it they are dropped.
    void StopRecord(bool flush);
    // Stops the device without delivering anything and frees the ring.
    void Close();

    HWND Window() const { return m_hWnd; }
    int Direction() const { return m_direction; }

    LRESULT WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam);

private:
    size_t Next(size_t position) const { return position + 1 == m_slots ? 0 : position + 1; }
    void FinishPlay();
    void StopOutput();
    bool SubmitFilled();
    bool QueueFree();
    void OnOutputDone(WAVEHDR* pHeader);
    void OnInputData(WAVEHDR* pHeader);
    void FreeRing();

    HINSTANCE m_hInstance;
    HWND m_hWnd;
    int m_direction;
    WAVEFORMATEX* m_pFormat;
    HWAVEOUT m_hWaveOut;
    HWAVEIN m_hWaveIn;
    IAudioPlayCallback* m_pPlay;
    IAudioRecordCallback* m_pRecord;
    CAudioBuffer** m_ring;
    size_t m_slots;
    size_t m_nextFill;
    size_t m_nextSubmit;
    size_t m_oldest;
    size_t m_stopMark;
    bool m_finishing;  // the last buffer is done; waiting for its end to be heard
};
