#include "audio/WaveFile.h"

#include <cstring>
#include <cwchar>
#include <new>

#include "diag/Assert.h"
#include "diag/DebugOut.h"

namespace {

constexpr DWORD kPcmFormatBytes = 18;
constexpr size_t kLongestPrintedName = 100;

DWORD Tag(const char id[4])
{
    return static_cast<DWORD>(static_cast<BYTE>(id[0])) |
           (static_cast<DWORD>(static_cast<BYTE>(id[1])) << 8) |
           (static_cast<DWORD>(static_cast<BYTE>(id[2])) << 16) |
           (static_cast<DWORD>(static_cast<BYTE>(id[3])) << 24);
}

const DWORD kRiff = Tag("RIFF");
const DWORD kWave = Tag("WAVE");
const DWORD kFmt = Tag("fmt ");
const DWORD kData = Tag("data");

DWORD LessBy(DWORD left, DWORD taken)
{
    return taken >= left ? 0 : left - taken;
}

}  // namespace

CWaveFile::CWaveFile()
    : m_hFile(INVALID_HANDLE_VALUE),
      m_reading(1),
      m_name(nullptr),
      m_pFormat(nullptr),
      m_riffLeft(0),
      m_dataLeft(0),
      m_riffSize(0),
      m_dataSize(0),
      m_dataHeaderPos(-1)
{
}

CWaveFile::~CWaveFile()
{
    // No header patching here: only Close finishes a written file.
    if (m_hFile != INVALID_HANDLE_VALUE)
        CloseHandle(m_hFile);
    m_hFile = INVALID_HANDLE_VALUE;
    delete[] m_name;
    FreeFormat(m_pFormat);
}

DWORD CWaveFile::FormatBytes(const WAVEFORMATEX* pFormat)
{
    if (pFormat->wFormatTag == WAVE_FORMAT_PCM)
        return kPcmFormatBytes;
    return kPcmFormatBytes + pFormat->cbSize;
}

WAVEFORMATEX* CWaveFile::CopyFormat(const WAVEFORMATEX* pFormat)
{
    const DWORD bytes = FormatBytes(pFormat);
    BYTE* copy = new (std::nothrow) BYTE[bytes];
    if (copy == nullptr)
        return nullptr;
    std::memcpy(copy, pFormat, bytes);
    return reinterpret_cast<WAVEFORMATEX*>(copy);
}

void CWaveFile::FreeFormat(WAVEFORMATEX* pFormat)
{
    delete[] reinterpret_cast<BYTE*>(pFormat);
}

void CWaveFile::PrintFileError(const wchar_t* prefix, const wchar_t* name)
{
    const bool tooLong = name != nullptr && std::wcslen(name) > kLongestPrintedName;
    DebugOutF(L"%ls%ls\r\n", prefix, tooLong ? L"<filename too long>" : (name != nullptr ? name : L""));
}

bool CWaveFile::CopyName(const wchar_t* fileName)
{
    const size_t length = std::wcslen(fileName);
    m_name = new (std::nothrow) wchar_t[length + 1];
    if (m_name == nullptr)
        return false;
    std::wmemcpy(m_name, fileName, length + 1);
    return true;
}

void CWaveFile::Release()
{
    if (m_hFile != INVALID_HANDLE_VALUE)
        CloseHandle(m_hFile);
    m_hFile = INVALID_HANDLE_VALUE;
    delete[] m_name;
    m_name = nullptr;
    FreeFormat(m_pFormat);
    m_pFormat = nullptr;
    m_riffLeft = 0;
    m_dataLeft = 0;
    m_riffSize = 0;
    m_dataSize = 0;
    m_dataHeaderPos = -1;
}

bool CWaveFile::WriteAll(const void* bytes, DWORD count, const wchar_t* failText)
{
    DWORD written = 0;
    if (!WriteFile(m_hFile, bytes, count, &written, nullptr)) {
        if (failText != nullptr)
            DebugOut(failText);
        return false;
    }
    return written == count;
}

bool CWaveFile::ReadAll(void* bytes, DWORD count, DWORD* pRead)
{
    DWORD got = 0;
    const bool ok = ReadFile(m_hFile, bytes, count, &got, nullptr) != FALSE;
    if (pRead != nullptr)
        *pRead = got;
    return ok && got == count;
}

// ---------------------------------------------------------------------------
// Reading

BOOL CWaveFile::Open(const wchar_t* fileName, WAVEFORMATEX** ppFormat)
{
    if (IsOpen())
        return 0;
    if (fileName == nullptr || ppFormat == nullptr) {
        ASSERT(fileName != nullptr && ppFormat != nullptr);
        return 0;
    }
    if (!CopyName(fileName)) {
        Release();
        return 0;
    }
    m_hFile = CreateFileW(m_name, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                          FILE_ATTRIBUTE_NORMAL | FILE_FLAG_RANDOM_ACCESS, nullptr);
    if (m_hFile == INVALID_HANDLE_VALUE) {
        PrintFileError(L"File open failed: ", m_name);
        Release();
        return 0;
    }
    if (!ReadHeader() || !FindDataChunk()) {
        Release();
        return 0;
    }
    WAVEFORMATEX* copy = CopyFormat(m_pFormat);
    if (copy == nullptr) {
        DebugOut(L"out of memory for wavefmt\r\n");
        Release();
        return 0;
    }
    *ppFormat = copy;
    m_reading = 1;
    return 1;
}

bool CWaveFile::ReadHeader()
{
    DWORD main[3];
    if (!ReadAll(main, sizeof(main), nullptr) || main[0] != kRiff || main[2] != kWave)
        return false;
    m_riffLeft = LessBy(main[1], 4);

    // The format must come first.
    DWORD chunk[2];
    if (!ReadAll(chunk, sizeof(chunk), nullptr))
        return false;
    m_riffLeft = LessBy(m_riffLeft, sizeof(chunk));
    if (chunk[0] != kFmt)
        return false;
    const DWORD size = chunk[1];
    if (size < 14)
        return false;
    // No format record is longer than 18 bytes and its 16-bit extra size: a
    // bigger chunk is not a format, and its size is not worth allocating.
    if (size > kPcmFormatBytes + 0xFFFF)
        return false;
    const DWORD allocated = size < kPcmFormatBytes ? kPcmFormatBytes : size;
    BYTE* format = new (std::nothrow) BYTE[allocated];
    if (format == nullptr) {
        DebugOut(L"out of memory for wavefmt\r\n");
        return false;
    }
    std::memset(format, 0, allocated);
    m_pFormat = reinterpret_cast<WAVEFORMATEX*>(format);
    // A 14- or 16-byte PCM format reads as an 18-byte one with no extra.
    if (!ReadAll(format, size, nullptr))
        return false;
    if (size < kPcmFormatBytes)
        m_pFormat->cbSize = 0;
    m_riffLeft = LessBy(m_riffLeft, size);
    // An extra size that runs past the chunk is not a format.
    return FormatBytes(m_pFormat) <= allocated;
}

bool CWaveFile::FindDataChunk()
{
    if (m_riffLeft == 0)
        return false;
    for (;;) {
        DWORD chunk[2];
        if (!ReadAll(chunk, sizeof(chunk), nullptr))
            return false;
        m_riffLeft = LessBy(m_riffLeft, sizeof(chunk));
        if (chunk[0] == kData) {
            m_dataLeft = chunk[1];
            return true;
        }
        // No pad byte is skipped after an odd-sized chunk.
        LARGE_INTEGER skip;
        skip.QuadPart = chunk[1];
        if (!SetFilePointerEx(m_hFile, skip, nullptr, FILE_CURRENT)) {
            DebugOut(L"ReadChunkHeader: Failed to seek.\r\n");
            return false;
        }
        m_riffLeft = LessBy(m_riffLeft, chunk[1]);
        if (m_riffLeft == 0)
            return false;
    }
}

BOOL CWaveFile::Read(BYTE* buffer, DWORD count, DWORD* pGot)
{
    if (!IsOpen() || !m_reading || buffer == nullptr || count == 0 || pGot == nullptr)
        return 0;
    *pGot = 0;
    DWORD n = count < m_dataLeft ? count : m_dataLeft;
    if (n > 0) {
        DWORD got = 0;
        const bool complete = ReadAll(buffer, n, &got);
        m_riffLeft = LessBy(m_riffLeft, got);
        m_dataLeft = LessBy(m_dataLeft, got);
        *pGot = got;
        if (!complete)
            return 0;
    }
    if (*pGot == count)
        return 1;
    // This data chunk is used up: go on into the next one, if any.
    if (!FindDataChunk())
        return 1;
    const DWORD rest = count - *pGot;
    n = rest < m_dataLeft ? rest : m_dataLeft;
    if (n > 0) {
        DWORD got = 0;
        const bool complete = ReadAll(buffer + *pGot, n, &got);
        m_riffLeft = LessBy(m_riffLeft, got);
        m_dataLeft = LessBy(m_dataLeft, got);
        *pGot += got;
        if (!complete)
            return 0;
    }
    return 1;
}

// ---------------------------------------------------------------------------
// Writing

BOOL CWaveFile::Create(const wchar_t* fileName, const WAVEFORMATEX* pFormat)
{
    if (IsOpen())
        return 0;
    if (fileName == nullptr || pFormat == nullptr) {
        ASSERT(fileName != nullptr && pFormat != nullptr);
        return 0;
    }
    m_reading = 0;
    if (!CopyName(fileName)) {
        Release();
        return 0;
    }
    m_pFormat = CopyFormat(pFormat);
    if (m_pFormat == nullptr) {
        DebugOut(L"out of memory for wavefmt\r\n");
        Release();
        return 0;
    }
    m_hFile = CreateFileW(m_name, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                          FILE_ATTRIBUTE_NORMAL | FILE_FLAG_RANDOM_ACCESS, nullptr);
    if (m_hFile == INVALID_HANDLE_VALUE) {
        PrintFileError(L"File create failed: ", m_name);
        Release();
        return 0;
    }
    if (!WriteHeaders()) {
        Release();
        return 0;
    }
    return 1;
}

bool CWaveFile::WriteHeaders()
{
    m_dataHeaderPos = -1;
    m_riffSize = 0;
    m_dataSize = 0;

    const DWORD main[3] = {kRiff, 0, kWave};
    if (!WriteAll(main, sizeof(main), L"Write of main chunk failed.\r\n"))
        return false;
    m_riffSize = 4;

    const DWORD formatBytes = FormatBytes(m_pFormat);
    const DWORD fmt[2] = {kFmt, formatBytes};
    if (!WriteAll(fmt, sizeof(fmt), L"Write of format chunk header failed.\r\n"))
        return false;
    m_riffSize += sizeof(fmt);
    if (!WriteAll(m_pFormat, formatBytes, L"Write of format chunk failed.\r\n"))
        return false;
    m_riffSize += formatBytes;

    const DWORD position = SetFilePointer(m_hFile, 0, nullptr, FILE_CURRENT);
    if (position == INVALID_SET_FILE_POINTER) {
        DebugOut(L"Failed to find file position.\r\n");
        return false;
    }
    m_dataHeaderPos = static_cast<LONG>(position);

    const DWORD data[2] = {kData, 0};
    if (!WriteAll(data, sizeof(data), L"Write of data chunk header failed.\r\n"))
        return false;
    m_riffSize += sizeof(data);
    m_dataSize = 0;
    return true;
}

BOOL CWaveFile::Write(const BYTE* bytes, DWORD count)
{
    if (!IsOpen() || m_reading || bytes == nullptr || count == 0)
        return 0;
    if (!WriteAll(bytes, count, L"Write of data failed.\r\n"))
        return 0;
    m_riffSize += count;
    m_dataSize += count;
    return 1;
}

BOOL CWaveFile::WriteDecimated(const WAVEFORMATEX* sourceFormat, const BYTE* samples,
                               DWORD byteCount)
{
    if (!IsOpen() || m_reading || sourceFormat == nullptr || samples == nullptr || byteCount == 0)
        return 0;
    if (sourceFormat->nChannels != m_pFormat->nChannels ||
        sourceFormat->wBitsPerSample != m_pFormat->wBitsPerSample ||
        sourceFormat->wFormatTag != m_pFormat->wFormatTag) {
        ASSERT(false);
        return 0;
    }
    if (m_pFormat->nSamplesPerSec == 0 || m_pFormat->nSamplesPerSec >= sourceFormat->nSamplesPerSec) {
        ASSERT(false);
        return 0;
    }
    if (m_pFormat->wBitsPerSample != 16 || m_pFormat->nChannels != 1)
        return 0;
    const DWORD factor = sourceFormat->nSamplesPerSec / m_pFormat->nSamplesPerSec;
    if (factor * m_pFormat->nSamplesPerSec != sourceFormat->nSamplesPerSec) {
        ASSERT(false);
        return 0;
    }
    const DWORD kept = (byteCount / 2) / factor;
    short* out = new (std::nothrow) short[kept > 0 ? kept : 1];
    if (out == nullptr) {
        ASSERT(false);
        return 0;
    }
    const BYTE* in = samples;
    for (DWORD i = 0; i < kept; ++i, in += 2 * factor)
        std::memcpy(&out[i], in, 2);
    const BOOL ok = Write(reinterpret_cast<const BYTE*>(out), kept * 2);
    delete[] out;
    return ok;
}

bool CWaveFile::PatchHeaders()
{
    if (SetFilePointer(m_hFile, 0, nullptr, FILE_BEGIN) == INVALID_SET_FILE_POINTER) {
        DebugOut(L"Failed to seek.\r\n");
        return false;
    }
    const DWORD main[3] = {kRiff, m_riffSize, kWave};
    if (!WriteAll(main, sizeof(main), L"Write of main chunk failed.\r\n"))
        return false;
    if (SetFilePointer(m_hFile, m_dataHeaderPos, nullptr, FILE_BEGIN) == INVALID_SET_FILE_POINTER) {
        DebugOut(L"Failed to seek.\r\n");
        return false;
    }
    const DWORD data[2] = {kData, m_dataSize};
    if (!WriteAll(data, sizeof(data), L"Write of data chunk header failed.\r\n"))
        return false;
    // A write that went only part of the way (a full disk) left bytes the
    // sizes do not count: the file ends where its data chunk says.
    LARGE_INTEGER end;
    end.QuadPart = static_cast<LONGLONG>(m_dataHeaderPos) + 8 + m_dataSize;
    if (SetFilePointerEx(m_hFile, end, nullptr, FILE_BEGIN))
        SetEndOfFile(m_hFile);
    return true;
}

BOOL CWaveFile::Close()
{
    if (!IsOpen())
        return 1;
    BOOL ok = 1;
    if (!m_reading && !PatchHeaders())
        ok = 0;
    Release();
    return ok;
}
