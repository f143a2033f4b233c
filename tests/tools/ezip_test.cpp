// ezip: packages made by the reference encoder with the keys of a block that
// provision made, opened and refused.
#include <gtest/gtest.h>

#include <functional>

#include "tests/tools/support/PackageEncoder.h"
#include "tests/tools/support/ToolsTestKit.h"
#include "tools/crypto/RsaKey.h"
#include "tools/ezip/Package.h"
#include "tools/ezip/Receive.h"
#include "tools/study/Study.h"

namespace {

using namespace toolstest;
using study::Outcome;

const BlockKeys& Keys()
{
    static BlockKeys keys;
    if (keys.device == nullptr) {
        EXPECT_TRUE(ReadBlockKeys(TheStudy().block, &keys));
    }
    return keys;
}

std::string ServerKey()
{
    return (TheStudy().dir / "server.key.pem").string();
}

fs::path Encoded(const TempDir& temp, ByteView plain, EVP_PKEY* device = nullptr)
{
    const fs::path path = temp / "session.ezip";
    WriteBytes(path, EncodePackage(device ? device : Keys().device.get(), Keys().server.get(), plain));
    return path;
}

RunResult Open(const fs::path& package, const fs::path& out, const std::string& key = ServerKey())
{
    return Shell(Ezip() + " open " + package.string() + " --key " + key + " --out " + out.string() + " --study " +
                 TheStudy().dir.string());
}

RunResult Verify(const fs::path& package, const std::string& key = ServerKey())
{
    return Shell(Ezip() + " verify " + package.string() + " --key " + key + " --study " + TheStudy().dir.string());
}

// Nothing named like out, nor a half-unpacked folder beside it.
void ExpectNothingWritten(const fs::path& out)
{
    EXPECT_FALSE(fs::exists(out));
    for (const auto& entry : fs::directory_iterator(out.parent_path()))
        EXPECT_EQ(entry.path().filename().string().find(".ezip-"), std::string::npos) << entry.path();
}

TEST(Ezip, OpensAZipOfSeveralFilesByteForByte)
{
    TempDir temp;
    const std::vector<std::pair<std::string, Bytes>> files = {
        {"0000001234_200402031012_001.motr", RandomBytes(300000)},              // stored: does not compress
        {"Manifest.txt", Bytes(200000, 'm')},                                   // deflated
        {"empty.txt", {}},
        {"answers/q1.txt", {'1', ',', '2', '\r', '\n'}},
    };
    fs::create_directories(temp / "src" / "answers");
    for (const auto& [name, data] : files)
        WriteBytes(temp / "src" / name, data);
    ASSERT_EQ(Shell("cd " + (temp / "src").string() + " && zip -qr ../in.zip .").code, 0);
    const fs::path package = Encoded(temp, ReadBytes(temp / "in.zip"));

    const RunResult info = Shell(Ezip() + " info " + package.string() + " --study " + TheStudy().dir.string());
    EXPECT_EQ(info.code, 0) << info.output;
    EXPECT_NE(info.output.find("device:      " + TheStudy().deviceId), std::string::npos) << info.output;
    const RunResult verified = Verify(package);
    EXPECT_EQ(verified.code, 0) << verified.output;

    const RunResult opened = Open(package, temp / "out");
    ASSERT_EQ(opened.code, 0) << opened.output;
    EXPECT_NE(opened.output.find("from device " + TheStudy().deviceId), std::string::npos) << opened.output;
    for (const auto& [name, data] : files)
        EXPECT_EQ(ReadBytes(temp / "out" / name), data) << name;
}

study::Pkey PrivateKey(const std::string& path)
{
    std::string error;
    study::Pkey key = study::ReadPem(path, true, &error);
    EXPECT_NE(key, nullptr) << error;
    return key;
}

// Whole 32768-byte pieces (and none) carry no padding; anything else does.
TEST(Ezip, DecryptsEveryPlainLength)
{
    const study::Pkey server = PrivateKey(ServerKey());
    const struct
    {
        size_t plain, cipher;
    } cases[] = {{0, 0}, {1, 8}, {8, 16}, {32760, 32768}, {32768, 32768}, {40000, 40008}, {65536, 65536}};
    for (const auto& c : cases) {
        TempDir temp;
        const Bytes plain = RandomBytes(c.plain);
        study::Package package;
        study::Verdict verdict;
        Bytes decrypted;
        ASSERT_TRUE(package.Open(Encoded(temp, plain), &verdict) && package.Unwrap(server.get(), &verdict) &&
                    package.Decrypt(&decrypted, &verdict))
            << c.plain << ": " << verdict.message;
        EXPECT_EQ(package.cipherBytes(), c.cipher) << c.plain;
        EXPECT_EQ(decrypted, plain) << c.plain;
    }
}

// Devices whose provider gives RC2 keys 40 effective bits.
TEST(Ezip, OpensAPackageWithFortyEffectiveKeyBits)
{
    TempDir temp;
    const Bytes zip = StoredZip({{"a.txt", {'a'}}});
    WriteBytes(temp / "40.ezip", EncodePackage(Keys().device.get(), Keys().server.get(), zip, 40));
    const RunResult run = Open(temp / "40.ezip", temp / "out");
    EXPECT_EQ(run.code, 0) << run.output;
    EXPECT_EQ(ReadBytes(temp / "out" / "a.txt"), Bytes{'a'});
}

// With a 1024-bit server key, so that thousands of unwraps take a moment.
TEST(Ezip, RefusesEverySingleBitFlip)
{
    TempDir temp;
    std::string error;
    const study::Pkey server = study::GenerateRsa(1024, &error);
    const Bytes package = EncodePackage(Keys().device.get(), server.get(), StoredZip({{"a.txt", {'h', 'i'}}}));
    study::Study study;
    ASSERT_TRUE(study.Open(TheStudy().dir, &error)) << error;
    study::ReceiveRequest request;
    request.package = (temp / "flipped.ezip").string();
    request.serverKey = server.get();
    request.study = &study;
    WriteBytes(request.package, package);
    ASSERT_EQ(study::Receive(request).outcome, Outcome::kOk) << study::Receive(request).message;
    size_t accepted = 0;
    for (size_t bit = 0; bit < package.size() * 8; ++bit) {
        Bytes flipped = package;
        flipped[bit / 8] ^= static_cast<uint8_t>(1 << (bit % 8));
        WriteBytes(request.package, flipped);
        if (study::Receive(request).outcome == Outcome::kOk && ++accepted <= 5)
            ADD_FAILURE() << "accepted with bit " << bit % 8 << " of byte " << bit / 8 << " flipped";
    }
    EXPECT_EQ(accepted, 0u) << "of " << package.size() * 8 << " flips";
}

uint32_t FieldAt(const Bytes& package, size_t at)
{
    return package[at] | (package[at + 1] << 8) | (package[at + 2] << 16) |
           (static_cast<uint32_t>(package[at + 3]) << 24);
}

TEST(Ezip, TruncatedPackagesSayWhere)
{
    TempDir temp;
    const Bytes package = EncodePackage(Keys().device.get(), Keys().server.get(), StoredZip({{"a.txt", Bytes(90, 'x')}}));
    const size_t k = FieldAt(package, 0), s = FieldAt(package, 4 + k), b = FieldAt(package, 8 + k + s);
    const size_t cipher = 12 + k + s + b, end = package.size();
    const struct
    {
        size_t length;
        int code;
    } cases[] = {
        {0, 3},          {2, 3},          {4, 3},          {4 + k / 2, 3},  {4 + k, 3},     {6 + k, 3},
        {8 + k, 3},      {8 + k + s - 1, 3}, {8 + k + s, 3}, {10 + k + s, 3}, {12 + k + s, 3}, {cipher - 1, 3},
        {cipher, 5},     {cipher + 5, 3}, {cipher + 8, 5}, {end - 8, 5},    {end - 1, 3},
    };
    for (const auto& c : cases) {
        WriteBytes(temp / "cut.ezip", ByteView(package.data(), c.length));
        const RunResult run = Verify(temp / "cut.ezip");
        EXPECT_EQ(run.code, c.code) << "cut at " << c.length << ": " << run.output;
    }
}

TEST(Ezip, AbsurdLengthsAreNoPackage)
{
    TempDir temp;
    const Bytes package = EncodePackage(Keys().device.get(), Keys().server.get(), StoredZip({{"a", {}}}));
    const size_t k = FieldAt(package, 0), s = FieldAt(package, 4 + k);
    const struct
    {
        size_t at;
        uint32_t value;
    } cases[] = {{0, 0xFFFFFFFF}, {0, 0}, {0, 0x80000094}, {4 + k, 0xFFFFFFFF}, {4 + k, 0},
                 {4 + k, 127},    {8 + k + s, 0xFFFFFFFF}, {8 + k + s, 0}, {8 + k + s, 0x8000018C}};
    for (const auto& c : cases) {
        Bytes bad = package;
        for (int i = 0; i < 4; ++i)
            bad[c.at + i] = static_cast<uint8_t>(c.value >> (8 * i));
        WriteBytes(temp / "bad.ezip", bad);
        const RunResult run = Verify(temp / "bad.ezip");
        EXPECT_EQ(run.code, 2) << c.value << " at " << c.at << ": " << run.output;
    }
    const RunResult zip = Verify([&] {
        WriteBytes(temp / "plain.zip", StoredZip({{"a", {}}}));
        return temp / "plain.zip";
    }());
    EXPECT_EQ(zip.code, 2) << zip.output;
}

TEST(Ezip, AnotherServerKeyIsTheWrongKey)
{
    TempDir temp;
    const fs::path package = Encoded(temp, StoredZip({{"a", {}}}));
    for (unsigned bits : {3072u, 1024u}) {
        std::string error;
        const study::Pkey other = study::GenerateRsa(bits, &error);
        const std::string path = (temp / ("other" + std::to_string(bits) + ".pem")).string();
        ASSERT_TRUE(study::WritePem(path, other.get(), true, &error)) << error;
        const RunResult run = Open(package, temp / "out", path);
        EXPECT_EQ(run.code, 4) << run.output;
        EXPECT_NE(run.output.find("wrong server key"), std::string::npos) << run.output;
        ExpectNothingWritten(temp / "out");
    }
}

// Anyone can sign: the key must be one the study recorded, under the id it
// was recorded with, by the study's authority.
TEST(Ezip, RefusesDevicesTheStudyDidNotProvision)
{
    std::string error;
    const study::Pkey stranger = study::GenerateRsa(1024, &error);
    const std::string strangerPem = study::PublicPem(stranger.get());
    const std::string own = TheStudy().deviceId;
    const struct
    {
        const char* what;
        EVP_PKEY* signer;
        std::function<void(const fs::path& devices)> tamper;
    } cases[] = {
        {"a key never recorded", stranger.get(), [](const fs::path&) {}},
        {"a record the authority never signed", stranger.get(),
         [&](const fs::path& devices) {
             WriteBytes(devices / "0000009999.pub.pem", Bytes(strangerPem.begin(), strangerPem.end()));
             fs::copy_file(devices / (own + ".sig"), devices / "0000009999.sig");
         }},
        {"a record moved to another id", Keys().device.get(),
         [&](const fs::path& devices) {
             fs::rename(devices / (own + ".pub.pem"), devices / "0000005678.pub.pem");
             fs::rename(devices / (own + ".sig"), devices / "0000005678.sig");
         }},
    };
    for (const auto& c : cases) {
        TempDir temp;
        fs::copy(TheStudy().dir, temp / "study", fs::copy_options::recursive);
        c.tamper(temp / "study" / "devices");
        const fs::path package = Encoded(temp, StoredZip({{"a", {}}}), c.signer);
        const RunResult run = Shell(Ezip() + " open " + package.string() + " --key " +
                                    (temp / "study" / "server.key.pem").string() + " --out " + (temp / "out").string());
        EXPECT_EQ(run.code, 6) << c.what << ": " << run.output;
        ExpectNothingWritten(temp / "out");
    }
}

// The device signed these bytes, but they are no sound archive.
TEST(Ezip, CorruptArchivesWriteNothing)
{
    const Bytes good = StoredZip({{"a.txt", Bytes(40, 'a')}});
    auto patched = [](Bytes zip, size_t at, uint8_t value) {
        zip[at] = value;
        return zip;
    };
    TempDir deflated;
    WriteBytes(deflated / "m.txt", Bytes(5000, 'm'));
    ASSERT_EQ(Shell("cd " + deflated.path().string() + " && zip -q d.zip m.txt").code, 0);
    const Bytes zipped = ReadBytes(deflated / "d.zip");
    const size_t deflateMiddle = 30 + (zipped[26] | zipped[27] << 8) + (zipped[28] | zipped[29] << 8) +
                                 (zipped[18] | zipped[19] << 8) / 2;
    const struct
    {
        const char* what;
        Bytes plain;
    } cases[] = {
        {"data that fails its CRC", patched(good, 30 + 5 + 3, 'b')},
        {"a name climbing out", StoredZip({{"../evil.txt", {}}})},
        {"a name climbing out on Windows", StoredZip({{"..\\evil.txt", {}}})},
        {"an absolute name", StoredZip({{"/tmp/evil.txt", {}}})},
        {"a drive letter", StoredZip({{"C:evil.txt", {}}})},
        {"the same name twice", StoredZip({{"a.txt", {}}, {"a.txt", {}}})},
        {"a file where a folder goes", StoredZip({{"a", {'1'}}, {"a/b", {'2'}}})},
        {"a local header that disagrees", patched(good, 30, 'A')},
        {"no end record", Bytes(good.begin(), good.end() - 22)},
        {"nothing at all", {}},
        {"a damaged deflate stream", patched(zipped, deflateMiddle, zipped[deflateMiddle] ^ 0x55)},
    };
    for (const auto& c : cases) {
        TempDir temp;
        const RunResult run = Open(Encoded(temp, c.plain), temp / "out");
        EXPECT_EQ(run.code, 7) << c.what << ": " << run.output;
        ExpectNothingWritten(temp / "out");
    }
}

TEST(Ezip, OpensOnlyIntoANewOrEmptyFolder)
{
    TempDir temp;
    const fs::path package = Encoded(temp, StoredZip({{"a.txt", {'a'}}}));
    fs::create_directories(temp / "busy");
    WriteBytes(temp / "busy" / "keep.txt", Bytes{'k'});
    const RunResult busy = Open(package, temp / "busy");
    EXPECT_EQ(busy.code, 1) << busy.output;
    EXPECT_EQ(fs::directory_iterator(temp / "busy")->path().filename(), "keep.txt");

    fs::create_directories(temp / "empty");
    const RunResult empty = Open(package, temp / "empty");
    EXPECT_EQ(empty.code, 0) << empty.output;
    EXPECT_EQ(ReadBytes(temp / "empty" / "a.txt"), Bytes{'a'});
}

}  // namespace
