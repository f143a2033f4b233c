// ezip on packages made by the reference encoder.
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

RunResult Open(const fs::path& package, const fs::path& out)
{
    return Ezip("open", package, "--key " + ServerKey() + " --out " + out.string() + " --study " + TheStudy().dir.string());
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

// Refused with the exit status that says why, and nothing written: another
// server's key (4); devices the study did not provision (6: anyone can sign,
// so the key must be one the study recorded, under the id it was recorded
// with, by the study's authority); signed bytes that are no sound archive (7).
TEST(Ezip, RefusalsWriteNothing)
{
    TempDir keys;
    std::string error;
    const study::Pkey stranger = study::GenerateRsa(1024, &error);
    const std::string strangerPem = study::PublicPem(stranger.get()), own = TheStudy().deviceId;
    for (unsigned bits : {3072u, 1024u})
        ASSERT_TRUE(study::WritePem(keys / (std::to_string(bits) + ".pem"), study::GenerateRsa(bits, &error).get(),
                                    true, &error))
            << error;
    const Bytes good = StoredZip({{"a.txt", Bytes(40, 'a')}}), empty = StoredZip({{"a", {}}});
    auto patched = [](Bytes zip, size_t at, uint8_t value) {
        zip[at] = value;
        return zip;
    };
    WriteBytes(keys / "m.txt", Bytes(5000, 'm'));
    ASSERT_EQ(Shell("cd " + keys.path().string() + " && zip -q d.zip m.txt").code, 0);
    const Bytes zipped = ReadBytes(keys / "d.zip");
    const size_t deflateMiddle = 30 + (zipped[26] | zipped[27] << 8) + (zipped[28] | zipped[29] << 8) +
                                 (zipped[18] | zipped[19] << 8) / 2;
    const struct
    {
        const char* what;
        Bytes plain;
        int code;
        EVP_PKEY* signer = nullptr;  // the study's device
        std::function<void(const fs::path& study)> tamper;
        std::string key = "server.key.pem";  // the study's, or another named with the study
    } cases[] = {
        {"a 3072-bit key of another server", empty, 4, nullptr, {}, (keys / "3072.pem").string()},
        {"a 1024-bit key of another server", empty, 4, nullptr, {}, (keys / "1024.pem").string()},
        {"a key never recorded", empty, 6, stranger.get()},
        {"a record the authority never signed", empty, 6, stranger.get(),
         [&](const fs::path& study) {
             WriteText(study / "devices" / "0000009999.pub.pem", strangerPem);
             fs::copy_file(study / "devices" / (own + ".sig"), study / "devices" / "0000009999.sig");
         }},
        {"a record moved to another id", empty, 6, nullptr,
         [&](const fs::path& study) {
             fs::rename(study / "devices" / (own + ".pub.pem"), study / "devices" / "0000005678.pub.pem");
             fs::rename(study / "devices" / (own + ".sig"), study / "devices" / "0000005678.sig");
         }},
        {"data that fails its CRC", patched(good, 30 + 5 + 3, 'b'), 7},
        {"a name climbing out", StoredZip({{"../evil.txt", {}}}), 7},
        {"a name climbing out on Windows", StoredZip({{"..\\evil.txt", {}}}), 7},
        {"an absolute name", StoredZip({{"/tmp/evil.txt", {}}}), 7},
        {"a drive letter", StoredZip({{"C:evil.txt", {}}}), 7},
        {"the same name twice", StoredZip({{"a.txt", {}}, {"a.txt", {}}}), 7},
        {"a file where a folder goes", StoredZip({{"a", {'1'}}, {"a/b", {'2'}}}), 7},
        {"a local header that disagrees", patched(good, 30, 'A'), 7},
        {"no end record", Bytes(good.begin(), good.end() - 22), 7},
        {"nothing at all", {}, 7},
        {"a damaged deflate stream", patched(zipped, deflateMiddle, zipped[deflateMiddle] ^ 0x55), 7},
    };
    for (const auto& c : cases) {
        TempDir temp;
        fs::copy(TheStudy().dir, temp / "study", fs::copy_options::recursive);
        if (c.tamper)
            c.tamper(temp / "study");
        const bool ownKey = fs::path(c.key).is_relative();  // the study is the key's folder
        const RunResult run = Ezip("open", Encoded(temp, c.plain, c.signer),
                                   "--key " + (temp / "study" / c.key).string() + " --out " + (temp / "out").string() +
                                       (ownKey ? "" : " --study " + (temp / "study").string()));
        EXPECT_EQ(run.code, c.code) << c.what << ": " << run.output;
        if (c.code == 4)
            EXPECT_NE(run.output.find("wrong server key"), std::string::npos) << run.output;
        EXPECT_FALSE(fs::exists(temp / "out"));
        for (const auto& entry : fs::directory_iterator(temp.path()))  // nor a half-unpacked folder
            EXPECT_EQ(entry.path().filename().string().find(".ezip-"), std::string::npos) << entry.path();
    }
}

}  // namespace
