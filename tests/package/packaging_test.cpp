// What is packed here is opened after the run by the study's tools and
// OpenSSL (tests/scripts/package_test.sh).
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "session/FileEncryption.h"
#include "session/FlashAccess.h"
#include "tests/support/PackageDisk.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/McuSim.h"
#include "tests/support/MessagePump.h"

namespace {

using Names = std::vector<std::wstring>;
using S = ScriptObject;
constexpr DISPID kActivityEnded = 14;
constexpr DISPID kSessionEnded = 25;
const char kManifest[] = "study: bench\r\nfiles: motr, wav\r\n";
const wchar_t kData[] = L"\\Hard Disk\\Device Data", kTemp[] = L"\\Device Temp", kZip[] = L"\\compress.zip";
const wchar_t kManifestFile[] = L"\\Hard Disk\\Manifest.txt";

class SessionEndTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ProvisionDisk();
        ASSERT_TRUE(WriteDiskFile(kFlashBlockFile, StudyBlock()) && WriteDiskFile(kManifestFile, kManifest));
        ASSERT_TRUE(InstallCompressLibrary(true));
        for (const std::wstring folder : {kData, kTemp})
            for (const std::wstring& name : FilesIn(folder))
                DeleteFileW((folder + L"\\" + name).c_str());
        RemoveDirectoryW(kZip);
        DeleteFileW(kZip);
        ASSERT_TRUE(control = CreateRegisteredControl());
        ASSERT_NE(AdviseSink(control.Get(), &sink), 0u);
    }
    void OpenAndStart()
    {
        short ok = 0;
        ASSERT_TRUE(control->Open(&ok) == S_OK && ok == 1 && control->SessionStart() == S_OK);
    }
    // Ends the session normally and waits for its SessionEnded cause; a
    // failed packaging also fails the call.
    short EndSession(HRESULT expected = S_OK)
    {
        const size_t before = Count(kSessionEnded);
        EXPECT_EQ(ScriptObject(control.Get()).Call(L"SessionEndNormal"), expected);
        EXPECT_TRUE(PumpUntil([&] { return Count(kSessionEnded) > before; }, 120000));
        const auto e = std::find_if(sink.events.rbegin(), sink.events.rend(),
                                    [](const ReceivedEvent& e) { return e.id == kSessionEnded; });
        return e->args.size() == 1 && e->args[0].vt == VT_I2 ? e->args[0].iVal : -1;
    }
    size_t Count(DISPID id) const
    {
        return std::count_if(sink.events.begin(), sink.events.end(), [&](const ReceivedEvent& e) { return e.id == id; });
    }

    ComApartment com;
    RecordingSink sink;
    ComPtr<IBrennock> control;
};

TEST_F(SessionEndTest, ATappingSessionEndsInOneSignedPackage)
{
    ASSERT_TRUE(McuSim::Running());
    OpenAndStart();
    ASSERT_EQ(S(control.Get()).Call(L"ActivityConfig", {S::I2(1), S::Str(L"Tap"), S::I2(0), S::I2(0)}), S_OK);
    ASSERT_EQ(control->ActivityStart(0), S_OK);
    McuSim mcu;
    for (const char* tap : {"digito left down 120", "digito left up 40", "digito right down 7", "capsit left up"})
        ASSERT_TRUE(mcu.Send(tap));
    ASSERT_TRUE(mcu.Sync());
    ASSERT_TRUE(PumpUntil([&] { return sink.events.size() >= 4; }));
    ASSERT_EQ(control->ActivityEndNormal(), S_OK);
    ASSERT_TRUE(PumpUntil([&] { return Count(kActivityEnded) == 1; }));
    const Names recorded = FilesIn(kTemp);
    ASSERT_EQ(recorded.size(), 1u);
    KeepForChecks(std::wstring(kTemp) + L"\\" + recorded[0], L"session.motr");
    KeepForChecks(kManifestFile, L"session-Manifest.txt");

    EXPECT_EQ(EndSession(), 0);
    EXPECT_FALSE(DiskFileExists(kZip));
    const Names packed = FilesIn(kData);  // (its name: SessionTest and shell_session)
    ASSERT_EQ(packed.size(), 1u);
    KeepForChecks(std::wstring(kData) + L"\\" + packed[0], L"session.ezip");
}

TEST_F(SessionEndTest, WithoutTheLibraryTheFilesAreCopiedAsTheyAre)
{
    // (An end with nothing to copy and no manifest succeeds: SessionTest.)
    ASSERT_TRUE(InstallCompressLibrary(false));
    OpenAndStart();
    const std::string sound(100000, '\x7f');
    ASSERT_TRUE(WriteDiskFile(L"\\Device Temp\\voice.wav", sound));
    const size_t asserts = AssertLines();
    EXPECT_EQ(EndSession(), 0);
    Names copied = FilesIn(kData);
    std::sort(copied.begin(), copied.end());
    EXPECT_EQ(copied, (Names{L"Manifest.txt", L"voice.wav"}));
    EXPECT_EQ(ReadFileBytes(std::wstring(kData) + L"\\voice.wav"), sound);
    EXPECT_EQ(ReadFileBytes(std::wstring(kData) + L"\\Manifest.txt"), kManifest);
    ASSERT_EQ(AssertLines(), asserts + 1);
    const std::string log = ReadFileBytes(L"\\Hard Disk\\asserts.txt");
    EXPECT_NE(log.find("TestManagerPackaging.cpp line "), std::string::npos);
    EXPECT_NE(log.find(" WARNING: compression dll not found...copying uncompressed, non-encrypted user files to USB "
                       "Flash.\r\n"),
              std::string::npos);
}

TEST_F(SessionEndTest, AFailingLibraryEndsWith102AFailedEncryptionWith0)
{
    // The archive's place is taken by a folder: the library cannot write it.
    ASSERT_TRUE(CreateDirectoryW(kZip, nullptr));
    OpenAndStart();
    ASSERT_TRUE(WriteDiskFile(L"\\Device Temp\\voice.wav", "RIFF"));
    DebugCapture debug;
    EXPECT_EQ(EndSession(E_FAIL), 102);
    EXPECT_EQ(FilesIn(kTemp), Names{});
    EXPECT_EQ(debug.Count(L"CompressTempFiles: sZip failed.\r\n"), 1u);
    EXPECT_EQ(debug.Count(L"Compression failed.\r\n"), 1u);
    RemoveDirectoryW(kZip);

    std::string unprovisioned = StudyBlock();
    ASSERT_TRUE(WriteDiskFile(kFlashBlockFile, unprovisioned.replace(kKeyTagOffset, 4, "\xFF\xFF\xFF\xFF", 4)));
    ASSERT_EQ(control->SessionStart(), S_OK);
    const size_t asserts = AssertLines();
    EXPECT_EQ(EndSession(), 0);
    EXPECT_EQ(debug.Count(L"EncryptFile: File encryption and signing failed.\r\n"), 1u);
    EXPECT_EQ(debug.Count(L"Encryption failed.\r\n"), 0u);
    EXPECT_EQ(AssertLines(), asserts + 1);
    EXPECT_EQ(FilesIn(kData), Names{});

    // A temp file that cannot be deleted is reported and the rest go.
    ASSERT_EQ(control->SessionStart(), S_OK);
    for (const wchar_t* name : {L"\\Device Temp\\a.wav", L"\\Device Temp\\b.wav"})
        ASSERT_TRUE(WriteDiskFile(name, "RIFF"));
    HANDLE held = CreateFileW(L"\\Device Temp\\a.wav", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(held, INVALID_HANDLE_VALUE);
    EXPECT_EQ(control->SessionCancel(), S_OK);
    EXPECT_EQ(debug.Count(L"Warning: DeleteFile failed.\r\n"), 1u);
    EXPECT_EQ(FilesIn(kTemp), Names{L"a.wav"});
    CloseHandle(held);
}

const wchar_t kPlain[] = L"\\Hard Disk\\plain.bin";
const wchar_t kPackage[] = L"\\Hard Disk\\plain.ezip";
// A device key of 1024 bits and a server key of 3072 bits.
constexpr DWORD kPublicBlob = 20 + 128, kSignature = 128, kSessionBlob = 12 + 384;
constexpr size_t kHeader = 12 + kPublicBlob + kSignature + kSessionBlob;

std::string Pattern(size_t length)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<char>((i * 131 + i / 977) & 0xFF);
    return bytes;
}

// The block with the 32-bit length of the blob at offset patched.
std::string WithBlobLength(std::string block, DWORD offset, DWORD length)
{
    return block.replace(offset, 4, reinterpret_cast<const char*>(&length), 4);
}

class EncryptionTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(block.size(), kConfigBlockBytes) << "no provisioned study block (BRENNOCK_STUDY)";
        ASSERT_TRUE(WriteDiskFile(kFlashBlockFile, block));
        DeleteFileW(kPackage);
    }
    std::string block = StudyBlock();
};

TEST_F(EncryptionTest, PackageFieldsAndCipherLengths)
{
    // Whole chunks of 32768 get no padding at all; anything else is padded
    // up to the next multiple of 8.
    struct Case { size_t plain, cipher; };
    const Case cases[] = {{0, 0}, {1, 8}, {40000, 40008}, {32768, 32768}, {65536, 65536}, {32769, 32776}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.plain);
        ASSERT_TRUE(WriteDiskFile(kPlain, Pattern(c.plain)));
        ASSERT_EQ(EncryptFile(kPlain, kPackage), 1);
        const std::string package = ReadFileBytes(kPackage);
        const size_t b = 8 + kPublicBlob + kSignature;
        ASSERT_EQ(std::make_tuple(Field32(package, 0), Field32(package, 4 + kPublicBlob), Field32(package, b)),
                  std::make_tuple(kPublicBlob, kSignature, kSessionBlob));
        // PUBLICKEYBLOB, version 2, CALG_RSA_SIGN, "RSA1", 1024 bits.
        EXPECT_EQ(package.substr(4, 16), std::string("\x06\x02\x00\x00\x00\x24\x00\x00RSA1\x00\x04\x00\x00", 16));
        // SIMPLEBLOB of an RC2 key wrapped with CALG_RSA_KEYX.
        EXPECT_EQ(package.substr(b + 4, 12), std::string("\x01\x02\x00\x00\x02\x66\x00\x00\x00\xa4\x00\x00", 12));
        EXPECT_EQ(package.size(), kHeader + c.cipher);
        KeepForChecks(kPlain, L"plain-" + std::to_wstring(c.plain) + L".bin");
        KeepForChecks(kPackage, L"plain-" + std::to_wstring(c.plain) + L".ezip");
    }
    // Every session key is new: the same plain text again is other cipher text.
    const std::string last = ReadFileBytes(kPackage);
    ASSERT_EQ(EncryptFile(kPlain, kPackage), 1);
    EXPECT_NE(ReadFileBytes(kPackage).substr(kHeader), last.substr(kHeader));
}

TEST_F(EncryptionTest, KeyProblemsStopBeforeTheOutputExistsAMissingInputAfterTheHeader)
{
    std::string untagged = block, garbledServer = block;
    untagged.replace(kKeyTagOffset, 4, "XXXX");
    garbledServer[kServerPublicKeyOffset + 4] = 0x55;  // not a key blob type
    struct Case { const char* what; std::string block; std::wstring line; };
    const Case cases[] = {
        {"no key region", untagged, L"Error getting Public Signature Key Blob Body"},
        {"no private key", WithBlobLength(block, kDevicePrivateKeyOffset, 0),
         L"Getting Private Signature Key Blob from NVRAM"},
        {"authority key larger than its buffer", WithBlobLength(block, kAuthorityPublicKeyOffset, 1030),
         L"Error getting Public Signature Key Blob Body"},
        {"no server key", WithBlobLength(block, kServerPublicKeyOffset, 0), L"from GetPublicEncryptionKeyBlob"},
        {"private key cut short", WithBlobLength(block, kDevicePrivateKeyOffset, 100),
         L"in CryptImportKey for Private Signature"},
        {"server key garbled", garbledServer, L"CryptImportKey for Public Encryption Key"},
    };
    ASSERT_TRUE(WriteDiskFile(kPlain, Pattern(10)));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(WriteDiskFile(kFlashBlockFile, c.block));
        DebugCapture debug;
        EXPECT_EQ(EncryptFile(kPlain, kPackage), 0);
        EXPECT_FALSE(DiskFileExists(kPackage));
        const Names lines = debug.Lines();
        EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const std::wstring& line) {
            return line == c.line || (line.rfind(L"Error ", 0) == 0 && line.find(L" " + c.line + L" \n") != line.npos);
        })) << testing::PrintToString(lines);
    }
    // The input is first read after the header and the session key are
    // written: a missing one stops the package there, unsigned.
    ASSERT_TRUE(WriteDiskFile(kFlashBlockFile, block));
    DeleteFileW(kPlain);
    DebugCapture debug;
    EXPECT_EQ(EncryptFile(kPlain, kPackage), 0);
    EXPECT_TRUE(debug.Contains(L"reading data from input file for encryption"));
    const std::string package = ReadFileBytes(kPackage);
    EXPECT_EQ(package.size(), kHeader);
    EXPECT_EQ(package.substr(8 + kPublicBlob, kSignature), std::string(kSignature, '\0'));
}

}  // namespace
