#include "diag/Assert.h"

#include <windows.h>

#include <cstring>
#include <cwchar>
#include <new>

#include "diag/DebugOut.h"
#include "session/StoredParams.h"

namespace {

const wchar_t kAssertFile[] = L"\\Hard Disk\\asserts.txt";

// Opens the assert file for appending: an existing file first, else a new one.
// Readers may look at the file while it is open; a second writer may not.
HANDLE OpenAssertFile()
{
    HANDLE file = CreateFileW(kAssertFile, GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        file = CreateFileW(kAssertFile, GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_NEW,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    return file;
}

}  // namespace

void AssertWrite(const wchar_t* file, short line, const wchar_t* message)
{
    if (file == nullptr || message == nullptr) {
        DebugOut(L"ERROR: AssertWrite: null file or line\r\n");
        return;
    }

    HANDLE handle = OpenAssertFile();
    if (handle == INVALID_HANDLE_VALUE) {
        DebugOut(L"Could not create asserts file.\r\n");
        return;
    }

    // Append; a failed seek is reported but the line is still written.
    if (SetFilePointer(handle, 0, nullptr, FILE_END) == INVALID_SET_FILE_POINTER &&
        GetLastError() != NO_ERROR)
        DebugOut(L"ERROR: seek on assert file failed.\r\n");

    wchar_t* dateText = nullptr;
    wchar_t* lineText = nullptr;
    char* narrow = nullptr;

    SYSTEMTIME now;
    GetLocalTime(&now);
    dateText = SystemDateTimeToScript(&now, true);
    if (dateText == nullptr) {
        DebugOut(L"ERROR: AssertWrite: date/time failed to convert.\r\n");
    } else {
        // date, blank, file, " line ", the number, blank, message, "\r\n",
        // terminator. The number gets five digits plus its sign: a 16-bit
        // line such as -25536 needs six characters.
        const size_t length = wcslen(dateText) + 1 + wcslen(file) + 6 + 5 + 1 + 1 + wcslen(message) + 2 + 1;
        lineText = new (std::nothrow) wchar_t[length];
        if (lineText == nullptr) {
            DebugOut(L"ERROR: AssertWrite: out of memory for line.\r\n");
        } else {
            swprintf(lineText, length, L"%ls %ls line %d %ls\r\n", dateText, file, static_cast<int>(line), message);
            narrow = NativeToAscii(lineText);
            if (narrow == nullptr) {
                // The handle, the date text and the line are left as they are on
                // purpose: the file stays locked until the process ends, and
                // later assertions from this process report that they could not
                // open it.
                DebugOut(L"ERROR: AssertWrite: msg failed to convert.\r\n");
                return;
            }
            DWORD written = 0;
            if (!WriteFile(handle, narrow, static_cast<DWORD>(strlen(narrow)), &written, nullptr))
                DebugOut(L"ERROR: AssertWrite: WriteFile failed.\r\n");
            else if (!FlushFileBuffers(handle))
                DebugOut(L"ERROR: AssertWrite: FlushFileBuffers failed.\r\n");
        }
    }

    CloseHandle(handle);
    delete[] dateText;
    delete[] narrow;
    delete[] lineText;
}
