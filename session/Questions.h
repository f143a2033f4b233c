// CQuestions: the answers of one questionnaire test, kept in memory while it
// runs and written out as text when it ends.
//
// Up to 100 question/response pairs of ID strings, in the order the user
// answered. The file has one line per pair, "question,response\r\n", in the
// ANSI code page and without a header; the study server reads it as CSV.
#pragma once

#include <windows.h>

class CQuestions
{
public:
    static constexpr int kMaxPairs = 100;

    CQuestions();
    ~CQuestions();
    CQuestions(const CQuestions&) = delete;
    CQuestions& operator=(const CQuestions&) = delete;

    // Stores copies of both strings in the next slot.
    bool AddQuestionResponse(const wchar_t* question, const wchar_t* response);
    // Creates path anew (readable by others while it is written) and writes
    // the pairs.
    bool WriteToFile(const wchar_t* path);

    int Count() const { return m_count; }

private:
    // Parallel arrays of kMaxPairs owned strings, null past the last pair;
    // both null when the constructor could not have them.
    wchar_t** m_questions;
    wchar_t** m_responses;
    int m_count;
};
