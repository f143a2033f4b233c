// The simulators' shared console (native): the options they all take, the
// time-stamped log lines, and the command lines from the script file and the
// command file others append to.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "sim/GpioBlock.h"
#include "sim/SimConsole.h"

namespace {

std::string ReadAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

class SimConsoleTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        char templ[] = "/tmp/brennock-simconsole.XXXXXX";
        ASSERT_NE(mkdtemp(templ), nullptr);
        dir = templ;
        options.quiet = true;
        options.log = dir + "/sim.log";
        options.block = dir + "/gpioblock.bin";
    }
    void TearDown() override { std::system(("rm -rf " + dir).c_str()); }

    void Write(const std::string& path, const std::string& text, bool append)
    {
        std::ofstream(path, append ? std::ios::app : std::ios::trunc) << text;
    }

    // Runs what has come in; each line run is recorded, "wait" pauses its source.
    void Serve(sim::SimConsole& console, bool canRun = true)
    {
        console.ServeCommands(
            [this](sim::CommandSource& source, const std::string& line) {
                ran.push_back(std::string(source.what) + ": " + line);
                if (line == "wait")
                    source.Pause(1e9);
            },
            [canRun] { return canRun; });
    }

    std::string dir;
    sim::ConsoleOptions options;
    sim::GpioBlockFile block;
    std::vector<std::string> ran;
};

TEST_F(SimConsoleTest, DiskNamesTheBlockLogAndCommandFileAfterTheSimulator)
{
    const char* argv[] = {"sim", "--disk", "/d", "--quiet", "--ready", "/r", "--lid", "open", "--log"};
    sim::ConsoleOptions o;
    int i = 1;
    ASSERT_TRUE(o.Take(9, const_cast<char**>(argv), &i, "panel"));
    EXPECT_EQ(i, 2);
    EXPECT_EQ(o.block, "/d/gpioblock.bin");
    EXPECT_EQ(o.log, "/d/panel.log");
    EXPECT_EQ(o.commands, "/d/panel.cmd");
    ++i;
    EXPECT_TRUE(o.Take(9, const_cast<char**>(argv), &i, "panel"));
    EXPECT_TRUE(o.quiet);
    ++i;
    EXPECT_TRUE(o.Take(9, const_cast<char**>(argv), &i, "panel"));
    EXPECT_EQ(o.ready, "/r");
    ++i;
    EXPECT_FALSE(o.Take(9, const_cast<char**>(argv), &i, "panel"));  // the program's own
    i = 8;
    EXPECT_FALSE(o.Take(9, const_cast<char**>(argv), &i, "panel"));  // no value
    EXPECT_EQ(i, 8);
}

TEST_F(SimConsoleTest, LogLinesAreStampedAndCutAtTheLineLimit)
{
    {
        sim::SimConsole console("sim", 32);
        ASSERT_TRUE(console.Begin(options, &block));
        console.Out("mark %s", "one");
        console.Out("%s", std::string(100, 'x').c_str());
    }
    const std::string log = ReadAll(options.log);
    ASSERT_EQ(log.size(), 11 + 9 + 11 + 19 + 1u);
    // "%10.3f " milliseconds since Begin, then the text.
    EXPECT_EQ(log[6], '.');
    EXPECT_EQ(log[10], ' ');
    EXPECT_EQ(log.substr(0, 4), "    ");
    EXPECT_EQ(log.substr(11, 9), "mark one\n");
    EXPECT_EQ(log.substr(31), std::string(19, 'x') + "\n");
    EXPECT_EQ(sim::Trimmed(" \t lid open \t\r"), "lid open");
    EXPECT_EQ(sim::Trimmed(" \r"), "");
}

TEST_F(SimConsoleTest, ScriptRunsFirstAndOnlyAppendedCommandsCount)
{
    options.script = dir + "/script";
    options.commands = dir + "/sim.cmd";
    Write(options.script, "one\nwait\nthree", false);  // the last line has no newline
    Write(options.commands, "old\n", false);
    sim::SimConsole console("sim", 512);
    ASSERT_TRUE(console.Begin(options, &block));
    ASSERT_TRUE(console.OpenSources(options));
    Write(options.commands, "new\npart", true);

    Serve(console, false);
    EXPECT_TRUE(ran.empty());
    Serve(console);
    // The script's wait holds its own next line, not the command file.
    EXPECT_EQ(ran, (std::vector<std::string>{"script: one", "script: wait", "command file: new"}));
    Write(options.commands, "ial\n", true);
    Serve(console);
    EXPECT_EQ(ran.back(), "command file: partial");
    EXPECT_TRUE(console.Running());
    console.Quit();
    EXPECT_FALSE(console.Running());
}

TEST_F(SimConsoleTest, AMissingScriptFailsToOpen)
{
    options.script = dir + "/none";
    sim::SimConsole console("sim", 512);
    ASSERT_TRUE(console.Begin(options, &block));
    EXPECT_FALSE(console.OpenSources(options));
}

}  // namespace
