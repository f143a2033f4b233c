#include "shell/ShellObject.h"

#include "shell/MessagePump.h"
#include "shell/OutputChannel.h"
#include "shell/ShellRun.h"

#include <psapi.h>

#include <cstdio>
#include <cwctype>
#include <vector>

namespace {

enum : DISPID
{
    kEcho = 1,
    kSleep,
    kQuit,
    kArguments,
    kArgumentCount,
    kTime,
    kNow,
    kBench,
    kResources,
};

struct Member
{
    const wchar_t* name;
    DISPID id;
    UINT minArgs;
    UINT maxArgs;
};

constexpr UINT kAny = ~0u;

constexpr Member kMembers[] = {
    {L"Echo", kEcho, 0, kAny},
    {L"Sleep", kSleep, 1, 1},
    {L"Quit", kQuit, 0, 1},
    {L"Arguments", kArguments, 1, 1},
    {L"ArgumentCount", kArgumentCount, 0, 0},
    {L"Time", kTime, 0, 0},
    {L"Now", kNow, 0, 0},
    {L"Bench", kBench, 2, 2},
    {L"Resources", kResources, 0, 0},
};

const Member* FindMember(DISPID id)
{
    for (const Member& m : kMembers)
        if (m.id == id)
            return &m;
    return nullptr;
}

// What this process holds, for a soak run to sample: kernel handles, private
// bytes, working set, GDI objects, and USER objects as windows of this
// process (top-level and message-only). Wine answers GetProcessHandleCount
// and GetGuiResources with 0, so the handles are also counted from the
// system's handle table, and the windows by enumeration.
struct HandleEntry
{
    ULONG pid;
    BYTE type;
    BYTE flags;
    USHORT value;
    PVOID object;
    ACCESS_MASK access;
};
struct HandleTable
{
    ULONG count;
    HandleEntry entries[1];
};

DWORD CountOwnHandles()
{
    using QueryFn = LONG(WINAPI*)(int, PVOID, ULONG, PULONG);
    auto query = reinterpret_cast<QueryFn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    if (query == nullptr)
        return 0;
    std::vector<BYTE> buffer(1 << 20);
    for (int tries = 0; tries < 6; ++tries) {
        ULONG needed = 0;
        const LONG status = query(16 /* SystemHandleInformation */, buffer.data(),
                                  static_cast<ULONG>(buffer.size()), &needed);
        if (status == 0) {
            const auto* table = reinterpret_cast<const HandleTable*>(buffer.data());
            const ULONG self = GetCurrentProcessId();
            DWORD own = 0;
            for (ULONG i = 0; i < table->count; ++i)
                own += table->entries[i].pid == self;
            return own;
        }
        buffer.resize(buffer.size() * 2);
    }
    return 0;
}

DWORD CountOwnWindows()
{
    struct Count { DWORD n = 0; } count;
    const DWORD self = GetCurrentProcessId();
    auto own = [](HWND window, DWORD pid) {
        DWORD owner = 0;
        GetWindowThreadProcessId(window, &owner);
        return owner == pid;
    };
    for (HWND parent : {static_cast<HWND>(nullptr), HWND_MESSAGE})
        for (HWND w = FindWindowExW(parent, nullptr, nullptr, nullptr); w != nullptr;
             w = FindWindowExW(parent, w, nullptr, nullptr))
            count.n += own(w, self);
    return count.n;
}

// Committed private memory, region by region (Wine leaves PrivateUsage 0).
unsigned long long CountPrivateBytes()
{
    unsigned long long total = 0;
    MEMORY_BASIC_INFORMATION region{};
    for (BYTE* at = nullptr; VirtualQuery(at, &region, sizeof(region)) == sizeof(region);) {
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE)
            total += region.RegionSize;
        BYTE* next = static_cast<BYTE*>(region.BaseAddress) + region.RegionSize;
        if (next <= at)
            break;
        at = next;
    }
    return total;
}

std::wstring ResourcesText()
{
    HANDLE self = GetCurrentProcess();
    DWORD handles = 0;
    GetProcessHandleCount(self, &handles);
    if (handles == 0)
        handles = CountOwnHandles();
    PROCESS_MEMORY_COUNTERS_EX memory{};
    memory.cb = sizeof(memory);
    GetProcessMemoryInfo(self, reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&memory), sizeof(memory));
    if (memory.PrivateUsage == 0)
        memory.PrivateUsage = static_cast<SIZE_T>(CountPrivateBytes());
    const DWORD user = GetGuiResources(self, GR_USEROBJECTS);
    wchar_t text[200];
    swprintf(text, sizeof(text) / sizeof(text[0]),
             L"handles=%lu private=%llu workingset=%llu gdi=%lu user=%lu windows=%lu",
             static_cast<unsigned long>(handles), static_cast<unsigned long long>(memory.PrivateUsage),
             static_cast<unsigned long long>(memory.WorkingSetSize),
             static_cast<unsigned long>(GetGuiResources(self, GR_GDIOBJECTS)), static_cast<unsigned long>(user),
             static_cast<unsigned long>(CountOwnWindows()));
    return text;
}

// The i-th argument in the script's order (DISPPARAMS holds them last first).
const VARIANT& Arg(const DISPPARAMS& params, UINT i)
{
    return params.rgvarg[params.cArgs - 1 - i];
}

HRESULT ToLong(const VARIANT& in, LONG& out)
{
    VARIANT v;
    VariantInit(&v);
    const HRESULT hr = VariantChangeType(&v, const_cast<VARIANT*>(&in), 0, VT_I4);
    if (SUCCEEDED(hr))
        out = v.lVal;
    VariantClear(&v);
    return hr;
}

HRESULT ToText(const VARIANT& in, std::wstring& out)
{
    VARIANT v;
    VariantInit(&v);
    const HRESULT hr = VariantChangeType(&v, const_cast<VARIANT*>(&in), 0, VT_BSTR);
    if (SUCCEEDED(hr))
        out.assign(v.bstrVal ? v.bstrVal : L"", SysStringLen(v.bstrVal));
    VariantClear(&v);
    return hr;
}

std::wstring NowText()
{
    static const wchar_t* const kDays[] = {L"Sun", L"Mon", L"Tue", L"Wed", L"Thu", L"Fri", L"Sat"};
    static const wchar_t* const kMonths[] = {L"Jan", L"Feb", L"Mar", L"Apr", L"May", L"Jun",
                                             L"Jul", L"Aug", L"Sep", L"Oct", L"Nov", L"Dec"};
    SYSTEMTIME t;
    GetLocalTime(&t);
    wchar_t buf[64];
    swprintf(buf, 64, L"%ls %02u %ls %04u %02u:%02u:%02u", kDays[t.wDayOfWeek % 7], t.wDay,
             kMonths[(t.wMonth + 11) % 12], t.wYear, t.wHour, t.wMinute, t.wSecond);
    return buf;
}

}  // namespace

ShellObject::ShellObject(ShellRun& run, std::vector<std::wstring> arguments, bool vbscriptText)
    : m_run(run), m_arguments(std::move(arguments)), m_vbscriptText(vbscriptText)
{
}

std::wstring ShellObject::Text(const VARIANT& value) const
{
    const VARIANT* v = &value;
    while (v->vt == (VT_BYREF | VT_VARIANT) && v->pvarVal != nullptr)
        v = v->pvarVal;
    switch (v->vt) {
    case VT_EMPTY:
        return m_vbscriptText ? L"" : L"undefined";
    case VT_NULL:
        return m_vbscriptText ? L"Null" : L"null";
    case VT_BOOL:
        if (m_vbscriptText)
            return v->boolVal ? L"True" : L"False";
        return v->boolVal ? L"true" : L"false";
    default:
        break;
    }
    std::wstring text;
    if (FAILED(ToText(*v, text)))
        text = L"[object]";
    return text;
}

HRESULT ShellObject::Echo(const DISPPARAMS& params, std::wstring&)
{
    std::wstring line;
    for (UINT i = 0; i < params.cArgs; ++i) {
        if (i > 0)
            line += L' ';
        line += Text(Arg(params, i));
    }
    StdOut().WriteLine(line);
    return S_OK;
}

HRESULT ShellObject::Sleep(const DISPPARAMS& params, std::wstring& error)
{
    LONG ms = 0;
    if (FAILED(ToLong(Arg(params, 0), ms)) || ms < 0) {
        error = L"Shell.Sleep: the time must be a number of milliseconds, 0 or more";
        return DISP_E_TYPEMISMATCH;
    }
    PumpFor(m_run, static_cast<DWORD>(ms));
    if (m_run.Ending()) {
        error = L"Shell: the script is ending";
        return kShellEnding;
    }
    return S_OK;
}

HRESULT ShellObject::Quit(const DISPPARAMS& params, std::wstring& error)
{
    LONG code = 0;
    if (params.cArgs > 0 && FAILED(ToLong(Arg(params, 0), code))) {
        error = L"Shell.Quit: the exit code must be a number";
        return DISP_E_TYPEMISMATCH;
    }
    m_run.RequestQuit(static_cast<int>(code));
    // Unwinds the script's code: the engine reports it and the shell ignores that.
    error = L"Shell: the script is ending";
    return kShellEnding;
}

HRESULT ShellObject::Argument(const DISPPARAMS& params, VARIANT* result, std::wstring& error)
{
    LONG index = 0;
    if (FAILED(ToLong(Arg(params, 0), index))) {
        error = L"Shell.Arguments: the index must be a number";
        return DISP_E_TYPEMISMATCH;
    }
    if (index < 0 || static_cast<size_t>(index) >= m_arguments.size()) {
        error = L"Shell.Arguments: no argument " + std::to_wstring(index) + L" (there are " +
                std::to_wstring(m_arguments.size()) + L")";
        return DISP_E_BADINDEX;
    }
    if (result != nullptr) {
        result->vt = VT_BSTR;
        result->bstrVal = SysAllocString(m_arguments[static_cast<size_t>(index)].c_str());
    }
    return S_OK;
}

HRESULT ShellObject::Bench(const DISPPARAMS& params, std::wstring& error)
{
    std::wstring sim, command;
    if (FAILED(ToText(Arg(params, 0), sim)) || FAILED(ToText(Arg(params, 1), command))) {
        error = L"Shell.Bench: the simulator and the command must be texts";
        return DISP_E_TYPEMISMATCH;
    }
    bool nameOk = !sim.empty();
    for (wchar_t c : sim)
        nameOk = nameOk && (iswalnum(c) || c == L'_' || c == L'-');
    if (!nameOk || command.find_first_of(L"\r\n") != std::wstring::npos) {
        error = L"Shell.Bench: a simulator name (such as mcu, panel, watch, sound) and a one-line command";
        return E_INVALIDARG;
    }
    const std::wstring path = L"\\" + sim + L".cmd";
    HANDLE file = CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        error = L"Shell.Bench: cannot open " + path;
        return HRESULT_FROM_WIN32(GetLastError());
    }
    // One write, so that a simulator never reads half a line.
    const std::string line = ToUtf8(command) + "\n";
    DWORD written = 0;
    const BOOL ok = WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    const DWORD lastError = GetLastError();
    CloseHandle(file);
    if (!ok || written != line.size()) {
        error = L"Shell.Bench: cannot write " + path;
        return HRESULT_FROM_WIN32(lastError);
    }
    return S_OK;
}

// IUnknown

STDMETHODIMP ShellObject::QueryInterface(REFIID riid, void** ppv)
{
    if (ppv == nullptr)
        return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IDispatch) {
        *ppv = static_cast<IDispatch*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

STDMETHODIMP_(ULONG) ShellObject::AddRef()
{
    return static_cast<ULONG>(InterlockedIncrement(&m_refs));
}

STDMETHODIMP_(ULONG) ShellObject::Release()
{
    const LONG left = InterlockedDecrement(&m_refs);
    if (left == 0)
        delete this;
    return static_cast<ULONG>(left);
}

// IDispatch

STDMETHODIMP ShellObject::GetTypeInfoCount(UINT* count)
{
    if (count == nullptr)
        return E_POINTER;
    *count = 0;
    return S_OK;
}

STDMETHODIMP ShellObject::GetTypeInfo(UINT, LCID, ITypeInfo** info)
{
    if (info != nullptr)
        *info = nullptr;
    return DISP_E_BADINDEX;
}

STDMETHODIMP ShellObject::GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids)
{
    if (names == nullptr || ids == nullptr || count == 0)
        return E_INVALIDARG;
    HRESULT hr = S_OK;
    ids[0] = DISPID_UNKNOWN;
    for (const Member& m : kMembers)
        if (_wcsicmp(m.name, names[0]) == 0)
            ids[0] = m.id;
    if (ids[0] == DISPID_UNKNOWN)
        hr = DISP_E_UNKNOWNNAME;
    for (UINT i = 1; i < count; ++i) {  // the members have no named parameters
        ids[i] = DISPID_UNKNOWN;
        hr = DISP_E_UNKNOWNNAME;
    }
    return hr;
}

STDMETHODIMP ShellObject::Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                                 EXCEPINFO* exception, UINT* badArg)
{
    const Member* member = FindMember(id);
    if (member == nullptr)
        return DISP_E_MEMBERNOTFOUND;
    if (flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF))
        return DISP_E_MEMBERNOTFOUND;
    static DISPPARAMS none{};
    const DISPPARAMS& p = params != nullptr ? *params : none;
    if (p.cNamedArgs != 0)
        return DISP_E_NONAMEDARGS;
    if (result != nullptr)
        VariantInit(result);

    std::wstring error;
    HRESULT hr = S_OK;
    if (m_run.Ending()) {
        // Nothing more runs once the script is ending.
        hr = kShellEnding;
        error = L"Shell: the script is ending";
    } else if (p.cArgs < member->minArgs || (member->maxArgs != kAny && p.cArgs > member->maxArgs)) {
        hr = DISP_E_BADPARAMCOUNT;
        error = std::wstring(L"Shell.") + member->name + L": wrong number of arguments";
    } else {
        switch (id) {
        case kEcho: hr = Echo(p, error); break;
        case kSleep: hr = Sleep(p, error); break;
        case kQuit: hr = Quit(p, error); break;
        case kArguments: hr = Argument(p, result, error); break;
        case kBench: hr = Bench(p, error); break;
        case kArgumentCount:
            if (result != nullptr) {
                result->vt = VT_I4;
                result->lVal = static_cast<LONG>(m_arguments.size());
            }
            break;
        case kTime:
            if (result != nullptr) {
                result->vt = VT_R8;
                result->dblVal = m_run.ElapsedMs();
            }
            break;
        case kResources:
            if (result != nullptr) {
                result->vt = VT_BSTR;
                result->bstrVal = SysAllocString(ResourcesText().c_str());
            }
            break;
        case kNow:
            if (result != nullptr) {
                result->vt = VT_BSTR;
                result->bstrVal = SysAllocString(NowText().c_str());
            }
            break;
        default: break;
        }
    }
    if (SUCCEEDED(hr))
        return hr;
    if (badArg != nullptr)
        *badArg = 0;
    if (exception == nullptr)
        return hr;
    *exception = EXCEPINFO{};
    exception->scode = hr;
    exception->bstrSource = SysAllocString(L"Shell");
    exception->bstrDescription = SysAllocString(error.c_str());
    return DISP_E_EXCEPTION;
}
