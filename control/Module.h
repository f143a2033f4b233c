// The module object of the control's server: instance handle, lock count and
// the table of creatable classes with their class factories.
#pragma once

#include <windows.h>
#include <unknwn.h>

namespace BrennockModule {

// Process attach / detach. Init records the instance handle that Open needs.
void Init(HINSTANCE instance);
void Term();

HINSTANCE Instance();

// Lock count: objects alive plus server locks.
void Lock();
void Unlock();
LONG LockCount();

// The class factory for clsid, created on first use; AddRef'd on return.
HRESULT GetClassObject(REFCLSID clsid, REFIID riid, void** ppv);

// Full path of the module file (the DLL, or the program a static build is in).
bool ModulePath(wchar_t* path, DWORD chars);

}  // namespace BrennockModule
