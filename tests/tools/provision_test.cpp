// provision: study folder, device registry, key region of block images.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/tools/support/PackageEncoder.h"
#include "tests/tools/support/ToolsTestKit.h"
#include "tools/crypto/RsaKey.h"

namespace {

using namespace toolstest;

TEST(Provision, StudyKeepsItsPrivateKeysPrivateAndItsRegistryVerifiable)
{
    const fs::path dir = TheStudy().dir;
    for (const auto& [name, mode] : {std::pair{"server.key.pem", 0600}, {"authority.key.pem", 0600},
                                     {"server.pub.pem", 0644}, {"authority.pub.pem", 0644}}) {
        struct stat st;
        ASSERT_EQ(stat((dir / name).c_str(), &st), 0) << name;
        EXPECT_EQ(st.st_mode & 0777, static_cast<unsigned>(mode)) << name;
    }
    // The registry can be checked without these tools: the authority signs
    // the ten digits of the id followed by the device key's DER.
    const fs::path record = dir / "devices" / TheStudy().deviceId;
    const RunResult run = Shell("(printf " + TheStudy().deviceId + "; openssl pkey -pubin -in " + record.string() +
                                ".pub.pem -outform DER) | openssl dgst -sha256 -verify " +
                                (dir / "authority.pub.pem").string() + " -signature " + record.string() + ".sig");
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(run.output, "Verified OK\n");
}

// Into an existing block only the key region changes; a missing block is
// made erased, with the boot loader's magic. Each blob sits in its slot with
// the header CryptoAPI wants and holds the study's keys and the recorded
// device's key pair.
TEST(Provision, WritesTheThreeBlobsIntoTheKeyRegionOnly)
{
    TempDir temp;
    Bytes erased(2612, 0xFF);
    std::copy_n("\x00\x20\x23\x11", 4, erased.begin() + 44);
    const Bytes random = RandomBytes(4660);
    WriteBytes(temp / "2001.bin", random);
    for (const auto& [id, before] : {std::pair{"2001", Bytes(random.begin(), random.begin() + 2612)}, {"2002", erased}}) {
        SCOPED_TRACE(id);
        const fs::path block = temp / (std::string(id) + ".bin");
        const RunResult run = Shell(Provision() + " device " + TheStudy().dir.string() + " --id " + id + " --block " +
                                    block.string());
        ASSERT_EQ(run.code, 0) << run.output;
        const Bytes after = ReadBytes(block);
        ASSERT_EQ(after.size(), 4660u);
        EXPECT_EQ(Bytes(after.begin(), after.begin() + 2612), before) << "bytes before the key region";
        EXPECT_EQ(std::string(after.begin() + 2612, after.begin() + 2616), "ZOLW");
        const struct
        {
            size_t at, length, room;
            Bytes header;  // the length, BLOBHEADER and RSAPUBKEY
        } slots[] = {
            {2624, 404, 504, {0x94, 1, 0, 0, 6, 2, 0, 0, 0, 0x24, 0, 0, 'R', 'S', 'A', '1', 0, 0x0C, 0, 0, 1, 0, 1, 0}},
            {3132, 596, 1016, {0x54, 2, 0, 0, 7, 2, 0, 0, 0, 0x24, 0, 0, 'R', 'S', 'A', '2', 0, 4, 0, 0, 1, 0, 1, 0}},
            {4152, 404, 504, {0x94, 1, 0, 0, 6, 2, 0, 0, 0, 0xA4, 0, 0, 'R', 'S', 'A', '1', 0, 0x0C, 0, 0, 1, 0, 1, 0}},
        };
        for (const auto& slot : slots) {
            EXPECT_EQ(Bytes(after.begin() + slot.at, after.begin() + slot.at + 24), slot.header) << slot.at;
            EXPECT_EQ(Bytes(after.begin() + slot.at + 4 + slot.length, after.begin() + slot.at + 4 + slot.room),
                      Bytes(slot.room - slot.length, 0xFF))
                << "erased rest of the slot at " << slot.at;
        }
        BlockKeys keys;
        ASSERT_TRUE(ReadBlockKeys(block, &keys));
        std::string error;
        for (const auto& [key, pem] : {std::pair{keys.authority.get(), std::string("authority.pub.pem")},
                                       {keys.server.get(), "server.pub.pem"},
                                       {keys.device.get(), "devices/000000" + std::string(id) + ".pub.pem"}})
            EXPECT_EQ(EVP_PKEY_eq(key, study::ReadPem(TheStudy().dir / pem, false, &error).get()), 1) << pem;
    }
}

TEST(Provision, RefusesBadInputWithOneLineAndChangesNothing)
{
    TempDir temp;
    const std::string study = TheStudy().dir.string();
    WriteBytes(temp / "short.bin", Bytes(100, 0xFF));
    WriteBytes(temp / "erased.bin", Bytes(4660, 0xFF));
    const std::string fresh = (temp / "fresh.bin").string();
    const struct
    {
        std::string args;
        int code;
        std::string says;
    } cases[] = {
        {"study " + study, 1, "already exists"},
        {"device " + (temp / "nostudy").string() + " --id 5 --block " + fresh, 1, "is not a study folder"},
        {"device " + study + " --id 12a --block " + fresh, 1, "bad device id"},
        {"device " + study + " --id 12345678901 --block " + fresh, 1, "bad device id"},
        {"device " + study + " --id 4294967296 --block " + fresh, 1, "bad device id"},
        {"device " + study + " --id -1 --block " + fresh, 1, "bad device id"},
        {"device " + study + " --id 1234 --block " + fresh, 1, "already provisioned"},
        {"device " + study + " --id 3001 --block " + (temp / "short.bin").string(), 1, "is 100 bytes"},
        {"device " + study + " --id 3002 --block " + TheStudy().block.string(), 1, "already holds a device's keys"},
        {"device " + study + " --id 3003 --block " + (temp / "nodir" / "b.bin").string(), 1, "cannot write"},
        {"show " + (temp / "short.bin").string(), 1, "is 100 bytes"},
        {"show " + (temp / "erased.bin").string(), 1, "no \"ZOLW\" tag"},
        {"device " + study + " --block " + fresh, 2, "usage:"},
    };
    const Bytes block = ReadBytes(TheStudy().block), key = ReadBytes(TheStudy().dir / "server.key.pem");
    for (const auto& c : cases) {
        const RunResult run = Shell(Provision() + " " + c.args);
        EXPECT_EQ(run.code, c.code) << c.args << "\n" << run.output;
        EXPECT_NE(run.output.find(c.says), std::string::npos) << c.args << "\n" << run.output;
        if (c.code == 1 && c.args.rfind("show", 0) != 0)
            EXPECT_EQ(LineCount(run.output), 1u) << run.output;
    }
    EXPECT_FALSE(fs::exists(fresh));
    EXPECT_EQ(ReadBytes(TheStudy().block), block);
    EXPECT_EQ(ReadBytes(TheStudy().dir / "server.key.pem"), key);
    for (const char* id : {"0000003001", "0000003002", "0000003003"})
        EXPECT_FALSE(fs::exists(TheStudy().dir / "devices" / (std::string(id) + ".pub.pem"))) << id;
}

TEST(Provision, ShowNamesTheStudysKeysAndDevice)
{
    const std::string show = Provision() + " show " + TheStudy().block.string() + " --study ";
    const RunResult own = Shell(show + TheStudy().dir.string());
    EXPECT_EQ(own.code, 0) << own.output;
    EXPECT_NE(own.output.find("device " + TheStudy().deviceId), std::string::npos) << own.output;
    EXPECT_EQ(LineCount(own.output), 5u) << own.output;

    // A study whose keys are swapped and that knows no device.
    TempDir other;
    fs::create_directory(other / "devices");
    fs::copy_file(TheStudy().dir / "server.pub.pem", other / "authority.pub.pem");
    fs::copy_file(TheStudy().dir / "authority.pub.pem", other / "server.pub.pem");
    const RunResult foreign = Shell(show + other.path().string());
    EXPECT_EQ(foreign.code, 1) << foreign.output;
    size_t nots = 0;
    for (size_t at = 0; (at = foreign.output.find("NOT", at)) != std::string::npos; ++at)
        ++nots;
    EXPECT_EQ(nots, 3u) << foreign.output;
}

}  // namespace
