#include "session/Questions.h"

#include <cstring>
#include <cwchar>
#include <memory>
#include <new>

#include "diag/DebugOut.h"
#include "session/StoredParams.h"

namespace {

// Closes a file handle when it goes out of scope.
struct FileCloser
{
    void operator()(HANDLE h) const { CloseHandle(h); }
};
using UniqueFile = std::unique_ptr<void, FileCloser>;

}  // namespace

CQuestions::CQuestions() : m_questions(nullptr), m_responses(nullptr), m_count(0)
{
    m_questions = new (std::nothrow) wchar_t*[kMaxPairs]();
    m_responses = new (std::nothrow) wchar_t*[kMaxPairs]();
    if (m_questions == nullptr || m_responses == nullptr) {
        delete[] m_questions;
        delete[] m_responses;
        m_questions = nullptr;
        m_responses = nullptr;
    }
}

CQuestions::~CQuestions()
{
    if (m_questions != nullptr) {
        for (int i = 0; i < kMaxPairs; ++i) {
            delete[] m_questions[i];
            delete[] m_responses[i];
        }
    }
    delete[] m_questions;
    delete[] m_responses;
}

bool CQuestions::AddQuestionResponse(const wchar_t* question, const wchar_t* response)
{
    if (m_questions == nullptr) {
        DebugOut(L"AddQuestionResponse: constructor out of memory.\r\n");
        return false;
    }
    if (question == nullptr) {
        DebugOut(L"AddQuestionResponse: null question.\r\n");
        return false;
    }
    if (response == nullptr) {
        DebugOut(L"AddQuestionResponse: null response.\r\n");
        return false;
    }
    if (m_count >= kMaxPairs) {
        DebugOut(L"AddQuestionResponse: too many questions.\r\n");
        return false;
    }
    wchar_t* q = CopyOf(question);
    wchar_t* r = CopyOf(response);
    if (q == nullptr || r == nullptr) {
        delete[] q;
        delete[] r;
        DebugOut(L"AddQuestionResponse: out of memory.\r\n");
        return false;
    }
    m_questions[m_count] = q;
    m_responses[m_count] = r;
    ++m_count;
    return true;
}

bool CQuestions::WriteToFile(const wchar_t* path)
{
    if (m_questions == nullptr) {
        DebugOut(L"AddQuestionResponse: constructor out of memory.\r\n");
        return false;
    }
    UniqueFile file;
    if (path != nullptr) {
        HANDLE h = CreateFileW(path, GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                               nullptr);
        if (h != INVALID_HANDLE_VALUE)
            file.reset(h);
    }
    if (!file) {
        DebugOut(L"ERROR: CQuestions::WriteToFile: could not open file for writing.\r\n");
        return false;
    }
    // Every slot is filled in order, so the first empty one ends the list.
    for (int i = 0; i < kMaxPairs && m_questions[i] != nullptr; ++i) {
        const size_t room = wcslen(m_questions[i]) + wcslen(m_responses[i]) + 4;
        std::unique_ptr<wchar_t[]> line(new (std::nothrow) wchar_t[room]);
        if (!line) {
            DebugOut(L"CQuestions::WriteToFile: out of memory.\r\n");
            return false;
        }
        swprintf(line.get(), room, L"%ls,%ls\r\n", m_questions[i], m_responses[i]);
        std::unique_ptr<char[]> ascii(NativeToAscii(line.get()));
        if (!ascii) {
            DebugOut(L"CQuestions::WriteToFile: line failed to convert to ascii.\r\n");
            return false;
        }
        const DWORD length = static_cast<DWORD>(strlen(ascii.get()));
        DWORD written = 0;
        if (!WriteFile(file.get(), ascii.get(), length, &written, nullptr) || written != length)
            return false;
    }
    return true;
}
