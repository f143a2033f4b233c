// ezip: packages made by the reference encoder with the keys of a block that
// provision made, opened and refused.
#include <gtest/gtest.h>

#include <functional>
#include <tuple>

#include "tests/tools/support/PackageEncoder.h"
#include "tests/tools/support/ToolsTestKit.h"
#include "tools/crypto/RsaKey.h"
#include "tools/ezip/Package.h"
#include "tools/ezip/Receive.h"
#include "tools/study/Study.h"

namespace {

using namespace toolstest;

const BlockKeys& Keys()
{
    static BlockKeys keys;
    [[maybe_unused]] static const bool read = ReadBlockKeys(TheStudy().block, &keys);
    return keys;
}

std::string ServerKey() { return (TheStudy().dir / "server.key.pem").string(); }

Bytes Encode(ByteView plain, EVP_PKEY* device = nullptr, unsigned effectiveBits = 128)
{
    return EncodePackage(device ? device : Keys().device.get(), Keys().server.get(), plain, effectiveBits);
}

fs::path Encoded(const TempDir& temp, ByteView plain, EVP_PKEY* device = nullptr)
{
    WriteBytes(temp / "session.ezip", Encode(plain, device));
    return temp / "session.ezip";
}

RunResult Ezip(const std::string& command, const fs::path& package, const std::string& rest)
{
    return Shell(toolstest::Ezip() + " " + command + " " + package.string() + " " + rest);
}

RunResult Open(const fs::path& package, const fs::path& out, const std::string& key = ServerKey())
{
    return Ezip("open", package, "--key " + key + " --out " + out.string() + " --study " + TheStudy().dir.string());
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
        {"0000001234_200402031012_001.motr", RandomBytes(300000)},  // stored: does not compress
        {"Manifest.txt", Bytes(200000, 'm')},                       // deflated
        {"empty.txt", {}},
        {"answers/q1.txt", {'1', ',', '2', '\r', '\n'}},
    };
    fs::create_directories(temp / "src" / "answers");
    for (const auto& [name, data] : files)
        WriteBytes(temp / "src" / name, data);
    ASSERT_EQ(Shell("cd " + (temp / "src").string() + " && zip -qr ../in.zip .").code, 0);
    const fs::path package = Encoded(temp, ReadBytes(temp / "in.zip"));

    fs::create_directory(temp / "out");  // an empty folder is as good as none
    for (const auto& [run, says] : {std::pair{Ezip("info", package, "--study " + TheStudy().dir.string()), "device:      "},
                                    {Open(package, temp / "out"), "from device "}}) {
        ASSERT_EQ(run.code, 0) << run.output;
        EXPECT_NE(run.output.find(says + TheStudy().deviceId), std::string::npos) << run.output;
    }
    for (const auto& [name, data] : files)
        EXPECT_EQ(ReadBytes(temp / "out" / name), data) << name;

    // Into a folder that holds something: refused, the folder left alone.
    const RunResult busy = Open(package, temp / "src");
    EXPECT_EQ(busy.code, 1) << busy.output;
    EXPECT_EQ(ReadBytes(temp / "src" / "Manifest.txt"), files[1].second);
}

// Whole 32768-byte pieces (and none) carry no padding; anything else does.
// Devices whose provider gives RC2 keys 40 effective bits are read too.
TEST(Ezip, DecryptsEveryPlainLengthAndBothEffectiveKeyLengths)
{
    std::string error;
    const study::Pkey server = study::ReadPem(ServerKey(), true, &error);
    ASSERT_NE(server, nullptr) << error;
    // Plain text, cipher text, effective bits.
    const std::tuple<size_t, size_t, unsigned> cases[] = {
        {0, 0, 128},         {1, 8, 128},         {8, 16, 128},         {32760, 32768, 128},
        {32768, 32768, 128}, {40000, 40008, 128}, {65536, 65536, 128}, {100, 104, 40}};
    for (const auto& [length, cipher, bits] : cases) {
        TempDir temp;
        // A ZIP archive's signature starts the plain text, as the 40-bit guess needs.
        Bytes plain = RandomBytes(length);
        std::copy_n("PK\3\4", std::min<size_t>(4, length), plain.begin());
        WriteBytes(temp / "p.ezip", Encode(plain, nullptr, bits));
        study::Package package;
        study::Verdict verdict;
        Bytes decrypted;
        ASSERT_TRUE(package.Open((temp / "p.ezip").string(), &verdict) && package.Unwrap(server.get(), &verdict) &&
                    package.Decrypt(&decrypted, &verdict))
            << length << ": " << verdict.message;
        EXPECT_EQ(package.cipherBytes(), cipher) << length;
        EXPECT_EQ(package.effectiveBits(), bits) << length;
        EXPECT_EQ(decrypted, plain) << length;
    }
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
    ASSERT_EQ(study::Receive(request).outcome, study::Outcome::kOk) << study::Receive(request).message;
    size_t accepted = 0;
    for (size_t bit = 0; bit < package.size() * 8; ++bit) {
        Bytes flipped = package;
        flipped[bit / 8] ^= static_cast<uint8_t>(1 << (bit % 8));
        WriteBytes(request.package, flipped);
        if (study::Receive(request).outcome == study::Outcome::kOk && ++accepted <= 5)
            ADD_FAILURE() << "accepted with bit " << bit % 8 << " of byte " << bit / 8 << " flipped";
    }
    EXPECT_EQ(accepted, 0u) << "of " << package.size() * 8 << " flips";
}

// Cut short: 3 (truncated), or 5 where the cut falls on a whole block and
// only the signature can tell. Absurd lengths K, S, B: 2 (not a package).
TEST(Ezip, TruncatedAndAbsurdPackagesSayWhich)
{
    TempDir temp;
    const Bytes package = Encode(StoredZip({{"a.txt", Bytes(90, 'x')}}));
    const size_t k = Le32(package.data()), s = Le32(&package[4 + k]), b = Le32(&package[8 + k + s]);
    const size_t cipher = 12 + k + s + b, end = package.size();
    auto cut = [&](size_t length) { return Bytes(package.begin(), package.begin() + length); };
    auto field = [&](size_t at, uint32_t value) {
        Bytes bad = package;
        for (int i = 0; i < 4; ++i)
            bad[at + i] = static_cast<uint8_t>(value >> (8 * i));
        return bad;
    };
    const std::pair<Bytes, int> cases[] = {
        {cut(0), 3},          {cut(2), 3},          {cut(4), 3},          {cut(4 + k / 2), 3},
        {cut(4 + k), 3},      {cut(6 + k), 3},      {cut(8 + k), 3},      {cut(8 + k + s - 1), 3},
        {cut(8 + k + s), 3},  {cut(10 + k + s), 3}, {cut(12 + k + s), 3}, {cut(cipher - 1), 3},
        {cut(cipher), 5},     {cut(cipher + 5), 3}, {cut(cipher + 8), 5}, {cut(end - 8), 5},
        {cut(end - 1), 3},    {field(0, 0xFFFFFFFF), 2},                  {field(0, 0), 2},
        {field(0, 0x80000094), 2},                  {field(4 + k, 0xFFFFFFFF), 2},
        {field(4 + k, 0), 2}, {field(4 + k, 127), 2},                     {field(8 + k + s, 0xFFFFFFFF), 2},
        {field(8 + k + s, 0), 2},                   {field(8 + k + s, 0x8000018C), 2},
        {StoredZip({{"a", {}}}), 2},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        WriteBytes(temp / "bad.ezip", cases[i].first);
        const RunResult run = Ezip("verify", temp / "bad.ezip", "--key " + ServerKey());
        EXPECT_EQ(run.code, cases[i].second) << "case " << i << ": " << run.output;
    }
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
        const RunResult run = Ezip("open", Encoded(temp, StoredZip({{"a", {}}}), c.signer),
                                   "--key " + (temp / "study" / "server.key.pem").string() + " --out " +
                                       (temp / "out").string());
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
    const std::pair<const char*, Bytes> cases[] = {
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
    for (const auto& [what, plain] : cases) {
        TempDir temp;
        const RunResult run = Open(Encoded(temp, plain), temp / "out");
        EXPECT_EQ(run.code, 7) << what << ": " << run.output;
        ExpectNothingWritten(temp / "out");
    }
}

}  // namespace
