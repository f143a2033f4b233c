// motr2csv on .motr files written byte by byte as the recorder lays them out.
#include <gtest/gtest.h>

#include <cstdio>
#include <numeric>
#include <tuple>

#include "tests/tools/support/ToolsTestKit.h"

namespace {

using toolstest::Bytes;

const char kColumns[] =
    "index,offset,ticks,ticks_since_go,ms_since_go,event,delta_ticks,pegs_left,pegs_right,hc08_rev,"
    "hc08_build,reset_source,tick_hz,post_result,cmd_status,problem,bytes";

// "MOTR", version 256 little-endian.
const Bytes kHeader = {'M', 'O', 'T', 'R', 0x00, 0x01};

// The packet with its checksum appended: the two's complement of the byte sum.
Bytes Packet(Bytes bytes)
{
    bytes.push_back(static_cast<uint8_t>(0u - std::accumulate(bytes.begin(), bytes.end(), 0u)));
    return bytes;
}

// A reset note at tick 0: rev 3, build 7, source 2, 1000 Hz, self-test 5.
const Bytes kReset = Packet({0x11, 0x0D, 0, 0, 0, 0x00, 3, 7, 2, 0x00, 0x00, 0x03, 0xE8, 5});

Bytes Recording(const Bytes& tail = {})
{
    Bytes file = kHeader;
    file.insert(file.end(), kReset.begin(), kReset.end());
    file.insert(file.end(), tail.begin(), tail.end());
    return file;
}

std::string Hex(const Bytes& bytes)
{
    std::string s;
    char b[4];
    for (uint8_t byte : bytes)
        s.append(b, std::snprintf(b, sizeof(b), " %02X", byte));
    return s.substr(1);
}

class Motr2Csv : public ::testing::Test
{
protected:
    // Writes the header and the packets, each with the row it should give
    // from its ticks to its problem column, runs the tool and checks the rows.
    void ExpectRows(const std::vector<std::pair<Bytes, std::string>>& cases)
    {
        Bytes file = kHeader;
        std::string expected = std::string(kColumns) + "\n";
        for (size_t i = 0; i < cases.size(); ++i) {
            const auto& [packet, row] = cases[i];
            expected += std::to_string(i) + "," + std::to_string(file.size()) + "," + row + "," + Hex(packet) + "\n";
            file.insert(file.end(), packet.begin(), packet.end());
        }
        toolstest::WriteBytes(motr, file);
        ASSERT_EQ(Run("'" + motr.string() + "'"), 0) << err;
        EXPECT_EQ(out, expected);
    }

    int Run(const std::string& args)
    {
        const toolstest::RunResult run = toolstest::Shell(std::string("('") + MOTR2CSV_BIN + "' " + args + " 2>'" +
                                                          (dir / "stderr").string() + "')");
        std::tie(out, err) = std::pair(run.output, toolstest::ReadText(dir / "stderr"));
        return run.code;
    }

    toolstest::TempDir dir;
    toolstest::fs::path motr = dir / "test.motr";
    std::string out, err;
};

TEST_F(Motr2Csv, DecodesEveryPacketKindWithTimeSinceGoAsTheLinkCountsIt)
{
    ExpectRows({
        {kReset, "0,,,HC08Reset,,,,3,7,2,1000,5,,"},
        // The recorder's pegs map at tick 0, active low: right 0xF0, left 0x0F.
        {Packet({0x10, 0x07, 0, 0, 0, 0x40, 0x0F, 0xF0}), "0,,,PegsMap,,15,240,,,,,,,"},
        // No go yet: time since go unknown.
        {Packet({0x10, 0x05, 0, 0x01, 0x00, 0x3B}), "256,,,CapsitLeftDown,,,,,,,,,,"},
        // Go 16 ticks before the counter wraps.
        {Packet({0x10, 0x05, 0xFF, 0xFF, 0xF0, 0x20}), "16777200,0,0.000,TimerGo,,,,,,,,,,"},
        {Packet({0x10, 0x05, 0, 0, 0x10, 0x38}), "16,32,32.000,CapsitRightDown,,,,,,,,,,"},
        {Packet({0x10, 0x07, 0, 0x01, 0x00, 0x30, 0x01, 0x23}), "256,272,272.000,DigitoLeftDownward,291,,,,,,,,,"},
        // The rollover counts from the next packet on.
        {Packet({0x10, 0x05, 0, 0x02, 0x00, 0x21}), "512,528,528.000,TimerRollover,,,,,,,,,,"},
        {Packet({0x10, 0x05, 0, 0, 0x10, 0x39}), "16,16777248,16777248.000,CapsitRightUp,,,,,,,,,,"},
        // A tap without its delta bytes reports delta 0.
        {Packet({0x10, 0x05, 0, 0, 0x20, 0x35}), "32,16777264,16777264.000,DigitoRightUpward,0,,,,,,,,,"},
        {Packet({0x10, 0x07, 0, 0, 0x30, 0x34, 0xFF, 0xFF}),
         "48,16777280,16777280.000,DigitoRightDownward,65535,,,,,,,,,"},
        {Packet({0x10, 0x07, 0, 0, 0x40, 0x31, 0x00, 0x05}), "64,16777296,16777296.000,DigitoLeftUpward,5,,,,,,,,,"},
        {Packet({0x10, 0x05, 0, 0, 0x50, 0x3C}), "80,16777312,16777312.000,CapsitLeftUp,,,,,,,,,,"},
        {Packet({0x10, 0x07, 0, 0, 0x60, 0x40, 0xFE, 0x7F}), "96,16777328,16777328.000,PegsMap,,128,1,,,,,,,"},
        // Packets that raise no script event.
        {Packet({0x11, 0x06, 0, 0, 0x70, 0x03, 0x01}), "112,16777344,16777344.000,CmdResponse,,,,,,,,,1,"},
        {Packet({0x11, 0x05, 0, 0, 0x70, 0x01}), "112,16777344,16777344.000,Note01,,,,,,,,,,"},
        {Packet({0x11, 0x05, 0, 0, 0x70, 0x02}), "112,16777344,16777344.000,UnknownNote,,,,,,,,,,"},
        {Packet({0x12, 0x05, 0, 0, 0x70, 0x00}), "112,16777344,16777344.000,ErrorNone,,,,,,,,,,"},
        {Packet({0x12, 0x05, 0, 0, 0x70, 0x01}), "112,16777344,16777344.000,ErrorOverflow,,,,,,,,,,"},
        {Packet({0x12, 0x05, 0, 0, 0x70, 0x80}), "112,16777344,16777344.000,ErrorBadVCore,,,,,,,,,,"},
        {Packet({0x12, 0x05, 0, 0, 0x70, 0x81}), "112,16777344,16777344.000,ErrorBad5V,,,,,,,,,,"},
        {Packet({0x12, 0x05, 0, 0, 0x70, 0x82}), "112,16777344,16777344.000,ErrorBad3V,,,,,,,,,,"},
        {Packet({0x12, 0x05, 0, 0, 0x70, 0x55}), "112,16777344,16777344.000,UnknownError,,,,,,,,,,"},
        {Packet({0x10, 0x05, 0, 0, 0x70, 0x41}), "112,16777344,16777344.000,UnknownDeviceEvent,,,,,,,,,,"},
        // A second go starts afresh and forgets the rollover.
        {Packet({0x10, 0x05, 0, 0x0A, 0x00, 0x20}), "2560,0,0.000,TimerGo,,,,,,,,,,"},
        {Packet({0x10, 0x05, 0, 0x0A, 0x64, 0x3B}), "2660,100,100.000,CapsitLeftDown,,,,,,,,,,"},
        // A reset note mid-test (4000 Hz) keeps the go but changes the rate.
        {Packet({0x11, 0x0D, 0, 0x0A, 0x68, 0x00, 4, 1, 0, 0x00, 0x00, 0x0F, 0xA0, 0}),
         "2664,104,26.000,HC08Reset,,,,4,1,0,4000,0,,"},
        {Packet({0x10, 0x05, 0, 0x0A, 0x6E, 0x3B}), "2670,110,27.500,CapsitLeftDown,,,,,,,,,,"},
    });
    EXPECT_EQ(err, "");
}

TEST_F(Motr2Csv, FlagsDamagedPacketsAndKeepsTheirGoOutOfTheCount)
{
    // Checksums written out: D6, 87 and 50 would be right.
    const Bytes badGo = {0x10, 0x05, 0, 0x01, 0xF4, 0x20, 0xD7};
    const Bytes badClass = {0x42, 0x05, 0, 0x02, 0x00, 0x30, 0x07};
    const Bytes badPegs = {0x10, 0x06, 0, 0x02, 0x58, 0x40, 0x00, 0x51};
    ExpectRows({
        {kReset, "0,,,HC08Reset,,,,3,7,2,1000,5,,"},
        {Packet({0x10, 0x05, 0, 0x00, 0x64, 0x20}), "100,0,0.000,TimerGo,,,,,,,,,,"},
        // The link drops a go with a bad checksum: later packets still count from tick 100.
        {badGo, "500,400,400.000,TimerGo,,,,,,,,,,bad checksum 0xD7 (expected 0xD6)"},
        {Packet({0x10, 0x05, 0, 0x02, 0x58, 0x38}), "600,500,500.000,CapsitRightDown,,,,,,,,,,"},
        {badClass, "512,412,412.000,UnknownClass,,,,,,,,,,bad checksum 0x07 (expected 0x87)"},
        {badPegs, "600,500,500.000,PegsMap,,,,,,,,,,bad checksum 0x51 (expected 0x50); bad payload size"},
        // Framed right, but a payload the link refuses.
        {Packet({0x10, 0x06, 0, 0x02, 0x58, 0x30, 0x12}),
         "600,500,500.000,DigitoLeftDownward,,,,,,,,,,bad payload size"},
        {Packet({0x10, 0x04, 0, 0x02, 0x58}), "600,500,500.000,DeviceEvent,,,,,,,,,,bad payload size"},
        {Packet({0x11, 0x0C, 0, 0x02, 0x58, 0x00, 3, 7, 2, 0, 0, 0x03, 0xE8}),
         "600,500,500.000,HC08Reset,,,,,,,,,,bad payload size"},
        {Packet({0x11, 0x05, 0, 0x02, 0x58, 0x03}), "600,500,500.000,CmdResponse,,,,,,,,,,bad payload size"},
    });
    EXPECT_EQ(err, "motr2csv: " + motr.string() + ": 7 packets flagged in the problem column\n");
}

TEST_F(Motr2Csv, RefusesWhatTheRecorderNeverWritesNamingWhere)
{
    const Bytes go = Packet({0x10, 0x05, 0, 0, 0, 0x20});
    const std::tuple<const char*, Bytes, std::string> cases[] = {
        {"empty", {}, "byte 0: header cut short (0 of 6 bytes)"},
        {"header cut short", {'M', 'O', 'T', 'R', 0x00}, "byte 5: header cut short (5 of 6 bytes)"},
        {"another format", {'R', 'I', 'F', 'F', 0x24, 0x00, 0x00, 0x00},
         "byte 0: not a .motr recording (starts 52 49 46 46, not \"MOTR\")"},
        {"short and wrong", {'M', 'O', 'X'}, "byte 0: not a .motr recording (starts 4D 4F 58, not \"MOTR\")"},
        {"version read big-endian", {'M', 'O', 'T', 'R', 0x01, 0x00},
         "byte 4: unsupported .motr version 1 (expected 256)"},
        {"packet cut short", Recording(Bytes(go.begin(), go.end() - 1)),
         "packet 1 at byte 21: cut short (a 7-byte packet, 6 bytes left)"},
        {"no length byte", Recording({0x10}), "packet 1 at byte 21: cut short (1 byte left, no length byte)"},
        {"length too small", Recording(Packet({0x10, 0x03, 0, 0, 0})),
         "packet 1 at byte 21: bad length byte 0x03 (a 5-byte packet; 6 to 16 allowed)"},
        {"length too large", Recording(Bytes(17, 0x0F)),
         "packet 1 at byte 21: bad length byte 0x0F (a 17-byte packet; 6 to 16 allowed)"},
        {"unknown class", Recording(Packet({0x13, 0x05, 0, 0, 0, 0x20})), "packet 1 at byte 21: unknown class 0x13"},
        {"host command class", Recording(Packet({0x5A, 0x05, 0, 0, 0, 0xFF})),
         "packet 1 at byte 21: unknown class 0x5A"},
    };
    for (const auto& [what, file, error] : cases) {
        SCOPED_TRACE(what);
        toolstest::WriteBytes(motr, file);
        EXPECT_EQ(Run("'" + motr.string() + "' -o '" + (dir / "out.csv").string() + "'"), 1);
        EXPECT_EQ(err, "motr2csv: " + motr.string() + ": " + error + "\n");
        EXPECT_EQ(out, "");
        EXPECT_FALSE(toolstest::fs::exists(dir / "out.csv")) << "output written for a file that failed";
    }
}

TEST_F(Motr2Csv, WritesTheFileGivenAndTheHeaderOnRequest)
{
    toolstest::WriteBytes(motr, Recording());
    ASSERT_EQ(Run("'" + motr.string() + "' -o '" + (dir / "out.csv").string() + "'"), 0) << err;
    EXPECT_EQ(out, "");
    EXPECT_EQ(toolstest::ReadText(dir / "out.csv"),
              std::string(kColumns) + "\n0,6,0,,,HC08Reset,,,,3,7,2,1000,5,,," + Hex(kReset) + "\n");

    ASSERT_EQ(Run("--header '" + motr.string() + "'"), 0) << err;
    EXPECT_EQ(out, "field,value\nmagic,MOTR\nversion,256\npacket_bytes,15\npackets,1\n");

    EXPECT_EQ(Run(""), 2);
    EXPECT_EQ(Run("'" + motr.string() + "' --bogus"), 2);
}

}  // namespace
