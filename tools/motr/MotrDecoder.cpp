#include "tools/motr/MotrDecoder.h"

#include <cstdio>
#include <cstring>

namespace tools::motr {

namespace {

constexpr uint8_t kClassDeviceEvent = 0x10;
constexpr uint8_t kClassSystemNote = 0x11;
constexpr uint8_t kClassSystemError = 0x12;

constexpr uint8_t kEvtTimerGo = 0x20;
constexpr uint8_t kEvtTimerRollover = 0x21;
constexpr uint8_t kEvtPegsMap = 0x40;

constexpr uint8_t kNoteReset = 0x00;
constexpr uint8_t kNote01 = 0x01;
constexpr uint8_t kNoteCmdResponse = 0x03;

constexpr size_t kMinPacketSize = 6;
constexpr size_t kMaxPacketSize = 16;
constexpr uint32_t kTickMask = 0xFFFFFF;
constexpr uint32_t kTicksPerRollover = 1u << 24;

const char kMagic[4] = {'M', 'O', 'T', 'R'};
const char kBadPayload[] = "bad payload size";

// The events a device-event code raises; codes not listed raise none.
struct CodeName
{
    uint8_t code;
    const char* name;
    bool digito;
};
const CodeName kDeviceEvents[] = {
    {kEvtTimerGo, "TimerGo", false},
    {kEvtTimerRollover, "TimerRollover", false},
    {0x30, "DigitoLeftDownward", true},
    {0x31, "DigitoLeftUpward", true},
    {0x34, "DigitoRightDownward", true},
    {0x35, "DigitoRightUpward", true},
    {0x38, "CapsitRightDown", false},
    {0x39, "CapsitRightUp", false},
    {0x3B, "CapsitLeftDown", false},
    {0x3C, "CapsitLeftUp", false},
    {kEvtPegsMap, "PegsMap", false},
};

// System errors only ever reach the debug output; named after what they report.
const CodeName kSystemErrors[] = {
    {0x00, "ErrorNone", false},
    {0x01, "ErrorOverflow", false},
    {0x80, "ErrorBadVCore", false},
    {0x81, "ErrorBad5V", false},
    {0x82, "ErrorBad3V", false},
};

const char* const kColumns[] = {"index", "offset", "ticks", "ticks_since_go", "ms_since_go", "event",
                                "delta_ticks", "pegs_left", "pegs_right", "hc08_rev", "hc08_build",
                                "reset_source", "tick_hz", "post_result", "cmd_status", "problem", "bytes"};

std::string Format(const char* format, auto... args)
{
    char text[160];
    std::snprintf(text, sizeof(text), format, args...);
    return text;
}

std::string Hex(const std::vector<uint8_t>& bytes)
{
    std::string s;
    for (size_t i = 0; i < bytes.size(); ++i)
        s += Format(i ? " %02X" : "%02X", bytes[i]);
    return s;
}

}  // namespace

bool MotrDecoder::Decode(const std::vector<uint8_t>& file, Recording* out, std::string* error)
{
    *out = Recording();
    *this = MotrDecoder();
    const size_t n = file.size();
    const size_t magicBytes = n < sizeof(kMagic) ? n : sizeof(kMagic);
    // An empty file has no bytes to compare (and may have no buffer at all).
    if (magicBytes > 0 && std::memcmp(file.data(), kMagic, magicBytes) != 0) {
        std::vector<uint8_t> start(file.begin(), file.begin() + magicBytes);
        *error = "byte 0: not a .motr recording (starts " + Hex(start) + ", not \"MOTR\")";
        return false;
    }
    if (n < kHeaderSize) {
        *error = Format("byte %zu: header cut short (%zu of %zu bytes)", n, n, kHeaderSize);
        return false;
    }
    out->version = static_cast<uint16_t>(file[4] | (file[5] << 8));
    if (out->version != kVersion) {
        *error = Format("byte 4: unsupported .motr version %u (expected %u)", out->version, kVersion);
        return false;
    }

    for (size_t pos = kHeaderSize, index = 0; pos < n; ++index) {
        const std::string where = Format("packet %zu at byte %zu: ", index, pos);
        const size_t left = n - pos;
        if (left < 2) {
            *error = where + "cut short (1 byte left, no length byte)";
            return false;
        }
        const size_t size = file[pos + 1] + 2u;
        if (size < kMinPacketSize || size > kMaxPacketSize) {
            *error = where + Format("bad length byte 0x%02X (a %zu-byte packet; %zu to %zu allowed)",
                                    file[pos + 1], size, kMinPacketSize, kMaxPacketSize);
            return false;
        }
        if (size > left) {
            *error = where + Format("cut short (a %zu-byte packet, %zu bytes left)", size, left);
            return false;
        }
        Row row;
        row.index = index;
        row.offset = pos;
        if (!DecodePacket(&file[pos], size, &row, error)) {
            *error = where + *error;
            return false;
        }
        if (!row.problem.empty())
            ++out->flagged;
        out->rows.push_back(std::move(row));
        pos += size;
    }
    return true;
}

bool MotrDecoder::DecodePacket(const uint8_t* p, size_t size, Row* row, std::string* error)
{
    row->bytes.assign(p, p + size);
    row->ticks = (p[2] << 16) | (p[3] << 8) | p[4];
    unsigned sum = 0;
    for (size_t i = 0; i + 1 < size; ++i)
        sum += p[i];
    const uint8_t expected = static_cast<uint8_t>(0x100 - (sum & 0xFF));
    const bool good = p[size - 1] == expected;

    // As the link reckons it on arrival; a go packet then starts a new count.
    if (m_goSeen)
        row->ticksSinceGo = ((row->ticks - m_tickAtGo) & kTickMask) + m_rollovers * kTicksPerRollover;

    switch (p[0]) {
    case kClassDeviceEvent:
        DecodeDeviceEvent(p, size, good, row);
        break;
    case kClassSystemNote:
        DecodeNote(p, size, good, row);
        break;
    case kClassSystemError:
        DecodeError(p, size, row);
        break;
    default:
        if (good) {
            *error = Format("unknown class 0x%02X", p[0]);
            return false;
        }
        row->event = "UnknownClass";
        break;
    }
    if (!good) {
        // Ahead of any payload complaint: the damage explains it.
        row->problem.insert(0, Format("bad checksum 0x%02X (expected 0x%02X)%s", p[size - 1], expected,
                                      row->problem.empty() ? "" : "; "));
    }
    if (row->ticksSinceGo && m_tickHz != 0)
        row->msSinceGo = *row->ticksSinceGo * 1000.0 / m_tickHz;
    return true;
}

void MotrDecoder::DecodeDeviceEvent(const uint8_t* p, size_t size, bool good, Row* row)
{
    if (size == kMinPacketSize) {
        row->event = "DeviceEvent";
        AddProblem(row, kBadPayload);
        return;
    }
    const uint8_t code = p[5];
    const size_t payload = size - kMinPacketSize;
    const CodeName* known = nullptr;
    for (const CodeName& c : kDeviceEvents)
        if (c.code == code)
            known = &c;
    if (known == nullptr) {
        row->event = "UnknownDeviceEvent";
        return;
    }
    row->event = known->name;
    if (code == kEvtTimerGo && good) {
        m_goSeen = true;
        m_tickAtGo = row->ticks;
        m_rollovers = 0;
        row->ticksSinceGo = 0;
    } else if (code == kEvtTimerRollover && good) {
        ++m_rollovers;
    } else if (known->digito) {
        if (payload == 3)
            row->fields[kDeltaTicks] = (p[6] << 8) | p[7];
        else if (payload == 1)
            row->fields[kDeltaTicks] = 0;
        else
            AddProblem(row, kBadPayload);
    } else if (code == kEvtPegsMap) {
        if (payload >= 3) {
            // Sent active low: right map first.
            row->fields[kPegsRight] = ~p[6] & 0xFFu;
            row->fields[kPegsLeft] = ~p[7] & 0xFFu;
        } else {
            AddProblem(row, kBadPayload);
        }
    }
}

void MotrDecoder::DecodeNote(const uint8_t* p, size_t size, bool good, Row* row)
{
    const size_t payload = size - kMinPacketSize;
    if (payload < 1) {
        row->event = "SystemNote";
        AddProblem(row, kBadPayload);
        return;
    }
    switch (p[5]) {
    case kNoteReset:
        row->event = "HC08Reset";
        if (payload < 9) {
            AddProblem(row, kBadPayload);
            return;
        }
        row->fields[kHC08Rev] = p[6];
        row->fields[kHC08Build] = p[7];
        row->fields[kResetSource] = p[8];
        row->fields[kTickHz] = (uint32_t(p[9]) << 24) | (p[10] << 16) | (p[11] << 8) | p[12];
        row->fields[kPostResult] = p[13];
        if (good)
            m_tickHz = *row->fields[kTickHz];
        break;
    case kNote01:
        row->event = "Note01";
        break;
    case kNoteCmdResponse:
        row->event = "CmdResponse";
        if (payload < 2)
            AddProblem(row, kBadPayload);
        else
            row->fields[kCmdStatus] = p[6];
        break;
    default:
        row->event = "UnknownNote";
        break;
    }
}

void MotrDecoder::DecodeError(const uint8_t* p, size_t size, Row* row)
{
    if (size == kMinPacketSize) {
        row->event = "SystemError";
        AddProblem(row, kBadPayload);
        return;
    }
    row->event = "UnknownError";
    for (const CodeName& c : kSystemErrors)
        if (c.code == p[5])
            row->event = c.name;
}

void MotrDecoder::AddProblem(Row* row, const std::string& problem)
{
    row->problem += (row->problem.empty() ? "" : "; ") + problem;
}

std::string MotrDecoder::Csv(const Recording& recording)
{
    std::string csv;
    for (const char* column : kColumns)
        csv += std::string(csv.empty() ? "" : ",") + column;
    csv += '\n';
    for (const Row& row : recording.rows) {
        csv += Format("%zu,%zu,%u,", row.index, row.offset, row.ticks);
        if (row.ticksSinceGo)
            csv += Format("%u", *row.ticksSinceGo);
        csv += ',';
        if (row.msSinceGo)
            csv += Format("%.3f", *row.msSinceGo);
        csv += ',' + row.event + ',';
        for (const std::optional<uint32_t>& field : row.fields) {
            if (field)
                csv += Format("%u", *field);
            csv += ',';
        }
        csv += row.problem + ',' + Hex(row.bytes) + '\n';
    }
    return csv;
}

std::string MotrDecoder::HeaderCsv(const Recording& recording)
{
    size_t bytes = 0;
    for (const Row& row : recording.rows)
        bytes += row.bytes.size();
    return Format("field,value\nmagic,MOTR\nversion,%u\npacket_bytes,%zu\npackets,%zu\n", recording.version,
                  bytes, recording.rows.size());
}

}  // namespace tools::motr
