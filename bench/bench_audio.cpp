// Sound through the control, next to the bench's sound simulator.
//
//   bench_audio cpu SECONDS  the loudness scan and the decimated write of
//                            SECONDS of 22050 Hz speech-like sound, as the
//                            recorder runs them on every half-second buffer:
//                            CPU milliseconds per second of sound
//   bench_audio record N     N recordings of the bench's speech capture (1 s
//                            silence, 2 s speech, 3 s silence) started and
//                            stopped by loudness: the delay from the end of
//                            the speech in the capture stream to
//                            AudioRecordEnded, against the 1.0 to 1.5 s of
//                            sound the recorder is designed to keep after it
//   bench_audio play N       N plays of a 1 s sweep: the delay from AudioPlay
//                            to the first sample the speaker received
//
//   scripts/bench            (runs all three; record and play under
//                            scripts/simrun --sound)
#include <windows.h>
#include <mmsystem.h>

#include <algorithm>
#include <cstring>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "audio/Audio.h"
#include "audio/WaveFile.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/MessagePump.h"
#include "tests/support/SimChannel.h"

namespace {

constexpr DISPID kAudioPlayEnded = 20;
constexpr DISPID kAudioRecordEnded = 23;
constexpr DWORD kRate = 22050;

double ThreadCpuMs()
{
    FILETIME created, exited, kernel, user;
    GetThreadTimes(GetCurrentThread(), &created, &exited, &kernel, &user);
    ULARGE_INTEGER k{{kernel.dwLowDateTime, kernel.dwHighDateTime}};
    ULARGE_INTEGER u{{user.dwLowDateTime, user.dwHighDateTime}};
    return static_cast<double>(k.QuadPart + u.QuadPart) / 10000.0;
}

// The manager site of a recorder run on its own: nothing to reach.
struct NoSite final : IManagerSite
{
    CTestManager* GetTestManager() override { return nullptr; }
    CDebugLog* GetDebugLog() override { return nullptr; }
    CGpioPins* GetGpio() override { return nullptr; }
    CWatch* GetWatch() override { return nullptr; }
    CHC08* GetHC08() override { return nullptr; }
    CNVRAMBoard* GetNVRAM() override { return nullptr; }
    CStoredParams* GetStoredParams() override { return nullptr; }
    IHC08EventSink* GetHC08EventSink() override { return nullptr; }
    IGpioEventSink* GetGpioEventSink() override { return nullptr; }
    IWatchEventSink* GetWatchEventSink() override { return nullptr; }
    IAudioEventSink* GetAudioEventSink() override { return nullptr; }
    ITestManagerEventSink* GetTestManagerEventSink() override { return nullptr; }
};

int Cpu(int seconds)
{
    WAVEFORMATEX capture = {WAVE_FORMAT_PCM, 1, kRate, kRate * 2, 2, 16, 0};
    NoSite site;
    CAudio audio(nullptr, &site);
    if (!audio.SetRecordFormat(&capture))
        return 1;
    CAudioBuffer buffer;
    const DWORD frames = kRate / 2;
    buffer.Allocate(frames * 2, frames / 2);
    // Vowel-like sound: two partials under a syllable-rate envelope, with
    // noise, made before the clock starts.
    std::vector<short> sound(static_cast<size_t>(seconds) * kRate);
    unsigned noise = 12345;
    for (size_t i = 0; i < sound.size(); ++i) {
        const double t = i / static_cast<double>(kRate);
        noise = noise * 1103515245u + 12345u;
        const double v = (0.5 + 0.5 * std::sin(2 * 3.14159 * 4 * t)) *
                             (9000 * std::sin(2 * 3.14159 * 220 * t) + 4000 * std::sin(2 * 3.14159 * 660 * t)) +
                         static_cast<int>((noise >> 16) % 600) - 300;
        sound[i] = static_cast<short>(v);
    }
    CWaveFile file;
    if (!file.Create(L"\\bench-audio.wav", audio.FileFormat()))
        return 1;
    long long checksum = 0;
    LARGE_INTEGER frequency, t0, t1;
    QueryPerformanceFrequency(&frequency);
    const double cpu0 = ThreadCpuMs();
    QueryPerformanceCounter(&t0);
    for (int b = 0; b < seconds * 2; ++b) {
        memcpy(buffer.Data(), &sound[b * frames], frames * 2);
        buffer.Header()->dwBytesRecorded = frames * 2;
        WORD least = 0, most = 0;
        audio.FindPowerMinMax(&buffer, kRate / 10, &least, &most);
        file.WriteDecimated(&capture, buffer.Data(), frames * 2);
        checksum += least + most + CAudio::Loudness(most);
    }
    QueryPerformanceCounter(&t1);
    const double cpu = ThreadCpuMs() - cpu0;
    const double wall = (t1.QuadPart - t0.QuadPart) * 1000.0 / frequency.QuadPart;
    file.Close();
    DeleteFileW(L"\\bench-audio.wav");
    std::printf("loudness scan + decimated write: %.3f ms CPU (%.3f ms elapsed) per second of 22050 Hz sound "
                "(%d s of sound; checksum %lld)\n",
                cpu / seconds, wall / seconds, seconds, checksum);
    return 0;
}

size_t Count(const RecordingSink& sink, DISPID id)
{
    size_t n = 0;
    for (const ReceivedEvent& e : sink.events)
        n += (e.id == id);
    return n;
}

// The simulator's clock against this process's tick count: a mark's round
// trip. Returns sim ms minus tick ms, and the uncertainty (half the trip).
bool SimClockOffset(SimChannel& sound, double* offset, double* spread)
{
    const DWORD sent = GetTickCount();
    if (!sound.Send("mark clock"))
        return false;
    std::string line;
    if (!sound.WaitLine([](const std::string& l) { return l.find(" mark clock") != std::string::npos; }, &line,
                        10000))
        return false;
    const DWORD seen = GetTickCount();
    *offset = SimChannel::ParseEntry(line).ms - (sent + seen) / 2.0;
    *spread = (seen - sent) / 2.0;
    return true;
}

void Summary(const char* what, std::vector<double> v, const char* design)
{
    std::sort(v.begin(), v.end());
    std::printf("%s: min %.0f ms, median %.0f ms, max %.0f ms over %zu runs%s\n", what, v.front(), v[v.size() / 2],
                v.back(), v.size(), design);
}

// The control opened next to the sound simulator, with a counting sink.
struct SoundBench
{
    ComApartment com;
    ComPtr<IBrennock> control;
    RecordingSink sink;
    SimChannel sound{L"\\sound.log", L"\\sound.cmd"};

    bool Open()
    {
        ProvisionDisk();
        CreateDirectoryW(L"\\Device Software", nullptr);
        control = CreateLocalControl();
        AdviseSink(control.Get(), &sink);
        short ok = 0;
        control->Open(&ok);
        if (ok == 1 && sound.Running())
            return true;
        std::fprintf(stderr, "bench_audio: the control did not open next to the sound simulator\n");
        return false;
    }
};

int Record(int runs)
{
    SoundBench bench;
    if (!bench.Open())
        return 1;
    ComPtr<IBrennock>& control = bench.control;
    RecordingSink& sink = bench.sink;
    SimChannel& sound = bench.sound;
    ScriptObject script(control.Get());
    if (control->SessionStart() != S_OK ||
        script.Call(L"ActivityConfig", {ScriptObject::I2(7), ScriptObject::Str(L"Voice"), ScriptObject::I2(0),
                                        ScriptObject::I2(0)}) != S_OK ||
        control->ActivityStart(0) != S_OK ||
        script.Put(L"RecFormat", ScriptObject::Str(L"\\Device Software\\Rec22k.wav")) != S_OK) {
        std::fprintf(stderr, "bench_audio: no voice activity could be started\n");
        return 1;
    }
    std::vector<double> delays;
    double worstSpread = 0;
    for (int r = 0; r < runs; ++r) {
        double offset = 0, spread = 0;
        if (!SimClockOffset(sound, &offset, &spread))
            return 1;
        worstSpread = std::max(worstSpread, spread);
        const size_t before = Count(sink, kAudioRecordEnded);
        // The last run's silence may still be playing.
        if (r > 0 && !sound.Send("mic stop"))
            return 1;
        if (control->AudioRecord(3, 30) != S_OK || !sound.Send("mic speech.wav"))
            return 1;
        std::string line;
        if (!sound.WaitLine([](const std::string& l) { return l.find(" mic start") != std::string::npos; }, &line,
                            10000) ||
            !PumpUntil([&] { return Count(sink, kAudioRecordEnded) > before; }, 30000)) {
            std::fprintf(stderr, "bench_audio: the recording did not end\n");
            return 1;
        }
        const double ended = GetTickCount() + offset;  // on the simulator's clock
        const double speechEnd = SimChannel::ParseEntry(line).ms + 3000;
        delays.push_back(ended - speechEnd);
    }
    char design[160];
    std::snprintf(design, sizeof design, " (designed: 1000 to 1500 ms of sound kept after the speech; clocks matched to "
                                         "within %.0f ms)", worstSpread);
    Summary("end of speech to AudioRecordEnded", delays, design);
    control->Close();
    return 0;
}

int Play(int runs)
{
    SoundBench bench;
    if (!bench.Open())
        return 1;
    ComPtr<IBrennock>& control = bench.control;
    RecordingSink& sink = bench.sink;
    SimChannel& sound = bench.sound;
    ScriptObject script(control.Get());
    std::vector<double> delays;
    double worstSpread = 0;
    for (int r = 0; r < runs; ++r) {
        double offset = 0, spread = 0;
        if (!SimClockOffset(sound, &offset, &spread))
            return 1;
        worstSpread = std::max(worstSpread, spread);
        const size_t before = Count(sink, kAudioPlayEnded);
        const double called = GetTickCount() + offset;
        if (script.Call(L"AudioPlay", {ScriptObject::Str(L"\\Device Software\\sweep.wav")}) != S_OK)
            return 1;
        std::string line;
        if (!sound.WaitLine([](const std::string& l) { return l.find(" speaker sound") != std::string::npos; },
                            &line, 10000) ||
            !PumpUntil([&] { return Count(sink, kAudioPlayEnded) > before; }, 30000)) {
            std::fprintf(stderr, "bench_audio: the sound was not heard\n");
            return 1;
        }
        delays.push_back(SimChannel::ParseEntry(line).ms - called);
    }
    char design[96];
    std::snprintf(design, sizeof design, " (clocks matched to within %.0f ms)", worstSpread);
    Summary("AudioPlay to the first sample at the speaker", delays, design);
    control->Close();
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "cpu";
    const int n = argc > 2 ? std::atoi(argv[2]) : 0;
    if (mode == "cpu" && n > 0)
        return Cpu(n);
    if (mode == "record" && n > 0)
        return Record(n);
    if (mode == "play" && n > 0)
        return Play(n);
    std::fprintf(stderr, "usage: bench_audio cpu SECONDS | record N | play N\n");
    return 2;
}
