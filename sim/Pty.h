// Pseudo-terminals for the bench simulators: the simulator holds the master,
// the program under test opens the slave as its serial port.
#pragma once

#include <string>

namespace sim {

class PtyMaster
{
public:
    PtyMaster() = default;
    ~PtyMaster();
    PtyMaster(const PtyMaster&) = delete;
    PtyMaster& operator=(const PtyMaster&) = delete;

    // Makes a new pseudo-terminal. The master is non-blocking. The slave is
    // kept open here too, raw at the given baud rate: while one descriptor of
    // the slave stays open, a program opening and closing it (as Wine does
    // with a COM port) neither hangs the line up nor loses its settings.
    bool Open(std::string* error, int baud = 115200);
    void Close();

    // Makes the slave this process's controlling terminal, in a session of
    // its own. Wine's server opens device files without asking not to take
    // them as its terminal, and being a session leader without one, it would
    // take this one and get a hang-up signal when the simulator ends. A
    // terminal belongs to one session only, so claiming it first keeps it
    // out of every other.
    bool ClaimAsControllingTerminal(std::string* error);

    int Fd() const { return m_master; }
    const std::string& SlavePath() const { return m_slavePath; }

private:
    int m_master = -1;
    int m_slave = -1;
    std::string m_slavePath;
};

// The line settings last made on the slave (read through either side), as
// "115200 8N1"; empty when they cannot be read.
std::string LineSettings(int fd);

// The output baud rate last set on the slave (read through either side);
// -1 when it cannot be read.
int LineBaud(int fd);

// Sleeps up to ms, less when the terminal fd has bytes to read (or, with
// writable, room to write).
void WaitForTerminal(int fd, bool writable, double ms);

// Opens a serial device (a pty slave) as a host program does: read/write,
// raw, the given baud rate, 8N1, no flow control. -1 on failure.
int OpenRawSerial(const std::string& path, int baud, bool nonBlocking);

}  // namespace sim
