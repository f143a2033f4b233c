// The params file: its scanner, the checks Open makes, and the typed reads.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "session/StoredParams.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"

namespace {

using Lines = std::vector<std::wstring>;
const wchar_t kParams[] = L"\\Hard Disk\\params.txt";
const wchar_t kReadFailed[] = L"ERROR: CStoredParams::Open: failed to read file.\r\n";

// The bench params with one line replaced (or dropped, for an empty line).
std::string With(const std::string& key, const std::string& line)
{
    std::string text = kBenchParams;
    const size_t at = text.find(key + "=");
    const size_t end = text.find("\r\n", at) + 2;
    return text.replace(at, end - at, line.empty() ? "" : line + "\r\n");
}

std::wstring Read(const CStoredParams& params, const wchar_t* key)
{
    std::unique_ptr<wchar_t[]> value(params.ParameterRead(key, L"<default>"));
    return value ? value.get() : L"<null>";
}

class StoredParamsTest : public ::testing::Test
{
protected:
    DebugCapture capture;
};

TEST_F(StoredParamsTest, EveryBadFileFailsOpenWithItsOwnLines)
{
    struct Case
    {
        const char* what;
        std::string text;
        Lines lines;
    };
    const std::string bench = kBenchParams;
    const std::string noDebug = With("Debug", "");
    const Case cases[] = {
        {"comment after blanks", "  # set by the study team\r\n" + bench,
         {L"ERROR: Missing '=' in param file.\r\n", kReadFailed}},
        {"key without =", With("Debug", "Debug 0"), {L"ERROR: Missing '=' in param file.\r\n", kReadFailed}},
        {"underscore in a key", bench + "Study_Site=Lab 3\r\n",
         {L"ERROR: Missing '=' in param file.\r\n", kReadFailed}},
        {"cut after a key", noDebug + "Debug", {L"ERROR: Missing '=' in param file.\r\n", kReadFailed}},
        {"key without a value", noDebug + "Debug=  ", {L"ERROR: Missing value in param file.\r\n", kReadFailed}},
        {"window of 25 hours", With("SessionWindowHours", "SessionWindowHours=25"),
         {L"ERROR: CStoredParams::Open: bad/missing SessionWindowHours.\r\n"}},
        {"interval of 0 days", With("RealTestIntervalDays", "RealTestIntervalDays=0"),
         {L"ERROR: CStoredParams::Open: bad/missing RealTestIntervalDays.\r\n"}},
        {"practice interval not a number", With("PracticeTestIntervalDays", "PracticeTestIntervalDays=daily"),
         {L"ERROR: CStoredParams::Open: bad/missing PracticeTestIntervalDays.\r\n"}},
        {"no MakeupDays", With("MakeupDays", ""), {L"ERROR: CStoredParams::Open: bad/missing MakeupDays.\r\n"}},
        {"MinFreeSpaceMB past 16 bits", With("MinFreeSpaceMB", "MinFreeSpaceMB=32768"),
         {L"ERROR: CStoredParams::Open: bad/missing MinFreeSpaceMB.\r\n"}},
        {"no Debug", noDebug, {L"ERROR: CStoredParams::Open: bad/missing Debug.\r\n"}},
        {"date without leading zero", With("FirstSessionDateTime", "FirstSessionDateTime=Mon 2 Feb 2004"),
         {L"ScriptToSystemDateTime: unexpected length date time string.\r\n",
          L"ERROR: CStoredParams::Open: bad/missing FirstSessionDateTime.\r\n"}},
        {"practice end in 1999", With("EndPracticeDate", "EndPracticeDate=Mon 08 Feb 1999"),
         {L"ScriptToSystemDateTime: garbled year.\r\n", L"ERROR: CStoredParams::Open: bad/missing EndPracticeDate.\r\n"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(WriteDiskFile(kParams, c.text));
        capture.Clear();
        CStoredParams params;
        EXPECT_FALSE(params.Open());
        EXPECT_EQ(capture.Lines(), c.lines);
    }

    DeleteDiskFile(kParams);
    capture.Clear();
    CStoredParams params;
    EXPECT_FALSE(params.Open());
    EXPECT_EQ(capture.Lines(), (Lines{L"ERROR: Failed to open params file.\r\n", kReadFailed}));
    // Nothing is held after a failed Open: reads give the default.
    EXPECT_EQ(Read(params, L"Debug"), L"<default>");
}

TEST_F(StoredParamsTest, ScannerKeepsValuesAsWrittenAndKeysWithoutCase)
{
    const std::string text =
        "#comment at the very start\r\n" + With("SessionWindowHours", "sessionwindowhours = 4") +
        "\n\n#another\nNote=\r\nOther=5\r\nMakeupDays=9\r\nEmpty\r\n=x\n";
    ASSERT_TRUE(WriteDiskFile(kParams, text));
    const size_t assertsBefore = AssertLines();
    CStoredParams params;
    ASSERT_TRUE(params.Open());
    EXPECT_TRUE(capture.Lines().empty());

    short hours = 0;
    EXPECT_TRUE(params.ReadSessionWindowHours(&hours));
    EXPECT_EQ(hours, 4);
    // Trailing blanks belong to the value; an empty value takes the next line.
    EXPECT_EQ(Read(params, L"STUDYSITE"), L"Lab 3  ");
    EXPECT_EQ(Read(params, L"Note"), L"Other=5");
    EXPECT_EQ(Read(params, L"Other"), L"<default>");
    // A line break between key and "=" is a blank too: "Empty" then "=x".
    EXPECT_EQ(Read(params, L"Empty"), L"x");
    // A duplicate key is recorded as an assertion; the first one counts.
    EXPECT_EQ(AssertLines(), assertsBefore + 1);
    short makeup = 0;
    EXPECT_TRUE(params.ReadMakeupDays(&makeup));
    EXPECT_EQ(makeup, 2);

    SYSTEMTIME first, end;
    ASSERT_TRUE(params.ReadFirstSessionDateTime(&first));
    ASSERT_TRUE(params.ReadEndPracticeDate(&end));
    EXPECT_EQ((std::vector<int>{first.wYear, first.wMonth, first.wDay, first.wHour}),
              (std::vector<int>{2004, 2, 2, 9}));
    EXPECT_EQ((std::vector<int>{end.wDay, end.wHour, end.wMinute}), (std::vector<int>{9, 0, 0}));
    EXPECT_TRUE(capture.Lines().empty());

    EXPECT_FALSE(params.ReadFirstSessionDateTime(nullptr));
    EXPECT_FALSE(params.ReadEndPracticeDate(nullptr));
    EXPECT_EQ(capture.Lines(), (Lines{L"ReadFirstSessionDateTime: null pDateTimeLocal.\r\n",
                                      L"ReadEndPracticeDate: null pDateTimeLocal.\r\n"}));
}

TEST_F(StoredParamsTest, OnlyTheFirst8192BytesCount)
{
    // Pad with a comment so that byte 8192 falls inside the last pair.
    const std::string head = With("Debug", "");
    auto fileCutting = [&](const std::string& tail, size_t keep) {
        std::string padding = "#" + std::string(8192 - head.size() - 2 - keep - 1, 'x') + "\r\n";
        return head + padding + tail;
    };
    ASSERT_TRUE(WriteDiskFile(kParams, fileCutting("Debug=1234\r\n", 8)));  // keeps "Debug=12"
    CStoredParams params;
    ASSERT_TRUE(params.Open());
    EXPECT_EQ(Read(params, L"Debug"), L"12");

    ASSERT_TRUE(WriteDiskFile(kParams, fileCutting("Debug=1234\r\n", 6)));  // keeps "Debug="
    CStoredParams cut;
    EXPECT_FALSE(cut.Open());
    EXPECT_EQ(capture.Lines(), (Lines{L"ERROR: Missing value in param file.\r\n", kReadFailed}));
}

TEST_F(StoredParamsTest, TypedReadsReportTheirOwnFailures)
{
    ASSERT_TRUE(WriteDiskFile(kParams, kBenchParams));
    CStoredParams params;
    ASSERT_TRUE(params.Open());
    short v = 77;
    EXPECT_FALSE(params.ReadShortParam(L"StudySite", 0, 10, &v));  // not a number
    EXPECT_FALSE(params.ReadShortParam(L"Debug", 1, 10, &v));       // out of range
    EXPECT_FALSE(params.ReadShortParam(L"Missing", 0, 10, &v));
    EXPECT_EQ(v, 77);
    EXPECT_TRUE(params.ReadShortParam(L"MinFreeSpaceMB", -32768, 32767, &v));
    EXPECT_EQ(v, 50);
    EXPECT_TRUE(capture.Lines().empty());

    // After Close every typed read fails with its message.
    params.Close();
    params.Close();
    SYSTEMTIME st;
    EXPECT_FALSE(params.ReadSessionWindowHours(&v));
    EXPECT_FALSE(params.ReadRealTestIntervalDays(&v));
    EXPECT_FALSE(params.ReadPracticeTestIntervalDays(&v));
    EXPECT_FALSE(params.ReadMakeupDays(&v));
    EXPECT_FALSE(params.ReadMinFreeSpaceMB(&v));
    EXPECT_FALSE(params.ReadDebug(&v));
    EXPECT_FALSE(params.ReadFirstSessionDateTime(&st));
    EXPECT_FALSE(params.ReadEndPracticeDate(&st));
    EXPECT_EQ(capture.Lines(), (Lines{L"ERROR: ReadSessionWindowHours: invalid/missing value.\r\n",
                                      L"ERROR: ReadRealTestIntervalDays: invalid/missing value.\r\n",
                                      L"ERROR: ReadPracticeTestIntervalDays: invalid/missing value.\r\n",
                                      L"ERROR: ReadMakeupDays: invalid/missing value.\r\n",
                                      L"ERROR: ReadMinFreeSpaceMB: invalid/missing value.\r\n",
                                      L"ERROR: ReadDebug: invalid/missing value.\r\n",
                                      L"Corrupted StoredParams: no FirstSessionDateTime.\r\n",
                                      L"Corrupted StoredParams: no EndPracticeDate.\r\n"}));
}

}  // namespace
