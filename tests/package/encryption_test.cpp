// Encrypting and signing a file with the device's provisioned keys: the
// package's fields and lengths, and the failures that must stop before an
// output file exists. The signature and cipher text are checked with OpenSSL
// after the run (tests/scripts/package_test.sh).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "session/FileEncryption.h"
#include "session/FlashAccess.h"
#include "tests/support/PackageDisk.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"

namespace {

const wchar_t kPlain[] = L"\\Hard Disk\\plain.bin";
const wchar_t kPackage[] = L"\\Hard Disk\\plain.ezip";

// A device key of 1024 bits and a server key of 3072 bits.
constexpr DWORD kPublicBlob = 20 + 128;
constexpr DWORD kSignature = 128;
constexpr DWORD kSessionBlob = 12 + 384;

std::string Pattern(size_t length)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<char>((i * 131 + i / 977) & 0xFF);
    return bytes;
}

class EncryptionTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        block = StudyBlock();
        ASSERT_EQ(block.size(), kConfigBlockBytes) << "no provisioned study block (BRENNOCK_STUDY)";
        ASSERT_TRUE(WriteDiskFile(kFlashBlockFile, block));
        DeleteFileW(kPackage);
    }
    std::string block;
};

TEST_F(EncryptionTest, PackageFieldsAndCipherLengths)
{
    struct Case { size_t plain; size_t cipher; };
    // Whole chunks of 32768 get no padding at all; anything else is padded
    // up to the next multiple of 8.
    const Case cases[] = {{0, 0}, {1, 8}, {40000, 40008}, {32768, 32768}, {65536, 65536}, {32769, 32776}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.plain);
        ASSERT_TRUE(WriteDiskFile(kPlain, Pattern(c.plain)));
        ASSERT_EQ(EncryptFile(kPlain, kPackage), 1);
        const std::string package = ReadFileBytes(kPackage);

        ASSERT_EQ(Field32(package, 0), kPublicBlob);
        // PUBLICKEYBLOB, version 2, CALG_RSA_SIGN, "RSA1", 1024 bits.
        EXPECT_EQ(package.substr(4, 16), std::string("\x06\x02\x00\x00\x00\x24\x00\x00RSA1\x00\x04\x00\x00", 16));
        ASSERT_EQ(Field32(package, 4 + kPublicBlob), kSignature);
        const size_t b = 8 + kPublicBlob + kSignature;
        EXPECT_NE(package.substr(b - kSignature, kSignature), std::string(kSignature, '\0'));
        ASSERT_EQ(Field32(package, b), kSessionBlob);
        // SIMPLEBLOB of an RC2 key wrapped with CALG_RSA_KEYX.
        EXPECT_EQ(package.substr(b + 4, 12), std::string("\x01\x02\x00\x00\x02\x66\x00\x00\x00\xa4\x00\x00", 12));
        EXPECT_EQ(package.size(), b + 4 + kSessionBlob + c.cipher);

        KeepForChecks(kPlain, L"plain-" + std::to_wstring(c.plain) + L".bin");
        KeepForChecks(kPackage, L"plain-" + std::to_wstring(c.plain) + L".ezip");
    }
}

TEST_F(EncryptionTest, EverySessionKeyIsNew)
{
    ASSERT_TRUE(WriteDiskFile(kPlain, Pattern(100)));
    ASSERT_EQ(EncryptFile(kPlain, kPackage), 1);
    const std::string first = ReadFileBytes(kPackage);
    ASSERT_EQ(EncryptFile(kPlain, kPackage), 1);
    const std::string second = ReadFileBytes(kPackage);
    ASSERT_EQ(first.size(), second.size());
    const size_t keyAt = 12 + kPublicBlob + kSignature;
    EXPECT_EQ(first.substr(0, keyAt - kSignature - 4), second.substr(0, keyAt - kSignature - 4));
    EXPECT_NE(first.substr(keyAt), second.substr(keyAt));
}

// Patches the 32-bit length of the blob at offset in a block.
std::string WithBlobLength(std::string block, DWORD offset, DWORD length)
{
    for (int i = 0; i < 4; ++i)
        block[offset + i] = static_cast<char>(length >> (8 * i));
    return block;
}

TEST_F(EncryptionTest, KeyProblemsStopBeforeTheOutputExists)
{
    std::string untagged = block;
    untagged.replace(kKeyTagOffset, 4, "XXXX");
    std::string garbledServer = block;
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
        bool found = false;
        for (const std::wstring& line : debug.Lines())
            found = found || line == c.line || (line.rfind(L"Error ", 0) == 0 && line.find(L" " + c.line + L" \n") != std::wstring::npos);
        EXPECT_TRUE(found) << testing::PrintToString(debug.Lines());
    }
}

// The input is first read after the header and the session key are written:
// the package stops there, unsigned.
TEST_F(EncryptionTest, AMissingInputIsFoundAtTheFirstRead)
{
    DeleteFileW(kPlain);
    DebugCapture debug;
    EXPECT_EQ(EncryptFile(kPlain, kPackage), 0);
    EXPECT_TRUE(debug.Contains(L"reading data from input file for encryption"));
    const std::string package = ReadFileBytes(kPackage);
    EXPECT_EQ(package.size(), 12 + kPublicBlob + kSignature + kSessionBlob);
    EXPECT_EQ(package.substr(8 + kPublicBlob, kSignature), std::string(kSignature, '\0'));
}

TEST_F(EncryptionTest, HelpersRefuseWhatTheyCannotFinish)
{
    DebugCapture debug;
    EXPECT_FALSE(FinishOutputFile(INVALID_HANDLE_VALUE, 0, 128, reinterpret_cast<const BYTE*>("x")));
    HANDLE file = CreateFileW(kPackage, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(FinishOutputFile(file, 0, 0, nullptr));
    EXPECT_EQ(EncryptFile(nullptr, kPackage), 0);
    EndCrypt(0);
    const std::vector<std::wstring> expected = {
        L"output file invalid in FinishOutputFile",
        L"uiSigSize is zero, or pbySignature is NULL in FinishOutputFile",
        L"Error 57 in EndCrypt \n",
    };
    EXPECT_EQ(debug.Lines(), expected);
    // The file was closed: it can be opened without sharing again.
    file = CreateFileW(kPackage, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    EXPECT_NE(file, INVALID_HANDLE_VALUE);
    CloseHandle(file);
}

}  // namespace
