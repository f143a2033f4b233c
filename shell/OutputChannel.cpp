#include "shell/OutputChannel.h"

OutputChannel::OutputChannel(HANDLE handle, bool owned) : m_handle(handle), m_owned(owned)
{
    InitializeCriticalSection(&m_lock);
}

OutputChannel::~OutputChannel()
{
    if (m_owned && m_handle != INVALID_HANDLE_VALUE)
        CloseHandle(m_handle);
    DeleteCriticalSection(&m_lock);
}

OutputChannel* OutputChannel::OpenFile(const std::wstring& path)
{
    HANDLE file = CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return nullptr;
    return new OutputChannel(file, true);
}

void OutputChannel::WriteLine(std::wstring_view text)
{
    std::string bytes = ToUtf8(text);
    bytes += '\n';
    EnterCriticalSection(&m_lock);
    if (m_handle != nullptr && m_handle != INVALID_HANDLE_VALUE) {
        DWORD written = 0;
        WriteFile(m_handle, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    }
    LeaveCriticalSection(&m_lock);
}

OutputChannel& StdOut()
{
    static OutputChannel channel(GetStdHandle(STD_OUTPUT_HANDLE), false);
    return channel;
}

OutputChannel& StdErr()
{
    static OutputChannel channel(GetStdHandle(STD_ERROR_HANDLE), false);
    return channel;
}

std::string ToUtf8(std::wstring_view text)
{
    if (text.empty())
        return {};
    const int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0,
                                      nullptr, nullptr);
    std::string out(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n, nullptr,
                        nullptr);
    return out;
}
