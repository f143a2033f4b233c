// motr2csv: a ".motr" sensor recording as CSV, one row per microcontroller
// packet, for opening a test in a spreadsheet.
//
//   motr2csv FILE.motr [-o OUT.csv] [--header]
//
// Writes to standard output unless -o is given. --header writes the file
// header's fields (and the packet count) instead of the packet rows. The
// whole file is decoded before anything is written, so a file that cannot be
// read leaves no output behind: one error line on stderr and exit status 1.
// Packets flagged in the problem column are counted on stderr; they do not
// change the exit status. Exit status 2 is a usage error.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/motr/MotrDecoder.h"

namespace {

int Usage()
{
    std::fprintf(stderr, "usage: motr2csv FILE.motr [-o OUT.csv] [--header]\n");
    return 2;
}

bool ReadFile(const char* path, std::vector<uint8_t>* bytes, std::string* error)
{
    FILE* f = std::fopen(path, "rb");
    if (f == nullptr) {
        *error = std::strerror(errno);
        return false;
    }
    uint8_t buffer[65536];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof(buffer), f)) > 0)
        bytes->insert(bytes->end(), buffer, buffer + got);
    const bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (failed)
        *error = "read error";
    return !failed;
}

}  // namespace

int main(int argc, char** argv)
{
    const char* in = nullptr;
    const char* out = nullptr;
    bool header = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-o" && i + 1 < argc && out == nullptr)
            out = argv[++i];
        else if (arg == "--header")
            header = true;
        else if (arg[0] != '-' && in == nullptr)
            in = argv[i];
        else
            return Usage();
    }
    if (in == nullptr)
        return Usage();

    std::vector<uint8_t> file;
    std::string error;
    if (!ReadFile(in, &file, &error)) {
        std::fprintf(stderr, "motr2csv: %s: cannot read: %s\n", in, error.c_str());
        return 1;
    }
    tools::motr::Recording recording;
    tools::motr::MotrDecoder decoder;
    if (!decoder.Decode(file, &recording, &error)) {
        std::fprintf(stderr, "motr2csv: %s: %s\n", in, error.c_str());
        return 1;
    }

    const std::string text = header ? tools::motr::MotrDecoder::HeaderCsv(recording)
                                    : tools::motr::MotrDecoder::Csv(recording);
    FILE* f = out != nullptr ? std::fopen(out, "w") : stdout;
    if (f == nullptr) {
        std::fprintf(stderr, "motr2csv: %s: cannot write: %s\n", out, std::strerror(errno));
        return 1;
    }
    const bool written = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    if ((out != nullptr ? std::fclose(f) : std::fflush(f)) != 0 || !written) {
        std::fprintf(stderr, "motr2csv: %s: write error\n", out != nullptr ? out : "standard output");
        return 1;
    }
    if (recording.flagged != 0)
        std::fprintf(stderr, "motr2csv: %s: %zu packet%s flagged in the problem column\n", in, recording.flagged,
                     recording.flagged == 1 ? "" : "s");
    return 0;
}
