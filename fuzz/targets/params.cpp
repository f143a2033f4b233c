// The provisioning parameters file through the scanner, the start-up checks
// and every typed read, and each value through the date/time text parser.
//
// Input: the file.
#include <cstdint>

#include "fuzz/shim/Win32Shim.h"
#include "session/StoredParams.h"

namespace {
const wchar_t kName[] = L"\\Hard Disk\\params.txt";
const wchar_t* const kKeys[] = {L"FirstSessionDateTime", L"EndPracticeDate", L"SessionWindowHours",
                                L"RealTestIntervalDays", L"PracticeTestIntervalDays", L"MakeupDays",
                                L"MinFreeSpaceMB", L"Debug", L"StudySite"};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    shim::ResetFiles();
    shim::PutFile(kName, data, size);
    CStoredParams params;
    if (params.Open()) {
        short number = 0;
        params.ReadSessionWindowHours(&number);
        params.ReadRealTestIntervalDays(&number);
        params.ReadPracticeTestIntervalDays(&number);
        params.ReadMakeupDays(&number);
        params.ReadMinFreeSpaceMB(&number);
        params.ReadDebug(&number);
        SYSTEMTIME when;
        if (params.ReadFirstSessionDateTime(&when))
            delete[] SystemDateTimeToScript(&when, true);
        if (params.ReadEndPracticeDate(&when))
            delete[] SystemDateTimeToScript(&when, false);
        // Every value through the date parser.
        for (const wchar_t* key : kKeys) {
            wchar_t* value = params.ParameterRead(key, L"Mon 01 Jan 2001");
            if (value != nullptr) {
                SYSTEMTIME when;
                if (ScriptToSystemDateTime(value, &when)) {
                    ULONGLONG count = 0;
                    if (SystemTimeToULongLong(&when, &count))
                        ULongLongToSystemTime(&count, &when);
                }
                delete[] value;
            }
        }
    }
    params.Close();
    return 0;
}
