// Failed internal checks are appended to the device's assert file.
//
// ASSERT(cond) records a failed condition with this source module's full path
// and line and the message "assert"; execution then carries on normally, so a
// call site usually follows it with its own debug line and failure return.
// AssertWrite can be called directly, from any thread, before or without the
// control being open; it reports its own trouble only on the debug output.
#pragma once

// Wide form of a narrow string literal (for __FILE__).
#define BRN_WIDEN2(text) L##text
#define BRN_WIDEN(text) BRN_WIDEN2(text)

// The compiler's full path of the current source module, as a wide literal.
#define BRN_WFILE BRN_WIDEN(__FILE__)

// Appends "<date time> <file> line <line> <message>\r\n" to
// "\Hard Disk\asserts.txt". The file is opened, written, flushed and closed
// on every call.
void AssertWrite(const wchar_t* file, short line, const wchar_t* message);

#ifdef ASSERT
#undef ASSERT
#endif

// Records an assertion when cond is false; never stops, throws or returns.
#define ASSERT(cond)                                                            \
    do {                                                                        \
        if (!(cond))                                                            \
            ::AssertWrite(BRN_WFILE, static_cast<short>(__LINE__), L"assert"); \
    } while (0)

// Records an assertion against this source module at an explicit line, for
// code that reports a check on behalf of another line.
#define ASSERT_AT_LINE(line) ::AssertWrite(BRN_WFILE, static_cast<short>(line), L"assert")
