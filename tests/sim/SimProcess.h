// A bench simulator run as its own process for a native end-to-end test, on a
// temporary device disk: the test plays the control's part, opening the
// pseudo-terminal slave as the control opens its serial port, writing the
// control's line edges into the GPIO block file, appending commands to the
// simulator's command file and waiting for lines in its log.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "sim/GpioBlock.h"
#include "sim/Pty.h"

namespace simtest {

// Generous: only a broken simulator waits this long.
constexpr int kDeadlineMs = 10000;

inline double NowMs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000.0 + ts.tv_nsec / 1e6;
}

inline void SleepMs(double ms)
{
    timespec t = {static_cast<time_t>(ms / 1000), static_cast<long>((ms - 1000 * static_cast<long>(ms / 1000)) * 1e6)};
    nanosleep(&t, nullptr);
}

inline std::string ReadAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

class SimProcess : public ::testing::Test
{
protected:
    // name: the simulator's log and command file names on the disk (mcu, watch).
    SimProcess(const char* binary, const char* name) : m_binary(binary), m_name(name) {}

    void SetUp() override
    {
        std::string templ = std::string("/tmp/brennock-") + m_name + "-test.XXXXXX";
        ASSERT_NE(mkdtemp(templ.data()), nullptr);
        dir = templ;
        std::string error;
        ASSERT_TRUE(block.Open(dir + "/" BRENNOCK_GPIO_BLOCK_FILE, &error)) << error;
    }

    void TearDown() override
    {
        if (port >= 0)
            close(port);
        if (pid > 0) {
            kill(pid, SIGTERM);
            int status = 0;
            waitpid(pid, &status, 0);
        }
        block.Close();
        std::string rm = "rm -rf '" + dir + "'";
        EXPECT_EQ(std::system(rm.c_str()), 0);
    }

    // Starts the simulator and opens its port as the host does, at baud.
    void Start(std::vector<std::string> args, int baud)
    {
        std::vector<std::string> all = {m_binary, "--disk", dir, "--pty-path", dir + "/pty",
                                        "--ready", dir + "/ready", "--quiet"};
        all.insert(all.end(), args.begin(), args.end());
        pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            std::vector<char*> argv;
            for (std::string& a : all)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            int devnull = open("/dev/null", O_RDONLY);
            dup2(devnull, 0);
            execv(argv[0], argv.data());
            _exit(127);
        }
        const double deadline = NowMs() + kDeadlineMs;
        while (access((dir + "/ready").c_str(), F_OK) != 0) {
            int status = 0;
            ASSERT_EQ(waitpid(pid, &status, WNOHANG), 0) << "the simulator ended before it was ready";
            ASSERT_LT(NowMs(), deadline) << "the simulator never got ready";
            SleepMs(1);
        }
        std::string path = ReadAll(dir + "/pty");
        while (!path.empty() && path.back() == '\n')
            path.pop_back();
        port = sim::OpenRawSerial(path, baud, true);
        ASSERT_GE(port, 0) << path << ": " << std::strerror(errno);
    }

    // Reads exactly n bytes from the port, or what came before the deadline.
    std::vector<uint8_t> Read(size_t n, double deadlineMs = kDeadlineMs)
    {
        std::vector<uint8_t> got;
        const double deadline = NowMs() + deadlineMs;
        while (got.size() < n && NowMs() < deadline) {
            pollfd p = {port, POLLIN, 0};
            poll(&p, 1, 10);
            uint8_t buffer[4096];
            ssize_t r = read(port, buffer, std::min(sizeof(buffer), n - got.size()));
            if (r > 0)
                got.insert(got.end(), buffer, buffer + r);
        }
        return got;
    }

    // Reads up to and including the byte end.
    std::string ReadUntil(char end, double deadlineMs = kDeadlineMs)
    {
        std::string got;
        const double deadline = NowMs() + deadlineMs;
        while ((got.empty() || got.back() != end) && NowMs() < deadline) {
            std::vector<uint8_t> b = Read(1, deadline - NowMs());
            got.append(b.begin(), b.end());
        }
        return got;
    }

    void Write(const std::vector<uint8_t>& bytes)
    {
        ASSERT_EQ(write(port, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    void WriteText(const std::string& bytes) { Write(std::vector<uint8_t>(bytes.begin(), bytes.end())); }

    void Command(const std::string& line)
    {
        std::ofstream out(dir + "/" + m_name + ".cmd", std::ios::app);
        out << line << "\n";
    }

    std::string Log() { return ReadAll(dir + "/" + m_name + ".log"); }

    // Waits until the log holds text; returns the log.
    std::string WaitLog(const std::string& text)
    {
        const double deadline = NowMs() + kDeadlineMs;
        std::string log;
        while ((log = Log()).find(text) == std::string::npos) {
            if (NowMs() >= deadline) {
                ADD_FAILURE() << "never logged \"" << text << "\"; the log:\n" << log;
                break;
            }
            SleepMs(1);
        }
        return log;
    }

    // A command, once the simulator has run it.
    void Do(const std::string& line)
    {
        Command(line);
        const std::string mark = "done " + std::to_string(++m_marks);
        Command("mark " + mark);
        WaitLog("mark " + mark + "\n");
    }

    std::string dir;
    sim::GpioBlockFile block;
    pid_t pid = -1;
    int port = -1;

private:
    std::string m_binary;
    std::string m_name;
    int m_marks = 0;
};

}  // namespace simtest
