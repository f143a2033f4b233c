#include "control/Registrar.h"

#include <wchar.h>

#include <new>

namespace {

// ---------------------------------------------------------------------------
// Parsed form of a script. Nothing touches the registry until a whole script
// has been turned into this.

struct ScriptValue
{
    DWORD type = REG_SZ;
    std::vector<BYTE> data;
};

struct ScriptEntry
{
    enum Kind { Key, NamedValue, DeleteKey };
    Kind kind = Key;
    std::wstring name;
    bool forceRemove = false;
    bool noRemove = false;
    bool hasDefault = false;
    ScriptValue value;  // the default value of a key, or the named value
    std::vector<ScriptEntry> children;
};

struct ScriptRoot
{
    HKEY key = nullptr;
    std::vector<ScriptEntry> entries;
};

// ---------------------------------------------------------------------------
// Text: replacements, then tokens.

bool IsBlank(wchar_t c)
{
    return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n' || c == L'\v' || c == L'\f' ||
           c == 0xFEFF;
}

// Replaces every %NAME% by its text with single quotes doubled; %% is one %.
bool ExpandReplacements(const wchar_t* script,
                        const std::vector<std::pair<std::wstring, std::wstring>>& replacements,
                        std::wstring& out)
{
    for (const wchar_t* p = script; *p != L'\0'; ++p) {
        if (*p != L'%') {
            out += *p;
            continue;
        }
        const wchar_t* end = wcschr(p + 1, L'%');
        if (end == nullptr)
            return false;
        if (end == p + 1) {
            out += L'%';
        } else {
            std::wstring name(p + 1, end);
            const std::wstring* text = nullptr;
            for (const auto& r : replacements) {
                if (_wcsicmp(r.first.c_str(), name.c_str()) == 0) {
                    text = &r.second;
                    break;
                }
            }
            if (text == nullptr)
                return false;
            for (wchar_t c : *text) {
                out += c;
                if (c == L'\'')
                    out += L'\'';
            }
        }
        p = end;
    }
    return true;
}

struct Token
{
    std::wstring text;
    bool quoted = false;
};

bool Tokenize(const std::wstring& text, std::vector<Token>& tokens)
{
    size_t i = 0;
    const size_t n = text.size();
    for (;;) {
        while (i < n && IsBlank(text[i]))
            ++i;
        if (i == n)
            return true;
        Token token;
        if (text[i] == L'\'') {
            token.quoted = true;
            ++i;
            for (;;) {
                if (i == n)
                    return false;  // unterminated quote
                if (text[i] == L'\'') {
                    if (i + 1 < n && text[i + 1] == L'\'') {
                        token.text += L'\'';
                        i += 2;
                        continue;
                    }
                    ++i;
                    break;
                }
                token.text += text[i++];
            }
            if (i < n && !IsBlank(text[i]))
                return false;  // 'quoted'text run together
        } else {
            while (i < n && !IsBlank(text[i]))
                token.text += text[i++];
        }
        tokens.push_back(std::move(token));
    }
}

// ---------------------------------------------------------------------------
// Parser.

class Parser
{
public:
    explicit Parser(const std::vector<Token>& tokens) : m_tokens(tokens) {}

    bool ParseScript(std::vector<ScriptRoot>& roots)
    {
        while (m_pos < m_tokens.size()) {
            ScriptRoot root;
            const Token& name = m_tokens[m_pos++];
            if (name.quoted || !RootFromName(name.text, root.key))
                return false;
            if (!Take(L"{"))
                return false;
            if (!ParseEntries(root.entries))
                return false;
            roots.push_back(std::move(root));
        }
        return true;
    }

private:
    static bool IsWord(const Token& t, const wchar_t* word)
    {
        return !t.quoted && _wcsicmp(t.text.c_str(), word) == 0;
    }

    static bool IsStructural(const Token& t)
    {
        return !t.quoted && (t.text == L"{" || t.text == L"}" || t.text == L"=");
    }

    static bool RootFromName(const std::wstring& name, HKEY& key)
    {
        struct RootName
        {
            const wchar_t* shortName;
            const wchar_t* longName;
            HKEY key;
        };
        static const RootName kRoots[] = {
            {L"HKCR", L"HKEY_CLASSES_ROOT", HKEY_CLASSES_ROOT},
            {L"HKCU", L"HKEY_CURRENT_USER", HKEY_CURRENT_USER},
            {L"HKLM", L"HKEY_LOCAL_MACHINE", HKEY_LOCAL_MACHINE},
            {L"HKU", L"HKEY_USERS", HKEY_USERS},
        };
        for (const RootName& r : kRoots) {
            if (_wcsicmp(name.c_str(), r.shortName) == 0 || _wcsicmp(name.c_str(), r.longName) == 0) {
                key = r.key;
                return true;
            }
        }
        return false;
    }

    bool AtWord(const wchar_t* word) const
    {
        return m_pos < m_tokens.size() && IsWord(m_tokens[m_pos], word);
    }

    bool Take(const wchar_t* word)
    {
        if (!AtWord(word))
            return false;
        ++m_pos;
        return true;
    }

    // A key or value name: any quoted text, or a bare word that is not a brace
    // or '='. Key names are single path elements.
    bool TakeName(std::wstring& name, bool keyName)
    {
        if (m_pos >= m_tokens.size() || IsStructural(m_tokens[m_pos]))
            return false;
        name = m_tokens[m_pos++].text;
        if (keyName && (name.empty() || name.size() > 255 || name.find(L'\\') != std::wstring::npos))
            return false;
        return true;
    }

    static int HexDigit(wchar_t c)
    {
        if (c >= L'0' && c <= L'9')
            return c - L'0';
        if (c >= L'a' && c <= L'f')
            return c - L'a' + 10;
        if (c >= L'A' && c <= L'F')
            return c - L'A' + 10;
        return -1;
    }

    static bool ParseDword(const std::wstring& text, DWORD& out)
    {
        unsigned base = 10;
        size_t i = 0;
        if (text.size() > 2 && text[0] == L'0' && (text[1] == L'x' || text[1] == L'X')) {
            base = 16;
            i = 2;
        } else if (text.size() > 2 && text[0] == L'&' && (text[1] == L'h' || text[1] == L'H')) {
            base = 16;
            i = 2;
        }
        if (i == text.size())
            return false;
        unsigned long long value = 0;
        for (; i < text.size(); ++i) {
            int digit = HexDigit(text[i]);
            if (digit < 0 || static_cast<unsigned>(digit) >= base)
                return false;
            value = value * base + static_cast<unsigned>(digit);
            if (value > 0xFFFFFFFFull)
                return false;
        }
        out = static_cast<DWORD>(value);
        return true;
    }

    // type data, after the '='.
    bool ParseValue(ScriptValue& value)
    {
        if (m_pos + 1 >= m_tokens.size())
            return false;
        const Token& type = m_tokens[m_pos++];
        const Token& data = m_tokens[m_pos++];
        if (IsStructural(data))
            return false;
        if (_wcsicmp(type.text.c_str(), L"s") == 0) {
            value.type = REG_SZ;
            const BYTE* bytes = reinterpret_cast<const BYTE*>(data.text.c_str());
            value.data.assign(bytes, bytes + (data.text.size() + 1) * sizeof(wchar_t));
            return true;
        }
        if (_wcsicmp(type.text.c_str(), L"d") == 0) {
            DWORD number = 0;
            if (!ParseDword(data.text, number))
                return false;
            value.type = REG_DWORD;
            const BYTE* bytes = reinterpret_cast<const BYTE*>(&number);
            value.data.assign(bytes, bytes + sizeof(number));
            return true;
        }
        if (_wcsicmp(type.text.c_str(), L"b") == 0) {
            if (data.text.size() % 2 != 0)
                return false;
            value.type = REG_BINARY;
            for (size_t i = 0; i < data.text.size(); i += 2) {
                int high = HexDigit(data.text[i]);
                int low = HexDigit(data.text[i + 1]);
                if (high < 0 || low < 0)
                    return false;
                value.data.push_back(static_cast<BYTE>(high * 16 + low));
            }
            return true;
        }
        return false;
    }

    // Entries up to and including the closing brace.
    bool ParseEntries(std::vector<ScriptEntry>& entries)
    {
        for (;;) {
            if (m_pos >= m_tokens.size())
                return false;  // missing '}'
            if (Take(L"}"))
                return true;

            ScriptEntry entry;
            bool deleteKey = false;
            for (;;) {
                if (!entry.forceRemove && Take(L"ForceRemove"))
                    entry.forceRemove = true;
                else if (!entry.noRemove && Take(L"NoRemove"))
                    entry.noRemove = true;
                else if (!deleteKey && Take(L"Delete"))
                    deleteKey = true;
                else
                    break;
            }
            if (deleteKey && (entry.forceRemove || entry.noRemove))
                return false;

            if (Take(L"val")) {
                if (deleteKey || entry.forceRemove)
                    return false;
                entry.kind = ScriptEntry::NamedValue;
                if (!TakeName(entry.name, false) || !Take(L"=") || !ParseValue(entry.value))
                    return false;
                entries.push_back(std::move(entry));
                continue;
            }

            entry.kind = deleteKey ? ScriptEntry::DeleteKey : ScriptEntry::Key;
            if (!TakeName(entry.name, true))
                return false;
            if (Take(L"=")) {
                if (!ParseValue(entry.value))
                    return false;
                entry.hasDefault = true;
            }
            if (Take(L"{") && !ParseEntries(entry.children))
                return false;
            entries.push_back(std::move(entry));
        }
    }

    const std::vector<Token>& m_tokens;
    size_t m_pos = 0;
};

// ---------------------------------------------------------------------------
// Registry work.

bool IsMissing(LONG rc)
{
    return rc == ERROR_FILE_NOT_FOUND || rc == ERROR_PATH_NOT_FOUND;
}

// Deletes parent\name and everything below it.
LONG DeleteTree(HKEY parent, const wchar_t* name)
{
    HKEY key = nullptr;
    LONG rc = RegOpenKeyExW(parent, name, 0, KEY_READ, &key);
    if (rc != ERROR_SUCCESS)
        return rc;
    wchar_t child[256];
    for (;;) {
        DWORD chars = 256;
        rc = RegEnumKeyExW(key, 0, child, &chars, nullptr, nullptr, nullptr, nullptr);
        if (rc == ERROR_NO_MORE_ITEMS)
            break;
        if (rc == ERROR_SUCCESS)
            rc = DeleteTree(key, child);
        if (rc != ERROR_SUCCESS) {
            RegCloseKey(key);
            return rc;
        }
    }
    RegCloseKey(key);
    return RegDeleteKeyW(parent, name);
}

LONG SetValue(HKEY key, const wchar_t* name, const ScriptValue& value)
{
    return RegSetValueExW(key, name, 0, value.type, value.data.data(),
                          static_cast<DWORD>(value.data.size()));
}

HRESULT RegisterEntries(HKEY parent, const std::vector<ScriptEntry>& entries)
{
    for (const ScriptEntry& e : entries) {
        LONG rc = ERROR_SUCCESS;
        switch (e.kind) {
        case ScriptEntry::DeleteKey:
            rc = DeleteTree(parent, e.name.c_str());
            if (IsMissing(rc))
                rc = ERROR_SUCCESS;
            break;
        case ScriptEntry::NamedValue:
            rc = SetValue(parent, e.name.c_str(), e.value);
            break;
        case ScriptEntry::Key: {
            if (e.forceRemove) {
                rc = DeleteTree(parent, e.name.c_str());
                if (IsMissing(rc))
                    rc = ERROR_SUCCESS;
                if (rc != ERROR_SUCCESS)
                    break;
            }
            HKEY key = nullptr;
            rc = RegCreateKeyExW(parent, e.name.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                 KEY_READ | KEY_WRITE, nullptr, &key, nullptr);
            if (rc != ERROR_SUCCESS)
                break;
            if (e.hasDefault)
                rc = SetValue(key, nullptr, e.value);
            HRESULT hr = S_OK;
            if (rc == ERROR_SUCCESS)
                hr = RegisterEntries(key, e.children);
            RegCloseKey(key);
            if (FAILED(hr))
                return hr;
            break;
        }
        }
        if (rc != ERROR_SUCCESS)
            return HRESULT_FROM_WIN32(rc);
    }
    return S_OK;
}

HRESULT UnregisterEntries(HKEY parent, const std::vector<ScriptEntry>& entries)
{
    HRESULT first = S_OK;
    auto note = [&first](LONG rc) {
        if (rc != ERROR_SUCCESS && !IsMissing(rc) && SUCCEEDED(first))
            first = HRESULT_FROM_WIN32(rc);
    };
    for (const ScriptEntry& e : entries) {
        switch (e.kind) {
        case ScriptEntry::DeleteKey:
            break;
        case ScriptEntry::NamedValue:
            if (!e.noRemove)
                note(RegDeleteValueW(parent, e.name.c_str()));
            break;
        case ScriptEntry::Key:
            if (!e.noRemove) {
                note(DeleteTree(parent, e.name.c_str()));
            } else {
                // Kept: only what the script put inside it goes.
                HKEY key = nullptr;
                LONG rc = RegOpenKeyExW(parent, e.name.c_str(), 0, KEY_READ | KEY_WRITE, &key);
                if (rc == ERROR_ACCESS_DENIED)
                    rc = RegOpenKeyExW(parent, e.name.c_str(), 0, KEY_READ, &key);
                if (rc != ERROR_SUCCESS) {
                    note(rc);
                    break;
                }
                HRESULT hr = UnregisterEntries(key, e.children);
                RegCloseKey(key);
                if (FAILED(hr) && SUCCEEDED(first))
                    first = hr;
            }
            break;
        }
    }
    return first;
}

HRESULT Run(const wchar_t* script, bool doRegister,
            const std::vector<std::pair<std::wstring, std::wstring>>& replacements, HKEY overrideRoot)
{
    std::wstring text;
    std::vector<Token> tokens;
    std::vector<ScriptRoot> roots;
    if (!ExpandReplacements(script, replacements, text) || !Tokenize(text, tokens) ||
        !Parser(tokens).ParseScript(roots))
        return DISP_E_EXCEPTION;

    HRESULT first = S_OK;
    for (const ScriptRoot& root : roots) {
        HKEY key = overrideRoot != nullptr ? overrideRoot : root.key;
        if (doRegister) {
            HRESULT hr = RegisterEntries(key, root.entries);
            if (FAILED(hr))
                return hr;
        } else {
            HRESULT hr = UnregisterEntries(key, root.entries);
            if (FAILED(hr) && SUCCEEDED(first))
                first = hr;
        }
    }
    return first;
}

}  // namespace

HRESULT RunRegistryScript(const wchar_t* script, bool doRegister,
                          const std::vector<std::pair<std::wstring, std::wstring>>& replacements,
                          HKEY overrideRoot)
{
    if (script == nullptr)
        return E_POINTER;
    // The only exception the containers can raise here is running out of
    // memory; it must not leave this function.
    try {
        return Run(script, doRegister, replacements, overrideRoot);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}
