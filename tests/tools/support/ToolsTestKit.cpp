#include "tests/tools/support/ToolsTestKit.h"

#include <gtest/gtest.h>
#include <openssl/rand.h>
#include <sys/wait.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>

namespace toolstest {

TempDir::TempDir()
{
    std::string pattern = (fs::temp_directory_path() / "brennock-tools-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        ADD_FAILURE() << "mkdtemp failed";
    m_path = pattern;
}

TempDir::~TempDir()
{
    std::error_code ec;
    fs::remove_all(m_path, ec);
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

std::string Provision()
{
    return BRENNOCK_PROVISION_BIN;
}

std::string Ezip()
{
    return BRENNOCK_EZIP_BIN;
}

Bytes ReadBytes(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
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
    auto put16 = [](Bytes& b, uint32_t v) {
        b.push_back(static_cast<uint8_t>(v));
        b.push_back(static_cast<uint8_t>(v >> 8));
    };
    auto put32 = [&](Bytes& b, uint32_t v) {
        put16(b, v & 0xFFFF);
        put16(b, v >> 16);
    };
    for (const auto& [name, data] : entries) {
        const uint32_t offset = static_cast<uint32_t>(zip.size());
        const uint32_t crc = static_cast<uint32_t>(crc32_z(0, data.data(), data.size()));
        put32(zip, 0x04034b50);
        put16(zip, 10);  // version needed
        put16(zip, 0);   // flags
        put16(zip, 0);   // stored
        put32(zip, 0);   // time, date
        put32(zip, crc);
        put32(zip, static_cast<uint32_t>(data.size()));
        put32(zip, static_cast<uint32_t>(data.size()));
        put16(zip, static_cast<uint32_t>(name.size()));
        put16(zip, 0);
        zip.insert(zip.end(), name.begin(), name.end());
        zip.insert(zip.end(), data.begin(), data.end());

        put32(central, 0x02014b50);
        put16(central, 20);  // made by
        put16(central, 10);
        put16(central, 0);
        put16(central, 0);
        put32(central, 0);
        put32(central, crc);
        put32(central, static_cast<uint32_t>(data.size()));
        put32(central, static_cast<uint32_t>(data.size()));
        put16(central, static_cast<uint32_t>(name.size()));
        put16(central, 0);  // extra
        put16(central, 0);  // comment
        put16(central, 0);  // disk
        put16(central, 0);  // internal attributes
        put32(central, 0);  // external attributes
        put32(central, offset);
        central.insert(central.end(), name.begin(), name.end());
    }
    const uint32_t cdOffset = static_cast<uint32_t>(zip.size());
    zip.insert(zip.end(), central.begin(), central.end());
    put32(zip, 0x06054b50);
    put16(zip, 0);
    put16(zip, 0);
    put16(zip, static_cast<uint32_t>(entries.size()));
    put16(zip, static_cast<uint32_t>(entries.size()));
    put32(zip, static_cast<uint32_t>(central.size()));
    put32(zip, cdOffset);
    put16(zip, 0);
    return zip;
}

namespace {

struct StudyHolder
{
    TempDir temp;
    SharedStudy study;
};

}  // namespace

const SharedStudy& TheStudy()
{
    static std::unique_ptr<StudyHolder> holder = [] {
        auto made = std::make_unique<StudyHolder>();
        made->study.dir = made->temp / "study";
        made->study.block = made->temp / "flashblock.bin";
        made->study.deviceId = "0000001234";
        const RunResult study = Shell(Provision() + " study " + made->study.dir.string());
        EXPECT_EQ(study.code, 0) << study.output;
        const RunResult device = Shell(Provision() + " device " + made->study.dir.string() + " --id 1234 --block " +
                                     made->study.block.string());
        EXPECT_EQ(device.code, 0) << device.output;
        return made;
    }();
    return holder->study;
}

}  // namespace toolstest
