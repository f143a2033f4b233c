// The microcontroller simulator seen from Wine, as the control sees it: COM2
// opened through the prefix's link to the simulator's pseudo-terminal, bytes
// both ways, and the simulator driven and read back through its command file
// and log (tests/support/McuSim). Run by scripts/simrun.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "tests/support/McuSim.h"

namespace {

using Bytes = std::vector<unsigned char>;

std::string Hex(const Bytes& b)
{
    std::string s;
    char t[4];
    for (size_t i = 0; i < b.size(); ++i) {
        wsprintfA(t, i ? " %02X" : "%02X", b[i]);
        s += t;
    }
    return s;
}

class McuLinkTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(McuSim::Running()) << "run through scripts/simrun";
        port = CreateFileW(L"\\\\.\\COM2", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(port, INVALID_HANDLE_VALUE) << "COM2: error " << GetLastError();
        DCB dcb = {};
        dcb.DCBlength = sizeof(dcb);
        ASSERT_TRUE(GetCommState(port, &dcb));
        dcb.BaudRate = CBR_115200;
        dcb.ByteSize = 8;
        dcb.Parity = NOPARITY;
        dcb.StopBits = ONESTOPBIT;
        dcb.fBinary = TRUE;
        dcb.fOutxCtsFlow = FALSE;
        dcb.fOutxDsrFlow = FALSE;
        dcb.fOutX = FALSE;
        dcb.fInX = FALSE;
        dcb.fDtrControl = DTR_CONTROL_ENABLE;
        dcb.fRtsControl = RTS_CONTROL_ENABLE;
        ASSERT_TRUE(SetCommState(port, &dcb));
        COMMTIMEOUTS t = {};
        t.ReadTotalTimeoutConstant = 50;
        ASSERT_TRUE(SetCommTimeouts(port, &t));
        ASSERT_TRUE(mcu.Sync());
        PurgeComm(port, PURGE_RXCLEAR);
    }
    void TearDown() override
    {
        if (port != INVALID_HANDLE_VALUE)
            CloseHandle(port);
    }

    // Reads n bytes, or what came within a generous deadline.
    Bytes Read(size_t n)
    {
        Bytes got;
        const ULONGLONG deadline = GetTickCount64() + 10000;
        while (got.size() < n && GetTickCount64() < deadline) {
            unsigned char buffer[256];
            DWORD want = static_cast<DWORD>(std::min(sizeof(buffer), n - got.size()));
            DWORD read = 0;
            if (!ReadFile(port, buffer, want, &read, nullptr))
                break;
            got.insert(got.end(), buffer, buffer + read);
        }
        return got;
    }

    void Write(const Bytes& b)
    {
        DWORD written = 0;
        ASSERT_TRUE(WriteFile(port, b.data(), static_cast<DWORD>(b.size()), &written, nullptr));
        ASSERT_EQ(written, b.size());
    }

    HANDLE port = INVALID_HANDLE_VALUE;
    McuSim mcu;
};

TEST_F(McuLinkTest, TheNoiseCommandCrossesTheLinkAndIsAnswered)
{
    Write({0x5A, 0x02, 0xFF, 0xA5});
    Bytes answer = Read(8);
    ASSERT_EQ(answer.size(), 8u);
    EXPECT_EQ(answer[0], 0x11);
    EXPECT_EQ(answer[1], 0x06);
    EXPECT_EQ(answer[5], 0x03);
    EXPECT_EQ(answer[6], 0x00) << "accepted";
    unsigned sum = 0;
    for (unsigned char c : answer)
        sum += c;
    EXPECT_EQ(sum & 0xFF, 0u);

    std::vector<McuEntry> log;
    ASSERT_TRUE(mcu.Sync(&log));
    EXPECT_EQ(McuTexts(log, "host:"), std::vector<std::string>{"host: noise on (5A 02 FF A5)"});
    // What Wine made of the settings, as the simulator reads them.
    ASSERT_TRUE(mcu.Send("state"));
    ASSERT_TRUE(mcu.Sync(&log));
    ASSERT_EQ(McuTexts(log, "state").size(), 1u);
    EXPECT_NE(McuTexts(log, "state")[0].find("115200 8N1"), std::string::npos) << McuTexts(log, "state")[0];
}

TEST_F(McuLinkTest, ScenarioCommandsArriveInOrderBeforeTheirMark)
{
    ASSERT_TRUE(mcu.Send("ticks 0x3456"));
    ASSERT_TRUE(mcu.Send("split 2 30 capsit left down at 0x10"));
    ASSERT_TRUE(mcu.Send("go at 0x3456"));
    ASSERT_TRUE(mcu.Sync());
    EXPECT_EQ(Hex(Read(14)), "10 05 00 00 10 3B A0 10 05 00 34 56 20 41");
}

TEST_F(McuLinkTest, LatencyAndBurstResultsCanBeReadBack)
{
    ASSERT_TRUE(mcu.Send("latency 3 capsit"));
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(Read(7).size(), 7u) << "round " << i;
        Write({0x5A, 0x02, 0x00, 0xA4});
        ASSERT_EQ(Read(8).size(), 8u);
    }
    std::string text;
    ASSERT_TRUE(mcu.Wait("latency ", &text));
    McuLatency latency;
    ASSERT_TRUE(McuSim::ParseLatency(text, &latency)) << text;
    EXPECT_EQ(latency.n, 3u);
    EXPECT_EQ(latency.missed, 0u);
    EXPECT_LE(latency.medianUs, latency.worstUs);

    ASSERT_TRUE(mcu.Send("burst 40 pegs"));
    EXPECT_EQ(Read(40 * 9).size(), 40u * 9);
    ASSERT_TRUE(mcu.Wait("burst ", &text));
    McuBurst burst;
    ASSERT_TRUE(McuSim::ParseBurst(text, &burst)) << text;
    EXPECT_EQ(burst.sent, 40u);
    EXPECT_EQ(burst.bytes, 360u);
}

}  // namespace
