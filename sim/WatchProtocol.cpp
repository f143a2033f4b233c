#include "sim/WatchProtocol.h"

#include <cctype>
#include <cstdio>

namespace sim::watch {

namespace {

struct Shape
{
    char letter;
    Kind kind;
    size_t length;  // whole command, 0: variable
};

const Shape kShapes[] = {
    {'C', Kind::kReadParams, 4},  {'N', Kind::kReadBlock, 8},   {'B', Kind::kIdentity, 0},
    {'D', Kind::kDate, 10},       {'E', Kind::kTime, 8},        {'A', Kind::kAnalysis, 10},
    {'S', Kind::kGLimit, 6},      {'Q', Kind::kParams13, 30},   {'I', Kind::kThreshold, 6},
    {'G', Kind::kRestart, 5},     {'H', Kind::kLogPointer, 10},
};

const Shape* ShapeOf(const std::string& command)
{
    if (command.size() < 4 || command.compare(0, 3, "***") != 0)
        return nullptr;
    for (const Shape& s : kShapes)
        if (s.letter == command[3])
            return &s;
    return nullptr;
}

bool AllOf(const std::string& s, int (*test)(int))
{
    for (unsigned char c : s)
        if (!test(c))
            return false;
    return true;
}

bool Hex(const std::string& s, size_t digits)
{
    return s.size() == digits && AllOf(s, isxdigit);
}

bool Decimal(const std::string& s, size_t digits)
{
    return s.size() == digits && AllOf(s, isdigit);
}

int Two(const std::string& s, size_t at)
{
    return (s[at] - '0') * 10 + (s[at + 1] - '0');
}

}  // namespace

size_t FixedLength(const std::string& begin)
{
    const Shape* s = ShapeOf(begin);
    return s ? s->length : 0;
}

Examined Examine(const std::string& command)
{
    Examined e;
    const Shape* s = ShapeOf(command);
    if (s == nullptr)
        return e;
    e.kind = s->kind;
    e.argument = command.substr(4);
    if (s->length != 0 && command.size() != s->length)
        return e;
    const std::string& a = e.argument;
    switch (e.kind) {
    case Kind::kReadParams: e.good = a.empty(); break;
    case Kind::kReadBlock: e.good = Hex(a, 4); break;
    case Kind::kIdentity: e.good = a.size() % 2 == 0 && a.size() <= 50 && AllOf(a, isxdigit); break;
    case Kind::kDate:
        e.good = Decimal(a, 6) && Two(a, 0) >= 1 && Two(a, 0) <= 31 && Two(a, 2) >= 1 && Two(a, 2) <= 12;
        break;
    case Kind::kTime: e.good = Decimal(a, 4) && Two(a, 0) <= 23 && Two(a, 2) <= 59; break;
    case Kind::kAnalysis: e.good = Hex(a, 6); break;
    case Kind::kGLimit: e.good = Hex(a, 2); break;
    case Kind::kParams13: e.good = Hex(a, 26); break;
    case Kind::kThreshold: e.good = Hex(a, 2); break;
    case Kind::kRestart: e.good = (a == "U"); break;
    case Kind::kLogPointer: e.good = Hex(a, 6); break;
    case Kind::kUnknown: break;
    }
    return e;
}

std::string ParameterReply(const WatchFacts& facts, Garble garble)
{
    if (garble == Garble::kShort)
        return "\rSIMWATCH 01\rFW 2.10\r>";
    char address[16];
    std::snprintf(address, sizeof(address), "%06X", facts.logAddress & 0xFFFFFF);
    std::string reply = "\rSIMWATCH 01\rFW 2.10\r";
    reply += (garble == Garble::kAddress) ? "XYZ123" : address;
    reply += "\rID " + (facts.identity.empty() ? std::string("-") : facts.identity);
    reply += "\rSTART " + (facts.date.empty() ? std::string("------") : facts.date) + " " +
             (facts.time.empty() ? std::string("----") : facts.time);
    reply += "\r>";
    return reply;
}

std::string Escaped(const std::string& bytes)
{
    std::string out;
    for (unsigned char c : bytes) {
        if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\\') {
            out += "\\\\";
        } else if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof(hex), "\\x%02X", c);
            out += hex;
        }
    }
    return out;
}

}  // namespace sim::watch
