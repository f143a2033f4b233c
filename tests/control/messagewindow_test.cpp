// The hidden message window managers use to bring worker-thread work to the
// host thread.
#include <gtest/gtest.h>

#include <objbase.h>

#include <functional>
#include <thread>
#include <vector>

#include "control/MessageWindow.h"

namespace {

constexpr UINT WM_PROBE_BLOCK = WM_BRENNOCK_FIRST;
constexpr wchar_t kClass[] = L"ProbeMessageWin";

// A stand-in manager: receives numbered blocks posted by a worker thread.
class CProbe
{
public:
    bool Open()
    {
        m_instance = GetModuleHandleW(nullptr);
        if (!MessageWindowRegister(m_instance, kClass, MessageWindowProc<CProbe>))
            return false;
        m_hwnd = MessageWindowCreate(m_instance, kClass, L"Probe Messages", this);
        return m_hwnd != nullptr;
    }
    void Close() { MessageWindowDestroy(m_hwnd, m_instance, kClass, L"CProbe: DestroyWindow failed.\r\n"); }

    LRESULT WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
    {
        if (msg == WM_PROBE_BLOCK) {
            int* block = reinterpret_cast<int*>(lParam);
            received.push_back(*block);
            threads.push_back(GetCurrentThreadId());
            CoTaskMemFree(block);
            return 0;
        }
        return MessageWindowDefault(hwnd, msg, wParam, lParam, L"Probe");
    }

    HWND Window() const { return m_hwnd; }
    std::vector<int> received;
    std::vector<DWORD> threads;

private:
    HINSTANCE m_instance = nullptr;
    HWND m_hwnd = nullptr;
};

void PumpUntil(const std::function<bool()>& done)
{
    MSG msg;
    while (!done()) {
        if (GetMessageW(&msg, nullptr, 0, 0) <= 0)
            break;
        DispatchMessageW(&msg);
    }
}

TEST(MessageWindowTest, HiddenPopupOfItsOwnClass)
{
    CProbe probe;
    ASSERT_TRUE(probe.Open());
    HWND hwnd = probe.Window();
    wchar_t name[64];
    GetClassNameW(hwnd, name, 64);
    EXPECT_STREQ(name, kClass);
    GetWindowTextW(hwnd, name, 64);
    EXPECT_STREQ(name, L"Probe Messages");
    EXPECT_FALSE(IsWindowVisible(hwnd));
    EXPECT_EQ(GetParent(hwnd), nullptr);
    EXPECT_TRUE(GetWindowLongW(hwnd, GWL_STYLE) & WS_POPUP);
    RECT rc;
    GetWindowRect(hwnd, &rc);
    EXPECT_EQ(rc.left, 50);
    EXPECT_EQ(rc.top, 50);
    EXPECT_EQ(rc.right - rc.left, 50);
    EXPECT_EQ(rc.bottom - rc.top, 50);
    EXPECT_EQ(GetWindowLongPtrW(hwnd, GWLP_USERDATA), reinterpret_cast<LONG_PTR>(&probe));

    // A second manager of the same class finds the class registered already.
    CProbe second;
    ASSERT_TRUE(second.Open());
    second.Close();

    probe.Close();
    EXPECT_FALSE(IsWindow(hwnd));
    WNDCLASSW wc;
    EXPECT_FALSE(GetClassInfoW(GetModuleHandleW(nullptr), kClass, &wc));
}

TEST(MessageWindowTest, WorkerPostsArriveOnTheHostThreadInOrder)
{
    CProbe probe;
    ASSERT_TRUE(probe.Open());
    const int count = 500;
    HWND hwnd = probe.Window();
    std::thread worker([hwnd] {
        for (int i = 0; i < count; ++i) {
            int* block = static_cast<int*>(CoTaskMemAlloc(sizeof(int)));
            *block = i;
            if (!PostMessageW(hwnd, WM_PROBE_BLOCK, 0, reinterpret_cast<LPARAM>(block)))
                CoTaskMemFree(block);
        }
    });
    PumpUntil([&] { return probe.received.size() == static_cast<size_t>(count); });
    worker.join();
    ASSERT_EQ(probe.received.size(), static_cast<size_t>(count));
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(probe.received[i], i);
    for (DWORD t : probe.threads)
        EXPECT_EQ(t, GetCurrentThreadId());
    probe.Close();
}

TEST(MessageWindowTest, MessagesAfterTeardownNeverReachTheManager)
{
    CProbe probe;
    ASSERT_TRUE(probe.Open());
    HWND hwnd = probe.Window();
    int block = 7;  // not the manager's to free once it is gone
    ASSERT_TRUE(PostMessageW(hwnd, WM_PROBE_BLOCK, 0, reinterpret_cast<LPARAM>(&block)));

    // Clearing the user data is the first step of teardown: from then on the
    // default procedure answers.
    SetWindowLongPtrW(hwnd, GWLP_USERDATA, 0);
    MSG msg;
    while (PeekMessageW(&msg, hwnd, 0, 0, PM_REMOVE))
        DispatchMessageW(&msg);
    EXPECT_TRUE(probe.received.empty());
    EXPECT_EQ(block, 7);

    SetWindowLongPtrW(hwnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(&probe));
    probe.Close();
    EXPECT_FALSE(PostMessageW(hwnd, WM_PROBE_BLOCK, 0, reinterpret_cast<LPARAM>(&block)));
    EXPECT_TRUE(probe.received.empty());
}

}  // namespace
