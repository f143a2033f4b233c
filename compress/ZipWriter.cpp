#include "compress/ZipWriter.h"

#include <cstdint>
#include <cstring>
#include <cwchar>

#include "compress/MarrowbyGzip.h"

namespace marrowby {

namespace {

constexpr size_t kChunk = 256 * 1024;
// The largest size or offset a plain ZIP field carries: 0xFFFFFFFF means "see ZIP64".
constexpr ULONGLONG kZipLimit = 0xFFFFFFFEull;
// Likewise for the entry count, where 0xFFFF means ZIP64.
constexpr DWORD kMaxEntries = 0xFFFE;

constexpr DWORD kLocalSignature = 0x04034b50;
constexpr DWORD kCentralSignature = 0x02014b50;
constexpr DWORD kEndSignature = 0x06054b50;
constexpr size_t kLocalHeaderSize = 30;
constexpr size_t kCentralHeaderSize = 46;
constexpr size_t kEndRecordSize = 22;
constexpr size_t kCrcOffset = 14;            // CRC, compressed and uncompressed size follow
constexpr WORD kFlagUtf8 = 0x0800;           // general-purpose bit 11: the name is UTF-8
constexpr WORD kVersionMadeBy = 20;          // 2.0 on MS-DOS/FAT: external attributes are DOS attributes
constexpr WORD kExtendedTimestamp = 0x5455;  // "UT": flags, then the UTC mtime
constexpr size_t kExtraSize = 9;             // 2 tag + 2 size + 1 flags + 4 mtime
constexpr size_t kMaxName = 1024;            // a file name of MAX_PATH characters fits as UTF-8

void Put16(BYTE* p, WORD v)
{
    p[0] = static_cast<BYTE>(v);
    p[1] = static_cast<BYTE>(v >> 8);
}
void Put32(BYTE* p, DWORD v)
{
    Put16(p, static_cast<WORD>(v));
    Put16(p + 2, static_cast<WORD>(v >> 16));
}

// DOS date and time of a UTC file time, in local time under the rules in
// force at that date, clamped to what DOS can hold (1980 to 2107); odd
// seconds are rounded down.
void DosDateTime(const FILETIME& utc, WORD& date, WORD& time)
{
    SYSTEMTIME u, t;
    if (!FileTimeToSystemTime(&utc, &u) || !SystemTimeToTzSpecificLocalTime(nullptr, &u, &t) ||
        t.wYear < 1980) {
        date = (1 << 5) | 1;  // 1 Jan 1980 00:00:00
        time = 0;
        return;
    }
    if (t.wYear > 2107) {
        date = static_cast<WORD>((127 << 9) | (12 << 5) | 31);
        time = static_cast<WORD>((23 << 11) | (59 << 5) | 29);
        return;
    }
    date = static_cast<WORD>(((t.wYear - 1980) << 9) | (t.wMonth << 5) | t.wDay);
    time = static_cast<WORD>((t.wHour << 11) | (t.wMinute << 5) | (t.wSecond / 2));
}

// Seconds since 1970 (UTC) of a file time, when they fit the extra field's
// signed 32 bits.
bool UnixTime(const FILETIME& utc, DWORD& seconds)
{
    const LONGLONG epoch = 116444736000000000LL;  // 1 Jan 1970 in 100 ns units since 1601
    LONGLONG ticks = static_cast<LONGLONG>((static_cast<ULONGLONG>(utc.dwHighDateTime) << 32) |
                                           utc.dwLowDateTime) - epoch;
    LONGLONG s = ticks >= 0 ? ticks / 10000000 : -((-ticks + 9999999) / 10000000);
    if (s < INT32_MIN || s > INT32_MAX)
        return false;
    seconds = static_cast<DWORD>(static_cast<LONG>(s));
    return true;
}

}  // namespace

CZipWriter::~CZipWriter()
{
    if (m_zsReady)
        deflateEnd(&m_zs);
    m_file.Reset();
    if (m_created && !m_finished)
        DeleteFileW(m_tempPath.Data());
}

int CZipWriter::Begin(const wchar_t* tempPath, int level)
{
    m_level = level;
    if (!m_tempPath.Append(tempPath, wcslen(tempPath) + 1) || !m_in.Resize(kChunk) || !m_out.Resize(kChunk))
        return SZIP_E_MEMORY;
    if (level > 0) {
        // Raw deflate (no zlib header): what a ZIP entry of method 8 holds.
        if (deflateInit2(&m_zs, level, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) != Z_OK)
            return SZIP_E_MEMORY;
        m_zsReady = true;
    }
    m_file.Reset(CreateFileW(tempPath, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                             FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!m_file.Valid())
        return SZIP_E_DESTINATION;
    m_created = true;
    // Only to recognise the file under another name; a file system that has
    // no identities for its files leaves the check to the path comparison.
    m_haveTempInfo = GetFileInformationByHandle(m_file.Get(), &m_tempInfo) != FALSE &&
                     (m_tempInfo.nFileIndexHigh != 0 || m_tempInfo.nFileIndexLow != 0);
    return SZIP_OK;
}

bool CZipWriter::IsTemporary(const BY_HANDLE_FILE_INFORMATION& info) const
{
    return m_haveTempInfo && info.dwVolumeSerialNumber == m_tempInfo.dwVolumeSerialNumber &&
           info.nFileIndexHigh == m_tempInfo.nFileIndexHigh && info.nFileIndexLow == m_tempInfo.nFileIndexLow;
}

bool CZipWriter::Flush()
{
    size_t done = 0;
    while (done < m_used) {
        DWORD wrote = 0;
        if (!WriteFile(m_file.Get(), m_out.Data() + done, static_cast<DWORD>(m_used - done), &wrote, nullptr) ||
            wrote == 0)
            return false;
        done += wrote;
    }
    m_flushed += m_used;
    m_used = 0;
    return true;
}

bool CZipWriter::Put(const void* data, size_t size)
{
    const BYTE* p = static_cast<const BYTE*>(data);
    while (size > 0) {
        if (m_used == m_out.Size() && !Flush())
            return false;
        size_t n = m_out.Size() - m_used;
        if (n > size)
            n = size;
        std::memcpy(m_out.Data() + m_used, p, n);
        m_used += n;
        p += n;
        size -= n;
    }
    return true;
}

// Overwrites bytes already written: in the buffer while they are still there,
// otherwise in the file, returning to its end afterwards.
bool CZipWriter::Patch(ULONGLONG offset, const BYTE* data, size_t size)
{
    if (offset >= m_flushed) {
        std::memcpy(m_out.Data() + (offset - m_flushed), data, size);
        return true;
    }
    if (!Flush())
        return false;
    LARGE_INTEGER at, end;
    at.QuadPart = static_cast<LONGLONG>(offset);
    end.QuadPart = static_cast<LONGLONG>(m_flushed);
    DWORD wrote = 0;
    return SetFilePointerEx(m_file.Get(), at, nullptr, FILE_BEGIN) &&
           WriteFile(m_file.Get(), data, static_cast<DWORD>(size), &wrote, nullptr) && wrote == size &&
           SetFilePointerEx(m_file.Get(), end, nullptr, FILE_BEGIN);
}

// Reads the source to its end in chunks, deflating or storing each into the
// archive; gives the CRC and the number of bytes read.
int CZipWriter::CopyData(HANDLE source, bool deflated, DWORD& crc, ULONGLONG& size)
{
    uLong sum = crc32_z(0, nullptr, 0);
    size = 0;
    if (deflated && deflateReset(&m_zs) != Z_OK)
        return SZIP_E_MEMORY;
    for (;;) {
        DWORD got = 0;
        if (!ReadFile(source, m_in.Data(), static_cast<DWORD>(m_in.Size()), &got, nullptr))
            return SZIP_E_SOURCE;
        size += got;
        if (size > kZipLimit)
            return SZIP_E_TOO_LARGE;
        sum = crc32_z(sum, m_in.Data(), got);
        if (!deflated) {
            if (!Put(m_in.Data(), got))
                return SZIP_E_DESTINATION;
        } else {
            // Deflate straight into the output buffer, writing it out whenever it fills.
            m_zs.next_in = m_in.Data();
            m_zs.avail_in = got;
            int flush = got == 0 ? Z_FINISH : Z_NO_FLUSH;
            do {
                if (m_used == m_out.Size() && !Flush())
                    return SZIP_E_DESTINATION;
                m_zs.next_out = m_out.Data() + m_used;
                m_zs.avail_out = static_cast<uInt>(m_out.Size() - m_used);
                if (deflate(&m_zs, flush) == Z_STREAM_ERROR)
                    return SZIP_E_MEMORY;
                m_used = m_out.Size() - m_zs.avail_out;
            } while (m_zs.avail_out == 0);
        }
        if (Position() > kZipLimit)
            return SZIP_E_TOO_LARGE;
        if (got == 0)
            break;
    }
    crc = static_cast<DWORD>(sum);
    return SZIP_OK;
}

int CZipWriter::AddFile(HANDLE source, const BY_HANDLE_FILE_INFORMATION& info, const wchar_t* name)
{
    ULONGLONG fileSize = (static_cast<ULONGLONG>(info.nFileSizeHigh) << 32) | info.nFileSizeLow;
    if (m_entries >= kMaxEntries || fileSize > kZipLimit)
        return SZIP_E_TOO_LARGE;

    char utf8[kMaxName];
    int n = WideCharToMultiByte(CP_UTF8, 0, name, -1, utf8, sizeof utf8, nullptr, nullptr);
    if (n <= 1)
        return SZIP_E_SOURCE;
    WORD nameSize = static_cast<WORD>(n - 1);
    WORD flags = 0;
    for (WORD i = 0; i < nameSize; ++i)
        if (static_cast<BYTE>(utf8[i]) >= 0x80)
            flags |= kFlagUtf8;

    bool deflated = m_level > 0 && fileSize > 0;
    WORD method = deflated ? 8 : 0;
    WORD needed = deflated ? 20 : 10;
    if (deflated) {
        // Deflate's option bits, as Info-ZIP sets them.
        if (m_level >= 8)
            flags |= 2;
        else if (m_level == 2)
            flags |= 4;
        else if (m_level == 1)
            flags |= 6;
    }
    WORD dosDate, dosTime;
    DosDateTime(info.ftLastWriteTime, dosDate, dosTime);
    DWORD mtime = 0;
    WORD extraSize = UnixTime(info.ftLastWriteTime, mtime) ? kExtraSize : 0;
    BYTE extra[kExtraSize];
    Put16(extra, kExtendedTimestamp);
    Put16(extra + 2, 5);
    extra[4] = 1;  // the modification time is present
    Put32(extra + 5, mtime);

    const ULONGLONG headerOffset = Position();
    if (headerOffset > kZipLimit)
        return SZIP_E_TOO_LARGE;
    BYTE local[kLocalHeaderSize] = {};
    Put32(local, kLocalSignature);
    Put16(local + 4, needed);
    Put16(local + 6, flags);
    Put16(local + 8, method);
    Put16(local + 10, dosTime);
    Put16(local + 12, dosDate);
    // CRC and sizes (offset 14) are patched in once the data is written.
    Put16(local + 26, nameSize);
    Put16(local + 28, extraSize);
    if (!Put(local, sizeof local) || !Put(utf8, nameSize) || !Put(extra, extraSize))
        return SZIP_E_DESTINATION;

    const ULONGLONG dataOffset = Position();
    DWORD crc = 0;
    ULONGLONG size = 0;
    int rc = CopyData(source, deflated, crc, size);
    if (rc != SZIP_OK)
        return rc;
    const ULONGLONG packed = Position() - dataOffset;

    BYTE sums[12];
    Put32(sums, crc);
    Put32(sums + 4, static_cast<DWORD>(packed));
    Put32(sums + 8, static_cast<DWORD>(size));
    if (!Patch(headerOffset + kCrcOffset, sums, sizeof sums))
        return SZIP_E_DESTINATION;

    BYTE central[kCentralHeaderSize] = {};
    Put32(central, kCentralSignature);
    Put16(central + 4, kVersionMadeBy);
    Put16(central + 6, needed);
    Put16(central + 8, flags);
    Put16(central + 10, method);
    Put16(central + 12, dosTime);
    Put16(central + 14, dosDate);
    std::memcpy(central + 16, sums, sizeof sums);
    Put16(central + 28, nameSize);
    Put16(central + 30, extraSize);
    // Comment length, disk number and internal attributes stay 0.
    Put32(central + 38, info.dwFileAttributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN |
                                                 FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE));
    Put32(central + 42, static_cast<DWORD>(headerOffset));
    if (!m_central.Append(central, sizeof central) ||
        !m_central.Append(reinterpret_cast<const BYTE*>(utf8), nameSize) || !m_central.Append(extra, extraSize))
        return SZIP_E_MEMORY;
    ++m_entries;
    return SZIP_OK;
}

int CZipWriter::Finish(const wchar_t* destination)
{
    const ULONGLONG centralOffset = Position();
    if (!Put(m_central.Data(), m_central.Size()))
        return SZIP_E_DESTINATION;
    BYTE end[kEndRecordSize] = {};
    Put32(end, kEndSignature);
    // This disk and the central directory's disk stay 0.
    Put16(end + 8, static_cast<WORD>(m_entries));
    Put16(end + 10, static_cast<WORD>(m_entries));
    Put32(end + 12, static_cast<DWORD>(m_central.Size()));
    Put32(end + 16, static_cast<DWORD>(centralOffset));
    if (centralOffset > kZipLimit || Position() + sizeof end > kZipLimit)
        return SZIP_E_TOO_LARGE;
    if (!Put(end, sizeof end) || !Flush() || !FlushFileBuffers(m_file.Get()) || !m_file.CloseNow())
        return SZIP_E_DESTINATION;
    if (!MoveFileExW(m_tempPath.Data(), destination, MOVEFILE_REPLACE_EXISTING))
        return SZIP_E_DESTINATION;
    m_finished = true;
    return SZIP_OK;
}

}  // namespace marrowby
