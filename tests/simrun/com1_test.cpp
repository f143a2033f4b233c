// The serial ports a program run by scripts/simrun gets: COM1 leads to the
// watch simulator (at 600 baud, and at 4800 for a block) and COM2 to the
// microcontroller's. tests/scripts/simrun_com1_test.sh runs this program
// with the prefix's Wine server down before simrun starts (its device
// manager then relinks COM1 to /dev/ttyS0 as it comes up) and already up.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "panel/GpioBlock.h"
#include "panel/GpioBlockLayout.h"
#include "tests/support/WatchSim.h"

namespace {

constexpr unsigned kLinePower = 36;

// Drives a line as the GPIO manager does: direction, then clear and set.
void DriveLine(unsigned line, bool high)
{
    CGpioBlock* block = GpioRegisterBlock();
    ASSERT_NE(block, nullptr);
    const DWORD bank = gpio::BankOf(line), bit = gpio::BitOf(line);
    block->Write(gpio::kDirectionReg[bank], block->Read(gpio::kDirectionReg[bank]) | bit);
    const DWORD off = high ? gpio::kClearReg[bank] : gpio::kSetReg[bank];
    const DWORD on = high ? gpio::kSetReg[bank] : gpio::kClearReg[bank];
    block->Write(off, block->Read(off) & ~bit);
    block->Write(on, block->Read(on) | bit);
}

class Port
{
public:
    explicit Port(const wchar_t* name)
        : m_h(CreateFileW(name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr))
    {
    }
    ~Port()
    {
        if (Open())
            CloseHandle(m_h);
    }
    bool Open() const { return m_h != INVALID_HANDLE_VALUE; }

    // The control's watch port settings at a baud rate.
    bool Baud(DWORD baud)
    {
        DCB dcb = {};
        dcb.DCBlength = sizeof(dcb);
        if (!GetCommState(m_h, &dcb))
            return false;
        dcb.BaudRate = baud;
        dcb.ByteSize = 8;
        dcb.Parity = NOPARITY;
        dcb.StopBits = ONESTOPBIT;
        dcb.fBinary = TRUE;
        dcb.fParity = FALSE;
        dcb.fOutxCtsFlow = FALSE;
        dcb.fOutxDsrFlow = FALSE;
        dcb.fDtrControl = DTR_CONTROL_DISABLE;
        dcb.fRtsControl = RTS_CONTROL_ENABLE;
        dcb.fOutX = FALSE;
        dcb.fInX = FALSE;
        COMMTIMEOUTS t = {5000, 1000, 1000, 0, 0};
        return SetCommState(m_h, &dcb) && SetCommTimeouts(m_h, &t);
    }

    bool Write(const std::string& bytes)
    {
        DWORD written = 0;
        return WriteFile(m_h, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
               written == bytes.size();
    }

    std::string Read(size_t n)
    {
        std::string got;
        std::vector<char> buffer(n);
        while (got.size() < n) {
            DWORD read = 0;
            if (!ReadFile(m_h, buffer.data(), static_cast<DWORD>(n - got.size()), &read, nullptr) || read == 0)
                break;
            got.append(buffer.data(), read);
        }
        return got;
    }

    // A watch command, each character's echo read before the next.
    std::string Type(const std::string& command)
    {
        std::string echoes;
        for (char c : command) {
            if (!Write(std::string(1, c)))
                break;
            echoes += Read(1);
        }
        return echoes;
    }

private:
    HANDLE m_h;
};

TEST(SimrunPorts, Com1LeadsToTheWatchSimulatorAt600AndItsBlocksAt4800Baud)
{
    ASSERT_TRUE(WatchSim::Running()) << "not run by scripts/simrun with the watch simulator";
    WatchSim watch;
    ASSERT_TRUE(watch.Send("logaddr 0x1800"));
    DriveLine(kLinePower, true);
    ASSERT_TRUE(watch.Sync());

    Port com1(L"\\\\.\\COM1");
    ASSERT_TRUE(com1.Open()) << "COM1 cannot be opened: error " << GetLastError();
    ASSERT_TRUE(com1.Baud(600));
    ASSERT_TRUE(com1.Write("\r"));
    // Not the simulator (a real /dev/ttyS0): stop before the long reads.
    ASSERT_EQ(com1.Read(3), "\r\n>");
    ASSERT_EQ(com1.Type("***N0010"), "***N0010");
    ASSERT_TRUE(com1.Baud(4800));
    EXPECT_TRUE(com1.Read(4096) == WatchSim::Block(0x1800, 0x10)) << "the block at 0x1000: 0x800 bytes, then 0xFF";
    ASSERT_TRUE(com1.Baud(600));
    EXPECT_EQ(com1.Read(1), ">");
    DriveLine(kLinePower, false);

    std::vector<std::string> commands;
    ASSERT_TRUE(watch.Commands(&commands));
    EXPECT_EQ(commands, std::vector<std::string>{"***N0010"});
}

TEST(SimrunPorts, Com2StillLeadsToTheMicrocontrollerSimulator)
{
    Port com2(L"\\\\.\\COM2");
    EXPECT_TRUE(com2.Open()) << "COM2 cannot be opened: error " << GetLastError();
}

}  // namespace
