#include "sim/WatchScript.h"

#include <cstdlib>
#include <vector>

#include "sim/SimConsole.h"
#include "sim/WatchMemory.h"

namespace sim::watch {

bool ParseCommand(const std::string& line, Command* command, std::string* error)
{
    *command = Command();
    const std::vector<std::string> w = sim::Words(line);
    if (w.empty())
        return true;
    const std::string& verb = w[0];
    const size_t n = w.size();
    Command& c = *command;

    switch (sim::LineFaults::Parse(w, &c.fault, error)) {
    case sim::LineFaults::Parsed::kYes:
        c.kind = Command::kFault;
        return true;
    case sim::LineFaults::Parsed::kBad:
        return false;
    case sim::LineFaults::Parsed::kNo:
        break;
    }
    if (verb == "mark") {
        c.kind = Command::kMark;
        c.text = sim::TextAfterVerb(line);
        return true;
    }
    if (n == 1) {
        const struct
        {
            const char* word;
            Command::Kind kind;
        } plain[] = {{"seat", Command::kSeat}, {"remove", Command::kRemove}, {"state", Command::kState},
                     {"help", Command::kHelp}, {"quit", Command::kQuit}, {"stats", Command::kStats}};
        for (const auto& p : plain) {
            if (verb == p.word) {
                c.kind = p.kind;
                return true;
            }
        }
    }
    if (verb == "silent") {
        if (n > 2 || (n == 2 && w[1] != "on" && w[1] != "off")) {
            *error = "silent [on|off]";
            return false;
        }
        c.kind = Command::kSilent;
        c.flag = (n == 1 || w[1] == "on");
        return true;
    }
    if (verb == "stats" && n == 2 && w[1] == "reset") {
        c.kind = Command::kStats;
        c.flag = true;
        return true;
    }
    if (verb == "garble") {
        if (n > 2 || (n == 2 && w[1] != "address" && w[1] != "short")) {
            *error = "garble [address|short]";
            return false;
        }
        c.kind = Command::kGarble;
        c.garble = (n == 2 && w[1] == "short") ? Garble::kShort : Garble::kAddress;
        return true;
    }
    if (verb == "echo") {
        uint32_t at = 0, byte = 0;
        bool good = (n == 2 || n == 3) && sim::ParseNumber(w[1], 100000, &at) && at >= 1;
        if (good && n == 3) {
            if (w[2].size() == 1)
                byte = static_cast<unsigned char>(w[2][0]);
            else
                good = w[2].compare(0, 2, "0x") == 0 && sim::ParseNumber(w[2], 0xFF, &byte);
        }
        if (!good) {
            *error = "echo N [CHAR|0xNN] (N from 1: the character of the next command echoed wrong)";
            return false;
        }
        c.kind = Command::kEcho;
        c.number = at;
        c.echo = (n == 3) ? static_cast<int>(byte) : -1;
        return true;
    }
    if (verb == "stall") {
        if (n != 3 || !sim::ParseNumber(w[1], watchsim::kBlockBytes - 1, &c.number) || !sim::ParseNumber(w[2], 3600000, &c.number2)) {
            *error = "stall BYTES MS (BYTES 0..4095 of the next block, then a pause)";
            return false;
        }
        c.kind = Command::kStall;
        return true;
    }
    if (verb == "stop" || verb == "vanish") {
        if (n != 2 || !sim::ParseNumber(w[1], watchsim::kBlockBytes - 1, &c.number)) {
            *error = verb + (verb == "stop" ? " BYTES (0..4095 of the next block, then nothing more)"
                                            : " BYTES (0..4095 of the next block, then out of the cradle)");
            return false;
        }
        c.kind = verb == "stop" ? Command::kStop : Command::kVanish;
        return true;
    }
    if (verb == "lie" || verb == "logaddr") {
        if (n != 2 || !sim::ParseNumber(w[1], watchsim::kMemoryBytes - 1, &c.number)) {
            *error = verb + " ADDRESS (a byte address below 0x1000000, e.g. 0x1000)";
            return false;
        }
        c.kind = (verb == "lie") ? Command::kLie : Command::kLogAddr;
        return true;
    }
    if (verb == "rate") {
        if (n != 2 || (w[1] != "paced" && w[1] != "fast")) {
            *error = "rate paced|fast";
            return false;
        }
        c.kind = Command::kRate;
        c.flag = (w[1] == "paced");
        return true;
    }
    if (verb == "wait") {
        if (n != 2 || !sim::ParseNumber(w[1], 3600000, &c.number)) {
            *error = "wait MS";
            return false;
        }
        c.kind = Command::kWait;
        return true;
    }
    *error = "unknown command";
    return false;
}

const char* CommandHelp()
{
    static const std::string help =
        std::string("commands: seat | remove | silent [on|off] | garble [address|short] | echo N [CHAR|0xNN] | "
                    "stall BYTES MS | stop BYTES | vanish BYTES | lie ADDRESS | logaddr ADDRESS | rate paced|fast | "
                    "stats [reset] | wait MS | mark TEXT | state | quit | faults (drop, dup: data blocks): ") +
        sim::LineFaults::Help();
    return help.c_str();
}

}  // namespace sim::watch
