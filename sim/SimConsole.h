// The bench engineer's side of a simulator: the options every simulator
// takes, its time-stamped output (standard output and the log), the ready
// file, and the command lines it reads from the --script file, from the
// command file others append to and from standard input.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <deque>
#include <functional>
#include <cstdint>
#include <string>
#include <vector>

namespace sim {

class GpioBlockFile;

// Milliseconds on the monotonic clock.
double NowMs();

// SIGTERM and SIGINT ask the simulator to stop (see SimConsole::Running);
// a reader that went away (SIGPIPE) does not end it.
void InstallStopHandlers();

// The command with the blanks around it (and a trailing CR) taken off.
std::string Trimmed(const std::string& line);

// The text after the first word of a command line, trimmed (a mark's text).
std::string TextAfterVerb(const std::string& line);

// The words of a command line; none for a blank line or a comment (#).
std::vector<std::string> Words(const std::string& line);

// An option's number: decimal or 0x hex, at most max. False for anything else.
bool ParseNumber(const char* text, unsigned long max, unsigned long* value);
// The same for a command's word.
bool ParseNumber(const std::string& word, uint32_t max, uint32_t* value);

// The options every simulator takes.
struct ConsoleOptions
{
    std::string block;     // the GPIO block file
    std::string log;       // appended to
    std::string commands;  // the command file: only what is appended after start counts
    std::string script;    // commands to run first
    std::string ready;     // made once the simulator is ready
    bool quiet = false;    // nothing on standard output

    // Takes argv[*i] (and its value, moving *i on) when it is one of these:
    // --disk DIR (block, DIR/<name>.log, DIR/<name>.cmd), --block, --log,
    // --commands, --script, --ready, --quiet. False for anything else, and
    // for an option whose value is missing.
    bool Take(int argc, char** argv, int* i, const char* name);
};

// Where command lines come from: a file read as it grows, or standard input.
struct CommandSource
{
    const char* what = "";
    int fd = -1;
    bool follow = false;  // a file others append to: keep reading at its end
    bool done = false;
    std::string pending;  // a partial line
    std::deque<std::string> lines;
    double resumeAt = 0;  // after "wait"

    // The next line of this source runs ms from now.
    void Pause(double ms) { resumeAt = NowMs() + ms; }
};

class SimConsole
{
public:
    // program: the name errors on standard error begin with; lineLimit: the
    // buffer one output line is made in (longer lines are cut).
    SimConsole(const char* program, size_t lineLimit);
    ~SimConsole();
    SimConsole(const SimConsole&) = delete;
    SimConsole& operator=(const SimConsole&) = delete;

    // Starts the clock the time stamps count from, opens the log and maps
    // the GPIO block file into *block.
    bool Begin(const ConsoleOptions& options, GpioBlockFile* block);

    // Opens the script, the command file (made if missing) and standard input.
    bool OpenSources(const ConsoleOptions& options);

    // Makes the ready file, if one was asked for.
    void MakeReady(const ConsoleOptions& options);

    // Writes a file holding text and a newline (a pseudo-terminal's path for
    // whoever links it); false, with the reason on standard error, if it
    // cannot.
    bool WriteLineFile(const std::string& path, const std::string& text);

    // "<program>: <text>" on standard error.
    void Error(const std::string& text);

    // One line of output: milliseconds since Begin, then the text.
    void Out(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // Runs the lines that have come in, each source in turn and in order. A
    // source waits while its pause lasts or canRun (if given) says no.
    using Execute = std::function<void(CommandSource& source, const std::string& line)>;
    void ServeCommands(const Execute& execute, const std::function<bool()>& canRun = nullptr);

    void Quit() { m_quit = true; }
    // Neither quit nor stopped by a signal.
    bool Running() const;

private:
    bool OpenSource(const char* what, const std::string& path, bool follow);
    void ReadSource(CommandSource& source);

    const char* m_program;
    size_t m_lineLimit;
    double m_t0 = 0;
    int m_log = -1;
    bool m_quiet = false;
    bool m_quit = false;
    std::vector<CommandSource> m_sources;
};

}  // namespace sim
