// CWaveFile against files made byte by byte here, its own files read back raw.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "audio/WaveFile.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"

namespace {

const wchar_t kFile[] = L"\\wavefile-test.wav";

std::string U32(DWORD v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
std::string U16(WORD v) { return std::string(reinterpret_cast<const char*>(&v), 2); }

WAVEFORMATEX Pcm(DWORD rate, WORD bits = 16, WORD channels = 1)
{
    const WORD align = static_cast<WORD>(bits / 8 * channels);
    return {WAVE_FORMAT_PCM, channels, rate, rate * align, align, bits, 0};
}

// A PCM format record of size bytes (14, 16 or 18): the structure's first bytes.
std::string Fmt(DWORD rate, WORD bits, WORD channels, size_t size = 16)
{
    const WAVEFORMATEX f = Pcm(rate, bits, channels);
    return std::string(reinterpret_cast<const char*>(&f), size);
}

std::string Chunk(const char* id, const std::string& body) { return id + U32(DWORD(body.size())) + body; }
std::string Riff(const std::string& chunks) { return "RIFF" + U32(DWORD(4 + chunks.size())) + "WAVE" + chunks; }

std::string Samples(std::initializer_list<short> values)
{
    std::string s;
    for (short v : values)
        s += U16(static_cast<WORD>(v));
    return s;
}

// Every sample byte a reader gets, read in calls of step bytes until 0 come
// or a call fails.
std::string ReadAllSamples(CWaveFile& file, DWORD step)
{
    std::string all;
    std::vector<BYTE> buffer(step);
    for (;;) {
        DWORD got = 0;
        const BOOL ok = file.Read(buffer.data(), step, &got);
        all.append(reinterpret_cast<const char*>(buffer.data()), got);
        if (!ok || got == 0)
            return ok ? all : all + "<read failed>";
    }
}

class WaveFileTest : public ::testing::Test
{
protected:
    void TearDown() override { DeleteFileW(kFile); }
    DebugCapture debug;
};

TEST_F(WaveFileTest, AWrittenMonoFileHasThe46ByteHeaderWithItsSizesPatchedByClose)
{
    CWaveFile file;
    const WAVEFORMATEX format = Pcm(11025);
    ASSERT_TRUE(file.Create(kFile, &format));
    const std::string samples = Samples({1, -2, 3});
    ASSERT_TRUE(file.Write(reinterpret_cast<const BYTE*>(samples.data()), 6));
    ASSERT_TRUE(file.Write(reinterpret_cast<const BYTE*>(samples.data()), 1));  // odd: no pad
    ASSERT_TRUE(file.Close());
    const std::string expected = "RIFF" + U32(38 + 7) + "WAVE" + "fmt " + U32(18) + Fmt(11025, 16, 1, 18) +
                                 "data" + U32(7) + samples + samples.substr(0, 1);
    EXPECT_EQ(ReadFileBytes(DiskPath(kFile)), expected);
}

TEST_F(WaveFileTest, AFormatWithExtraBytesIsWrittenWholeAndAWriterNeverClosedKeepsZeroSizes)
{
    BYTE raw[22] = {};
    auto* format = reinterpret_cast<WAVEFORMATEX*>(raw);
    *format = Pcm(8000);
    format->wFormatTag = 0x11;  // not PCM: 18 + extra size bytes
    format->cbSize = 4;
    std::memcpy(raw + 18, "\xAA\xBB\xCC\xDD", 4);
    {
        CWaveFile file;
        ASSERT_TRUE(file.Create(kFile, format));
    }
    EXPECT_EQ(ReadFileBytes(DiskPath(kFile)),
              "RIFF" + U32(0) + "WAVEfmt " + U32(22) + std::string(reinterpret_cast<char*>(raw), 22) + "data" + U32(0));
}

TEST_F(WaveFileTest, ReadingTakesTheFirstFormatAndEveryDataChunkAndRefusesTheRest)
{
    const std::string fmt16 = Chunk("fmt ", Fmt(22050, 16, 1, 16));
    const std::string a = Samples({10, 20, 30}), b = Samples({-1, -2});
    const struct
    {
        const char* what;
        std::string bytes;
        bool opens;
        std::string samples;  // what the reader gets, when it opens
    } cases[] = {
        {"16-byte format, one data chunk", Riff(fmt16 + Chunk("data", a)), true, a},
        {"14-byte format", Riff(Chunk("fmt ", Fmt(22050, 16, 1, 14)) + Chunk("data", a)), true, a},
        {"two data chunks read as one", Riff(fmt16 + Chunk("data", a) + Chunk("data", b)), true, a + b},
        {"another chunk between the data chunks", Riff(fmt16 + Chunk("data", a) + Chunk("LIST", "abcd") + Chunk("data", b)),
         true, a + b},
        {"an odd-sized chunk before the data, no pad byte", Riff(fmt16 + Chunk("LIST", "abc") + Chunk("data", a)),
         true, a},
        {"an empty data chunk", Riff(fmt16 + Chunk("data", "")), true, ""},
        // The read that runs into the end fails, with what there was.
        {"a data chunk cut short", Riff(fmt16 + Chunk("data", a + b)).substr(0, 51), true,
         (a + b).substr(0, 7) + "<read failed>"},
        {"a chunk before the format", Riff(Chunk("LIST", "abcd") + fmt16 + Chunk("data", a)), false, ""},
        {"a 12-byte format", Riff(Chunk("fmt ", Fmt(22050, 16, 1, 14).substr(0, 12)) + Chunk("data", a)), false, ""},
        {"no data chunk", Riff(fmt16), false, ""},
        {"not RIFF", "RIFX" + Riff(fmt16).substr(4), false, ""},
        {"not WAVE", Riff(fmt16).substr(0, 8) + "AVI " + Riff(fmt16).substr(12), false, ""},
        {"shorter than a RIFF header", "RIFF", false, ""},
        {"a format chunk cut short", Riff(fmt16).substr(0, 30), false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(WriteDiskFile(kFile, c.bytes));
        CWaveFile file;
        WAVEFORMATEX* format = nullptr;
        ASSERT_EQ(file.Open(kFile, &format) != 0, c.opens);
        EXPECT_EQ(file.IsOpen(), c.opens);
        if (!c.opens)
            continue;
        // A short format is handed back as an 18-byte one with no extra.
        EXPECT_EQ(format->nSamplesPerSec, 22050u);
        EXPECT_EQ(format->cbSize, 0);
        for (DWORD step : {1u, 4u, 64u}) {
            CWaveFile again;
            WAVEFORMATEX* f = nullptr;
            ASSERT_TRUE(again.Open(kFile, &f));
            EXPECT_EQ(ReadAllSamples(again, step), c.samples) << "reading " << step << " at a time";
            CWaveFile::FreeFormat(f);
        }
        CWaveFile::FreeFormat(format);
        EXPECT_TRUE(file.Close());
    }
}

TEST_F(WaveFileTest, OpenFailuresNameTheFileAndLeaveTheObjectClosed)
{
    CWaveFile file;
    WAVEFORMATEX* format = nullptr;
    EXPECT_FALSE(file.Open(L"\\no-such.wav", &format));
    EXPECT_TRUE(debug.Contains(L"File open failed: \\no-such.wav\r\n"));
    const std::wstring longName = L"\\" + std::wstring(120, L'x') + L".wav";
    EXPECT_FALSE(file.Open(longName.c_str(), &format));
    EXPECT_TRUE(debug.Contains(L"File open failed: <filename too long>\r\n"));
    EXPECT_FALSE(file.IsOpen());
    EXPECT_TRUE(file.Close());  // never opened
    const WAVEFORMATEX pcm = Pcm(8000);
    EXPECT_FALSE(file.Create(L"\\no-such-folder\\x.wav", &pcm));
    EXPECT_TRUE(debug.Contains(L"File create failed: \\no-such-folder\\x.wav\r\n"));
    EXPECT_FALSE(file.IsOpen());
}

TEST_F(WaveFileTest, DecimationKeepsEveryNthSampleAndOnlyForAWholeFactor)
{
    CWaveFile file;
    const WAVEFORMATEX fileFormat = Pcm(11025);
    ASSERT_TRUE(file.Create(kFile, &fileFormat));
    const std::string in = Samples({0, 1, 2, 3, 4, 5, 6});  // an odd count: the last is dropped
    const WAVEFORMATEX capture = Pcm(22050);
    ASSERT_TRUE(file.WriteDecimated(&capture, reinterpret_cast<const BYTE*>(in.data()), 14));
    const WAVEFORMATEX quad = Pcm(44100);
    ASSERT_TRUE(file.WriteDecimated(&quad, reinterpret_cast<const BYTE*>(in.data()), 14));

    const size_t asserts = AssertLines();
    const WAVEFORMATEX notWhole = Pcm(16000), same = Pcm(11025), stereo = Pcm(22050, 16, 2);
    for (const WAVEFORMATEX* refused : {&notWhole, &same, &stereo})
        EXPECT_FALSE(file.WriteDecimated(refused, reinterpret_cast<const BYTE*>(in.data()), 14));
    EXPECT_EQ(AssertLines(), asserts + 3);
    ASSERT_TRUE(file.Close());
    EXPECT_EQ(ReadFileBytes(DiskPath(kFile)).substr(46), Samples({0, 2, 4, 0}));
}

}  // namespace
