// A session package as the device writes it (all integers 32-bit
// little-endian):
//
//   K | the device's PUBLICKEYBLOB (K bytes, CALG_RSA_SIGN)
//   S | the signature (S bytes, byte-reversed as CryptoAPI stores it)
//   B | the session key's SIMPLEBLOB (B bytes: CALG_RC2 wrapped with the
//       server's CALG_RSA_KEYX key)
//   the plain text under RC2-128 in CBC mode with a zero IV, to the end
//
// The signature is RSA PKCS#1 v1.5 over MD5(B || SIMPLEBLOB || plain text).
//
// RC2's key schedule also takes an effective key length. The provider gives
// a 128-bit key 128 effective bits today, but its releases before Windows XP
// SP1 gave it 40; the plain text is a ZIP archive, so its first block tells
// which one a package used.
// The device encrypts in 32768-byte pieces and makes its closing (padding)
// call only when the last piece is short, so a cipher text of whole pieces
// (including none) may or may not end in padding; the signature decides.
#pragma once

#include <cstdio>
#include <string>

#include "tools/crypto/OpenSsl.h"
#include "tools/ezip/Verdict.h"

namespace study {

class Package
{
public:
    static constexpr size_t kPieceBytes = 32768;
    static constexpr size_t kBlockBytes = 8;
    static constexpr size_t kSessionKeyBytes = 16;

    Package() = default;
    ~Package();
    Package(const Package&) = delete;
    Package& operator=(const Package&) = delete;

    // Opens the file and reads and checks everything before the cipher text.
    bool Open(const std::string& path, Verdict* verdict);

    // Unwraps the session key with the server's private key.
    bool Unwrap(EVP_PKEY* serverKey, Verdict* verdict);

    // Decrypts the cipher text into *plain and checks the signature over it.
    bool Decrypt(Bytes* plain, Verdict* verdict);

    // The RC2 effective key length Decrypt used: 128, or 40.
    unsigned effectiveBits() const { return m_effectiveBits; }

    uint64_t fileBytes() const { return m_fileBytes; }
    uint32_t K() const { return m_k; }
    uint32_t S() const { return m_s; }
    uint32_t B() const { return m_b; }
    uint64_t cipherOffset() const { return 12ull + m_k + m_s + m_b; }
    uint64_t cipherBytes() const { return m_fileBytes - cipherOffset(); }
    EVP_PKEY* deviceKey() const { return m_device.get(); }
    // The bit length of the server key the session key was wrapped for.
    unsigned wrapBits() const { return (m_b - 12) * 8; }

private:
    bool ReadAt(uint64_t offset, void* to, size_t bytes);
    bool Field(uint64_t offset, const char* name, uint32_t* value, Verdict* verdict);
    bool StartCipher(EVP_CIPHER_CTX* cipher, unsigned effectiveBits);
    unsigned ChooseEffectiveBits();
    bool CheckSignature(EVP_MD_CTX* hashed, const uint8_t* tail, size_t tailBytes, bool* good, Verdict* verdict);

    FILE* m_file = nullptr;
    uint64_t m_fileBytes = 0;
    uint32_t m_k = 0, m_s = 0, m_b = 0;
    Pkey m_device;
    Bytes m_signature;   // big-endian, as OpenSSL takes it
    Bytes m_sessionBlob; // the SIMPLEBLOB as stored (it is hashed so)
    uint8_t m_sessionKey[kSessionKeyBytes] = {};
    bool m_unwrapped = false;
    unsigned m_effectiveBits = 128;
};

}  // namespace study
