// The assert file, on the test run's own device disk.
#include <windows.h>

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "diag/Assert.h"
#include "session/StoredParams.h"
#include "tests/support/DebugCapture.h"

namespace {

using Lines = std::vector<std::wstring>;
const wchar_t kAssertFile[] = L"\\Hard Disk\\asserts.txt";

std::string ReadAssertFile()
{
    HANDLE h = CreateFileW(kAssertFile, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return "<missing>";
    std::string bytes(4096, '\0');
    DWORD got = 0;
    ReadFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &got, nullptr);
    CloseHandle(h);
    bytes.resize(got);
    return bytes;
}

class AssertFileTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        DeleteFileW(kAssertFile);
        GetLocalTime(&before);
    }
    void TearDown() override
    {
        MoveFileW(L"\\Hard Disk moved", L"\\Hard Disk");
        DeleteFileW(kAssertFile);
    }

    // The file's lines with their leading date text checked and removed: each
    // must be a long script date between the test's start and now.
    std::vector<std::string> LinesAfterDate()
    {
        static const std::regex date("(Sun|Mon|Tue|Wed|Thu|Fri|Sat) [0-3][0-9] "
                                     "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [0-9]{4} "
                                     "[0-2][0-9]:[0-5][0-9]:[0-6][0-9]");
        SYSTEMTIME after, lo = before;
        GetLocalTime(&after);
        lo.wMilliseconds = after.wMilliseconds = 0;
        std::vector<std::string> result;
        std::string bytes = ReadAssertFile();
        for (size_t at = 0, end; (end = bytes.find("\r\n", at)) != std::string::npos; at = end + 2) {
            std::string line = bytes.substr(at, end + 2 - at);
            EXPECT_TRUE(line.size() > 25 && std::regex_match(line.substr(0, 24), date) && line[24] == ' ') << line;
            SYSTEMTIME written;
            std::wstring text(line.begin(), line.begin() + std::min<size_t>(24, line.size()));
            EXPECT_TRUE(ScriptToSystemDateTime(text.c_str(), &written)) << line;
            EXPECT_TRUE(CompareSystemTime(&lo, &written) <= 0 && CompareSystemTime(&written, &after) <= 0) << line;
            result.push_back(line.substr(std::min<size_t>(25, line.size())));
        }
        return result;
    }

    SYSTEMTIME before;
    DebugCapture capture;
};

TEST_F(AssertFileTest, FirstCallCreatesTheFileAndLaterCallsAppend)
{
    ASSERT_EQ(GetFileAttributesW(kAssertFile), INVALID_FILE_ATTRIBUTES);
    AssertWrite(L"C:\\src\\mcu\\HC08.cpp", 164, L"assert");
    AssertWrite(L"ui.js", 1, L"script check");
    EXPECT_EQ(LinesAfterDate(),
              (std::vector<std::string>{"C:\\src\\mcu\\HC08.cpp line 164 assert\r\n", "ui.js line 1 script check\r\n"}));
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(AssertFileTest, LineNumberIsSignedSixteenBitAndAlwaysFits)
{
    AssertWrite(L"a.cpp", static_cast<short>(40000), L"assert");
    AssertWrite(L"", -32768, L"");  // the widest number with nothing around it
    EXPECT_EQ(LinesAfterDate(), (std::vector<std::string>{"a.cpp line -25536 assert\r\n", " line -32768 \r\n"}));
    EXPECT_EQ(ReadAssertFile().size(), 25u + 26u + 25u + 15u);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(AssertFileTest, FailuresAreReportedOnlyOnTheDebugOutput)
{
    AssertWrite(nullptr, 1, L"assert");
    AssertWrite(L"a.cpp", 1, nullptr);
    EXPECT_EQ(ReadAssertFile(), "<missing>");

    // A reader that does not share write access keeps the writer out; the
    // line is lost and the file left as it was.
    AssertWrite(L"a.cpp", 1, L"first");
    const std::string first = ReadAssertFile();
    HANDLE holder = CreateFileW(kAssertFile, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(holder, INVALID_HANDLE_VALUE);
    AssertWrite(L"a.cpp", 2, L"lost");
    CloseHandle(holder);
    EXPECT_EQ(ReadAssertFile(), first);

    // No disk: the file cannot be made, and the caller carries on.
    ASSERT_TRUE(MoveFileW(L"\\Hard Disk", L"\\Hard Disk moved"));
    ASSERT(false);
    ASSERT_TRUE(MoveFileW(L"\\Hard Disk moved", L"\\Hard Disk"));

    EXPECT_EQ(capture.Lines(), (Lines{L"ERROR: AssertWrite: null file or line\r\n",
                                      L"ERROR: AssertWrite: null file or line\r\n",
                                      L"Could not create asserts file.\r\n", L"Could not create asserts file.\r\n"}));

    // Once released, the next call appends again.
    AssertWrite(L"a.cpp", 3, L"again");
    EXPECT_EQ(LinesAfterDate(), (std::vector<std::string>{"a.cpp line 1 first\r\n", "a.cpp line 3 again\r\n"}));
}

TEST_F(AssertFileTest, MacroRecordsSourcePathAndLineOnlyWhenFalse)
{
    int evaluations = 0;
    ASSERT(++evaluations == 1);
    EXPECT_EQ(ReadAssertFile(), "<missing>");

    const int line = __LINE__; ASSERT(++evaluations == 1);
    ASSERT_AT_LINE(164);
    EXPECT_EQ(evaluations, 2);
    EXPECT_EQ(LinesAfterDate(), (std::vector<std::string>{std::string(__FILE__) + " line " + std::to_string(line) +
                                                              " assert\r\n",
                                                          std::string(__FILE__) + " line 164 assert\r\n"}));
    EXPECT_TRUE(capture.Lines().empty());
}

}  // namespace
