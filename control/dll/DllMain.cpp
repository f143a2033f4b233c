// Entry points of BrennockControl.dll.
#include <windows.h>
#include <ole2.h>

#include <string>
#include <utility>
#include <vector>

#include "control/Module.h"
#include "control/Registrar.h"

namespace {

// The registry script (resource 102, type "REGISTRY") as wide text.
bool LoadRegistryScript(std::wstring& script)
{
    HINSTANCE instance = BrennockModule::Instance();
    HRSRC res = FindResourceW(instance, MAKEINTRESOURCEW(102), L"REGISTRY");
    if (res == nullptr)
        return false;
    HGLOBAL data = LoadResource(instance, res);
    DWORD size = SizeofResource(instance, res);
    const char* text = data ? static_cast<const char*>(LockResource(data)) : nullptr;
    if (text == nullptr || size == 0)
        return false;
    int n = MultiByteToWideChar(CP_ACP, 0, text, static_cast<int>(size), nullptr, 0);
    if (n <= 0)
        return false;
    script.assign(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_ACP, 0, text, static_cast<int>(size), script.data(), n);
    return true;
}

HRESULT RunScript(bool doRegister)
{
    wchar_t path[MAX_PATH];
    if (!BrennockModule::ModulePath(path, MAX_PATH))
        return HRESULT_FROM_WIN32(GetLastError());
    std::wstring script;
    if (!LoadRegistryScript(script))
        return HRESULT_FROM_WIN32(ERROR_RESOURCE_DATA_NOT_FOUND);
    std::vector<std::pair<std::wstring, std::wstring>> replacements = {{L"MODULE", path}};
    return RunRegistryScript(script.c_str(), doRegister, replacements);
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH) {
        DisableThreadLibraryCalls(instance);
        // Once loaded, the control stays loaded for the life of the process.
        // Its statically linked threading runtime keeps per-thread data that
        // does not survive the module being unloaded and loaded again (a
        // host that frees unused libraries between two uses of the control
        // would crash in the runtime's thread-exit callback), so a FreeLibrary
        // after DllCanUnloadNow leaves the image in place.
        HMODULE self = nullptr;
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                           reinterpret_cast<LPCWSTR>(&DllMain), &self);
        BrennockModule::Init(instance);
    } else if (reason == DLL_PROCESS_DETACH) {
        BrennockModule::Term();
    }
    return TRUE;
}

extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow()
{
    return BrennockModule::LockCount() == 0 ? S_OK : S_FALSE;
}

extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID riid, void** ppv)
{
    return BrennockModule::GetClassObject(clsid, riid, ppv);
}

extern "C" HRESULT STDAPICALLTYPE DllRegisterServer()
{
    HRESULT hr = RunScript(true);
    if (FAILED(hr))
        return hr;

    // The type library travels inside the module as resource 1.
    wchar_t path[MAX_PATH];
    if (!BrennockModule::ModulePath(path, MAX_PATH))
        return HRESULT_FROM_WIN32(GetLastError());
    ITypeLib* lib = nullptr;
    hr = LoadTypeLibEx(path, REGKIND_NONE, &lib);
    if (FAILED(hr))
        return hr;
    hr = RegisterTypeLib(lib, path, nullptr);
    lib->Release();
    return hr;
}

extern "C" HRESULT STDAPICALLTYPE DllUnregisterServer()
{
    // The class and its ProgIDs go; the type library registration stays.
    RunScript(false);
    return S_OK;
}
