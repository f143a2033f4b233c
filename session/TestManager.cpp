#include "session/TestManager.h"

#include <mmsystem.h>

#include <cwchar>
#include <new>

#include "control/MessageWindow.h"
#include "diag/Assert.h"
#include "diag/DebugOut.h"
#include "mcu/HC08.h"
#include "mcu/HC08PackList.h"
#include "panel/GpioPins.h"
#include "session/LocalClock.h"
#include "session/NVRAMBoard.h"
#include "session/Questions.h"
#include "session/SessionFolders.h"
#include "session/StoredParams.h"

namespace {

const wchar_t kClassName[] = L"TestManangerMessageWin";
const wchar_t kWindowTitle[] = L"Test Manager Messages";
const wchar_t kWindowLabel[] = L"Test Manager";
constexpr UINT_PTR kActivityTimer = 1;
constexpr UINT kActivityTimerMs = 500;

const wchar_t kLoginFile[] = L"\\HARD DISK\\SrvrInfo.bin";
const wchar_t kStartFolder[] = L"\\Device Software";

constexpr ULONGLONG kHour = 36000000000ULL;
constexpr ULONGLONG kDay = 864000000000ULL;

}  // namespace

CTestManager::CTestManager(HINSTANCE instance, IManagerSite* site)
    : m_hInstance(instance),
      m_pSite(site),
      m_pSink(nullptr),
      m_hWnd(nullptr),
      m_timerId(0),
      m_pHC08(nullptr),
      m_pWatch(nullptr),
      m_pGpio(nullptr),
      m_pNVRAM(nullptr),
      m_pStoredParams(nullptr),
      m_pAudio(nullptr),
      m_inSession(false),
      m_sessionStart(),
      m_fileSequence(0),
      m_currentFolder(nullptr),
      m_activityRunning(false),
      m_deadline(0),
      m_curTestID(0),
      m_testName(nullptr),
      m_maxDurationSecs(0),
      m_uiTimeout(0),
      m_pPackList(nullptr),
      m_pQuestions(nullptr)
{
    InitializeCriticalSection(&m_lock);
}

CTestManager::~CTestManager()
{
    Close();
    DeleteCriticalSection(&m_lock);
}

// ---------------------------------------------------------------------------
// Open and close

bool CTestManager::Open()
{
    ASSERT(!IsOpen());
    if (IsOpen())
        return false;
    ASSERT(m_pSite != nullptr);
    if (m_pSite == nullptr)
        return false;

    // Every manager exists by now; those that are missing come back null
    // (the site records that) and the work that needs them is skipped.
    m_pSink = m_pSite->GetTestManagerEventSink();
    m_pHC08 = m_pSite->GetHC08();
    m_pWatch = m_pSite->GetWatch();
    m_pGpio = m_pSite->GetGpio();
    m_pNVRAM = m_pSite->GetNVRAM();
    m_pStoredParams = m_pSite->GetStoredParams();

    m_fileSequence = 0;
    delete[] m_currentFolder;
    m_currentFolder = CopyOf(kStartFolder);

    if (!MessageWindowRegister(m_hInstance, kClassName, MessageWindowProc<CTestManager>) ||
        (m_hWnd = MessageWindowCreate(m_hInstance, kClassName, kWindowTitle, this)) == nullptr) {
        ASSERT(false);
        DebugOut(L"TestManager::Open: CreateWin failed.\r\n");
        return false;
    }
    m_timerId = SetTimer(m_hWnd, kActivityTimer, kActivityTimerMs, nullptr);
    if (m_timerId == 0) {
        ASSERT(false);
        DebugOut(L"Test Manager Open: SetTimer failed.\r\n");
        return false;
    }
    if (!WriteLoginFile()) {
        ASSERT(false);
        DebugOut(L"Login file creation failed.\r\n");
        return false;
    }
    return true;
}

void CTestManager::Close()
{
    delete[] m_currentFolder;
    m_currentFolder = nullptr;
    // The configured test goes with its name; an activity still running
    // ends without a word (nothing is listening any more).
    delete[] m_testName;
    m_testName = nullptr;
    m_curTestID = 0;
    SetRunning(false);
    m_deadline = 0;
    delete TakePacketList();
    delete m_pQuestions;
    m_pQuestions = nullptr;
    // Destroying the window ends its timer.
    if (m_hWnd != nullptr)
        MessageWindowDestroy(m_hWnd, m_hInstance, kClassName, L"CTestManager: DestroyWindow failed.\r\n");
    m_timerId = 0;
}

// The login file tells the study server's upload step who this device is:
// the device ID (little-endian) and the first four bytes of its key blob.
bool CTestManager::WriteLoginFile()
{
    if (m_pNVRAM == nullptr)
        return false;
    BYTE blob[kKeyBlobBytes];
    DWORD length = sizeof(blob);
    if (!m_pNVRAM->GetKeyBlob(blob, &length))
        return false;
    const DWORD id = m_pNVRAM->ReadDeviceID();
    const BYTE login[8] = {static_cast<BYTE>(id),       static_cast<BYTE>(id >> 8),
                           static_cast<BYTE>(id >> 16), static_cast<BYTE>(id >> 24),
                           blob[0], blob[1], blob[2], blob[3]};

    HANDLE file = CreateFileW(kLoginFile, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                              nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    DWORD written = 0;
    const BOOL ok = WriteFile(file, login, sizeof(login), &written, nullptr);
    CloseHandle(file);
    return ok && written == sizeof(login);
}

LRESULT CTestManager::WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (msg == WM_TIMER && wParam == kActivityTimer) {
        OnTimer();
        return 0;
    }
    return MessageWindowDefault(hwnd, msg, wParam, lParam, kWindowLabel);
}

// An activity whose time is up ends here, and nothing of it is saved: a
// test that ran out of time is not a complete test.
void CTestManager::OnTimer()
{
    if (!m_activityRunning || m_deadline == 0 || !DeadlinePassed(timeGetTime(), m_deadline))
        return;
    SetRunning(false);
    m_deadline = 0;
    if (m_pHC08 != nullptr)
        m_pHC08->SetDigitoGate(false);
    if (m_pSink != nullptr)
        m_pSink->ActivityEnded(kEndTimedOut, static_cast<short>(m_curTestID));
}

bool CTestManager::DeadlinePassed(DWORD now, DWORD deadline)
{
    // The tick wraps every 49.7 days; a deadline is at most 20 minutes
    // ahead, so "deadline - now" read as unsigned is small while it lies
    // ahead and huge once it has passed.
    return now == deadline || static_cast<DWORD>(deadline - now) > 0x80000000u;
}

// ---------------------------------------------------------------------------
// Schedule

bool CTestManager::InPracticeMode()
{
    if (!IsOpen()) {
        DebugOut(L"InPracticeMode: not open.\r\n");
        return false;
    }
    SYSTEMTIME end;
    if (m_pStoredParams == nullptr || !m_pStoredParams->ReadEndPracticeDate(&end))
        return false;
    SYSTEMTIME now;
    LocalClockNow(&now);
    return CompareSystemTime(&now, &end) < 0;
}

// A session falls due at the same hour of the day whatever the season: if a
// daylight-saving change ever shows in the step (it moves the hour by one
// either way), the step is corrected by an hour. On counts of local time the
// hours agree at once.
ULONGLONG CTestManager::AddDays(ULONGLONG count, int days)
{
    SYSTEMTIME from, to;
    if (!ULongLongToSystemTime(&count, &from))
        return 0;
    ULONGLONG u = count + static_cast<ULONGLONG>(static_cast<LONGLONG>(days) * static_cast<LONGLONG>(kDay));
    if (!ULongLongToSystemTime(&u, &to))
        return 0;
    if (to.wHour == from.wHour)
        return u;
    u -= kHour;
    if (!ULongLongToSystemTime(&u, &to))
        return 0;
    if (to.wHour == from.wHour)
        return u;
    u += 2 * kHour;
    if (!ULongLongToSystemTime(&u, &to))
        return 0;
    ASSERT(to.wHour == from.wHour);
    return u;
}

bool CTestManager::GetNextSessionBounds(SYSTEMTIME* pStart, SYSTEMTIME* pEnd, bool* pInWindow)
{
    if (!IsOpen()) {
        DebugOut(L"GetNextSessionBounds: not open.\r\n");
        return false;
    }
    if (pStart == nullptr) {
        DebugOut(L"GetNextSessionBounds: null pStart.\r\n");
        return false;
    }
    if (pEnd == nullptr) {
        DebugOut(L"GetNextSessionBounds: null pEnd.\r\n");
        return false;
    }
    if (pInWindow == nullptr) {
        DebugOut(L"GetNextSessionBounds: null pInWindow.\r\n");
        return false;
    }
    *pInWindow = false;
    // A date no answer can have; the checks at the end must never see it.
    const SYSTEMTIME sentinel = {1700, 1, 5, 1, 0, 0, 0, 0};
    *pStart = sentinel;
    *pEnd = sentinel;

    SYSTEMTIME now;
    LocalClockNow(&now);

    ASSERT(m_pStoredParams != nullptr && m_pNVRAM != nullptr);
    if (m_pStoredParams == nullptr || m_pNVRAM == nullptr)
        return false;
    SYSTEMTIME firstSt, endPractice;
    short windowHours, realDays, practiceDays, makeupDays;
    if (!m_pStoredParams->ReadFirstSessionDateTime(&firstSt) || !m_pStoredParams->ReadEndPracticeDate(&endPractice) ||
        !m_pStoredParams->ReadSessionWindowHours(&windowHours) ||
        !m_pStoredParams->ReadRealTestIntervalDays(&realDays) ||
        !m_pStoredParams->ReadPracticeTestIntervalDays(&practiceDays) ||
        !m_pStoredParams->ReadMakeupDays(&makeupDays))
        return false;
    // An unreadable previous session counts as none ever done.
    ULONGLONG prev = 0;
    SYSTEMTIME prevSt;
    if (ULongLongToSystemTime(&prev, &prevSt))
        m_pNVRAM->NVReadPrevSessionDateTime(&prevSt);

    ULONGLONG nowCount, first;
    if (!SystemTimeToULongLong(&now, &nowCount) || !SystemTimeToULongLong(&firstSt, &first) ||
        !SystemTimeToULongLong(&prevSt, &prev)) {
        DebugOut(L"GetNextSessionBounds: conversion failed.\r\n");
        return false;
    }

    // The practice interval runs until the day practice ends.
    SYSTEMTIME today = now;
    today.wHour = today.wMinute = today.wSecond = today.wMilliseconds = 0;
    const int interval = CompareSystemTime(&today, &endPractice) < 0 ? practiceDays : realDays;
    const ULONGLONG window = static_cast<ULONGLONG>(windowHours) * kHour;

    // Walk the regular slots to the first one not done that is still ahead
    // or open now.
    ULONGLONG old = first, next = 0;
    bool openNow = false;
    for (;;) {
        next = AddDays(old, interval);
        if (next == 0) {
            DebugOut(L"GetNextSessionBounds: conversion failed.\r\n");
            return false;
        }
        if (next <= prev) {
            old = next;  // done
        } else if (nowCount < next) {
            break;
        } else if (nowCount < next + window) {
            openNow = true;
            break;
        } else {
            old = next;  // missed
        }
    }

    // The regular answer, and the slot whose makeups may still be offered.
    ULONGLONG regular, makeup;
    if (!openNow && old > prev) {
        regular = next;
        makeup = old;
    } else {
        regular = AddDays(next, interval);
        makeup = next;
    }
    ULONGLONG start = regular, end = regular + window;

    // A missed slot is offered again at the same hour on each makeup day.
    int k = 0;
    for (; k <= makeupDays; ++k) {
        if (nowCount < makeup || nowCount < makeup + window)
            break;
        makeup = AddDays(makeup, 1);
        if (makeup == 0) {
            DebugOut(L"GetNextSessionBounds: conversion failed.\r\n");
            return false;
        }
    }
    if (k <= makeupDays) {
        start = makeup;
        end = makeup + window;
    }

    SYSTEMTIME startSt, endSt;
    if (regular == 0 || !ULongLongToSystemTime(&start, &startSt) || !ULongLongToSystemTime(&end, &endSt)) {
        DebugOut(L"GetNextSessionBounds: conversion failed.\r\n");
        return false;
    }
    ASSERT(startSt.wYear > 2000);
    ASSERT(endSt.wYear >= 2000);
    ASSERT(CompareSystemTime(&endSt, &now) > 0);
    *pStart = startSt;
    *pEnd = endSt;
    *pInWindow = CompareSystemTime(&startSt, &now) <= 0 && CompareSystemTime(&now, &endSt) < 0;
    return true;
}

// ---------------------------------------------------------------------------
// Sessions

bool CTestManager::SessionStart()
{
    if (!IsOpen()) {
        DebugOut(L"SessionStart: not open.\r\n");
        return false;
    }
    if (m_inSession) {
        DebugOut(L"SessionStart: already in a session.\r\n");
        return false;
    }
    // Proves the temporary folder and the device ID before anything changes.
    wchar_t* probe = MakeTempFilename(L"dummy", L".txt");
    if (probe == nullptr) {
        DebugOut(L"SessionStart: couldn't create temp file.\r\n");
        return false;
    }
    delete[] probe;
    ClearTempFiles(true);
    LocalClockNow(&m_sessionStart);
    // Reaches flash with the commit at the session's normal end.
    if (m_pNVRAM != nullptr)
        m_pNVRAM->NVWritePrevSessionDateTime(&m_sessionStart);
    m_fileSequence = 0;
    m_inSession = true;
    return true;
}

bool CTestManager::SessionEnd(bool normal)
{
    if (!IsOpen()) {
        DebugOut(L"SessionEndNormal: not open.\r\n");
        return false;
    }
    if (!m_inSession)
        return true;

    if (!normal) {
        ClearTempFiles(true);
        m_inSession = false;
        if (m_pSink != nullptr)
            m_pSink->SessionEnded(kEndCancelled);
        return true;
    }

    if (m_pNVRAM == nullptr || !m_pNVRAM->Commit())
        DebugOut(L"SessionEnd: NVRAM Commit failed.\r\n");
    const bool packaged = PackageSession();
    ClearTempFiles(true);
    DeleteFileW(kCompressFile);
    m_inSession = false;
    if (m_pSink != nullptr)
        m_pSink->SessionEnded(packaged ? kEndCompleted : kEndFailed);
    return packaged;
}

// ---------------------------------------------------------------------------
// File names and folders

// True when path is a folder, made now if need be. (A file of that name is
// not a folder, though creating one then fails as "already exists".)
bool CTestManager::EnsureFolder(const wchar_t* path)
{
    CreateDirectoryW(path, nullptr);
    const DWORD attributes = GetFileAttributesW(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

wchar_t* CTestManager::DeviceIdText()
{
    return m_pNVRAM != nullptr ? m_pNVRAM->NVParameterRead(L"DEVICEID", L"NOID") : nullptr;
}

wchar_t* CTestManager::MakeTempFilename(const wchar_t* name, const wchar_t* suffix)
{
    if (suffix == nullptr) {
        DebugOut(L"MakeTempFilename: no suffix.\r\n");
        ASSERT(false);
        return nullptr;
    }
    if (!EnsureFolder(kTempFolder)) {
        DebugOut(L"Could not create temp data folder.\r\n");
        return nullptr;
    }
    // No name: the file belongs to the configured test.
    if (name == nullptr) {
        if (m_testName == nullptr) {
            DebugOut(L"ERROR: MakeTempFilename: suffix missing a name because we're not in a test.\r\n");
            return nullptr;
        }
        name = m_testName;
    }
    wchar_t* id = DeviceIdText();
    if (id == nullptr) {
        DebugOut(L"no Device Name\r\n");
        return nullptr;
    }
    SYSTEMTIME now;
    LocalClockNow(&now);
    const size_t room = wcslen(kTempFolder) + wcslen(id) + wcslen(name) + wcslen(suffix) + 48;
    wchar_t* path = new (std::nothrow) wchar_t[room];
    if (path != nullptr) {
        swprintf(path, room, L"%ls\\%ls\\%ls_%04d%02d%02d%02d%02d_%03u%ls%ls", L"", L"Device Temp", id,
                 now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, m_fileSequence, name, suffix);
        ++m_fileSequence;
    }
    delete[] id;
    return path;
}

wchar_t* CTestManager::MakePermFilename(const wchar_t* suffix)
{
    if (suffix == nullptr) {
        DebugOut(L"MakePermFilename: no suffix.\r\n");
        return nullptr;
    }
    if (!EnsureFolder(kPermFolder)) {
        DebugOut(L"Could not create perm data folder.\r\n");
        return nullptr;
    }
    wchar_t* id = DeviceIdText();
    if (id == nullptr) {
        DebugOut(L"no Device ID\r\n");
        return nullptr;
    }
    SYSTEMTIME now;
    LocalClockNow(&now);
    const size_t room = wcslen(kPermFolder) + wcslen(id) + wcslen(suffix) + 32;
    wchar_t* path = new (std::nothrow) wchar_t[room];
    if (path != nullptr)
        swprintf(path, room, L"%ls\\%ls\\%ls_%04d%02d%02d%02d%02d%ls", kHardDisk, kPermFolderName, id, now.wYear,
                 now.wMonth, now.wDay, now.wHour, now.wMinute, suffix);
    delete[] id;
    return path;
}

wchar_t* CTestManager::MakeFullPath(const wchar_t* name) const
{
    if (name == nullptr)
        return nullptr;
    if (name[0] == L'\\')
        return CopyOf(name);
    if (m_currentFolder == nullptr)
        return nullptr;
    const size_t room = wcslen(m_currentFolder) + 1 + wcslen(name) + 1;
    wchar_t* path = new (std::nothrow) wchar_t[room];
    if (path != nullptr)
        swprintf(path, room, L"%ls\\%ls", m_currentFolder, name);
    return path;
}

bool CTestManager::SetCurrentFolder(const wchar_t* dir)
{
    if (dir == nullptr) {
        DebugOut(L"SetCurrentFolder: null curDir.\r\n");
        return false;
    }
    ASSERT(dir[0] != L'\0');
    wchar_t* folder = nullptr;
    if (dir[0] == L'\\' || m_currentFolder != nullptr) {
        folder = MakeFullPath(dir);
    } else {
        const size_t room = wcslen(dir) + 2;
        folder = new (std::nothrow) wchar_t[room];
        if (folder != nullptr)
            swprintf(folder, room, L"\\%ls", dir);
    }
    if (folder == nullptr)
        return false;
    delete[] m_currentFolder;
    m_currentFolder = folder;
    return true;
}

short CTestManager::MegabytesCapped(ULONGLONG bytes)
{
    const ULONGLONG megabytes = bytes >> 20;
    return megabytes >= 32768 ? 32767 : static_cast<short>(megabytes);
}

short CTestManager::FreeStoreMB()
{
    ULARGE_INTEGER available, total, free;
    if (!GetDiskFreeSpaceExW(kHardDisk, &available, &total, &free)) {
        DebugOut(L"GetDiskFreeSpaceEx failed.\r\n");
        return 0;
    }
    return MegabytesCapped(free.QuadPart);
}
