// The hidden message window that brings worker-thread work to the host thread.
#include <gtest/gtest.h>

#include <objbase.h>

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
        return MessageWindowRegister(GetModuleHandleW(nullptr), kClass, MessageWindowProc<CProbe>) &&
               (m_hwnd = MessageWindowCreate(GetModuleHandleW(nullptr), kClass, L"Probe Messages", this)) != nullptr;
    }
    void Close() { MessageWindowDestroy(m_hwnd, GetModuleHandleW(nullptr), kClass, L"CProbe: DestroyWindow failed.\r\n"); }
    LRESULT WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
    {
        if (msg != WM_PROBE_BLOCK)
            return MessageWindowDefault(hwnd, msg, wParam, lParam, L"Probe");
        received.push_back(*reinterpret_cast<int*>(lParam));
        threads.push_back(GetCurrentThreadId());
        CoTaskMemFree(reinterpret_cast<int*>(lParam));
        return 0;
    }
    HWND m_hwnd = nullptr;
    std::vector<int> received;
    std::vector<DWORD> threads;
};

TEST(MessageWindowTest, WorkerPostsReachTheManagerOnTheHostThreadUntilTeardown)
{
    CProbe probe, second;
    ASSERT_TRUE(probe.Open() && second.Open());  // the second finds the class registered already
    second.Close();
    HWND hwnd = probe.m_hwnd;
    std::thread worker([hwnd] {
        for (int i = 0; i < 3; ++i) {
            int* block = static_cast<int*>(CoTaskMemAlloc(sizeof(int)));
            *block = i;
            PostMessageW(hwnd, WM_PROBE_BLOCK, 0, reinterpret_cast<LPARAM>(block));
        }
    });
    worker.join();
    auto pump = [hwnd, msg = MSG{}]() mutable {
        while (PeekMessageW(&msg, hwnd, 0, 0, PM_REMOVE))
            DispatchMessageW(&msg);
    };
    pump();
    EXPECT_EQ(probe.received, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(probe.threads, std::vector<DWORD>(3, GetCurrentThreadId()));

    // Clearing the user data is the first step of teardown: from then on a
    // queued message goes to the default procedure (its block is not the
    // manager's to free once it is gone).
    int block = 7;
    ASSERT_TRUE(PostMessageW(hwnd, WM_PROBE_BLOCK, 0, reinterpret_cast<LPARAM>(&block)));
    SetWindowLongPtrW(hwnd, GWLP_USERDATA, 0);
    pump();
    EXPECT_EQ(std::make_pair(probe.received.size(), block), std::make_pair(size_t(3), 7));

    SetWindowLongPtrW(hwnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(&probe));
    probe.Close();
    EXPECT_EQ(probe.m_hwnd, nullptr);
    EXPECT_FALSE(IsWindow(hwnd));
    EXPECT_FALSE(PostMessageW(hwnd, WM_PROBE_BLOCK, 0, reinterpret_cast<LPARAM>(&block)));
    WNDCLASSW wc;
    EXPECT_FALSE(GetClassInfoW(GetModuleHandleW(nullptr), kClass, &wc));
}

}  // namespace
