// tlbfix: repairs a type library written by widl (Wine 7 and 8).
//
// When a library holds a dispinterface before a dual interface derived from
// IDispatch (as ours does: the events come first, the coclass second and
// IBrennock last), widl adds the IDispatch import twice. The second time its
// GUID allocation fails as a duplicate and returns -1, and widl then
//   - stores -1 as that import entry's GUID offset, so the interface's base
//     (and the header's IDispatch position) points at an entry without a GUID;
//   - writes the import entry's index into byte -1 + 16 of the GUID table,
//     which is the last byte of the library's own GUID.
// This tool points every such import entry at the IDispatch GUID of the
// table and puts back the library GUID given on the command line.
//
//   tlbfix FILE.tlb {XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}
//
// It rewrites the file in place and exits non-zero, saying why, when the file
// is not a type library it understands or the library GUID differs in more
// than that last byte.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

constexpr uint32_t kMagic1 = 0x5446534D;  // "MSFT"
constexpr uint32_t kMagic2 = 0x00010002;
constexpr int kHeaderInts = 21;
constexpr uint32_t kHelpDllFlag = 0x100;
constexpr int kSegments = 15;
constexpr int kSegImportInfo = 1;
constexpr int kSegGuid = 5;
constexpr int kGuidEntrySize = 24;  // GUID, hreftype, next hash
constexpr int kImpInfoSize = 12;    // flags, import file, GUID offset
constexpr uint32_t kImpInfoOffsetIsGuid = 0x00010000;

// IID_IDispatch as stored: {00020400-0000-0000-C000-000000000046}
const uint8_t kIDispatch[16] = {0x00, 0x04, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00,
                                0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46};

int32_t Get(const std::vector<uint8_t>& d, size_t at)
{
    int32_t v;
    std::memcpy(&v, d.data() + at, 4);
    return v;
}

void Put(std::vector<uint8_t>& d, size_t at, int32_t v)
{
    std::memcpy(d.data() + at, &v, 4);
}

bool ParseGuid(const std::string& text, uint8_t out[16])
{
    unsigned a, b, c, e[8];
    const char* s = text.c_str();
    if (*s == '{')
        ++s;
    if (std::sscanf(s, "%8x-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x", &a, &b, &c, &e[0], &e[1], &e[2],
                    &e[3], &e[4], &e[5], &e[6], &e[7]) != 11)
        return false;
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<uint8_t>(a >> (8 * i));
    out[4] = static_cast<uint8_t>(b);
    out[5] = static_cast<uint8_t>(b >> 8);
    out[6] = static_cast<uint8_t>(c);
    out[7] = static_cast<uint8_t>(c >> 8);
    for (int i = 0; i < 8; ++i)
        out[8 + i] = static_cast<uint8_t>(e[i]);
    return true;
}

int Fail(const char* file, const char* why)
{
    std::fprintf(stderr, "tlbfix: %s: %s\n", file, why);
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: tlbfix FILE.tlb {LIBRARY-GUID}\n");
        return 2;
    }
    const char* file = argv[1];
    uint8_t libid[16];
    if (!ParseGuid(argv[2], libid))
        return Fail(file, "the library GUID is not in the form {XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}");

    std::vector<uint8_t> d;
    {
        std::ifstream in(file, std::ios::binary);
        if (!in)
            return Fail(file, "cannot be read");
        d.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    if (d.size() < kHeaderInts * 4 || static_cast<uint32_t>(Get(d, 0)) != kMagic1 ||
        static_cast<uint32_t>(Get(d, 4)) != kMagic2)
        return Fail(file, "not an MSFT type library");

    const int32_t posguid = Get(d, 8);
    const uint32_t varflags = static_cast<uint32_t>(Get(d, 20));
    const int32_t typeinfos = Get(d, 32);
    size_t segdir = kHeaderInts * 4 + ((varflags & kHelpDllFlag) ? 4 : 0) + 4 * size_t(typeinfos);
    if (typeinfos < 0 || segdir + kSegments * 16 > d.size())
        return Fail(file, "segment directory out of range");

    auto seg = [&](int i, size_t& off, size_t& len) {
        int32_t o = Get(d, segdir + 16 * i), l = Get(d, segdir + 16 * i + 4);
        off = o < 0 ? 0 : size_t(o);
        len = l < 0 ? 0 : size_t(l);
        return o >= 0 && off + len <= d.size();
    };
    size_t guidOff, guidLen, impOff, impLen;
    if (!seg(kSegGuid, guidOff, guidLen) || !seg(kSegImportInfo, impOff, impLen))
        return Fail(file, "segment out of range");

    int fixes = 0;

    // The library's own GUID: only its last byte may have been overwritten.
    if (posguid < 0 || size_t(posguid) + kGuidEntrySize > guidLen)
        return Fail(file, "library GUID entry out of range");
    uint8_t* stored = d.data() + guidOff + posguid;
    if (std::memcmp(stored, libid, 15) != 0)
        return Fail(file, "library GUID does not match the one given");
    if (stored[15] != libid[15]) {
        stored[15] = libid[15];
        ++fixes;
    }

    // Import entries left without a GUID refer to IDispatch.
    int32_t dispatchGuid = -1;
    for (size_t at = 0; at + kGuidEntrySize <= guidLen; at += kGuidEntrySize)
        if (std::memcmp(d.data() + guidOff + at, kIDispatch, 16) == 0)
            dispatchGuid = static_cast<int32_t>(at);
    for (size_t at = 0; at + kImpInfoSize <= impLen; at += kImpInfoSize) {
        const size_t entry = impOff + at;
        if ((static_cast<uint32_t>(Get(d, entry)) & kImpInfoOffsetIsGuid) && Get(d, entry + 8) == -1) {
            if (dispatchGuid < 0)
                return Fail(file, "an import entry has no GUID and there is no IDispatch GUID");
            Put(d, entry + 8, dispatchGuid);
            ++fixes;
        }
    }

    if (fixes > 0) {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(d.data()), static_cast<std::streamsize>(d.size()));
        if (!out)
            return Fail(file, "cannot be written");
    }
    return 0;
}
