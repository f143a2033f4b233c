// trem2bin: a ".trem" watch data file (WatchSaveStart) as the watch's raw
// memory and a CSV of its parameter fields.
//
//   trem2bin FILE.trem [-o OUT.bin] [--csv OUT.csv]
//
// Without -o and --csv the outputs go next to the input: FILE.bin and
// FILE.csv (the .trem taken off, when it is there). The whole file is checked
// (tools/trem/TremDecoder.h) before anything is written, and the outputs
// appear together or not at all: a malformed file gives one error line naming
// its line number, exit status 1 and no output files. Exit status 2 is a
// usage error.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "tools/trem/TremDecoder.h"

namespace {

int Usage()
{
    std::fprintf(stderr, "usage: trem2bin FILE.trem [-o OUT.bin] [--csv OUT.csv]\n");
    return 2;
}

bool ReadFile(const std::string& path, std::string* bytes, std::string* error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = std::strerror(errno);
        return false;
    }
    std::ostringstream s;
    s << in.rdbuf();
    if (in.bad()) {
        *error = "read error";
        return false;
    }
    *bytes = s.str();
    return true;
}

bool WriteFile(const std::string& path, const void* data, size_t size)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr)
        return false;
    const bool written = std::fwrite(data, 1, size, f) == size;
    return (std::fclose(f) == 0) && written;
}

}  // namespace

int main(int argc, char** argv)
{
    std::string in, bin, csv;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-o" && i + 1 < argc && bin.empty())
            bin = argv[++i];
        else if (arg == "--csv" && i + 1 < argc && csv.empty())
            csv = argv[++i];
        else if (!arg.empty() && arg[0] != '-' && in.empty())
            in = arg;
        else
            return Usage();
    }
    if (in.empty())
        return Usage();
    std::string stem = in;
    if (stem.size() > 5 && stem.compare(stem.size() - 5, 5, ".trem") == 0)
        stem.resize(stem.size() - 5);
    if (bin.empty())
        bin = stem + ".bin";
    if (csv.empty())
        csv = stem + ".csv";

    std::string file, error;
    if (!ReadFile(in, &file, &error)) {
        std::fprintf(stderr, "trem2bin: %s: cannot read: %s\n", in.c_str(), error.c_str());
        return 1;
    }
    tools::trem::Trem trem;
    if (!tools::trem::Decode(file, &trem, &error)) {
        std::fprintf(stderr, "trem2bin: %s: %s\n", in.c_str(), error.c_str());
        return 1;
    }

    // Both outputs under temporary names first, then renamed into place.
    const std::string text = tools::trem::ParameterCsv(trem);
    const std::string binTemp = bin + ".part", csvTemp = csv + ".part";
    const char* failed = nullptr;
    if (!WriteFile(binTemp, trem.memory.data(), trem.memory.size()))
        failed = bin.c_str();
    else if (!WriteFile(csvTemp, text.data(), text.size()))
        failed = csv.c_str();
    else if (std::rename(binTemp.c_str(), bin.c_str()) != 0)
        failed = bin.c_str();
    else if (std::rename(csvTemp.c_str(), csv.c_str()) != 0) {
        std::remove(bin.c_str());
        failed = csv.c_str();
    }
    if (failed != nullptr) {
        const int saved = errno;
        std::remove(binTemp.c_str());
        std::remove(csvTemp.c_str());
        std::fprintf(stderr, "trem2bin: %s: cannot write: %s\n", failed, std::strerror(saved));
        return 1;
    }
    return 0;
}
