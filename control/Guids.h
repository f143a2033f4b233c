// Fixed identifiers of the product. They never change: scripts, containers
// and registered type libraries out in the field depend on them. The GUID
// objects themselves (CLSID_Brennock, LIBID_BRENNOCKCONTROLLib, IID_IBrennock,
// DIID__IBrennockEvents) come from the header generated from the IDL and are
// defined once, in Guids.cpp.
#pragma once

#include <windows.h>
#include <ole2.h>
#include "BrennockControl_i.h"

#define BRENNOCK_CLSID_TEXT L"{6F1D2A41-8C3B-4E52-9A7D-3B0E5C1F7A21}"
#define BRENNOCK_LIBID_TEXT L"{6F1D2A40-8C3B-4E52-9A7D-3B0E5C1F7A21}"

// The type library is registered under its own locale (US English); lookups
// by LoadRegTypeLib name it, since a lookup for the neutral locale does not
// find a library registered under a specific one.
constexpr LCID kTypeLibLcid = 0x0409;
