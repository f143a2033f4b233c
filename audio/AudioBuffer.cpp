#include "audio/AudioBuffer.h"

#include <cstring>
#include <new>

#include "diag/Assert.h"

CAudioBuffer::CAudioBuffer() : m_last(false), m_pHeader(nullptr), m_capacity(0), m_pData(nullptr)
{
}

CAudioBuffer::~CAudioBuffer()
{
    delete m_pHeader;
    delete[] m_pData;
}

BOOL CAudioBuffer::Allocate(DWORD capacity, DWORD spareBytes)
{
    if (m_pHeader != nullptr || m_pData != nullptr) {
        ASSERT(false);
        return 0;
    }
    m_pHeader = new (std::nothrow) WAVEHDR();
    m_pData = new (std::nothrow) BYTE[capacity + spareBytes];
    if (m_pHeader == nullptr || m_pData == nullptr) {
        delete m_pHeader;
        delete[] m_pData;
        m_pHeader = nullptr;
        m_pData = nullptr;
        return 0;
    }
    std::memset(m_pData, 0, capacity + spareBytes);
    m_capacity = capacity;
    m_pHeader->lpData = reinterpret_cast<LPSTR>(m_pData);
    m_pHeader->dwBufferLength = capacity;
    return 1;
}

void CAudioBuffer::FillSilence(const WAVEFORMATEX* pFormat, DWORD frames)
{
    if (pFormat == nullptr || m_pHeader == nullptr)
        return;
    if (pFormat->nChannels != 1) {
        ASSERT(false);
        return;
    }
    DWORD length = pFormat->wBitsPerSample * pFormat->nChannels * frames / 8;
    if (length > m_capacity)
        length = m_capacity;
    m_pHeader->dwBufferLength = length;
    if (pFormat->wBitsPerSample == 8)
        std::memset(m_pData, 128, length);
    else if (pFormat->wBitsPerSample == 16)
        std::memset(m_pData, 0, length);
}

namespace {

void ClearLinks(WAVEHDR* pHeader)
{
    pHeader->dwFlags = 0;
    pHeader->dwLoops = 0;
    pHeader->lpNext = nullptr;
    pHeader->reserved = 0;
}

}  // namespace

MMRESULT CAudioBuffer::Write(HWAVEOUT device)
{
    ClearLinks(m_pHeader);
    MMRESULT result = waveOutPrepareHeader(device, m_pHeader, sizeof(WAVEHDR));
    if (result != MMSYSERR_NOERROR)
        return result;
    result = waveOutWrite(device, m_pHeader, sizeof(WAVEHDR));
    if (result != MMSYSERR_NOERROR)
        waveOutUnprepareHeader(device, m_pHeader, sizeof(WAVEHDR));
    return result;
}

void CAudioBuffer::UnprepareOut(HWAVEOUT device)
{
    if (m_pHeader->dwFlags & WHDR_PREPARED)
        waveOutUnprepareHeader(device, m_pHeader, sizeof(WAVEHDR));
}

MMRESULT CAudioBuffer::Add(HWAVEIN device)
{
    ClearLinks(m_pHeader);
    MMRESULT result = waveInPrepareHeader(device, m_pHeader, sizeof(WAVEHDR));
    if (result != MMSYSERR_NOERROR)
        return result;
    result = waveInAddBuffer(device, m_pHeader, sizeof(WAVEHDR));
    if (result != MMSYSERR_NOERROR)
        waveInUnprepareHeader(device, m_pHeader, sizeof(WAVEHDR));
    return result;
}

void CAudioBuffer::UnprepareIn(HWAVEIN device)
{
    if (m_pHeader->dwFlags & WHDR_PREPARED)
        waveInUnprepareHeader(device, m_pHeader, sizeof(WAVEHDR));
}
