#include "tools/trem/TremDecoder.h"

#include <cctype>
#include <cstdio>

namespace tools::trem {

namespace {

const char kHeader[] = "TREM Version 1";
const char kData[] = "Data";

std::string Line(size_t n, const std::string& text)
{
    return "line " + std::to_string(n) + ": " + text;
}

// Printable for an error message: at most 40 characters, others as \xNN.
std::string Shown(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size() && i < 40; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof(hex), "\\x%02X", c);
            out += hex;
        }
    }
    return text.size() > 40 ? out + "..." : out;
}

// A log address as the control reads the text: blanks, an optional + and
// 0x, then hexadecimal digits up to the first other character. False for no
// digits, a minus sign, or a value that is not a positive 32-bit number.
bool ReadAddress(const std::string& text, uint32_t* value)
{
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t'))
        ++i;
    if (i < text.size() && text[i] == '+')
        ++i;
    if (i + 1 < text.size() && text[i] == '0' && (text[i + 1] == 'x' || text[i + 1] == 'X') && i + 2 < text.size() &&
        std::isxdigit(static_cast<unsigned char>(text[i + 2])))
        i += 2;
    uint64_t v = 0;
    size_t digits = 0;
    for (; i < text.size() && std::isxdigit(static_cast<unsigned char>(text[i])); ++i, ++digits) {
        const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
        v = v * 16 + static_cast<uint64_t>(c <= '9' ? c - '0' : c - 'a' + 10);
        if (v > 0x7FFFFFFF)
            return false;
    }
    if (digits == 0)
        return false;
    *value = static_cast<uint32_t>(v);
    return true;
}

int HexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

}  // namespace

uint32_t BlocksFor(uint32_t logAddress)
{
    if (logAddress & 0x800000)
        logAddress = 0;
    uint32_t n = (logAddress >> 8) + ((logAddress % 255) != 0 ? 1 : 0);
    if (n == 0)
        n = 1;
    return (n + 15) / 16;
}

bool Decode(const std::string& file, Trem* trem, std::string* error)
{
    *trem = Trem();
    // The lines, each checked for its CR LF.
    std::vector<std::string> lines;
    for (size_t at = 0; at < file.size();) {
        const size_t n = lines.size() + 1;
        const size_t end = file.find_first_of("\r\n", at);
        if (end == std::string::npos) {
            *error = Line(n, "the file is cut short: its last line has no CR LF");
            return false;
        }
        if (file[end] == '\n' || end + 1 >= file.size() || file[end + 1] != '\n') {
            *error = Line(n, std::string(file[end] == '\n' ? "an LF without a CR before it"
                                                          : "a CR without an LF after it") +
                                 " (lines end in CR LF)");
            return false;
        }
        lines.push_back(file.substr(at, end - at));
        at = end + 2;
    }

    if (lines.empty() || lines[0] != kHeader) {
        const std::string found = lines.empty() ? ", the file is empty" : ", not \"" + Shown(lines[0]) + "\"";
        *error = Line(1, "not a .trem file: the first line must be \"TREM Version 1\"" + found);
        return false;
    }
    size_t data = 1;
    while (data < lines.size() && lines[data] != kData)
        ++data;
    if (data == lines.size()) {
        *error = Line(lines.size() + 1, "the file ends without its \"Data\" line");
        return false;
    }

    // Lines 2 .. data: the parameter text.
    if (data == 1 || !lines[1].empty()) {
        *error = Line(2, "the parameter text must begin with CR LF (the watch's reply begins with CR)");
        return false;
    }
    trem->fields.assign(lines.begin() + 2, lines.begin() + static_cast<std::ptrdiff_t>(data));
    if (trem->fields.size() < 4) {
        *error = Line(data + 1, "the parameter text has " + std::to_string(trem->fields.size()) +
                                    " line end(s) after its first; the control needs at least four CRs in all");
        return false;
    }
    uint32_t address = 0;
    if (!ReadAddress(trem->fields[2], &address)) {
        *error = Line(5, "the next log address \"" + Shown(trem->fields[2]) + "\" is not a hexadecimal number");
        return false;
    }
    trem->logAddress = (address & 0x800000) ? 0 : address;

    // The data lines, counted per block.
    const size_t first = data + 2;  // line number of the first data line
    const size_t count = lines.size() - data - 1;
    for (size_t k = 0; k < count; ++k) {
        const std::string& text = lines[data + 1 + k];
        const size_t n = first + k;
        if (text.size() != 2 * kLineBytes) {
            *error = Line(n, "line " + std::to_string(k % kLinesPerBlock + 1) + " of block " +
                                 std::to_string(k / kLinesPerBlock + 1) + " has " + std::to_string(text.size()) +
                                 " characters; a data line is 64 lower-case hexadecimal digits");
            return false;
        }
        for (size_t c = 0; c < text.size(); c += 2) {
            const int hi = HexValue(text[c]), lo = HexValue(text[c + 1]);
            if (hi < 0 || lo < 0) {
                *error = Line(n, "\"" + Shown(text.substr(hi < 0 ? c : c + 1, 1)) + "\" at column " +
                                     std::to_string((hi < 0 ? c : c + 1) + 1) +
                                     " is not a lower-case hexadecimal digit");
                return false;
            }
            trem->memory.push_back(static_cast<uint8_t>(hi * 16 + lo));
        }
    }
    if (count == 0) {
        *error = Line(first, "no data after the \"Data\" line (the control reads at least one block)");
        return false;
    }
    if (count % kLinesPerBlock != 0) {
        *error = Line(first + count, "the file ends inside block " + std::to_string(count / kLinesPerBlock + 1) +
                                         ", after " + std::to_string(count % kLinesPerBlock) + " of its 128 lines");
        return false;
    }
    const size_t blocks = count / kLinesPerBlock;
    const size_t wanted = BlocksFor(trem->logAddress);
    if (blocks != wanted) {
        char text[160];
        std::snprintf(text, sizeof(text),
                      "%zu block%s of data, but the control reads %zu for the next log address 0x%06X", blocks,
                      blocks == 1 ? "" : "s", wanted, trem->logAddress);
        *error = Line(blocks < wanted ? first + count : first + wanted * kLinesPerBlock, text);
        return false;
    }
    return true;
}

std::string ParameterCsv(const Trem& trem)
{
    std::string csv = "field,text\n";
    for (size_t k = 0; k < trem.fields.size(); ++k) {
        const std::string& text = trem.fields[k];
        csv += std::to_string(k + 1) + ",";
        const bool blankEnds = !text.empty() && (text[0] == ' ' || text.back() == ' ');
        if (text.find_first_of(",\"\r\n") != std::string::npos || blankEnds) {
            csv += '"';
            for (char c : text) {
                if (c == '"')
                    csv += '"';
                csv += c;
            }
            csv += '"';
        } else {
            csv += text;
        }
        csv += "\n";
    }
    return csv;
}

}  // namespace tools::trem
