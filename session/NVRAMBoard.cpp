#include "session/NVRAMBoard.h"

#include <cstring>
#include <cwchar>
#include <new>

#include "diag/Assert.h"
#include "diag/DebugOut.h"
#include "session/FlashAccess.h"
#include "session/LocalClock.h"
#include "session/StoredParams.h"

const wchar_t kSimNVRAMFile[] = L"\\HARD DISK\\simnvram.bin";

namespace {

constexpr int kMagicOffset = 0;
constexpr int kVersionOffset = 4;
constexpr int kDeviceIDOffset = 5;
constexpr int kPrevSessionOffset = 9;
constexpr int kPictureIndexOffset = 17;
constexpr int kKeyBlobOffset = 19;

const BYTE kMagic[4] = {'Q', 'V', 'M', 'R'};

// The key blob of a device that was never provisioned.
const BYTE kDefaultKeyBlob[kKeyBlobBytes] = {'B', 'r', 'e', 'n', 'n', 'o', 'c', 'k',
                                             ' ', 'd', 'e', 'f', 'a', 'u', 'l', 't'};

DWORD GetBE32(const BYTE* p)
{
    return (static_cast<DWORD>(p[0]) << 24) | (static_cast<DWORD>(p[1]) << 16) |
           (static_cast<DWORD>(p[2]) << 8) | static_cast<DWORD>(p[3]);
}

void PutBE32(BYTE* p, DWORD v)
{
    p[0] = static_cast<BYTE>(v >> 24);
    p[1] = static_cast<BYTE>(v >> 16);
    p[2] = static_cast<BYTE>(v >> 8);
    p[3] = static_cast<BYTE>(v);
}

}  // namespace

CNVRAMBoard::CNVRAMBoard() : m_pImage(nullptr), m_dirty(false) {}

CNVRAMBoard::~CNVRAMBoard()
{
    Close();
}

bool CNVRAMBoard::IsOpen() const
{
    return m_pImage != nullptr;
}

bool CNVRAMBoard::Open()
{
    ASSERT(!IsOpen());
    if (IsOpen())
        return false;
    m_pImage = new (std::nothrow) BYTE[kNVRAMImageBytes]();
    if (m_pImage == nullptr) {
        DebugOut(L"Out of memory for on-board NVRAM copy\r\n");
        return false;
    }
    if (!Load()) {
        delete[] m_pImage;
        m_pImage = nullptr;
        return false;
    }
    m_dirty = false;
    return true;
}

void CNVRAMBoard::Close()
{
    delete[] m_pImage;
    m_pImage = nullptr;
    m_dirty = false;
}

// A bad image in flash is replaced in memory only; flash is rewritten when a
// change is committed, never just because the image was bad.
bool CNVRAMBoard::Load()
{
    if (!GetNVRAM(0, kNVRAMImageBytes, m_pImage)) {
        DebugOut(L"GetNVRAM failed.\r\n");
        return false;
    }
    if (memcmp(m_pImage + kMagicOffset, kMagic, sizeof(kMagic)) != 0) {
        DebugOut(L"ERROR: Corrupted/uninitialized on-board NVRAM\r\n");
        LoadSimNVRAM();
    } else if (m_pImage[kVersionOffset] < kNVRAMFormatVersion) {
        DebugOut(L"ERROR: Unknown on-board NVRAM format version number\r\n");
        LoadSimNVRAM();
    } else if (m_pImage[kVersionOffset] > kNVRAMFormatVersion) {
        DebugOut(L"on-board NVRAM version ahead of our code.  Erasing.\r\n");
        LoadSimNVRAM();
    }
    return true;
}

// The simulation file stands in for a blank or foreign flash image: 35 bytes
// of it are taken as they are. Without one, a fresh default image.
void CNVRAMBoard::LoadSimNVRAM()
{
    HANDLE file = CreateFileW(kSimNVRAMFile, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    const wchar_t* problem = nullptr;
    if (file == INVALID_HANDLE_VALUE) {
        problem = L"LoadSimNVRAM: file doesn't exist - using defaults.\r\n";
    } else {
        BYTE bytes[kNVRAMImageBytes];
        DWORD got = 0;
        if (!ReadFile(file, bytes, sizeof(bytes), &got, nullptr))
            problem = L"LoadSimNVRAM: read failed - using defaults.\r\n";
        else if (got != sizeof(bytes))
            problem = L"LoadSimNVRAM: short read - using defaults.\r\n";
        else
            memcpy(m_pImage, bytes, sizeof(bytes));
        CloseHandle(file);
    }

    if (problem != nullptr) {
        DebugOut(problem);
        memset(m_pImage, 0, kNVRAMImageBytes);
        memcpy(m_pImage + kMagicOffset, kMagic, sizeof(kMagic));
        m_pImage[kVersionOffset] = kNVRAMFormatVersion;
        WriteDeviceID(kDefaultDeviceID);
        SetKeyBlob(kDefaultKeyBlob, kKeyBlobBytes);
        // A year ago, so that no slot of the schedule counts as done. On 29
        // February the day before is taken, a year ago having no such date.
        SYSTEMTIME prev;
        LocalClockNow(&prev);
        prev.wYear -= 1;
        FILETIME check;
        if (prev.wMonth == 2 && prev.wDay == 29 && !SystemTimeToFileTime(&prev, &check))
            prev.wDay = 28;
        NVWritePrevSessionDateTime(&prev);
        WriteNextPictureIndex(0);
    }
    m_dirty = false;
}

bool CNVRAMBoard::Commit()
{
    if (!m_dirty)
        return true;
    // Whatever happens now, the same image is not tried again.
    m_dirty = false;
    if (!IsOpen() || memcmp(m_pImage + kMagicOffset, kMagic, sizeof(kMagic)) != 0) {
        DebugOut(L"ERROR: Corrupted/uninitialized copy of NVRAM\r\n");
        return false;
    }
    if (m_pImage[kVersionOffset] != kNVRAMFormatVersion) {
        DebugOut(L"ERROR: Corrupted copy of NVRAM format version number\r\n");
        return false;
    }
    if (!PutNVRAM(0, kNVRAMImageBytes, m_pImage)) {
        DebugOut(L"PutNVRAM failed.\r\n");
        return false;
    }
    return true;
}

DWORD CNVRAMBoard::ReadDeviceID()
{
    ASSERT(IsOpen());
    return IsOpen() ? GetBE32(m_pImage + kDeviceIDOffset) : 0;
}

void CNVRAMBoard::WriteDeviceID(DWORD id)
{
    ASSERT(IsOpen());
    if (!IsOpen())
        return;
    PutBE32(m_pImage + kDeviceIDOffset, id);
    m_dirty = true;
}

bool CNVRAMBoard::NVReadPrevSessionDateTime(SYSTEMTIME* out)
{
    ASSERT(IsOpen());
    ASSERT(out != nullptr);
    if (!IsOpen() || out == nullptr)
        return false;
    FILETIME ft;
    ft.dwHighDateTime = GetBE32(m_pImage + kPrevSessionOffset);
    ft.dwLowDateTime = GetBE32(m_pImage + kPrevSessionOffset + 4);
    SYSTEMTIME st;
    if (!FileTimeToSystemTime(&ft, &st)) {
        DebugOut(L"NVReadPrevSessionDateTime: FileTimeToSystemTime failed.\r\n");
        ASSERT(false);
        return false;
    }
    *out = st;
    return true;
}

bool CNVRAMBoard::NVWritePrevSessionDateTime(const SYSTEMTIME* when)
{
    ASSERT(IsOpen());
    ASSERT(when != nullptr);
    if (!IsOpen() || when == nullptr)
        return false;
    FILETIME ft;
    if (!SystemTimeToFileTime(when, &ft)) {
        DebugOut(L"NVWritePrevSessionDateTime: SystemTimeToFileTime failed.\r\n");
        return false;
    }
    PutBE32(m_pImage + kPrevSessionOffset, ft.dwHighDateTime);
    PutBE32(m_pImage + kPrevSessionOffset + 4, ft.dwLowDateTime);
    m_dirty = true;
    return true;
}

short CNVRAMBoard::ReadNextPictureIndex()
{
    ASSERT(IsOpen());
    if (!IsOpen())
        return 0;
    return static_cast<short>((m_pImage[kPictureIndexOffset] << 8) | m_pImage[kPictureIndexOffset + 1]);
}

void CNVRAMBoard::WriteNextPictureIndex(short index)
{
    ASSERT(IsOpen());
    if (!IsOpen())
        return;
    const WORD bits = static_cast<WORD>(index);
    m_pImage[kPictureIndexOffset] = static_cast<BYTE>(bits >> 8);
    m_pImage[kPictureIndexOffset + 1] = static_cast<BYTE>(bits);
    m_dirty = true;
}

bool CNVRAMBoard::GetKeyBlob(BYTE* buffer, DWORD* length)
{
    ASSERT(IsOpen());
    ASSERT(length != nullptr);
    if (!IsOpen() || length == nullptr)
        return false;
    if (buffer == nullptr) {
        *length = kKeyBlobBytes;
        return true;
    }
    if (*length < kKeyBlobBytes) {
        *length = 0;
        return false;
    }
    memcpy(buffer, m_pImage + kKeyBlobOffset, kKeyBlobBytes);
    *length = kKeyBlobBytes;
    return true;
}

bool CNVRAMBoard::SetKeyBlob(const BYTE* buffer, DWORD length)
{
    ASSERT(IsOpen());
    ASSERT(buffer != nullptr);
    if (!IsOpen() || buffer == nullptr || length != kKeyBlobBytes)
        return false;
    memcpy(m_pImage + kKeyBlobOffset, buffer, kKeyBlobBytes);
    m_dirty = true;
    return true;
}

wchar_t* CNVRAMBoard::NVParameterRead(const wchar_t* key, const wchar_t* defaultValue)
{
    if (!IsOpen()) {
        DebugOut(L"NVParameterRead: not open\r\n");
        return nullptr;
    }
    if (key == nullptr) {
        DebugOut(L"ERROR: NVParameterRead: null keyStr.\r\n");
        return nullptr;
    }
    if (defaultValue == nullptr) {
        DebugOut(L"ERROR: NVParameterRead: null dflVal.\r\n");
        return nullptr;
    }

    wchar_t text[64];
    const wchar_t* answer = defaultValue;
    wchar_t* dateText = nullptr;
    if (_wcsicmp(key, L"DEVICEID") == 0) {
        swprintf(text, 64, L"%010lu", static_cast<unsigned long>(ReadDeviceID()));
        answer = text;
    } else if (_wcsicmp(key, L"PrevSessionDateTime") == 0) {
        FILETIME ft;
        ft.dwHighDateTime = GetBE32(m_pImage + kPrevSessionOffset);
        ft.dwLowDateTime = GetBE32(m_pImage + kPrevSessionOffset + 4);
        SYSTEMTIME st;
        if (FileTimeToSystemTime(&ft, &st))
            dateText = SystemDateTimeToScript(&st, true);
        if (dateText != nullptr)
            answer = dateText;
        else
            DebugOut(L"ERROR: NVParameterRead: NVRAM corrupted: garbled PrevSessionDateTime.\r\n");
    } else if (_wcsicmp(key, L"NextPictureIndex") == 0) {
        const short index = ReadNextPictureIndex();
        if (index < 0)
            DebugOut(L"Warning: NVparameterRead: NextPictureIndex < 0\r\n");
        swprintf(text, 64, L"%d", static_cast<int>(index));
        answer = text;
    } else if (_wcsicmp(key, L"AnonymousName") == 0) {
        // Each byte without leading zeros, so the name is 16 to 32 digits.
        size_t used = 0;
        for (DWORD i = 0; i < kKeyBlobBytes; ++i)
            used += swprintf(text + used, 64 - used, L"%x", m_pImage[kKeyBlobOffset + i]);
        answer = text;
    }

    wchar_t* copy = CopyOf(answer);
    delete[] dateText;
    if (copy == nullptr)
        DebugOut(L"NVParameterRead: out of memory for response.\r\n");
    return copy;
}

bool CNVRAMBoard::NVParameterWrite(const wchar_t* key, const wchar_t* value)
{
    if (!IsOpen()) {
        DebugOut(L"NVParameterWrite: not open\r\n");
        return false;
    }
    ASSERT(key != nullptr && value != nullptr);
    if (key == nullptr || value == nullptr)
        return false;
    if (_wcsicmp(key, L"NextPictureIndex") == 0) {
        int index = 0;
        if (swscanf(value, L"%d", &index) != 1) {
            DebugOut(L"ERROR: NVParameterWrite: bad NextPictureIndex.\r\n");
            return false;
        }
        // The warning names the read side; scripts' logs have always shown it so.
        if (index < 0)
            DebugOut(L"Warning: NVparameterRead: NextPictureIndex < 0\r\n");
        WriteNextPictureIndex(static_cast<short>(index));
        return true;
    }
    if (_wcsicmp(key, L"DEVICEID") == 0) {
        DebugOut(L"ERROR: NVParameterWrite: attempt to write DeviceID.\r\n");
    } else if (_wcsicmp(key, L"PrevSessionDateTime") == 0) {
        DebugOut(L"ERROR: NVParameterWrite: attempt to write PrevSessionDateTime.\r\n");
    } else if (_wcsicmp(key, L"AnonymousName") == 0) {
        DebugOut(L"ERROR: NVParameterWrite: attempt to write AnonymousName.\r\n");
    } else {
        DebugOut(L"ERROR: NVParameterWrite: Unknown Key name.\r\n");
    }
    return false;
}
