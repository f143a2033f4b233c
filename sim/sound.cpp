// brennock-sound: the bench's microphone and speaker. It runs a private
// PulseAudio server with two sinks at the bench rate (mono, 16-bit): "mic",
// whose monitor is the default source the control records from, and
// "speaker", the default sink the control plays to. The microphone hears
// the files it is told to play, in real time, and silence (zero samples)
// otherwise; everything the speaker plays is appended to DIR/speaker.raw
// (s16le, mono, the bench rate) from start to stop.
//
//   brennock-sound --disk DIR [--rate HZ] [--server-path FILE] [options]
//
// Commands (standard input, the --script file, and lines appended to the
// command file): mic FILE | mic stop | speaker clear | state | mark TEXT |
// wait MS | help | quit. See README.md, "Sound on the bench".
//
// Sample-exactness: the microphone sink takes no rewinds (a rewind would
// rewrite what its monitor already handed out), the speaker is a pipe sink
// on the system clock (its output is exactly what was mixed, no monitor in
// between), and the server resamples by picking samples ("trivial"), so a
// program recording at half the bench rate gets every second sample.
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "sim/GpioBlock.h"
#include "sim/SimConsole.h"

namespace {

using sim::CommandSource;

// What a .wav file holds, as far as the bench cares.
struct WaveInfo
{
    unsigned format = 0, channels = 0, rate = 0, bits = 0;
    uint32_t dataBytes = 0;
};

uint32_t Le32(const unsigned char* p)
{
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// Reads the RIFF chunks of a .wav file; false with the reason otherwise.
bool ReadWaveInfo(const std::string& path, WaveInfo* info, std::string* error)
{
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        *error = std::strerror(errno);
        return false;
    }
    unsigned char head[12];
    bool ok = std::fread(head, 1, 12, f) == 12 && std::memcmp(head, "RIFF", 4) == 0 &&
              std::memcmp(head + 8, "WAVE", 4) == 0;
    bool fmt = false, data = false;
    unsigned char chunk[8];
    while (ok && !data && std::fread(chunk, 1, 8, f) == 8) {
        const uint32_t size = Le32(chunk + 4);
        if (std::memcmp(chunk, "fmt ", 4) == 0 && size >= 16) {
            unsigned char b[16];
            if (std::fread(b, 1, 16, f) != 16)
                break;
            info->format = b[0] | (b[1] << 8);
            info->channels = b[2] | (b[3] << 8);
            info->rate = Le32(b + 4);
            info->bits = b[14] | (b[15] << 8);
            fmt = true;
            std::fseek(f, static_cast<long>(size - 16 + (size & 1)), SEEK_CUR);
        } else if (std::memcmp(chunk, "data", 4) == 0) {
            info->dataBytes = size;
            data = true;
        } else {
            std::fseek(f, static_cast<long>(size + (size & 1)), SEEK_CUR);
        }
    }
    std::fclose(f);
    if (!ok || !fmt || !data) {
        *error = "not a .wav file (no RIFF/WAVE header with fmt and data chunks)";
        return false;
    }
    return true;
}

class Sound
{
public:
    bool Start(int argc, char** argv);
    int Run();
    void Stop();

private:
    void Usage();
    bool MakeState();
    bool StartServer();
    bool ServerAnswers() const;
    pid_t Spawn(const std::vector<std::string>& args);
    void Reap();
    void DrainSpeaker();
    void Execute(CommandSource& source, const std::string& command);
    void Mic(const std::string& file);
    void MicStop();

    sim::SimConsole m_console{"brennock-sound", 1024};
    sim::GpioBlockFile m_block;
    unsigned long m_rate = 22050;
    std::string m_state;        // the server's home, runtime dir, socket and pipe
    std::string m_socket;
    std::string m_disk;         // relative sound files are found here
    std::string m_speakerPath;  // DIR/speaker.raw
    uint64_t m_quietSamples = ~0ULL >> 1;  // zero samples at the speaker since the last sound
    int m_speakerFifo = -1;
    int m_speakerOut = -1;
    uint64_t m_speakerBytes = 0;
    pid_t m_server = -1;
    pid_t m_feed = -1;
    std::string m_feedFile;
    bool m_failed = false;
};

void Sound::Usage()
{
    std::fprintf(stderr,
                 "usage: brennock-sound --disk DIR [--rate HZ] [--server-path FILE] [--log FILE]\n"
                 "                      [--commands FILE] [--script FILE] [--ready FILE] [--quiet]\n"
                 "  --disk DIR          log DIR/sound.log, commands appended to DIR/sound.cmd,\n"
                 "                      the speaker recorded into DIR/speaker.raw\n"
                 "  --rate HZ           the bench's sample rate (default 22050; mono, 16-bit)\n"
                 "  --server-path FILE  written with the server's address (unix:PATH) once it answers\n"
                 "  --ready FILE        made once the server answers and the speaker is recorded\n"
                 "  --quiet             nothing on standard output (the log still gets everything)\n");
}

bool Sound::Start(int argc, char** argv)
{
    sim::ConsoleOptions options;
    std::string disk, serverPath;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--disk" && i + 1 < argc)
            disk = argv[i + 1];
        if (options.Take(argc, argv, &i, "sound"))
            continue;
        if (a == "--rate" && i + 1 < argc && sim::ParseNumber(argv[i + 1], 192000, &m_rate) && m_rate >= 1000) {
            ++i;
        } else if (a == "--server-path" && i + 1 < argc) {
            serverPath = argv[++i];
        } else {
            Usage();
            return false;
        }
    }
    if (disk.empty()) {
        Usage();
        return false;
    }
    if (!m_console.Begin(options, &m_block) || !m_console.OpenSources(options))
        return false;

    m_disk = disk;
    m_speakerPath = disk + "/speaker.raw";
    m_speakerOut = ::open(m_speakerPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (m_speakerOut < 0) {
        m_console.Error(m_speakerPath + ": " + std::strerror(errno));
        return false;
    }
    if (!MakeState() || !StartServer())
        return false;
    const double t0 = sim::NowMs();
    while (!ServerAnswers()) {
        Reap();
        if (m_server < 0 || !m_console.Running()) {
            m_console.Out("sound: the server did not start (see %s/pulse.log)", m_state.c_str());
            return false;
        }
        if (sim::NowMs() - t0 > 20000) {
            m_console.Out("sound: the server did not answer within 20 s");
            return false;
        }
        timespec pause = {0, 10000000};
        ::nanosleep(&pause, nullptr);
    }
    m_console.Out("sound: server unix:%s up after %.0f ms, %lu Hz mono 16-bit, speaker into %s", m_socket.c_str(),
        sim::NowMs() - t0, m_rate, m_speakerPath.c_str());
    if (!serverPath.empty() && !m_console.WriteLineFile(serverPath, "unix:" + m_socket))
        return false;
    m_console.MakeReady(options);
    return true;
}

bool Sound::MakeState()
{
    const char* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/brennock-sound.XXXXXX";
    std::vector<char> name(templ.begin(), templ.end());
    name.push_back('\0');
    if (::mkdtemp(name.data()) == nullptr) {
        m_console.Error(templ + ": " + std::strerror(errno));
        return false;
    }
    m_state = name.data();
    m_socket = m_state + "/pulse.sock";
    const std::string fifo = m_state + "/speaker.fifo";
    if (::mkdir((m_state + "/run").c_str(), 0700) != 0 || ::mkfifo(fifo.c_str(), 0600) != 0) {
        m_console.Error(m_state + ": " + std::strerror(errno));
        return false;
    }
    // Opened before the server opens its end, without waiting for it; a
    // large pipe so the speaker never waits on the bench.
    m_speakerFifo = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (m_speakerFifo < 0) {
        m_console.Error(fifo + ": " + std::strerror(errno));
        return false;
    }
    ::fcntl(m_speakerFifo, F_SETPIPE_SZ, 1 << 20);

    const std::string spec = "rate=" + std::to_string(m_rate) + " channels=1 format=s16le";
    FILE* f = std::fopen((m_state + "/bench.pa").c_str(), "w");
    if (f == nullptr) {
        m_console.Error(m_state + "/bench.pa: " + std::strerror(errno));
        return false;
    }
    std::fprintf(f,
                 "load-module module-null-sink sink_name=mic %s norewinds=1\n"
                 "load-module module-pipe-sink sink_name=speaker file=%s %s use_system_clock_for_timing=yes\n"
                 "load-module module-native-protocol-unix socket=%s auth-anonymous=1\n"
                 "set-default-source mic.monitor\n"
                 "set-default-sink speaker\n",
                 spec.c_str(), fifo.c_str(), spec.c_str(), m_socket.c_str());
    std::fclose(f);
    return true;
}

pid_t Sound::Spawn(const std::vector<std::string>& args)
{
    const pid_t pid = ::fork();
    if (pid != 0)
        return pid;
    // The child: the server's private home and runtime dir; its output to
    // the state directory's log.
    ::setenv("HOME", m_state.c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (m_state + "/config").c_str(), 1);
    ::setenv("XDG_RUNTIME_DIR", (m_state + "/run").c_str(), 1);
    ::setenv("PULSE_SERVER", ("unix:" + m_socket).c_str(), 1);
    ::unsetenv("DISPLAY");
    int log = ::open((m_state + "/pulse.log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    int null = ::open("/dev/null", O_RDWR);
    ::dup2(null, 0);
    ::dup2(log, 1);
    ::dup2(log, 2);
    std::signal(SIGTERM, SIG_DFL);
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGPIPE, SIG_DFL);
    std::vector<char*> argv;
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
    std::fprintf(stderr, "%s: %s\n", argv[0], std::strerror(errno));
    ::_exit(127);
}

bool Sound::StartServer()
{
    m_server = Spawn({"pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--disallow-exit",
                      "--use-pid-file=no", "--disable-shm=yes", "--resample-method=trivial", "--log-target=stderr",
                      "--log-level=warning", "-F", m_state + "/bench.pa"});
    if (m_server < 0) {
        m_console.Error(std::string("fork: ") + std::strerror(errno));
        return false;
    }
    return true;
}

bool Sound::ServerAnswers() const
{
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", m_socket.c_str());
    const bool up = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    ::close(fd);
    return up;
}

// Notes every child that ended: the server's end is a failure; a feed's end
// is the end of its file (or of its failure).
void Sound::Reap()
{
    int status;
    pid_t pid;
    while ((pid = ::waitpid(-1, &status, WNOHANG)) > 0) {
        const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (pid == m_server) {
            m_server = -1;
            m_failed = true;
            m_console.Out("sound: the server ended (exit %d; see %s/pulse.log)", code, m_state.c_str());
            m_console.Quit();
        } else if (pid == m_feed) {
            m_feed = -1;
            if (code == 0)
                m_console.Out("mic end %s", m_feedFile.c_str());
            else if (WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM)
                m_console.Out("mic stopped %s", m_feedFile.c_str());
            else
                m_console.Out("mic failed %s (pacat exit %d; see %s/pulse.log)", m_feedFile.c_str(), code,
                    m_state.c_str());
        }
    }
}

void Sound::DrainSpeaker()
{
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(m_speakerFifo, buffer, sizeof(buffer));
        if (n <= 0)
            return;
        if (::write(m_speakerOut, buffer, static_cast<size_t>(n)) != n && !m_failed) {
            m_failed = true;
            m_console.Out("sound: %s: %s", m_speakerPath.c_str(), std::strerror(errno));
        }
        // The first sound after a tenth of a second of silence is logged
        // with its place in speaker.raw.
        const int16_t* samples = reinterpret_cast<const int16_t*>(buffer);
        for (ssize_t i = 0; i < n / 2; ++i) {
            if (samples[i] == 0) {
                ++m_quietSamples;
                continue;
            }
            if (m_quietSamples >= m_rate / 10)
                m_console.Out("speaker sound at sample %llu",
                              static_cast<unsigned long long>(m_speakerBytes / 2 + i));
            m_quietSamples = 0;
        }
        m_speakerBytes += static_cast<uint64_t>(n);
    }
}

void Sound::Mic(const std::string& name)
{
    // A relative name is a file on the device disk.
    const std::string file = name[0] == '/' ? name : m_disk + "/" + name;
    if (m_feed > 0) {
        m_console.Out("mic: still playing %s (mic stop first)", m_feedFile.c_str());
        return;
    }
    WaveInfo w;
    std::string error;
    if (!ReadWaveInfo(file, &w, &error)) {
        m_console.Out("mic: %s: %s", file.c_str(), error.c_str());
        return;
    }
    if (w.format != 1 || w.channels != 1 || w.bits != 16 || w.rate != m_rate) {
        m_console.Out("mic: %s is %u Hz, %u channel(s), %u-bit (format %u); the bench takes %lu Hz mono 16-bit "
                      "PCM (sox IN -r %lu -c 1 -b 16 OUT.wav)",
            file.c_str(), w.rate, w.channels, w.bits, w.format, m_rate, m_rate);
        return;
    }
    m_feedFile = file;
    m_feed = Spawn({"pacat", "--playback", "--device=mic", "--file-format=wav", "--client-name=brennock-sound mic",
                    file});
    if (m_feed < 0) {
        m_console.Out("mic: fork: %s", std::strerror(errno));
        return;
    }
    m_console.Out("mic start %s (%u samples)", file.c_str(), w.dataBytes / 2);
}

void Sound::MicStop()
{
    if (m_feed <= 0) {
        m_console.Out("mic: nothing playing");
        return;
    }
    // At once, so that a "mic FILE" right after it plays: the feeder would
    // drain its buffer on a polite signal.
    ::kill(m_feed, SIGKILL);
    ::waitpid(m_feed, nullptr, 0);
    m_feed = -1;
    m_console.Out("mic stopped %s", m_feedFile.c_str());
}

void Sound::Execute(CommandSource& source, const std::string& raw)
{
    const std::string command = sim::Trimmed(raw);
    if (command.empty() || command[0] == '#')
        return;
    const std::string verb = command.substr(0, command.find(' '));
    const std::string rest = sim::TextAfterVerb(command);
    if (verb == "mark") {
        m_console.Out("mark %s", rest.c_str());
        return;
    }
    m_console.Out("> %s", command.c_str());
    if (verb == "mic" && rest == "stop") {
        MicStop();
    } else if (verb == "mic" && !rest.empty()) {
        Mic(rest);
    } else if (command == "speaker clear") {
        DrainSpeaker();
        if (::ftruncate(m_speakerOut, 0) != 0)
            m_console.Out("sound: %s: %s", m_speakerPath.c_str(), std::strerror(errno));
        m_speakerBytes = 0;
    } else if (verb == "wait" && !rest.empty() && std::atoi(rest.c_str()) >= 0) {
        source.Pause(std::atoi(rest.c_str()));
    } else if (command == "state") {
        m_console.Out("state mic %s%s, speaker %llu samples recorded", m_feed > 0 ? "playing " : "silent",
            m_feed > 0 ? m_feedFile.c_str() : "", static_cast<unsigned long long>(m_speakerBytes / 2));
    } else if (command == "quit") {
        m_console.Quit();
    } else if (command == "help") {
        m_console.Out("commands: mic FILE | mic stop | speaker clear | state | mark TEXT | wait MS | quit");
    } else {
        m_console.Out("sound: unknown command \"%s\" (try help)", command.c_str());
    }
}

int Sound::Run()
{
    while (m_console.Running()) {
        Reap();
        DrainSpeaker();
        m_console.ServeCommands([this](CommandSource& source, const std::string& line) { Execute(source, line); });
        timespec pause = {0, 5000000};
        ::nanosleep(&pause, nullptr);
    }
    return m_failed ? 1 : 0;
}

// Ends the feed and the server (and waits for them), keeps what the speaker
// played until then and takes the state directory away.
void Sound::Stop()
{
    for (pid_t* child : {&m_feed, &m_server}) {
        if (*child > 0) {
            ::kill(*child, SIGTERM);
            ::waitpid(*child, nullptr, 0);
            *child = -1;
        }
    }
    if (m_speakerFifo >= 0) {
        DrainSpeaker();
        ::close(m_speakerFifo);
    }
    if (m_speakerOut >= 0)
        ::close(m_speakerOut);
    if (!m_state.empty()) {
        // The state directory holds only what the server and this program
        // made: the socket, the pipe, the script, its log and its runtime
        // and configuration files.
        const std::string rm = "rm -rf '" + m_state + "'";
        if (std::system(rm.c_str()) != 0)
            m_console.Error("could not remove " + m_state);
    }
    m_console.Out("sound: stopped");
}

}  // namespace

int main(int argc, char** argv)
{
    sim::InstallStopHandlers();
    Sound sound;
    if (!sound.Start(argc, argv)) {
        sound.Stop();
        return 2;
    }
    const int rc = sound.Run();
    sound.Stop();
    return rc;
}
