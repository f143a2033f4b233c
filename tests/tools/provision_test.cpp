// provision: the study folder, the device registry and the key region of
// configuration block images, read back with the reference reader.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/tools/support/PackageEncoder.h"
#include "tests/tools/support/ToolsTestKit.h"
#include "tools/crypto/RsaKey.h"

namespace {

using namespace toolstest;

uint32_t Le(const Bytes& b, size_t at)
{
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<uint32_t>(b[at + 3]) << 24);
}

study::Pkey Pem(const fs::path& path)
{
    std::string error;
    study::Pkey key = study::ReadPem(path, false, &error);
    EXPECT_NE(key, nullptr) << error;
    return key;
}

TEST(Provision, StudyKeepsItsPrivateKeysPrivateAndIsMadeOnce)
{
    const fs::path dir = TheStudy().dir;
    for (const auto& [name, mode] : {std::pair{"server.key.pem", 0600}, {"authority.key.pem", 0600},
                                     {"server.pub.pem", 0644}, {"authority.pub.pem", 0644}}) {
        struct stat st;
        ASSERT_EQ(stat((dir / name).c_str(), &st), 0) << name;
        EXPECT_EQ(st.st_mode & 0777, static_cast<unsigned>(mode)) << name;
    }
    const Bytes before = ReadBytes(dir / "server.key.pem");
    const RunResult again = Shell(Provision() + " study " + dir.string());
    EXPECT_EQ(again.code, 1);
    EXPECT_NE(again.output.find("already exists"), std::string::npos) << again.output;
    EXPECT_EQ(ReadBytes(dir / "server.key.pem"), before);
}

// Into an existing block: only the key region changes; each blob sits in its
// slot with the header CryptoAPI wants, and holds the study's keys and the
// recorded device's key pair.
TEST(Provision, WritesTheThreeBlobsIntoTheKeyRegionOnly)
{
    TempDir temp;
    const fs::path block = temp / "flashblock.bin";
    const Bytes before = RandomBytes(4660);
    WriteBytes(block, before);
    const RunResult run = Shell(Provision() + " device " + TheStudy().dir.string() + " --id 2001 --block " + block.string());
    ASSERT_EQ(run.code, 0) << run.output;

    const Bytes after = ReadBytes(block);
    ASSERT_EQ(after.size(), 4660u);
    EXPECT_TRUE(std::equal(before.begin(), before.begin() + 2612, after.begin())) << "bytes before the key region";
    EXPECT_EQ(std::string(after.begin() + 2612, after.begin() + 2616), "ZOLW");
    const struct
    {
        size_t at, length, room;
        Bytes header;  // BLOBHEADER and RSAPUBKEY
    } slots[] = {
        {2624, 404, 504, {0x06, 2, 0, 0, 0x00, 0x24, 0, 0, 'R', 'S', 'A', '1', 0x00, 0x0C, 0, 0, 0x01, 0x00, 0x01, 0}},
        {3132, 596, 1016, {0x07, 2, 0, 0, 0x00, 0x24, 0, 0, 'R', 'S', 'A', '2', 0x00, 0x04, 0, 0, 0x01, 0x00, 0x01, 0}},
        {4152, 404, 504, {0x06, 2, 0, 0, 0x00, 0xA4, 0, 0, 'R', 'S', 'A', '1', 0x00, 0x0C, 0, 0, 0x01, 0x00, 0x01, 0}},
    };
    for (const auto& slot : slots) {
        EXPECT_EQ(Le(after, slot.at), slot.length) << slot.at;
        EXPECT_EQ(Bytes(after.begin() + slot.at + 4, after.begin() + slot.at + 24), slot.header) << slot.at;
        for (size_t i = slot.at + 4 + slot.length; i < slot.at + 4 + slot.room; ++i)
            ASSERT_EQ(after[i], 0xFF) << "erased rest of the slot at " << slot.at;
    }

    BlockKeys keys;
    ASSERT_TRUE(ReadBlockKeys(block, &keys));
    EXPECT_EQ(EVP_PKEY_eq(keys.authority.get(), Pem(TheStudy().dir / "authority.pub.pem").get()), 1);
    EXPECT_EQ(EVP_PKEY_eq(keys.server.get(), Pem(TheStudy().dir / "server.pub.pem").get()), 1);
    EXPECT_EQ(EVP_PKEY_eq(keys.device.get(), Pem(TheStudy().dir / "devices" / "0000002001.pub.pem").get()), 1);
    // The private numbers make one key pair: what it signs, the recorded key verifies.
    Bytes signature;
    std::string error;
    ASSERT_TRUE(study::SignSha256(keys.device.get(), Bytes{1, 2, 3}, &signature, &error)) << error;
    EXPECT_TRUE(study::VerifySha256(Pem(TheStudy().dir / "devices" / "0000002001.pub.pem").get(), Bytes{1, 2, 3},
                                    signature));
}

TEST(Provision, MakesAMissingBlockErasedWithTheBootLoaderMagic)
{
    TempDir temp;
    const RunResult run =
        Shell(Provision() + " device " + TheStudy().dir.string() + " --id 2002 --block " + (temp / "new.bin").string());
    ASSERT_EQ(run.code, 0) << run.output;
    Bytes expected(2612, 0xFF);
    expected[44] = 0x00;
    expected[45] = 0x20;
    expected[46] = 0x23;
    expected[47] = 0x11;
    const Bytes made = ReadBytes(temp / "new.bin");
    ASSERT_EQ(made.size(), 4660u);
    EXPECT_EQ(Bytes(made.begin(), made.begin() + 2612), expected);
}

// The registry can be checked without these tools: the authority signs the
// ten digits of the id followed by the device key's DER.
TEST(Provision, RegistryRecordsVerifyWithTheOpensslCommand)
{
    const fs::path devices = TheStudy().dir / "devices";
    const std::string pem = (devices / (TheStudy().deviceId + ".pub.pem")).string();
    const RunResult run = Shell("(printf " + TheStudy().deviceId + "; openssl pkey -pubin -in " + pem +
                              " -outform DER) | openssl dgst -sha256 -verify " +
                              (TheStudy().dir / "authority.pub.pem").string() + " -signature " +
                              (devices / (TheStudy().deviceId + ".sig")).string());
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(run.output, "Verified OK\n");
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
    const Bytes block = ReadBytes(TheStudy().block);
    for (const auto& c : cases) {
        const RunResult run = Shell(Provision() + " " + c.args);
        EXPECT_EQ(run.code, c.code) << c.args << "\n" << run.output;
        EXPECT_NE(run.output.find(c.says), std::string::npos) << c.args << "\n" << run.output;
        if (c.code == 1 && c.args.rfind("show", 0) != 0) {
            EXPECT_EQ(std::count(run.output.begin(), run.output.end(), '\n'), 1) << run.output;
        }
    }
    EXPECT_FALSE(fs::exists(fresh));
    EXPECT_EQ(ReadBytes(TheStudy().block), block);
    for (const char* id : {"0000003001", "0000003002", "0000003003"})
        EXPECT_FALSE(fs::exists(TheStudy().dir / "devices" / (std::string(id) + ".pub.pem"))) << id;
}

TEST(Provision, ShowNamesTheStudysKeysAndDevice)
{
    const RunResult own = Shell(Provision() + " show " + TheStudy().block.string() + " --study " + TheStudy().dir.string());
    EXPECT_EQ(own.code, 0) << own.output;
    EXPECT_NE(own.output.find("device " + TheStudy().deviceId), std::string::npos) << own.output;
    EXPECT_EQ(std::count(own.output.begin(), own.output.end(), '\n'), 5) << own.output;

    // A study whose keys are swapped and that knows no device.
    TempDir other;
    fs::create_directory(other / "devices");
    fs::copy_file(TheStudy().dir / "server.pub.pem", other / "authority.pub.pem");
    fs::copy_file(TheStudy().dir / "authority.pub.pem", other / "server.pub.pem");
    const RunResult foreign = Shell(Provision() + " show " + TheStudy().block.string() + " --study " + other.path().string());
    EXPECT_EQ(foreign.code, 1) << foreign.output;
    size_t mismatches = 0;
    for (size_t at = foreign.output.find("NOT"); at != std::string::npos; at = foreign.output.find("NOT", at + 1))
        ++mismatches;
    EXPECT_EQ(mismatches, 3u) << foreign.output;
}

}  // namespace
