// MarrowbyGzip.dll's sZip, called as the control calls it: the library loaded
// from "\Device Software" on the device disk, the entry point looked up by
// name, the strings as BSTRs, the library freed again after each call.
//
// tests/compress/szip_check.sh runs this program on a disk it prepares and
// then checks the archives left on the disk (\compress.zip, \stored.zip,
// \empty.zip) with the native unzip and Python's zipfile. Run alone, the
// program skips the full-disk case, which needs the disk the script makes.
#include <windows.h>
#include <oleauto.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "compress/MarrowbyGzip.h"

namespace {

const wchar_t kLibrary[] = L"\\Device Software\\MarrowbyGzip.dll";

// The freshly built library, copied onto the device disk once.
void InstallLibrary()
{
    if (GetFileAttributesW(kLibrary) != INVALID_FILE_ATTRIBUTES)
        return;
    CreateDirectoryW(L"\\Device Software", nullptr);
    // Wine's drive Z: is the Unix root.
    ASSERT_TRUE(CopyFileW(L"Z:" MARROWBY_DLL, kLibrary, FALSE)) << GetLastError();
}

// LoadLibraryW, GetProcAddress "sZip", the call, FreeLibrary.
int CallSZip(const wchar_t* pattern, const wchar_t* destination, DWORD reserved = 0, DWORD level = 6)
{
    HMODULE library = LoadLibraryW(kLibrary);
    EXPECT_NE(library, nullptr) << GetLastError();
    if (library == nullptr)
        return -1;
    // Through void(*)(), the cast between function types that says "any".
    auto zip = reinterpret_cast<SZipProc>(reinterpret_cast<void (*)()>(GetProcAddress(library, "sZip")));
    EXPECT_NE(zip, nullptr);
    int rc = -1;
    if (zip != nullptr) {
        BSTR p = pattern ? SysAllocString(pattern) : nullptr;
        BSTR d = destination ? SysAllocString(destination) : nullptr;
        rc = zip(p, d, reserved, level);
        SysFreeString(p);
        SysFreeString(d);
    }
    FreeLibrary(library);
    return rc;
}

bool Exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

void MakeFolder(const std::wstring& path) { CreateDirectoryW(path.c_str(), nullptr); }

// Writes bytes to path; with a local time, sets the last-write time to it.
void WriteBytes(const std::wstring& path, const std::string& bytes, const SYSTEMTIME* local = nullptr)
{
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE) << GetLastError();
    DWORD wrote = 0;
    EXPECT_TRUE(WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &wrote, nullptr));
    EXPECT_EQ(wrote, bytes.size());
    if (local != nullptr) {
        SYSTEMTIME utc;
        FILETIME ft;
        ASSERT_TRUE(TzSpecificLocalTimeToSystemTime(nullptr, local, &utc));
        ASSERT_TRUE(SystemTimeToFileTime(&utc, &ft));
        EXPECT_TRUE(SetFileTime(h, nullptr, nullptr, &ft));
    }
    CloseHandle(h);
}

std::string ReadBytes(const std::wstring& path)
{
    HANDLE h = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return {};
    std::string bytes(GetFileSize(h, nullptr), '\0');
    DWORD got = 0;
    ReadFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &got, nullptr);
    CloseHandle(h);
    bytes.resize(got);
    return bytes;
}

std::string RandomBytes(size_t size, unsigned seed)
{
    std::mt19937 gen(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes)
        c = static_cast<char>(gen());
    return bytes;
}

SYSTEMTIME Local(WORD year, WORD month, WORD day, WORD hour, WORD minute, WORD second)
{
    SYSTEMTIME t{};
    t.wYear = year;
    t.wMonth = month;
    t.wDay = day;
    t.wHour = hour;
    t.wMinute = minute;
    t.wSecond = second;
    return t;
}

unsigned Get16(const std::string& b, size_t at)
{
    return static_cast<unsigned char>(b[at]) | static_cast<unsigned char>(b[at + 1]) << 8;
}
unsigned Get32(const std::string& b, size_t at) { return Get16(b, at) | Get16(b, at + 2) << 16; }

struct Entry {
    std::string name;  // UTF-8
    unsigned method, flags, dosTime, dosDate, packed, size;
};

// The central directory of an archive without a comment.
std::vector<Entry> CentralDirectory(const std::string& zip)
{
    std::vector<Entry> entries;
    if (zip.size() < 22 || Get32(zip, zip.size() - 22) != 0x06054b50)
        return entries;
    unsigned count = Get16(zip, zip.size() - 12);
    size_t at = Get32(zip, zip.size() - 6);
    for (unsigned i = 0; i < count && at + 46 <= zip.size() && Get32(zip, at) == 0x02014b50; ++i) {
        unsigned nameSize = Get16(zip, at + 28);
        entries.push_back({zip.substr(at + 46, nameSize), Get16(zip, at + 10), Get16(zip, at + 8),
                           Get16(zip, at + 12), Get16(zip, at + 14), Get32(zip, at + 20), Get32(zip, at + 24)});
        at += 46 + nameSize + Get16(zip, at + 30) + Get16(zip, at + 32);
    }
    return entries;
}

std::vector<std::string> Names(const std::vector<Entry>& entries)
{
    std::vector<std::string> names;
    for (const Entry& e : entries)
        names.push_back(e.name);
    return names;
}

class SZip : public ::testing::Test {
protected:
    void SetUp() override { InstallLibrary(); }
};

// The session's files as the control packs them, left on the disk for the
// native checks: \compress.zip (level 6) and \stored.zip (level 0).
TEST_F(SZip, PacksEveryFileThePatternMatches)
{
    MakeFolder(L"\\Device Temp");
    MakeFolder(L"\\Device Temp\\sub");
    // Dates of this year, under the time zone rules the platform knows (a
    // zone's earlier rules may have differed, and the native checks use the
    // full history); both sides of daylight saving time.
    SYSTEMTIME now;
    GetLocalTime(&now);
    SYSTEMTIME winter = Local(now.wYear, 1, 15, 10, 12, 35), summer = Local(now.wYear, 7, 14, 16, 45, 8);
    std::string text;
    for (int i = 0; text.size() < 200000; ++i)
        text += "Q" + std::to_string(i % 40) + ": How steady was your hand today? answer " +
                std::to_string(i % 7) + "\r\n";
    std::string random = RandomBytes(1 << 20, 10);
    WriteBytes(L"\\Device Temp\\empty.txt", "", &winter);
    WriteBytes(L"\\Device Temp\\notes.txt", text, &winter);
    WriteBytes(L"\\Device Temp\\random.bin", random, &summer);
    WriteBytes(L"\\Device Temp\\Fragebogen_\u00fcbung.txt", "Gr\xc3\xbc\xc3\x9f" "e\r\n", &summer);
    WriteBytes(L"\\Device Temp\\sub\\inner.txt", "not packed");
    WriteBytes(L"\\compress.zip", "an earlier archive");

    ASSERT_EQ(CallSZip(L"\\Device Temp\\*", L"\\compress.zip"), SZIP_OK);
    ASSERT_EQ(CallSZip(L"\\Device Temp\\*", L"\\stored.zip", 0, 0), SZIP_OK);
    EXPECT_FALSE(Exists(L"\\compress.zip.tmp"));
    EXPECT_FALSE(Exists(L"\\stored.zip.tmp"));

    std::vector<Entry> deflated = CentralDirectory(ReadBytes(L"\\compress.zip"));
    // Ordinal order of the names; directories are not packed.
    std::vector<std::string> names = {"Fragebogen_\xc3\xbc" "bung.txt", "empty.txt", "notes.txt", "random.bin"};
    EXPECT_EQ(Names(deflated), names);
    ASSERT_EQ(deflated.size(), 4u);
    EXPECT_EQ(deflated[0].flags & 0x800, 0x800u);  // UTF-8 name
    EXPECT_EQ(deflated[2].flags & 0x800, 0u);
    EXPECT_EQ(deflated[1].method, 0u);  // an empty file is stored
    EXPECT_EQ(deflated[2].method, 8u);
    EXPECT_LT(deflated[2].packed, text.size() / 10);
    EXPECT_EQ(deflated[3].size, random.size());
    // 15 Jan 10:12:35 local: odd seconds round down.
    EXPECT_EQ(deflated[2].dosDate, static_cast<unsigned>((now.wYear - 1980) << 9) | (1 << 5) | 15);
    EXPECT_EQ(deflated[2].dosTime, (10u << 11) | (12 << 5) | 17);

    std::vector<Entry> stored = CentralDirectory(ReadBytes(L"\\stored.zip"));
    EXPECT_EQ(Names(stored), names);
    for (const Entry& e : stored) {
        EXPECT_EQ(e.method, 0u) << e.name;
        EXPECT_EQ(e.packed, e.size) << e.name;
    }
}

TEST_F(SZip, PatternMatchingNothingGivesAnEmptyArchive)
{
    MakeFolder(L"\\emptycase");
    WriteBytes(L"\\emptycase\\a.txt", "a");
    ASSERT_EQ(CallSZip(L"\\emptycase\\*.none", L"\\empty.zip"), SZIP_OK);
    std::string zip = ReadBytes(L"\\empty.zip");
    EXPECT_EQ(zip, std::string("PK\x05\x06", 4) + std::string(18, '\0'));
    // A folder that does not exist holds no files either.
    ASSERT_EQ(CallSZip(L"\\No Such Folder\\*", L"\\empty2.zip"), SZIP_OK);
    EXPECT_EQ(ReadBytes(L"\\empty2.zip"), zip);
}

TEST_F(SZip, DestinationAndTemporaryFileAreNotPacked)
{
    MakeFolder(L"\\self");
    WriteBytes(L"\\self\\a.txt", "a");
    WriteBytes(L"\\self\\out.zip", "an earlier archive");
    WriteBytes(L"\\self\\out.zip.tmp", "left by a run that was killed");
    ASSERT_EQ(CallSZip(L"\\self\\*", L"\\self\\out.zip"), SZIP_OK);
    EXPECT_EQ(Names(CentralDirectory(ReadBytes(L"\\self\\out.zip"))), std::vector<std::string>{"a.txt"});
    EXPECT_FALSE(Exists(L"\\self\\out.zip.tmp"));
    // The same with a pattern that names the folder another way.
    ASSERT_EQ(CallSZip(L"\\self\\..\\self\\*.*", L"\\SELF\\OUT.ZIP"), SZIP_OK);
    EXPECT_EQ(Names(CentralDirectory(ReadBytes(L"\\self\\out.zip"))), std::vector<std::string>{"a.txt"});
}

TEST_F(SZip, BadArgumentsAreRefused)
{
    MakeFolder(L"\\args");
    WriteBytes(L"\\args\\a.txt", "a");
    EXPECT_EQ(CallSZip(nullptr, L"\\args.zip"), SZIP_E_ARGUMENTS);
    EXPECT_EQ(CallSZip(L"\\args\\*", nullptr), SZIP_E_ARGUMENTS);
    EXPECT_EQ(CallSZip(L"", L"\\args.zip"), SZIP_E_ARGUMENTS);
    EXPECT_EQ(CallSZip(L"\\args\\*", L""), SZIP_E_ARGUMENTS);
    EXPECT_EQ(CallSZip(L"\\args\\*", L"\\args.zip", 1, 6), SZIP_E_ARGUMENTS);
    EXPECT_EQ(CallSZip(L"\\args\\*", L"\\args.zip", 0, 10), SZIP_E_ARGUMENTS);
    EXPECT_EQ(CallSZip(L"\\args\\*", L"\\args\\", 0, 6), SZIP_E_ARGUMENTS);
    EXPECT_FALSE(Exists(L"\\args.zip"));
    EXPECT_FALSE(Exists(L"\\args.zip.tmp"));
}

TEST_F(SZip, UnreadableSourceLeavesTheDestinationAlone)
{
    MakeFolder(L"\\locked");
    WriteBytes(L"\\locked\\a.txt", RandomBytes(600000, 1));
    WriteBytes(L"\\locked\\b.txt", "held open without sharing");
    WriteBytes(L"\\locked.zip", "an earlier archive");
    HANDLE held = CreateFileW(L"\\locked\\b.txt", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(held, INVALID_HANDLE_VALUE);
    EXPECT_EQ(CallSZip(L"\\locked\\*", L"\\locked.zip"), SZIP_E_SOURCE);
    CloseHandle(held);
    EXPECT_EQ(ReadBytes(L"\\locked.zip"), "an earlier archive");
    EXPECT_FALSE(Exists(L"\\locked.zip.tmp"));
    // And once the file is free again, the archive is made.
    EXPECT_EQ(CallSZip(L"\\locked\\*", L"\\locked.zip"), SZIP_OK);
    EXPECT_EQ(Names(CentralDirectory(ReadBytes(L"\\locked.zip"))), (std::vector<std::string>{"a.txt", "b.txt"}));
}

// A full disk. szip_check.sh mounts a 64 KiB file system on \full when it
// runs as root (SZIP_FULL_DISK=tmpfs), and otherwise makes
// \full\compress.zip.tmp a link to /dev/full (SZIP_FULL_DISK=devfull), where
// every write fails with "no space left on device" but which Wine cannot
// delete (a device is no file to it), so that only the first way shows that
// the temporary file is gone.
TEST_F(SZip, FullDiskLeavesNothing)
{
    wchar_t kind[16] = L"";
    GetEnvironmentVariableW(L"SZIP_FULL_DISK", kind, 16);
    if (kind[0] == L'\0')
        GTEST_SKIP() << "no full disk: run through tests/compress/szip_check.sh";
    MakeFolder(L"\\fullsrc");
    WriteBytes(L"\\fullsrc\\a.bin", RandomBytes(1 << 20, 2));
    WriteBytes(L"\\full\\compress.zip", "an earlier archive");
    EXPECT_EQ(CallSZip(L"\\fullsrc\\*", L"\\full\\compress.zip"), SZIP_E_DESTINATION);
    EXPECT_EQ(ReadBytes(L"\\full\\compress.zip"), "an earlier archive");
    if (std::wstring(kind) == L"tmpfs") {
        EXPECT_FALSE(Exists(L"\\full\\compress.zip.tmp"));
    }
}

TEST_F(SZip, MissingDestinationFolder)
{
    MakeFolder(L"\\nodest");
    WriteBytes(L"\\nodest\\a.txt", "a");
    EXPECT_EQ(CallSZip(L"\\nodest\\*", L"\\nowhere\\compress.zip"), SZIP_E_DESTINATION);
    EXPECT_FALSE(Exists(L"\\nowhere"));
}

// A file of 4 GiB (sparse, so cheap) cannot go into a plain ZIP.
TEST_F(SZip, FileTooLargeForPlainZip)
{
    MakeFolder(L"\\big");
    WriteBytes(L"\\big\\small.txt", "small");
    HANDLE h = CreateFileW(L"\\big\\huge.bin", GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    LARGE_INTEGER size;
    size.QuadPart = 0x100000000ll;
    bool made = SetFilePointerEx(h, size, nullptr, FILE_BEGIN) && SetEndOfFile(h);
    CloseHandle(h);
    if (!made) {
        DeleteFileW(L"\\big\\huge.bin");
        GTEST_SKIP() << "no 4 GiB file on this disk";
    }
    EXPECT_EQ(CallSZip(L"\\big\\*", L"\\big.zip"), SZIP_E_TOO_LARGE);
    DeleteFileW(L"\\big\\huge.bin");
    EXPECT_FALSE(Exists(L"\\big.zip"));
    EXPECT_FALSE(Exists(L"\\big.zip.tmp"));
}

}  // namespace
