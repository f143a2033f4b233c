// sZip called as the control calls it; szip_check.sh prepares the disk and
// checks the archives left on it natively.
#include <windows.h>
#include <oleauto.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "compress/MarrowbyGzip.h"

namespace {

const wchar_t kLibrary[] = L"\\Device Software\\MarrowbyGzip.dll";

int CallSZip(const wchar_t* pattern, const wchar_t* destination, DWORD reserved = 0, DWORD level = 6)
{
    CreateDirectoryW(L"\\Device Software", nullptr);
    CopyFileW(L"Z:" MARROWBY_DLL, kLibrary, TRUE);  // once; Wine's drive Z: is the Unix root
    HMODULE library = LoadLibraryW(kLibrary);
    // Through void(*)(), the cast between function types that says "any".
    auto zip = library ? reinterpret_cast<SZipProc>(reinterpret_cast<void (*)()>(GetProcAddress(library, "sZip")))
                       : nullptr;
    EXPECT_NE(zip, nullptr) << GetLastError();
    BSTR p = pattern ? SysAllocString(pattern) : nullptr, d = destination ? SysAllocString(destination) : nullptr;
    const int rc = zip ? zip(p, d, reserved, level) : -1;
    SysFreeString(p);
    SysFreeString(d);
    if (library)
        FreeLibrary(library);
    return rc;
}

bool Exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

void WriteBytes(const std::wstring& path, const std::string& bytes, const SYSTEMTIME* local = nullptr)
{
    CreateDirectoryW(path.substr(0, path.rfind(L'\\')).c_str(), nullptr);  // one level
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE) << GetLastError();
    DWORD wrote = 0;
    EXPECT_TRUE(WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &wrote, nullptr) && wrote == bytes.size());
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
    std::string bytes(h == INVALID_HANDLE_VALUE ? 0 : GetFileSize(h, nullptr), '\0');
    DWORD got = 0;
    ReadFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &got, nullptr);
    CloseHandle(h);
    return bytes.substr(0, got);
}

std::string RandomBytes(size_t size, unsigned seed)
{
    std::mt19937 gen(seed);
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(gen()); });
    return bytes;
}

// Left for the native checks: \compress.zip (level 6), \stored.zip (level 0).
TEST(SZip, PacksEveryFileThePatternMatches)
{
    // Both sides of daylight saving time, odd seconds; this year, as the
    // zone's earlier rules may differ between Wine and the native checks.
    SYSTEMTIME now;
    GetLocalTime(&now);
    SYSTEMTIME winter{now.wYear, 1, 0, 15, 10, 12, 35, 0}, summer{now.wYear, 7, 0, 14, 16, 45, 8, 0};
    std::string text;
    for (int i = 0; text.size() < 200000; ++i)
        text += "Q" + std::to_string(i % 40) + ": How steady was your hand today? answer " + std::to_string(i % 7) +
                "\r\n";
    WriteBytes(L"\\Device Temp\\empty.txt", "", &winter);
    WriteBytes(L"\\Device Temp\\notes.txt", text, &winter);
    WriteBytes(L"\\Device Temp\\random.bin", RandomBytes(1 << 20, 10), &summer);
    WriteBytes(L"\\Device Temp\\Fragebogen_\u00fcbung.txt", "Gr\xc3\xbc\xc3\x9f" "e\r\n", &summer);
    WriteBytes(L"\\Device Temp\\sub\\inner.txt", "not packed");
    WriteBytes(L"\\compress.zip", "an earlier archive");

    ASSERT_EQ(CallSZip(L"\\Device Temp\\*", L"\\compress.zip"), SZIP_OK);
    ASSERT_EQ(CallSZip(L"\\Device Temp\\*", L"\\stored.zip", 0, 0), SZIP_OK);
    EXPECT_FALSE(Exists(L"\\compress.zip.tmp") || Exists(L"\\stored.zip.tmp"));
    EXPECT_LT(ReadBytes(L"\\compress.zip").size(), (1u << 20) + text.size() / 10) << "the text is deflated";
}

// The archive is \self\out.zip, checked natively: it holds a.txt alone.
TEST(SZip, DestinationAndTemporaryFileAreNotPacked)
{
    WriteBytes(L"\\self\\a.txt", "a");
    WriteBytes(L"\\self\\out.zip", "an earlier archive");
    WriteBytes(L"\\self\\out.zip.tmp", "left by a run that was killed");
    // The pattern and the destination name the folder in other ways.
    ASSERT_EQ(CallSZip(L"\\self\\..\\self\\*.*", L"\\SELF\\OUT.ZIP"), SZIP_OK);
    EXPECT_FALSE(Exists(L"\\self\\out.zip.tmp"));
}

TEST(SZip, BadArgumentsAndAMissingDestinationFolderAreRefusedAndNoMatchGivesAnEmptyArchive)
{
    WriteBytes(L"\\args\\a.txt", "a");
    const struct
    {
        const wchar_t *pattern, *destination;
        DWORD reserved, level;
        int result;
    } cases[] = {
        {nullptr, L"\\args.zip", 0, 6, SZIP_E_ARGUMENTS},
        {L"\\args\\*", nullptr, 0, 6, SZIP_E_ARGUMENTS},
        {L"", L"\\args.zip", 0, 6, SZIP_E_ARGUMENTS},
        {L"\\args\\*", L"", 0, 6, SZIP_E_ARGUMENTS},
        {L"\\args\\*", L"\\args.zip", 1, 6, SZIP_E_ARGUMENTS},
        {L"\\args\\*", L"\\args.zip", 0, 10, SZIP_E_ARGUMENTS},
        {L"\\args\\*", L"\\args\\", 0, 6, SZIP_E_ARGUMENTS},
        {L"\\args\\*", L"\\nowhere\\args.zip", 0, 6, SZIP_E_DESTINATION},
    };
    for (const auto& c : cases)
        EXPECT_EQ(CallSZip(c.pattern, c.destination, c.reserved, c.level), c.result)
            << (c.destination ? c.destination : L"(null)");
    for (const wchar_t* made : {L"\\args.zip", L"\\args.zip.tmp", L"\\nowhere"})
        EXPECT_FALSE(Exists(made));
    // A pattern that matches nothing gives an empty archive.
    for (const wchar_t* pattern : {L"\\args\\*.none", L"\\No Such Folder\\*"}) {
        ASSERT_EQ(CallSZip(pattern, L"\\empty.zip"), SZIP_OK);
        EXPECT_EQ(ReadBytes(L"\\empty.zip"), std::string("PK\x05\x06", 4) + std::string(18, '\0'));
    }
}

// Once the file is free again the archive is made (and checked natively).
TEST(SZip, UnreadableSourceLeavesTheDestinationAlone)
{
    WriteBytes(L"\\locked\\a.txt", RandomBytes(600000, 1));
    WriteBytes(L"\\locked\\b.txt", "held open without sharing");
    WriteBytes(L"\\locked.zip", "an earlier archive");
    HANDLE held = CreateFileW(L"\\locked\\b.txt", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(held, INVALID_HANDLE_VALUE);
    EXPECT_EQ(CallSZip(L"\\locked\\*", L"\\locked.zip"), SZIP_E_SOURCE);
    CloseHandle(held);
    EXPECT_EQ(ReadBytes(L"\\locked.zip"), "an earlier archive");
    EXPECT_FALSE(Exists(L"\\locked.zip.tmp"));
    EXPECT_EQ(CallSZip(L"\\locked\\*", L"\\locked.zip"), SZIP_OK);
}

// \full is a full disk made by szip_check.sh: a 64 KiB tmpfs, or (not as
// root) \full\compress.zip.tmp linked to /dev/full, which Wine cannot delete.
TEST(SZip, FullDiskLeavesNothing)
{
    wchar_t kind[16] = L"";
    GetEnvironmentVariableW(L"SZIP_FULL_DISK", kind, 16);
    if (kind[0] == L'\0')
        GTEST_SKIP() << "no full disk: run through tests/compress/szip_check.sh";
    WriteBytes(L"\\fullsrc\\a.bin", RandomBytes(1 << 20, 2));
    WriteBytes(L"\\full\\compress.zip", "an earlier archive");
    EXPECT_EQ(CallSZip(L"\\fullsrc\\*", L"\\full\\compress.zip"), SZIP_E_DESTINATION);
    EXPECT_EQ(ReadBytes(L"\\full\\compress.zip"), "an earlier archive");
    if (std::wstring(kind) == L"tmpfs")
        EXPECT_FALSE(Exists(L"\\full\\compress.zip.tmp"));
}

// A file of 4 GiB (sparse, so cheap) cannot go into a plain ZIP.
TEST(SZip, FileTooLargeForPlainZip)
{
    WriteBytes(L"\\big\\small.txt", "small");
    HANDLE h = CreateFileW(L"\\big\\huge.bin", GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    LARGE_INTEGER size{.QuadPart = 0x100000000ll};
    const bool made = SetFilePointerEx(h, size, nullptr, FILE_BEGIN) && SetEndOfFile(h);
    CloseHandle(h);
    if (!made) {
        DeleteFileW(L"\\big\\huge.bin");
        GTEST_SKIP() << "no 4 GiB file on this disk";
    }
    EXPECT_EQ(CallSZip(L"\\big\\*", L"\\big.zip"), SZIP_E_TOO_LARGE);
    DeleteFileW(L"\\big\\huge.bin");
    EXPECT_FALSE(Exists(L"\\big.zip") || Exists(L"\\big.zip.tmp"));
}

}  // namespace
