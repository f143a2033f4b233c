#include "sim/McuScript.h"

#include <cstdlib>
#include <vector>

#include "sim/SimConsole.h"

namespace sim::mcu {

namespace {

bool HexByte(const std::string& s, uint8_t* value)
{
    if (s.empty() || s.size() > 4)
        return false;
    char* end = nullptr;
    unsigned long v = std::strtoul(s.c_str(), &end, 16);
    if (*end != '\0' || v > 0xFF)
        return false;
    *value = static_cast<uint8_t>(v);
    return true;
}

bool Side(const std::string& s, bool* left)
{
    if (s == "left" || s == "right") {
        *left = (s == "left");
        return true;
    }
    return false;
}

bool Direction(const std::string& s, bool* down)
{
    if (s == "down" || s == "up") {
        *down = (s == "down");
        return true;
    }
    return false;
}

// The packet commands; words are the command's words (an "at TICK" taken off).
bool ParsePacket(const std::vector<std::string>& w, PacketSpec* p, std::string* error)
{
    const std::string& verb = w[0];
    bool left = false, down = false;
    uint32_t v = 0, v2 = 0;
    if (verb == "raw") {
        if (w.size() < 2) {
            *error = "raw needs hex bytes";
            return false;
        }
        p->raw = true;
        for (size_t i = 1; i < w.size(); ++i) {
            uint8_t b;
            if (!HexByte(w[i], &b)) {
                *error = "not a hex byte: " + w[i];
                return false;
            }
            p->bytes.push_back(b);
        }
        return true;
    }
    if (verb == "digito" && (w.size() == 3 || w.size() == 4) && Side(w[1], &left) && Direction(w[2], &down)) {
        if (w.size() == 4 && !sim::ParseNumber(w[3], 0xFFFFFFFF, &v)) {
            *error = "bad delta ticks: " + w[3];
            return false;
        }
        p->msgClass = kClassDeviceEvent;
        p->code = left ? (down ? kEvtDigitoLeftDown : kEvtDigitoLeftUp)
                       : (down ? kEvtDigitoRightDown : kEvtDigitoRightUp);
        p->data = {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
        return true;
    }
    if (verb == "capsit" && w.size() == 3 && Side(w[1], &left) && Direction(w[2], &down)) {
        p->msgClass = kClassDeviceEvent;
        p->code = left ? (down ? kEvtCapsitLeftDown : kEvtCapsitLeftUp)
                       : (down ? kEvtCapsitRightDown : kEvtCapsitRightUp);
        return true;
    }
    if (verb == "pegs" && w.size() == 3 && sim::ParseNumber(w[1], 0xFF, &v) && sim::ParseNumber(w[2], 0xFF, &v2)) {
        p->msgClass = kClassDeviceEvent;
        p->code = kEvtPegsMap;
        p->data = {static_cast<uint8_t>(~v2), static_cast<uint8_t>(~v)};
        return true;
    }
    if (verb == "go" && w.size() == 1) {
        p->msgClass = kClassDeviceEvent;
        p->code = kEvtTimerGo;
        return true;
    }
    if (verb == "note01" && w.size() == 1) {
        p->msgClass = kClassSystemNote;
        p->code = kNoteUnnamed01;
        return true;
    }
    if (verb == "error" && w.size() == 2) {
        p->msgClass = kClassSystemError;
        if (w[1] == "overflow")
            p->code = kErrOverflow;
        else if (w[1] == "vcore")
            p->code = kErrBadVCore;
        else if (w[1] == "5v")
            p->code = kErrBad5V;
        else if (w[1] == "3v")
            p->code = kErrBad3V;
        else if (!HexByte(w[1], &p->code)) {
            *error = "error overflow|vcore|5v|3v|HEX";
            return false;
        }
        return true;
    }
    if (verb == "packet" && w.size() >= 3 && w.size() <= 12) {
        if (!HexByte(w[1], &p->msgClass) || !HexByte(w[2], &p->code)) {
            *error = "packet CLASS CODE [DATA...], all hex";
            return false;
        }
        for (size_t i = 3; i < w.size(); ++i) {
            uint8_t b;
            if (!HexByte(w[i], &b)) {
                *error = "not a hex byte: " + w[i];
                return false;
            }
            p->data.push_back(b);
        }
        return true;
    }
    *error = "unknown command";
    return false;
}

}  // namespace

Bytes PacketSpec::Make(uint32_t currentTick) const
{
    if (raw)
        return bytes;
    return Build(msgClass, atTick ? tick : currentTick, code, data);
}

bool ParseCommand(const std::string& line, Command* command, std::string* error)
{
    *command = Command();
    const std::vector<std::string> w = sim::Words(line);
    if (w.empty())
        return true;
    const std::string& verb = w[0];
    uint32_t v = 0;

    switch (sim::LineFaults::Parse(w, &command->fault, error)) {
    case sim::LineFaults::Parsed::kYes:
        command->kind = Command::kFault;
        return true;
    case sim::LineFaults::Parsed::kBad:
        return false;
    case sim::LineFaults::Parsed::kNo:
        break;
    }
    if (verb == "mark") {
        command->kind = Command::kMark;
        command->text = sim::TextAfterVerb(line);
        return true;
    }
    if (w.size() == 1) {
        if (verb == "rollover") {
            command->kind = Command::kRollover;
            return true;
        }
        if (verb == "reset") {
            command->kind = Command::kReset;
            return true;
        }
        if (verb == "state") {
            command->kind = Command::kState;
            return true;
        }
        if (verb == "help") {
            command->kind = Command::kHelp;
            return true;
        }
        if (verb == "quit") {
            command->kind = Command::kQuit;
            return true;
        }
    }
    if (verb == "wait" || verb == "ticks") {
        if (w.size() != 2 || !sim::ParseNumber(w[1], verb == "wait" ? 3600000u : kTickModulus - 1, &v)) {
            *error = verb + (verb == "wait" ? " MS" : " TICKS (below 0x1000000)");
            return false;
        }
        command->kind = (verb == "wait") ? Command::kWait : Command::kTicks;
        command->number = v;
        return true;
    }
    if (verb == "burst" || verb == "latency") {
        if (w.size() < 2 || w.size() > 3 || !sim::ParseNumber(w[1], 100000000u, &v) || v == 0) {
            *error = verb + " N [capsit|digito|pegs|go|note01]";
            return false;
        }
        command->kind = (verb == "burst") ? Command::kBurst : Command::kLatency;
        command->number = v;
        command->text = (w.size() == 3) ? w[2] : "capsit";
        if (!IsStreamKind(command->text)) {
            *error = "unknown packet kind: " + command->text;
            return false;
        }
        return true;
    }

    size_t first = 0;
    if (verb == "split") {
        uint32_t at = 0, pause = 0;
        if (w.size() < 4 || !sim::ParseNumber(w[1], 15, &at) || at == 0 || !sim::ParseNumber(w[2], 60000, &pause)) {
            *error = "split BYTES MS PACKET-COMMAND (BYTES 1..15 in the first write)";
            return false;
        }
        command->kind = Command::kSplit;
        command->splitAt = at;
        command->number = pause;
        first = 3;
    } else {
        command->kind = Command::kPacket;
    }
    std::vector<std::string> words(w.begin() + first, w.end());
    if (words.size() >= 3 && words[words.size() - 2] == "at" && words[0] != "raw") {
        if (!sim::ParseNumber(words.back(), 0xFFFFFFFF, &v)) {
            *error = "bad tick: " + words.back();
            return false;
        }
        command->packet.atTick = true;
        command->packet.tick = v;
        words.resize(words.size() - 2);
    }
    if (!ParsePacket(words, &command->packet, error)) {
        command->kind = Command::kNothing;
        return false;
    }
    return true;
}

bool IsStreamKind(const std::string& kind)
{
    return kind == "capsit" || kind == "digito" || kind == "pegs" || kind == "go" || kind == "note01";
}

Bytes StreamPacket(const std::string& kind, uint32_t tick, uint32_t index)
{
    if (kind == "digito")
        return Digito(kEvtDigitoLeftDown, tick, index);
    if (kind == "pegs")
        return PegsMap(tick, static_cast<uint8_t>(index), static_cast<uint8_t>(~index));
    if (kind == "go")
        return TimerGo(tick);
    if (kind == "note01")
        return NoteUnnamed01(tick);
    return Capsit(kEvtCapsitLeftDown, tick);
}

const char* CommandHelp()
{
    // Faults: noise, drop and dup act on the packets sent with "send" in the
    // log (not on burst or latency streams); "split" is a stall mid-packet.
    static const std::string help = std::string("commands: digito left|right down|up [DELTA] | capsit left|right down|up | pegs LEFT RIGHT | "
           "go | note01 | error overflow|vcore|5v|3v|HEX | packet CLASS CODE [DATA...] "
           "(each may end in: at TICK) | raw HEX... | split BYTES MS PACKET-COMMAND | ticks N | "
           "rollover | reset | burst N [KIND] | latency N [KIND] | wait MS | mark TEXT | state | quit | faults: ") +
        sim::LineFaults::Help();
    return help.c_str();
}

}  // namespace sim::mcu
