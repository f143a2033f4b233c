// The watch's parameter reply. See WatchParms.h.
#include "watch/WatchParms.h"

#include <algorithm>
#include <cwchar>
#include <new>

bool ParseWatchParms(const BYTE* reply, DWORD size, WatchParms* out, const wchar_t** pFailure)
{
    out->samplesRecorded = -1;
    out->text = nullptr;
    const char* bytes = reinterpret_cast<const char*>(reply);
    const int replySize = static_cast<int>(size);
    int room = replySize > 0 ? MultiByteToWideChar(CP_ACP, 0, bytes, replySize, nullptr, 0) : 0;
    if (room <= 0) {
        *pFailure = L"ERROR: ProcessReadParms: response failed to convert.\r\n";
        return false;
    }
    wchar_t* text = new (std::nothrow) wchar_t[room + 1];
    if (text == nullptr) {
        *pFailure = L"ERROR: ProcessReadParms: out of memory.\r\n";
        return false;
    }
    MultiByteToWideChar(CP_ACP, 0, bytes, replySize, text, room);
    text[room] = L'\0';

    // CR, field, CR, field, CR, next log address in hex, CR ...
    const wchar_t* cr[4] = {};
    const wchar_t* p = text;
    for (int i = 0; i < 4 && p != nullptr; ++i) {
        cr[i] = wcschr(p, L'\r');
        p = cr[i] != nullptr ? cr[i] + 1 : nullptr;
    }
    if (cr[0] != text || cr[3] == nullptr) {
        *pFailure = L"Garbled response from watch.\r\n";
        delete[] text;
        return false;
    }
    // A number that is unreadable or negative (as a 32-bit value, whatever
    // the width of long) is garbage; one with bit 23 set is the watch's way
    // of saying it has recorded nothing.
    unsigned long address = 0;
    wchar_t field[64] = {};
    wcsncpy(field, cr[2] + 1, std::min<size_t>(cr[3] - cr[2] - 1, 63));
    if (swscanf(field, L"%lx", &address) != 1 || address > 0x7FFFFFFFUL) {
        *pFailure = L"Garbled next address in parameter.\r\n";
        delete[] text;
        return false;
    }
    const long samples = (address & 0x800000UL) != 0 ? 0 : static_cast<long>(address);

    // Kept with CR LF line ends, as it goes into the ".trem" file.
    size_t crs = 0;
    for (const wchar_t* q = text; *q != L'\0'; ++q)
        crs += (*q == L'\r');
    wchar_t* kept = new (std::nothrow) wchar_t[wcslen(text) + crs + 1];
    if (kept == nullptr) {
        *pFailure = L"ERROR: ProcessReadParms: out of memory.\r\n";
        delete[] text;
        return false;
    }
    wchar_t* o = kept;
    for (const wchar_t* q = text; *q != L'\0'; ++q) {
        *o++ = *q;
        if (*q == L'\r')
            *o++ = L'\n';
    }
    *o = L'\0';
    delete[] text;
    out->samplesRecorded = samples;
    out->text = kept;
    return true;
}
