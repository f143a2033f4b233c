// The serial port a program run by scripts/simrun gets on COM1 is the watch
// simulator's, with the prefix's Wine server down before simrun starts and
// already up (tests/scripts/simrun_com1_test.sh runs it both ways).
#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "panel/GpioBlock.h"
#include "panel/GpioBlockLayout.h"
#include "tests/support/WatchSim.h"

namespace {

TEST(SimrunPorts, Com1LeadsToTheWatchSimulator)
{
    ASSERT_TRUE(WatchSim::Running()) << "not run by scripts/simrun with the watch simulator";
    WatchSim watch;
    // The cradle's power on, as the GPIO manager drives a line: direction, then clear and set.
    CGpioBlock* block = GpioRegisterBlock();
    ASSERT_NE(block, nullptr);
    const DWORD bank = gpio::BankOf(36), bit = gpio::BitOf(36);
    block->Write(gpio::kDirectionReg[bank], block->Read(gpio::kDirectionReg[bank]) | bit);
    block->Write(gpio::kClearReg[bank], block->Read(gpio::kClearReg[bank]) & ~bit);
    block->Write(gpio::kSetReg[bank], block->Read(gpio::kSetReg[bank]) | bit);
    ASSERT_TRUE(watch.Sync());

    HANDLE com1 = CreateFileW(L"\\\\.\\COM1", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(com1, INVALID_HANDLE_VALUE) << "COM1 cannot be opened: error " << GetLastError();
    DCB dcb = {};
    dcb.DCBlength = sizeof(dcb);
    COMMTIMEOUTS timeouts = {5000, 1000, 1000, 0, 0};
    EXPECT_TRUE(BuildCommDCBW(L"600,n,8,1", &dcb) && SetCommState(com1, &dcb) && SetCommTimeouts(com1, &timeouts));
    // The watch wakes on a carriage return and prompts.
    DWORD n = 0;
    EXPECT_TRUE(WriteFile(com1, "\r", 1, &n, nullptr));
    std::string got(3, '\0');
    for (DWORD at = 0; at < got.size() && ReadFile(com1, &got[at], DWORD(got.size() - at), &n, nullptr) && n > 0;)
        at += n;
    EXPECT_EQ(got, "\r\n>");
    CloseHandle(com1);
    std::string prompt;
    EXPECT_TRUE(watch.Wait("host CR: prompt", &prompt)) << "this run's simulator did not answer";
}

}  // namespace
