#include "tests/tools/support/ToolsTestKit.h"

#include <gtest/gtest.h>
#include <openssl/rand.h>
#include <sys/wait.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace toolstest {

TempDir::TempDir()
{
    std::string pattern = (fs::temp_directory_path() / "brennock-tools-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        ADD_FAILURE() << "mkdtemp failed";
    m_path = pattern;
}

RunResult Shell(const std::string& commandLine)
{
    RunResult result;
    FILE* pipe = popen((commandLine + " 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return result;
    char buffer[4096];
    size_t got;
    while ((got = fread(buffer, 1, sizeof(buffer), pipe)) > 0)
        result.output.append(buffer, got);
    const int status = pclose(pipe);
    result.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

Bytes ReadBytes(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

uint32_t Le32(const uint8_t* p)
{
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void WriteBytes(const fs::path& path, ByteView bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

Bytes RandomBytes(size_t count)
{
    Bytes bytes(count);
    if (count > 0)
        RAND_bytes(bytes.data(), static_cast<int>(count));
    return bytes;
}

Bytes StoredZip(const std::vector<std::pair<std::string, Bytes>>& entries)
{
    Bytes zip, central;
    // Little-endian fields of so many bytes each.
    auto put = [](Bytes& b, std::initializer_list<std::pair<uint32_t, int>> fields) {
        for (const auto& [value, width] : fields)
            for (int i = 0; i < width; ++i)
                b.push_back(static_cast<uint8_t>(value >> (8 * i)));
    };
    for (const auto& [name, data] : entries) {
        const auto offset = static_cast<uint32_t>(zip.size()), size = static_cast<uint32_t>(data.size()),
                   crc = static_cast<uint32_t>(crc32_z(0, data.data(), data.size())),
                   length = static_cast<uint32_t>(name.size());
        // Version 1.0 needed, no flags, stored, no time or date, no extra field.
        put(zip, {{0x04034b50, 4}, {10, 2}, {0, 2}, {0, 2}, {0, 4}, {crc, 4}, {size, 4}, {size, 4}, {length, 2},
                  {0, 2}});
        zip.insert(zip.end(), name.begin(), name.end());
        zip.insert(zip.end(), data.begin(), data.end());
        // The same, made by 2.0, with no comment, disk 0, no attributes.
        put(central, {{0x02014b50, 4}, {20, 2}, {10, 2}, {0, 2}, {0, 2}, {0, 4}, {crc, 4}, {size, 4}, {size, 4},
                      {length, 2}, {0, 2}, {0, 2}, {0, 2}, {0, 2}, {0, 4}, {offset, 4}});
        central.insert(central.end(), name.begin(), name.end());
    }
    const auto at = static_cast<uint32_t>(zip.size()), count = static_cast<uint32_t>(entries.size());
    zip.insert(zip.end(), central.begin(), central.end());
    put(zip, {{0x06054b50, 4}, {0, 2}, {0, 2}, {count, 2}, {count, 2}, {static_cast<uint32_t>(central.size()), 4},
              {at, 4}, {0, 2}});
    return zip;
}

const SharedStudy& TheStudy()
{
    static TempDir temp;
    static const SharedStudy study = [] {
        const SharedStudy made{temp / "study", temp / "flashblock.bin", "0000001234"};
        const RunResult run = Shell(Provision() + " study " + made.dir.string());
        EXPECT_EQ(run.code, 0) << run.output;
        const RunResult device =
            Shell(Provision() + " device " + made.dir.string() + " --id 1234 --block " + made.block.string());
        EXPECT_EQ(device.code, 0) << device.output;
        return made;
    }();
    return study;
}

}  // namespace toolstest
