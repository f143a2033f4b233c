#include "sim/SimConsole.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <unistd.h>

#include "sim/GpioBlock.h"

namespace sim {

namespace {

volatile std::sig_atomic_t g_stop = 0;

void OnSignal(int)
{
    g_stop = 1;
}

// The largest output line any simulator makes.
constexpr size_t kLineBuffer = 1024;

}  // namespace

double NowMs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000.0 + ts.tv_nsec / 1e6;
}

void InstallStopHandlers()
{
    std::signal(SIGTERM, OnSignal);
    std::signal(SIGINT, OnSignal);
    std::signal(SIGPIPE, SIG_IGN);
}

std::string Trimmed(const std::string& line)
{
    std::string s = line;
    while (!s.empty() && (s.back() == '\r' || s.back() == ' ' || s.back() == '\t'))
        s.pop_back();
    const size_t start = s.find_first_not_of(" \t");
    return start == std::string::npos ? std::string() : s.substr(start);
}

std::string TextAfterVerb(const std::string& line)
{
    const std::string s = Trimmed(line);
    const size_t end = s.find_first_of(" \t");
    return end == std::string::npos ? std::string() : Trimmed(s.substr(end + 1));
}

std::vector<std::string> Words(const std::string& line)
{
    std::vector<std::string> words;
    std::istringstream in(line);
    for (std::string word; in >> word;)
        words.push_back(word);
    if (!words.empty() && words[0][0] == '#')
        words.clear();
    return words;
}

bool ParseNumber(const char* text, unsigned long max, unsigned long* value)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long v = std::strtoul(text, &end, 0);
    if (errno != 0 || *end != '\0' || *text == '\0' || *text == '-' || v > max)
        return false;
    *value = v;
    return true;
}

bool ParseNumber(const std::string& word, uint32_t max, uint32_t* value)
{
    unsigned long v = 0;
    if (!ParseNumber(word.c_str(), max, &v))
        return false;
    *value = static_cast<uint32_t>(v);
    return true;
}

bool ConsoleOptions::Take(int argc, char** argv, int* i, const char* name)
{
    const std::string a = argv[*i];
    const char* v = (*i + 1 < argc) ? argv[*i + 1] : nullptr;
    if (a == "--quiet") {
        quiet = true;
        return true;
    }
    std::string* into = nullptr;
    if (a == "--block")
        into = &block;
    else if (a == "--log")
        into = &log;
    else if (a == "--commands")
        into = &commands;
    else if (a == "--script")
        into = &script;
    else if (a == "--ready")
        into = &ready;
    else if (a != "--disk")
        return false;
    if (v == nullptr)
        return false;
    ++*i;
    if (into != nullptr) {
        *into = v;
        return true;
    }
    const std::string disk = v;
    block = disk + "/" BRENNOCK_GPIO_BLOCK_FILE;
    log = disk + "/" + name + ".log";
    commands = disk + "/" + name + ".cmd";
    return true;
}

SimConsole::SimConsole(const char* program, size_t lineLimit)
    : m_program(program), m_lineLimit(std::min(lineLimit, kLineBuffer))
{
}

SimConsole::~SimConsole()
{
    if (m_log >= 0)
        ::close(m_log);
    for (CommandSource& s : m_sources)
        if (s.fd > 0)
            ::close(s.fd);
}

bool SimConsole::Begin(const ConsoleOptions& options, GpioBlockFile* block)
{
    m_quiet = options.quiet;
    m_t0 = NowMs();
    if (!options.log.empty()) {
        m_log = ::open(options.log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (m_log < 0) {
            Error(options.log + ": " + std::strerror(errno));
            return false;
        }
    }
    std::string error;
    if (!block->Open(options.block, &error)) {
        Error(error);
        return false;
    }
    return true;
}

bool SimConsole::OpenSource(const char* what, const std::string& path, bool follow)
{
    CommandSource s;
    s.what = what;
    s.follow = follow;
    s.fd = follow ? ::open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644)
                  : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (s.fd < 0) {
        Error(path + ": " + std::strerror(errno));
        return false;
    }
    if (follow)
        ::lseek(s.fd, 0, SEEK_END);  // only what is appended from now on counts
    m_sources.push_back(std::move(s));
    return true;
}

bool SimConsole::OpenSources(const ConsoleOptions& options)
{
    if (!options.script.empty() && !OpenSource("script", options.script, false))
        return false;
    if (!options.commands.empty() && !OpenSource("command file", options.commands, true))
        return false;
    CommandSource in;
    in.what = "stdin";
    in.fd = 0;
    m_sources.push_back(std::move(in));
    return true;
}

void SimConsole::MakeReady(const ConsoleOptions& options)
{
    if (options.ready.empty())
        return;
    int fd = ::open(options.ready.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd >= 0)
        ::close(fd);
}

bool SimConsole::WriteLineFile(const std::string& path, const std::string& text)
{
    FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr) {
        Error(path + ": " + std::strerror(errno));
        return false;
    }
    std::fprintf(f, "%s\n", text.c_str());
    return std::fclose(f) == 0;
}

void SimConsole::Error(const std::string& text)
{
    std::fprintf(stderr, "%s: %s\n", m_program, text.c_str());
}

void SimConsole::Out(const char* format, ...)
{
    char text[kLineBuffer];
    int n = std::snprintf(text, m_lineLimit, "%10.3f ", NowMs() - m_t0);
    va_list args;
    va_start(args, format);
    std::vsnprintf(text + n, m_lineLimit - n - 1, format, args);
    va_end(args);
    std::string line = std::string(text) + "\n";
    if (!m_quiet) {
        std::fputs(line.c_str(), stdout);
        std::fflush(stdout);
    }
    if (m_log >= 0) {
        ssize_t w = ::write(m_log, line.data(), line.size());
        (void)w;
    }
}

void SimConsole::ReadSource(CommandSource& source)
{
    if (source.done)
        return;
    if (source.fd == 0) {
        pollfd p = {0, POLLIN, 0};
        if (::poll(&p, 1, 0) <= 0 || !(p.revents & (POLLIN | POLLHUP | POLLERR)))
            return;
    }
    char buffer[4096];
    for (;;) {
        ssize_t n = ::read(source.fd, buffer, sizeof(buffer));
        if (n > 0) {
            source.pending.append(buffer, static_cast<size_t>(n));
            if (source.fd == 0)
                break;  // read more on the next round, never block
            continue;
        }
        if (n == 0 && !source.follow) {
            // End of a script or of standard input: a last line without its
            // newline still counts; the simulator runs on until stopped.
            if (!source.pending.empty())
                source.pending.push_back('\n');
            source.done = true;
        }
        break;
    }
    size_t nl;
    while ((nl = source.pending.find('\n')) != std::string::npos) {
        source.lines.push_back(source.pending.substr(0, nl));
        source.pending.erase(0, nl + 1);
    }
}

void SimConsole::ServeCommands(const Execute& execute, const std::function<bool()>& canRun)
{
    for (CommandSource& source : m_sources) {
        ReadSource(source);
        while (!source.lines.empty() && !m_quit) {
            if (source.resumeAt > NowMs() || (canRun && !canRun()))
                break;
            std::string line = source.lines.front();
            source.lines.pop_front();
            execute(source, line);
        }
    }
}

bool SimConsole::Running() const
{
    return !g_stop && !m_quit;
}

}  // namespace sim
