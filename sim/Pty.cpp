#include "sim/Pty.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace sim {

namespace {

struct Speed
{
    speed_t code;
    int baud;
};

const Speed kSpeeds[] = {
    {B0, 0},         {B50, 50},         {B75, 75},         {B110, 110},       {B134, 134},
    {B150, 150},     {B200, 200},       {B300, 300},       {B600, 600},       {B1200, 1200},
    {B1800, 1800},   {B2400, 2400},     {B4800, 4800},     {B9600, 9600},     {B19200, 19200},
    {B38400, 38400}, {B57600, 57600},   {B115200, 115200}, {B230400, 230400}, {B460800, 460800},
};

speed_t SpeedCode(int baud)
{
    for (const Speed& s : kSpeeds)
        if (s.baud == baud)
            return s.code;
    return B115200;
}

int BaudOf(speed_t code)
{
    for (const Speed& s : kSpeeds)
        if (s.code == code)
            return s.baud;
    return -1;
}

bool MakeRaw(int fd, int baud)
{
    termios t;
    if (tcgetattr(fd, &t) != 0)
        return false;
    cfmakeraw(&t);
    t.c_cflag &= ~(CSTOPB | PARENB | CRTSCTS | CSIZE);
    t.c_cflag |= CS8 | CLOCAL | CREAD;
    t.c_cc[VMIN] = 1;
    t.c_cc[VTIME] = 0;
    cfsetispeed(&t, SpeedCode(baud));
    cfsetospeed(&t, SpeedCode(baud));
    return tcsetattr(fd, TCSANOW, &t) == 0;
}

}  // namespace

PtyMaster::~PtyMaster()
{
    Close();
}

bool PtyMaster::Open(std::string* error, int baud)
{
    Close();
    m_master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (m_master < 0 || grantpt(m_master) != 0 || unlockpt(m_master) != 0) {
        *error = std::string("pseudo-terminal: ") + std::strerror(errno);
        Close();
        return false;
    }
    char name[128];
    if (ptsname_r(m_master, name, sizeof(name)) != 0) {
        *error = std::string("ptsname: ") + std::strerror(errno);
        Close();
        return false;
    }
    m_slavePath = name;
    m_slave = ::open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (m_slave < 0 || !MakeRaw(m_slave, baud)) {
        *error = m_slavePath + ": " + std::strerror(errno);
        Close();
        return false;
    }
    return true;
}

bool PtyMaster::ClaimAsControllingTerminal(std::string* error)
{
    if (getsid(0) != getpid() && setsid() < 0) {
        *error = std::string("setsid: ") + std::strerror(errno);
        return false;
    }
    if (ioctl(m_slave, TIOCSCTTY, 0) != 0) {
        *error = std::string("TIOCSCTTY: ") + std::strerror(errno);
        return false;
    }
    return true;
}

void PtyMaster::Close()
{
    if (m_slave >= 0)
        ::close(m_slave);
    if (m_master >= 0)
        ::close(m_master);
    m_slave = m_master = -1;
    m_slavePath.clear();
}

std::string LineSettings(int fd)
{
    termios t;
    if (fd < 0 || tcgetattr(fd, &t) != 0)
        return "";
    int bits = 8;
    switch (t.c_cflag & CSIZE) {
    case CS5: bits = 5; break;
    case CS6: bits = 6; break;
    case CS7: bits = 7; break;
    default: break;
    }
    char parity = 'N';
    if (t.c_cflag & PARENB)
        parity = (t.c_cflag & PARODD) ? 'O' : 'E';
    char text[64];
    std::snprintf(text, sizeof(text), "%d %d%c%d", BaudOf(cfgetospeed(&t)), bits, parity,
                  (t.c_cflag & CSTOPB) ? 2 : 1);
    return text;
}

int LineBaud(int fd)
{
    termios t;
    if (fd < 0 || tcgetattr(fd, &t) != 0)
        return -1;
    return BaudOf(cfgetospeed(&t));
}

void WaitForTerminal(int fd, bool writable, double ms)
{
    pollfd p = {fd, static_cast<short>(POLLIN | (writable ? POLLOUT : 0)), 0};
    timespec timeout = {static_cast<time_t>(ms / 1000), static_cast<long>(std::fmod(ms, 1000.0) * 1e6)};
    ::ppoll(&p, 1, &timeout, nullptr);
}

int OpenRawSerial(const std::string& path, int baud, bool nonBlocking)
{
    int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | (nonBlocking ? O_NONBLOCK : 0));
    if (fd < 0)
        return -1;
    if (!MakeRaw(fd, baud)) {
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace sim
