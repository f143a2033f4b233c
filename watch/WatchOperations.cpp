// CWatch: what a script can do with the watch. Reading its parameters,
// copying its recording into a ".trem" file block by block, and the destroy
// sequence that wipes and re-arms it. Responses are handled on the host
// thread; the destroy sequence runs on the command thread. See Watch.h.
#include "watch/Watch.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <new>

#include "diag/Assert.h"
#include "diag/DebugOut.h"
#include "session/LocalClock.h"
#include "session/NVRAMBoard.h"
#include "session/StoredParams.h"
#include "session/TestManager.h"
#include "watch/WatchDestroySteps.h"
#include "watch/WatchParms.h"
#include "watch/WatchQueue.h"

namespace {

// Minutes from the destroy sequence to the start of the next recording, in
// 100 ns units.
constexpr ULONGLONG kStartDelay = 9000000000ULL;
// Bytes of a block on one line of the ".trem" file.
constexpr DWORD kBytesPerLine = 32;

// A wide text as a new[] narrow one in the system code page, or null.
char* ToNarrow(const wchar_t* text)
{
    int room = WideCharToMultiByte(CP_ACP, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (room <= 0)
        return nullptr;
    char* narrow = new (std::nothrow) char[room];
    if (narrow == nullptr)
        return nullptr;
    if (WideCharToMultiByte(CP_ACP, 0, text, -1, narrow, room, nullptr, nullptr) == 0) {
        delete[] narrow;
        return nullptr;
    }
    return narrow;
}

bool WriteAll(HANDLE file, const char* bytes, DWORD size)
{
    DWORD written = 0;
    if (!WriteFile(file, bytes, size, &written, nullptr) || written != size) {
        DebugOut(L"ERROR: SaveRecordedWatchData: write error on output.\r\n");
        return false;
    }
    return true;
}

bool WriteText(HANDLE file, const wchar_t* text)
{
    char* narrow = ToNarrow(text);
    if (narrow == nullptr) {
        DebugOut(L"ERROR: SaveRecordedWatchData: string didn't convert.\r\n");
        return false;
    }
    bool ok = WriteAll(file, narrow, static_cast<DWORD>(strlen(narrow)));
    delete[] narrow;
    return ok;
}

}  // namespace

// ---------------------------------------------------------------------------
// Parameters

void CWatch::ProcessReadParms(const WatchCmdResp* record)
{
    IWatchEventSink* sink = Sink();
    if (!record->success) {
        if (sink != nullptr)
            sink->WatchParametersRead(102);
        return;
    }

    WatchParms parms;
    const wchar_t* failure = nullptr;
    if (!ParseWatchParms(record->Data(), record->size, &parms, &failure)) {
        DebugOut(failure);
        m_parmSamplesRecorded = -1;
        if (sink != nullptr)
            sink->WatchParametersRead(102);
        return;
    }
    m_parmSamplesRecorded = parms.samplesRecorded;
    delete[] m_parmText;
    m_parmText = parms.text;
    if (sink != nullptr)
        sink->WatchParametersRead(0);
}

// ---------------------------------------------------------------------------
// Saving the recording

// The end-of-save rule, kept as it has always been computed: n counts
// 256-byte address units (the block address grows by 16 per 4096-byte
// block), although it was meant to count blocks; and the remainder is taken
// modulo 255, not 256. So 0x1000 gives n = 17 and two blocks are read, 0x0FF0
// gives n = 15 and one block, and a watch that recorded nothing (0) still
// gives one block. Watches in the field depend on reading at least what this
// reads; do not "fix" it.
long CWatch::BlocksToRead(long samplesRecorded)
{
    long n = (samplesRecorded >> 8) + (samplesRecorded % 255 != 0 ? 1 : 0);
    return n == 0 ? 1 : n;
}

short CWatch::SaveProgress(long blockAddress, long blocksToRead)
{
    LONGLONG percent = static_cast<LONGLONG>(blockAddress) * 100 / blocksToRead;
    return static_cast<short>(percent < 100 ? percent : 100);
}

void CWatch::DropSave()
{
    delete[] m_saveFileName;
    m_saveFileName = nullptr;
    delete m_pBlockQueue;
    m_pBlockQueue = nullptr;
    m_blockAddress = -1;
}

bool CWatch::WatchSaveStart(const wchar_t* dataName)
{
    if (m_blockAddress >= 0) {
        ASSERT(false);
        DebugOut(L"ERROR: WatchSaveStart called while data save in progress.\r\n");
        return false;
    }
    if (m_parmSamplesRecorded < 0) {
        ASSERT(false);
        DebugOut(L"ERROR: WatchSaveStart called, but parameters haven't been read.\r\n");
        return false;
    }
    DropSave();
    m_cancelFlag = 0;
    m_saveFileName = m_pTestManager != nullptr ? m_pTestManager->MakeTempFilename(dataName, L".trem") : nullptr;
    if (m_saveFileName == nullptr)
        return false;
    m_pBlockQueue = new (std::nothrow) CWatchQueue();
    if (m_pBlockQueue == nullptr || !m_pBlockQueue->IsValid()) {
        DebugOut(L"WatchSaveStart: new CWatchQueue failed.\r\n");
        DropSave();
        return false;
    }
    m_blockAddress = 0;
    const DWORD address = 0;
    if (!QueueCmd(kWatchCmdReadBlock, sizeof(address), &address)) {
        DebugOut(L"WatchSaveStart: QueueCmd failed.\r\n");
        DropSave();
        return false;
    }
    return true;
}

void CWatch::ProcessReadDataBlock(WatchCmdResp* record)
{
    IWatchEventSink* sink = Sink();
    if (m_cancelFlag != 0) {
        m_cancelFlag = 0;
        FreeWatchCmdResp(record);
        DropSave();
        if (sink != nullptr)
            sink->WatchSaveEnded(103);
        return;
    }
    if (!record->success) {
        FreeWatchCmdResp(record);
        DropSave();
        if (sink != nullptr)
            sink->WatchSaveEnded(102);
        return;
    }
    if (m_pBlockQueue == nullptr || m_blockAddress < 0) {
        // No save is waiting for it (it was closed down meanwhile).
        FreeWatchCmdResp(record);
        return;
    }
    m_pBlockQueue->AddTail(record);
    m_blockAddress += kBlockAddressStep;

    const long n = BlocksToRead(m_parmSamplesRecorded);
    if (sink != nullptr)
        sink->WatchSaveProgress(SaveProgress(m_blockAddress, n));

    if (m_blockAddress >= n) {
        m_blockAddress = -1;
        const bool saved = SaveRecordedWatchData();
        DropSave();
        if (sink != nullptr)
            sink->WatchSaveEnded(saved ? 0 : 102);
        return;
    }
    const DWORD address = static_cast<DWORD>(m_blockAddress);
    if (!QueueCmd(kWatchCmdReadBlock, sizeof(address), &address)) {
        DebugOut(L"ProcessReadDataBlock: QueueCmd failed.\r\n");
        DropSave();
        if (sink != nullptr)
            sink->WatchSaveEnded(102);
    }
}

// The ".trem" file: "TREM Version 1", the parameter text, "Data", then every
// byte of every block in hex, 32 bytes a line counted from each block's start.
bool CWatch::SaveRecordedWatchData()
{
    HANDLE file = m_saveFileName == nullptr
                      ? INVALID_HANDLE_VALUE
                      : CreateFileW(m_saveFileName, GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        DebugOut(L"ERROR: SaveRecordedWatchData: could not open file for writing.\r\n");
        return false;
    }
    bool ok = WriteText(file, L"TREM Version 1\r\n") && WriteText(file, m_parmText != nullptr ? m_parmText : L"") &&
              WriteText(file, L"\r\nData\r\n");

    // Two hex digits a byte and a line end every 32 bytes.
    const DWORD textRoom = kBlockBytes * 2 + (kBlockBytes / kBytesPerLine + 1) * 2 + 1;
    char* text = ok ? new (std::nothrow) char[textRoom] : nullptr;
    if (ok && text == nullptr) {
        DebugOut(L"ERROR: SaveRecordedWatchData: string didn't convert.\r\n");
        ok = false;
    }
    while (ok && m_pBlockQueue != nullptr) {
        WatchCmdResp* block = m_pBlockQueue->RemoveHead();
        if (block == nullptr)
            break;
        DWORD used = 0;
        const BYTE* bytes = block->Data();
        for (DWORD i = 0; i < block->size; ++i) {
            std::snprintf(text + used, textRoom - used, "%02x", bytes[i]);
            used += 2;
            if ((i + 1) % kBytesPerLine == 0 || i + 1 == block->size) {
                text[used++] = '\r';
                text[used++] = '\n';
            }
        }
        FreeWatchCmdResp(block);
        ok = WriteAll(file, text, used);
    }
    delete[] text;
    CloseHandle(file);
    return ok;
}

// ---------------------------------------------------------------------------
// The destroy sequence (command thread)

bool CWatch::ExecuteWatchDestroySequence()
{
    SYSTEMTIME now;
    LocalClockNow(&now);
    ULONGLONG nowCount = 0;
    SYSTEMTIME start;
    if (!SystemTimeToULongLong(&now, &nowCount)) {
        DebugOut(L"ExecuteWatchDestroySequence: Date conversion failed.\r\n");
        return false;
    }
    const ULONGLONG startCount = nowCount + kStartDelay;
    if (!ULongLongToSystemTime(&startCount, &start)) {
        DebugOut(L"ExecuteWatchDestroySequence: Date conversion failed.\r\n");
        return false;
    }

    BYTE name[64];
    DWORD nameBytes = sizeof(name);
    if (m_pNVRAM == nullptr || !m_pNVRAM->GetKeyBlob(name, &nameBytes)) {
        DebugOut(L"ExecuteWatchDestroySequence: NVReadAnonymousName failed.\r\n");
        return false;
    }
    if (nameBytes > kWatchMaxNameBytes) {
        DebugOut(L"ExecuteWatchDestroySequence: Anonymous name too long.\r\n");
        return false;
    }

    WatchDestroyStep steps[kWatchSetupSteps + 1];
    MakeWatchSetupSteps(start, name, nameBytes, steps);
    for (int i = 0; i <= kWatchSetupSteps; ++i) {
        if (i == kWatchSetupSteps) {
            // The log pointer counts from the moment it is sent.
            LocalClockNow(&now);
            if (!SystemTimeToULongLong(&now, &nowCount)) {
                DebugOut(L"ExecuteWatchDestroySequence: Date conversion failed.\r\n");
                return false;
            }
            MakeWatchLogPointerStep(WatchSecondsToStart(startCount, nowCount), m_fixedLogPointer != 0, &steps[i]);
        }
        BYTE* reply = nullptr;
        DWORD replySize = 0;
        const bool ok = ExecuteWatchCmd(steps[i].command, &reply, &replySize);
        delete[] reply;
        if (!ok) {
            DebugOut(steps[i].failure);
            return false;
        }
    }
    // The carrier goes back to pulsing when the host thread takes the
    // sequence's response (OnWatchResponse): it is host-thread state.
    return true;
}
