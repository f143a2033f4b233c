// Packing a realistic session at its normal end: a few ".motr" recordings
// and 20 MB of sound files in "\Device Temp", compressed by the library and
// encrypted and signed for the server. Prints the time of each step and of
// the whole end, and leaves a copy of the session's files in "\bench-files"
// and the package in "Device Data" for scripts/bench to run the same files
// through zip and openssl.
//
//   scripts/bench            (runs every benchmark)
#include <windows.h>
#include <ole2.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "control/Brennock.h"
#include "session/FlashAccess.h"
#include "session/TestManager.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/MessagePump.h"
#include "tests/support/PackageDisk.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

double Ms(const LARGE_INTEGER& a, const LARGE_INTEGER& b, const LARGE_INTEGER& f)
{
    return 1000.0 * static_cast<double>(b.QuadPart - a.QuadPart) / static_cast<double>(f.QuadPart);
}

// Ten seconds of mono 16-bit sound at 22050 Hz: a voice-like mixture of
// tones with a little noise, as a RIFF/WAVE file of about 441 kB.
std::string SoundFile(unsigned seed)
{
    const unsigned rate = 22050, samples = rate * 10;
    std::string data;
    data.reserve(44 + samples * 2);
    auto u32 = [&](unsigned v) { for (int i = 0; i < 4; ++i) data += static_cast<char>(v >> (8 * i)); };
    auto u16 = [&](unsigned v) { data += static_cast<char>(v); data += static_cast<char>(v >> 8); };
    data += "RIFF";
    u32(36 + samples * 2);
    data += "WAVEfmt ";
    u32(16); u16(1); u16(1); u32(rate); u32(rate * 2); u16(2); u16(16);
    data += "data";
    u32(samples * 2);
    unsigned noise = seed * 2654435761u + 1;
    for (unsigned i = 0; i < samples; ++i) {
        const double t = static_cast<double>(i) / rate;
        const double envelope = 0.5 + 0.5 * std::sin(2 * kPi * 3.1 * t + seed);
        double v = envelope * (6000 * std::sin(2 * kPi * 180 * t) + 2500 * std::sin(2 * kPi * 410 * t + seed) +
                               900 * std::sin(2 * kPi * 1230 * t));
        noise = noise * 1103515245u + 12345u;
        v += static_cast<int>((noise >> 16) & 0x3FF) - 512;
        u16(static_cast<unsigned>(static_cast<int>(v)) & 0xFFFF);
    }
    return data;
}

// A recording of a few thousand packets: 7- and 9-byte sensor events.
std::string MotrFile(unsigned taps)
{
    std::string data("MOTR\x00\x01", 6);
    unsigned tick = 0;
    for (unsigned i = 0; i < taps; ++i) {
        tick += 90 + (i * 37) % 60;
        const char packet[9] = {0x01, 0x09, static_cast<char>(tick >> 16), static_cast<char>(tick >> 8),
                                static_cast<char>(tick), static_cast<char>(0x10 + i % 4),
                                static_cast<char>(i % 50), 0, 0};
        data.append(packet, 9);
    }
    return data;
}

}  // namespace

int main()
{
    ComApartment com;
    ProvisionDisk();
    if (!WriteDiskFile(kFlashBlockFile, StudyBlock()) || !InstallCompressLibrary(true)) {
        printf("no provisioned study block (BRENNOCK_STUDY) or no compression library\n");
        return 1;
    }
    WriteDiskFile(L"\\Hard Disk\\Manifest.txt", "study: bench\r\n");
    ComPtr<IBrennock> control = CreateLocalControl();
    short ok = 0;
    control->Open(&ok);
    CTestManager* manager = AsControl(control.Get())->GetTestManager();
    if (ok != 1 || manager == nullptr || control->SessionStart() != S_OK) {
        printf("could not open the control or start a session\n");
        return 1;
    }

    // The session's files, and the same files for the reference run.
    CreateDirectoryW(L"\\bench-files", nullptr);
    size_t bytes = 0;
    std::vector<std::pair<std::wstring, std::string>> files;
    for (unsigned i = 0; i < 4; ++i)
        files.emplace_back(L"0000065535_200402030905_00" + std::to_wstring(i) + L"Tap.motr", MotrFile(3000 + 500 * i));
    for (unsigned i = 0; bytes < 20u * 1000 * 1000; ++i) {
        files.emplace_back(L"0000065535_200402030905_" + std::to_wstring(100 + i) + L"Voice.wav", SoundFile(i));
        bytes += files.back().second.size();
    }
    bytes = 0;
    for (const auto& file : files) {
        WriteDiskFile(L"\\Device Temp\\" + file.first, file.second);
        WriteDiskFile(L"\\bench-files\\" + file.first, file.second);
        bytes += file.second.size();
    }
    CopyFileW(L"\\Hard Disk\\Manifest.txt", L"\\bench-files\\Manifest.txt", FALSE);
    CopyFileW(L"\\Hard Disk\\Manifest.txt", L"\\Device Temp\\Manifest.txt", FALSE);

    LARGE_INTEGER f, a, b, c;
    QueryPerformanceFrequency(&f);
    bool noDll = false;
    QueryPerformanceCounter(&a);
    const bool compressed = manager->CompressTempFiles(L"\\compress.zip", &noDll);
    QueryPerformanceCounter(&b);
    const bool encrypted = compressed && EncryptFile(L"\\compress.zip", L"\\bench-package.ezip") == 1;
    QueryPerformanceCounter(&c);
    if (!encrypted) {
        printf("packing failed\n");
        return 1;
    }
    WIN32_FILE_ATTRIBUTE_DATA zip;
    GetFileAttributesExW(L"\\compress.zip", GetFileExInfoStandard, &zip);
    printf("session: %zu files, %.1f MB; archive %.1f MB\n", files.size(), bytes / 1e6, zip.nFileSizeLow / 1e6);
    printf("compress_ms=%.0f encrypt_sign_ms=%.0f\n", Ms(a, b, f), Ms(b, c, f));

    // The whole normal end, as the script meets it.
    RecordingSink sink;
    const DWORD cookie = AdviseSink(control.Get(), &sink);
    QueryPerformanceCounter(&a);
    control->SessionEndNormal();
    QueryPerformanceCounter(&b);
    PumpUntil([&] { return !sink.events.empty(); });
    const short cause = sink.events.empty() ? -1 : sink.events[0].args[0].iVal;
    printf("session_end_ms=%.0f cause=%d\n", Ms(a, b, f), cause);
    UnadviseSink(control.Get(), cookie);
    control->Close();
    return cause == 0 ? 0 : 1;
}
