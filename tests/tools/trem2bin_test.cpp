// trem2bin on .trem files laid out as the control writes them.
#include <gtest/gtest.h>

#include <cstdio>
#include <tuple>

#include "sim/WatchMemory.h"
#include "tests/tools/support/ToolsTestKit.h"

namespace {

using toolstest::fs::path;

std::string Params(const std::string& address)
{
    return "\r\nSIMWATCH 01\r\nFW 2.10\r\n" + address + "\r\nID -\r\nSTART ------ ----";
}

std::string Memory(uint32_t logAddress, uint32_t blocks)
{
    std::string m;
    for (uint32_t i = 0; i < blocks * watchsim::kBlockBytes; ++i)
        m.push_back(static_cast<char>(watchsim::MemoryByte(watchsim::RecordedBytesFor(logAddress), i)));
    return m;
}

// The same as the data lines of a .trem file: 32 bytes a line, lower-case hex.
std::string DataLines(uint32_t logAddress, uint32_t count)
{
    std::string text;
    char hex[8];
    const std::string memory = Memory(logAddress, count);
    for (size_t i = 0; i < memory.size(); ++i)
        text.append(hex, std::snprintf(hex, sizeof(hex), i % 32 == 31 ? "%02x\r\n" : "%02x", uint8_t(memory[i])));
    return text;
}

std::string Trem(const std::string& params, const std::string& data)
{
    return "TREM Version 1\r\n" + params + "\r\nData\r\n" + data;
}

class Trem2Bin : public ::testing::Test
{
protected:
    toolstest::RunResult Run(const std::string& args) { return toolstest::Shell(std::string("'") + TREM2BIN_BIN + "' " + args); }
    void Put(const path& file, const std::string& text) { toolstest::WriteText(file, text); }
    size_t Files() const { return std::distance(toolstest::fs::directory_iterator(dir.path()), {}); }
    toolstest::TempDir dir;
};

TEST_F(Trem2Bin, WritesTheMemoryAndTheParameterFieldsForEachBlockCountTheControlReads)
{
    // The log address, as the reply gives it, and the blocks the control reads for it.
    const std::tuple<const char*, uint32_t, uint32_t> cases[] = {
        {"001000", 0x1000, 2},    // n = 16 + 1 (0x1000 mod 255 is 16): two blocks
        {"000FF0", 0x0FF0, 1},    // n = 15 (4080 mod 255 is 0): one block
        {"0010EF", 0x10EF, 1},    // n = 16 (4335 mod 255 is 0): still one
        {"FFFEBE", 0, 1},         // bit 23: nothing recorded, n = 1
        {"002A00", 0x2A00, 3},    // n = 43
        {"0x1100", 0x1100, 2},    // as the control reads hexadecimal text
    };
    for (const auto& [text, address, blocks] : cases) {
        SCOPED_TRACE(text);
        Put(dir / "w.trem", Trem(Params(text), DataLines(address, blocks)));
        const toolstest::RunResult r = Run("'" + (dir / "w.trem").string() + "'");
        ASSERT_EQ(r.code, 0) << r.output;
        EXPECT_EQ(r.output, "");
        EXPECT_TRUE(toolstest::ReadText(dir / "w.bin") == Memory(address, blocks));
        EXPECT_EQ(toolstest::ReadText(dir / "w.csv"),
                  std::string("field,text\n1,SIMWATCH 01\n2,FW 2.10\n3,") + text + "\n4,ID -\n5,START ------ ----\n");
    }

    // Named outputs, and fields CSV has to quote.
    Put(dir / "x.trem", Trem("\r\nA,B\r\n\"q\"\r\n0FF0\r\n", DataLines(0x0FF0, 1)));
    const toolstest::RunResult r = Run("'" + (dir / "x.trem").string() + "' -o '" + (dir / "m.bin").string() +
                                       "' --csv '" + (dir / "p.csv").string() + "'");
    ASSERT_EQ(r.code, 0) << r.output;
    EXPECT_EQ(toolstest::ReadText(dir / "p.csv"), "field,text\n1,\"A,B\"\n2,\"\"\"q\"\"\"\n3,0FF0\n4,\n");
    EXPECT_EQ(toolstest::ReadBytes(dir / "m.bin").size(), 4096u);
}

TEST_F(Trem2Bin, RefusesMalformedFilesNamingTheLineAndWritesNothing)
{
    const std::string good = Params("001000");  // two blocks, 256 data lines from line 9
    const std::string block = DataLines(0x1000, 1);
    const std::string line(64, '0');
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {"empty", "", "line 1: not a .trem file"},
        {"another header", "TREM Version 2\r\n" + good + "\r\nData\r\n" + block + block, "line 1: not a .trem file"},
        {"LF line ends", "TREM Version 1\n", "line 1: an LF without a CR before it"},
        {"a CR alone", Trem("\r\nSIM\rWATCH\r\nFW\r\n1000\r\nx", block + block), "line 3: a CR without an LF"},
        {"text not from CR", Trem("SIMWATCH\r\nFW\r\n1000\r\nx\r\ny", block + block),
         "line 2: the parameter text must begin with CR LF"},
        {"too few CRs", Trem("\r\nSIMWATCH 01\r\nFW 2.10", block), "line 5: the parameter text has 2 line end(s)"},
        {"garbled address", Trem(Params("XYZ123"), block), "line 5: the next log address \"XYZ123\" is not"},
        {"negative address", Trem(Params("-1"), block), "line 5: the next log address \"-1\" is not"},
        {"no Data line", "TREM Version 1\r\n" + good + "\r\n", "line 8: the file ends without its \"Data\" line"},
        {"no data", Trem(good, ""), "line 9: no data after the \"Data\" line"},
        {"short line", Trem(good, block + line.substr(1) + "\r\n"), "line 137: line 1 of block 2 has 63 characters"},
        {"upper case", Trem(good, block + line.substr(0, 16) + "A" + line.substr(17) + "\r\n"),
         "line 137: \"A\" at column 17 is not a lower-case hexadecimal digit"},
        {"cut in a line", Trem(good, block + line.substr(0, 10)), "line 137: the file is cut short"},
        {"cut in a block", Trem(good, block + line + "\r\n"), "line 138: the file ends inside block 2, after 1 of"},
        {"a block short", Trem(good, block), "line 137: 1 block of data, but the control reads 2"},
        {"a block over", Trem(Params("000FF0"), block + block),
         "line 137: 2 blocks of data, but the control reads 1 for the next log address 0x000FF0"},
    };
    const std::string file = (dir / "w.trem").string();
    for (const auto& [what, text, error] : cases) {
        SCOPED_TRACE(what);
        Put(file, text);
        const toolstest::RunResult r = Run("'" + file + "'");
        EXPECT_EQ(r.code, 1);
        EXPECT_EQ(r.output.rfind("trem2bin: " + file + ": ", 0), 0u) << r.output;
        EXPECT_NE(r.output.find(error), std::string::npos) << r.output;
        EXPECT_EQ(toolstest::LineCount(r.output), 1u) << r.output;
        EXPECT_EQ(Files(), 1u) << "only the input";
    }
}

TEST_F(Trem2Bin, AnOutputThatCannotBeWrittenLeavesNoOtherAndUsageErrorsExit2)
{
    Put(dir / "w.trem", Trem(Params("0FF0"), DataLines(0x0FF0, 1)));
    const toolstest::RunResult r =
        Run("'" + (dir / "w.trem").string() + "' --csv '" + (dir / "missing" / "p.csv").string() + "'");
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.output.find("cannot write"), std::string::npos) << r.output;
    EXPECT_EQ(Files(), 1u) << "only the input is left";
    EXPECT_EQ(Run("").code, 2);
    EXPECT_EQ(Run("a.trem b.trem").code, 2);
    EXPECT_EQ(Run("'" + (dir / "nothing.trem").string() + "'").code, 1);
}

}  // namespace
