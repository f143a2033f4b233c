// CWaveFile against files made byte by byte here, its own files read back raw.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "audio/WaveFile.h"
#include "tests/audio/AudioFixture.h"

namespace {

const wchar_t kFile[] = L"\\wavefile-test.wav";

std::string Samples(std::initializer_list<short> values)
{
    return std::string(reinterpret_cast<const char*>(values.begin()), 2 * values.size());
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

TEST_F(WaveFileTest, AWrittenFileHasThe46ByteHeaderPatchedByCloseAndDecimationKeepsEveryNthSample)
{
    CWaveFile file;
    const WAVEFORMATEX format = Pcm(11025);
    ASSERT_TRUE(file.Create(kFile, &format));
    const std::string samples = Samples({1, -2, 3}), in = Samples({0, 1, 2, 3, 4, 5, 6});
    auto bytes = [](const std::string& s) { return reinterpret_cast<const BYTE*>(s.data()); };
    ASSERT_TRUE(file.Write(bytes(samples), 6));
    // By a whole factor only; of an odd count the last sample is dropped.
    const WAVEFORMATEX half = Pcm(22050), quarter = Pcm(44100), notWhole = Pcm(16000), stereo = Pcm(22050, 16, 2);
    ASSERT_TRUE(file.WriteDecimated(&half, bytes(in), 14));
    ASSERT_TRUE(file.WriteDecimated(&quarter, bytes(in), 14));
    const size_t asserts = AssertLines();
    for (const WAVEFORMATEX* refused : {&notWhole, &format, &stereo})
        EXPECT_FALSE(file.WriteDecimated(refused, bytes(in), 14));
    EXPECT_EQ(AssertLines(), asserts + 3);
    ASSERT_TRUE(file.Write(bytes(samples), 1));  // odd: no pad
    ASSERT_TRUE(file.Close());
    EXPECT_EQ(ReadFileBytes(DiskPath(kFile)),
              Riff(Chunk("fmt ", Fmt(format)) + Chunk("data", samples + Samples({0, 2, 4, 0}) + samples.substr(0, 1))));

    // A format with extra bytes is written whole; a writer never closed
    // leaves the sizes at zero.
    BYTE raw[22] = {};
    auto* extra = reinterpret_cast<WAVEFORMATEX*>(raw);
    *extra = Pcm(8000, 16, 1, 0x11);  // not PCM: 18 + extra size bytes
    extra->cbSize = 4;
    std::memcpy(raw + 18, "\xAA\xBB\xCC\xDD", 4);
    {
        CWaveFile never;
        ASSERT_TRUE(never.Create(kFile, extra));
    }
    EXPECT_EQ(ReadFileBytes(DiskPath(kFile)),
              "RIFF" + U32(0) + "WAVE" + Chunk("fmt ", std::string(reinterpret_cast<char*>(raw), 22)) + "data" + U32(0));
}

TEST_F(WaveFileTest, ReadingTakesTheFirstFormatAndEveryDataChunkAndRefusesTheRest)
{
    const std::string fmt16 = Chunk("fmt ", Fmt(Pcm(22050), 16));
    const std::string a = Samples({10, 20, 30}), b = Samples({-1, -2});
    const struct
    {
        const char* what;
        std::string bytes;
        bool opens;
        std::string samples;  // what the reader gets, when it opens
    } cases[] = {
        {"16-byte format, one data chunk", Riff(fmt16 + Chunk("data", a)), true, a},
        {"14-byte format", Riff(Chunk("fmt ", Fmt(Pcm(22050), 14)) + Chunk("data", a)), true, a},
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
        {"a 12-byte format", Riff(Chunk("fmt ", Fmt(Pcm(22050), 12)) + Chunk("data", a)), false, ""},
        {"no data chunk", Riff(fmt16), false, ""},
        {"not RIFF", "RIFX" + Riff(fmt16).substr(4), false, ""},
        {"not WAVE", Riff(fmt16).substr(0, 8) + "AVI " + Riff(fmt16).substr(12), false, ""},
        {"shorter than a RIFF header", "RIFF", false, ""},
        {"a format chunk cut short", Riff(fmt16).substr(0, 30), false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(WriteDiskFile(kFile, c.bytes));
        for (DWORD step : {1u, 4u, 64u}) {
            CWaveFile file;
            WAVEFORMATEX* format = nullptr;
            ASSERT_EQ(file.Open(kFile, &format) != 0, c.opens);
            EXPECT_EQ(file.IsOpen(), c.opens);
            if (!c.opens)
                break;
            // A short format is handed back as an 18-byte one with no extra.
            EXPECT_EQ(format->nSamplesPerSec, 22050u);
            EXPECT_EQ(format->cbSize, 0);
            EXPECT_EQ(ReadAllSamples(file, step), c.samples) << "reading " << step << " at a time";
            CWaveFile::FreeFormat(format);
            EXPECT_TRUE(file.Close());
        }
    }
}

TEST_F(WaveFileTest, OpenFailuresNameTheFileAndLeaveTheObjectClosed)
{
    CWaveFile file;
    WAVEFORMATEX* format = nullptr;
    const WAVEFORMATEX pcm = Pcm(8000);
    EXPECT_FALSE(file.Open(L"\\no-such.wav", &format));
    EXPECT_FALSE(file.Open((L"\\" + std::wstring(120, L'x') + L".wav").c_str(), &format));
    EXPECT_FALSE(file.Create(L"\\no-such-folder\\x.wav", &pcm));
    EXPECT_EQ(debug.Lines(), (std::vector<std::wstring>{L"File open failed: \\no-such.wav\r\n",
                                                       L"File open failed: <filename too long>\r\n",
                                                       L"File create failed: \\no-such-folder\\x.wav\r\n"}));
    EXPECT_FALSE(file.IsOpen());
    EXPECT_TRUE(file.Close());  // never opened
}

}  // namespace
