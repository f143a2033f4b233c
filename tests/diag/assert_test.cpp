// The assert file, on the test run's own device disk.
#include <windows.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "diag/Assert.h"
#include "session/StoredParams.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"

namespace {

using Strings = std::vector<std::string>;
const wchar_t kAssertFile[] = L"\\Hard Disk\\asserts.txt";

class AssertFileTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        DeleteFileW(kAssertFile);
        GetLocalTime(&before);
        before.wMilliseconds = 0;  // the file keeps whole seconds
    }
    void TearDown() override { MoveFileW(L"\\Hard Disk moved", L"\\Hard Disk"); }

    // The file's lines without their date, which must be the long script form
    // (as the writer of dates writes it back) of a moment since the test began.
    Strings LinesAfterDate()
    {
        SYSTEMTIME after;
        GetLocalTime(&after);
        Strings result;
        const std::string bytes = ReadFileBytes(kAssertFile);
        for (size_t at = 0, end; (end = bytes.find("\r\n", at)) != std::string::npos; at = end + 2) {
            const std::string line = bytes.substr(at, end + 2 - at);
            const std::wstring date(line.begin(), line.begin() + std::min<size_t>(24, line.size()));
            SYSTEMTIME written;
            EXPECT_TRUE(ScriptToSystemDateTime(date.c_str(), &written) && line.size() > 25 && line[24] == ' ') << line;
            const std::unique_ptr<wchar_t[]> again(SystemDateTimeToScript(&written, true));
            EXPECT_EQ(date, again ? again.get() : L"") << line;
            EXPECT_TRUE(CompareSystemTime(&before, &written) <= 0 && CompareSystemTime(&written, &after) <= 0) << line;
            result.push_back(line.substr(std::min<size_t>(25, line.size())));
        }
        return result;
    }

    SYSTEMTIME before;
    DebugCapture capture;
};

TEST_F(AssertFileTest, TheMacroAppendsOnlyWhenFalseAndFailuresReachOnlyTheDebugOutput)
{
    // Failures go to the debug output only.
    AssertWrite(nullptr, 1, L"assert");
    AssertWrite(L"a.cpp", 1, nullptr);
    int evaluations = 0;
    ASSERT(++evaluations == 1);
    EXPECT_EQ(GetFileAttributesW(kAssertFile), INVALID_FILE_ATTRIBUTES);
    const int line = __LINE__; ASSERT(++evaluations == 1);
    EXPECT_EQ(evaluations, 2);
    AssertWrite(L"C:\\src\\mcu\\HC08.cpp", 164, L"assert");
    AssertWrite(L"a.cpp", static_cast<short>(40000), L"assert");  // signed 16 bits
    AssertWrite(L"", -32768, L"");  // the widest number with nothing around it
    ASSERT_AT_LINE(164);
    EXPECT_EQ(LinesAfterDate(), (Strings{std::string(__FILE__) + " line " + std::to_string(line) + " assert\r\n",
                                         "C:\\src\\mcu\\HC08.cpp line 164 assert\r\n", "a.cpp line -25536 assert\r\n",
                                         " line -32768 \r\n", std::string(__FILE__) + " line 164 assert\r\n"}));

    // A reader that does not share write access keeps the writer out; the
    // line is lost and the file left as it was.
    DeleteFileW(kAssertFile);
    AssertWrite(L"a.cpp", 1, L"first");
    const std::string first = ReadFileBytes(kAssertFile);
    HANDLE holder = CreateFileW(kAssertFile, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(holder, INVALID_HANDLE_VALUE);
    AssertWrite(L"a.cpp", 2, L"lost");
    CloseHandle(holder);
    EXPECT_EQ(ReadFileBytes(kAssertFile), first);

    // No disk: the file cannot be made, and the caller carries on.
    ASSERT_TRUE(MoveFileW(L"\\Hard Disk", L"\\Hard Disk moved"));
    ASSERT(false);
    ASSERT_TRUE(MoveFileW(L"\\Hard Disk moved", L"\\Hard Disk"));
    const std::wstring null = L"ERROR: AssertWrite: null file or line\r\n", none = L"Could not create asserts file.\r\n";
    EXPECT_EQ(capture.Lines(), (std::vector<std::wstring>{null, null, none, none}));

    AssertWrite(L"a.cpp", 3, L"again");
    EXPECT_EQ(LinesAfterDate(), (Strings{"a.cpp line 1 first\r\n", "a.cpp line 3 again\r\n"}));
}

}  // namespace
