// The registrar: runs a registry script (the ".rgs" text kept as the module's
// "REGISTRY" resource) against the registry, to register or unregister the
// control.
//
// Script grammar (tokens are separated by white space):
//
//   script   := { root '{' entries '}' }
//   root     := HKCR | HKEY_CLASSES_ROOT | HKCU | HKEY_CURRENT_USER
//             | HKLM | HKEY_LOCAL_MACHINE | HKU | HKEY_USERS
//   entries  := { entry }
//   entry    := [ForceRemove] [NoRemove] name [ '=' value ] [ '{' entries '}' ]
//             | [NoRemove] val name '=' value
//             | Delete name [ '=' value ] [ '{' entries '}' ]
//   value    := type data
//   type     := s (string) | d (DWORD: decimal, 0x.. or &H.. hex) | b (hex bytes)
//   name, data := bare word or 'quoted text' ('' inside quotes is one quote)
//
// Keywords and root names are matched without regard to case; a quoted word
// is always a name, never a keyword or a brace. Key names may not contain a
// backslash. Before parsing, every %NAME% is replaced by its replacement text
// with each single quote in that text doubled (so a path with a quote in it
// survives inside a quoted string); %% stands for one percent sign; a %NAME%
// without a replacement is an error.
//
// Register: each key is created (or opened) and its default value written;
// ForceRemove deletes the key with all its subkeys first; Delete deletes the
// key with its subkeys and writes nothing; 'val' writes a named value. The
// first failure stops the run and is returned; what was written stays.
//
// Unregister: a key without NoRemove is deleted with everything below it,
// whoever wrote it; a NoRemove key stays (with its default value) and its
// entries are processed in turn; a named value in a kept key is deleted unless
// marked NoRemove. Missing keys and values are not errors. The run goes on
// after a failure and returns the first one.
//
// The whole script is parsed before the registry is touched: a script that
// does not parse returns DISP_E_EXCEPTION and changes nothing.
#pragma once

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

// replacements: pairs of (NAME, text) for %NAME%, names matched without
// regard to case. overrideRoot: when not null, every root key named in the
// script stands for this key instead (tests run scripts in a scratch tree).
HRESULT RunRegistryScript(const wchar_t* script, bool doRegister,
                          const std::vector<std::pair<std::wstring, std::wstring>>& replacements,
                          HKEY overrideRoot = nullptr);
