#include "sim/LineFaults.h"

#include <cstdio>
#include <cstdlib>

#include "sim/SimConsole.h"

namespace sim {

LineFaults::Parsed LineFaults::Parse(const std::vector<std::string>& w, LineFaultCommand* c, std::string* error)
{
    if (w.empty())
        return Parsed::kNo;
    const std::string& verb = w[0];
    const size_t n = w.size();
    *c = LineFaultCommand();
    if (verb == "noise" || verb == "hangup" || verb == "seed") {
        const uint32_t max = verb == "noise" ? 100000u : verb == "hangup" ? 600000u : 0xFFFFFFFFu;
        if (n != 2 || !sim::ParseNumber(w[1], max, &c->number) || (verb == "noise" && c->number == 0)) {
            *error = verb == "noise" ? "noise BYTES (1..100000)" : verb == "hangup" ? "hangup MS" : "seed N";
            return Parsed::kBad;
        }
        c->verb = verb == "noise" ? LineFaultCommand::kNoise
                  : verb == "hangup" ? LineFaultCommand::kHangup
                                     : LineFaultCommand::kSeed;
        return Parsed::kYes;
    }
    if (verb == "drop" || verb == "dup") {
        c->verb = verb == "drop" ? LineFaultCommand::kDrop : LineFaultCommand::kDup;
        uint32_t v = 0;
        if (n >= 2 && n <= 3 && w[1] == "next") {
            c->next = true;
            if (n == 3) {
                if (!sim::ParseNumber(w[2], 100000, &v)) {
                    *error = "bad byte index: " + w[2];
                    return Parsed::kBad;
                }
                c->at = static_cast<int>(v);
            }
            return Parsed::kYes;
        }
        if (n == 2 && w[1] == "off")
            return Parsed::kYes;
        if (n == 3 && w[1] == "rate" && sim::ParseNumber(w[2], 100, &v)) {
            c->number = v;
            return Parsed::kYes;
        }
        *error = verb + " next [BYTE] | rate PERCENT | off";
        return Parsed::kBad;
    }
    return Parsed::kNo;
}

const char* LineFaults::Help()
{
    return "noise BYTES | drop next [BYTE] | drop rate PERCENT | drop off | dup next [BYTE] | dup rate PERCENT | "
           "dup off | hangup MS | seed N";
}

void LineFaults::Arm(const LineFaultCommand& c)
{
    switch (c.verb) {
    case LineFaultCommand::kDrop:
        m_dropNext = c.next;
        m_dropAt = c.at;
        m_dropRate = c.next ? m_dropRate : c.number;
        break;
    case LineFaultCommand::kDup:
        m_dupNext = c.next;
        m_dupAt = c.at;
        m_dupRate = c.next ? m_dupRate : c.number;
        break;
    case LineFaultCommand::kSeed:
        m_random.seed(c.number);
        break;
    default:
        break;
    }
}

std::string LineFaults::Noise(uint32_t n)
{
    std::string bytes(n, '\0');
    for (char& b : bytes)
        b = static_cast<char>(m_random() & 0xFF);
    return bytes;
}

std::string LineFaults::Damage(const std::string& packet, std::string* note)
{
    note->clear();
    if (packet.empty())
        return packet;
    auto drawn = [this](uint32_t rate) { return rate > 0 && m_random() % 100 < rate; };
    const bool drop = m_dropNext || drawn(m_dropRate);
    const bool dup = !drop && (m_dupNext || drawn(m_dupRate));
    if (!drop && !dup)
        return packet;
    int at = drop ? m_dropAt : m_dupAt;
    if (at < 0 || static_cast<size_t>(at) >= packet.size())
        at = static_cast<int>(m_random() % packet.size());
    if (drop) {
        m_dropNext = false;
        m_dropAt = -1;
    } else {
        m_dupNext = false;
        m_dupAt = -1;
    }
    char text[64];
    std::snprintf(text, sizeof text, "%s byte %d (0x%02X)", drop ? "dropped" : "doubled", at,
                  static_cast<unsigned char>(packet[at]));
    *note = text;
    std::string out = packet;
    if (drop)
        out.erase(static_cast<size_t>(at), 1);
    else
        out.insert(static_cast<size_t>(at), 1, packet[at]);
    return out;
}

std::string LineFaults::Describe() const
{
    char text[128];
    std::snprintf(text, sizeof text, "drop %s%u%%, dup %s%u%%", m_dropNext ? "next, " : "", m_dropRate,
                  m_dupNext ? "next, " : "", m_dupRate);
    return text;
}

}  // namespace sim
