#include "tools/ezip/Package.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/rsa.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/crypto/KeyBlob.h"

namespace study {

namespace {

constexpr size_t kReadBytes = 1 << 20;  // cipher text read per step, whole pieces

std::string Num(uint64_t n)
{
    return std::to_string(n);
}

}  // namespace

Package::~Package()
{
    if (m_file != nullptr)
        fclose(m_file);
    OPENSSL_cleanse(m_sessionKey, sizeof(m_sessionKey));
}

bool Package::ReadAt(uint64_t offset, void* to, size_t bytes)
{
    return fseeko(m_file, static_cast<off_t>(offset), SEEK_SET) == 0 && fread(to, 1, bytes, m_file) == bytes;
}

// A 32-bit length at offset, with the file long enough to hold it.
bool Package::Field(uint64_t offset, const char* name, uint32_t* value, Verdict* verdict)
{
    uint8_t bytes[4];
    if (offset + 4 > m_fileBytes)
        return verdict->Fail(Outcome::kTruncated, "truncated: the package ends before its length " + std::string(name) +
                                                      " (" + Num(m_fileBytes) + " bytes)");
    if (!ReadAt(offset, bytes, 4))
        return verdict->Fail(Outcome::kUsage, "cannot read the package: " + std::string(strerror(errno)));
    *value = capi::Le32(bytes);
    return true;
}

bool Package::Open(const std::string& path, Verdict* verdict)
{
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
        return verdict->Fail(Outcome::kUsage, path + " is not a file");
    m_file = fopen(path.c_str(), "rb");
    if (m_file == nullptr || fstat(fileno(m_file), &st) != 0)
        return verdict->Fail(Outcome::kUsage, "cannot read " + path + ": " + strerror(errno));
    m_fileBytes = static_cast<uint64_t>(st.st_size);

    // Every length is judged against what a package can hold before the
    // file's size is asked to hold it, and only then read.
    auto truncated = [&](const char* what, uint64_t end) {
        return verdict->Fail(Outcome::kTruncated, "truncated: " + std::string(what) + " runs to byte " + Num(end) +
                                                      ", the package has " + Num(m_fileBytes));
    };
    if (!Field(0, "K", &m_k, verdict))
        return false;
    if (m_k < capi::PublicBlobBytes(capi::kMinRsaBits) || m_k > capi::PublicBlobBytes(capi::kMaxRsaBits))
        return verdict->Fail(Outcome::kNotPackage,
                             "not a package: K = " + Num(m_k) + " is no length of an RSA public key blob");
    if (4ull + m_k > m_fileBytes)
        return truncated("the device's key", 4ull + m_k);
    Bytes blob(m_k);
    if (!ReadAt(4, blob.data(), m_k))
        return verdict->Fail(Outcome::kUsage, "cannot read the package: " + std::string(strerror(errno)));
    std::string why;
    m_device = capi::ReadPublicBlob(blob, capi::kCalgRsaSign, &why);
    if (m_device == nullptr)
        return verdict->Fail(Outcome::kNotPackage, "not a package: the device's key: " + why);
    const uint32_t signatureBytes = m_k - static_cast<uint32_t>(capi::kRsaHeaderBytes);

    if (!Field(4ull + m_k, "S", &m_s, verdict))
        return false;
    if (m_s != signatureBytes)
        return verdict->Fail(Outcome::kNotPackage, "not a package: S = " + Num(m_s) + ", the device's " +
                                                       Num(signatureBytes * 8) + "-bit key signs in " +
                                                       Num(signatureBytes) + " bytes");
    if (8ull + m_k + m_s > m_fileBytes)
        return truncated("the signature", 8ull + m_k + m_s);
    m_signature.resize(m_s);
    if (!ReadAt(8ull + m_k, m_signature.data(), m_s))
        return verdict->Fail(Outcome::kUsage, "cannot read the package: " + std::string(strerror(errno)));
    std::reverse(m_signature.begin(), m_signature.end());

    if (!Field(8ull + m_k + m_s, "B", &m_b, verdict))
        return false;
    if (m_b < capi::SimpleBlobBytes(capi::kMinRsaBits) || m_b > capi::SimpleBlobBytes(capi::kMaxRsaBits))
        return verdict->Fail(Outcome::kNotPackage,
                             "not a package: B = " + Num(m_b) + " is no length of a wrapped session key");
    if (12ull + m_k + m_s + m_b > m_fileBytes)
        return truncated("the session key", 12ull + m_k + m_s + m_b);
    m_sessionBlob.resize(m_b);
    if (!ReadAt(12ull + m_k + m_s, m_sessionBlob.data(), m_b))
        return verdict->Fail(Outcome::kUsage, "cannot read the package: " + std::string(strerror(errno)));
    const uint8_t* p = m_sessionBlob.data();
    if (p[0] != capi::kSimpleBlob || p[1] != capi::kBlobVersion || p[2] != 0 || p[3] != 0)
        return verdict->Fail(Outcome::kNotPackage, "not a package: the session key is not a SIMPLEBLOB");
    if (capi::Le32(p + 4) != capi::kCalgRc2 || capi::Le32(p + 8) != capi::kCalgRsaKeyx)
        return verdict->Fail(Outcome::kNotPackage, "not a package: the session key is " +
                                                       capi::AlgName(capi::Le32(p + 4)) + " wrapped with " +
                                                       capi::AlgName(capi::Le32(p + 8)) +
                                                       ", want CALG_RC2 wrapped with CALG_RSA_KEYX");
    return true;
}

bool Package::Unwrap(EVP_PKEY* serverKey, Verdict* verdict)
{
    const unsigned serverBits = static_cast<unsigned>(EVP_PKEY_get_size(serverKey)) * 8;
    if (wrapBits() != serverBits)
        return verdict->Fail(Outcome::kWrongKey, "wrong server key: the session key is wrapped for a " +
                                                     Num(wrapBits()) + "-bit key, this one is " + Num(serverBits) +
                                                     "-bit");
    Bytes wrapped(m_sessionBlob.begin() + 12, m_sessionBlob.end());
    std::reverse(wrapped.begin(), wrapped.end());
    PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, serverKey, nullptr));
    Bytes key(wrapped.size());
    size_t keyBytes = key.size();
    bool ok = ctx != nullptr && EVP_PKEY_decrypt_init(ctx.get()) == 1 &&
              EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) == 1;
#ifdef OSSL_ASYM_CIPHER_PARAM_IMPLICIT_REJECTION
    // A wrong key must fail, not yield a made-up session key.
    unsigned int implicit = 0;
    const OSSL_PARAM params[] = {OSSL_PARAM_construct_uint(OSSL_ASYM_CIPHER_PARAM_IMPLICIT_REJECTION, &implicit),
                                 OSSL_PARAM_construct_end()};
    ok = ok && EVP_PKEY_CTX_set_params(ctx.get(), params) == 1;
#endif
    ok = ok && EVP_PKEY_decrypt(ctx.get(), key.data(), &keyBytes, wrapped.data(), wrapped.size()) == 1;
    ERR_clear_error();
    if (!ok || keyBytes != kSessionKeyBytes) {
        OPENSSL_cleanse(key.data(), key.size());
        return verdict->Fail(Outcome::kWrongKey,
                             "wrong server key: the session key does not unwrap with it (or the package is damaged)");
    }
    memcpy(m_sessionKey, key.data(), kSessionKeyBytes);
    OPENSSL_cleanse(key.data(), key.size());
    m_unwrapped = true;
    return true;
}

// Finishes a copy of the hash with the last plain bytes and checks the
// signature over it.
bool Package::CheckSignature(EVP_MD_CTX* hashed, const uint8_t* tail, size_t tailBytes, bool* good, Verdict* verdict)
{
    MdCtx hash(EVP_MD_CTX_new());
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned int digestBytes = 0;
    PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, m_device.get(), nullptr));
    if (hash == nullptr || ctx == nullptr || EVP_MD_CTX_copy_ex(hash.get(), hashed) != 1 ||
        EVP_DigestUpdate(hash.get(), tail, tailBytes) != 1 ||
        EVP_DigestFinal_ex(hash.get(), digest, &digestBytes) != 1 || EVP_PKEY_verify_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_MD_CTX_get0_md(hashed)) != 1)
        return verdict->Fail(Outcome::kUsage, OpenSslError("cannot check the signature"));
    *good = EVP_PKEY_verify(ctx.get(), m_signature.data(), m_signature.size(), digest, digestBytes) == 1;
    ERR_clear_error();
    return true;
}

bool Package::StartCipher(EVP_CIPHER_CTX* cipher, unsigned effectiveBits)
{
    const Cipher rc2 = FetchRc2Cbc();
    const uint8_t iv[kBlockBytes] = {};
    unsigned int keyBits = effectiveBits;
    const OSSL_PARAM params[] = {OSSL_PARAM_construct_uint(OSSL_CIPHER_PARAM_RC2_KEYBITS, &keyBits),
                                 OSSL_PARAM_construct_end()};
    return rc2 != nullptr && EVP_DecryptInit_ex2(cipher, rc2.get(), nullptr, nullptr, nullptr) == 1 &&
           EVP_CIPHER_CTX_set_key_length(cipher, kSessionKeyBytes) == 1 &&
           EVP_CIPHER_CTX_set_params(cipher, params) == 1 &&
           EVP_DecryptInit_ex2(cipher, nullptr, m_sessionKey, iv, nullptr) == 1 &&
           EVP_CIPHER_CTX_set_padding(cipher, 0) == 1;
}

// 128 effective bits unless only 40 make the first block begin like a ZIP
// archive ("PK"). The signature has the last word either way.
unsigned Package::ChooseEffectiveBits()
{
    uint8_t block[kBlockBytes];
    if (cipherBytes() < kBlockBytes || !ReadAt(cipherOffset(), block, kBlockBytes))
        return 128;
    auto startsZip = [&](unsigned bits) {
        CipherCtx cipher(EVP_CIPHER_CTX_new());
        uint8_t plain[kBlockBytes];
        int out = 0;
        return cipher != nullptr && StartCipher(cipher.get(), bits) &&
               EVP_DecryptUpdate(cipher.get(), plain, &out, block, kBlockBytes) == 1 && out == kBlockBytes &&
               plain[0] == 'P' && plain[1] == 'K';
    };
    return !startsZip(128) && startsZip(40) ? 40 : 128;
}

bool Package::Decrypt(Bytes* plain, Verdict* verdict)
{
    const uint64_t total = cipherBytes();
    if (total % kBlockBytes != 0)
        return verdict->Fail(Outcome::kTruncated, "truncated: " + Num(total) +
                                                      " bytes of cipher text are not whole 8-byte blocks");
    if (!m_unwrapped)
        return verdict->Fail(Outcome::kUsage, "the session key is not unwrapped");
    m_effectiveBits = ChooseEffectiveBits();
    const Md md5(EVP_MD_fetch(nullptr, "MD5", nullptr));
    CipherCtx cipher(EVP_CIPHER_CTX_new());
    MdCtx hash(EVP_MD_CTX_new());
    uint8_t length[4];
    capi::PutLe32(length, m_b);
    if (md5 == nullptr || cipher == nullptr || hash == nullptr || !StartCipher(cipher.get(), m_effectiveBits) ||
        EVP_DigestInit_ex(hash.get(), md5.get(), nullptr) != 1 || EVP_DigestUpdate(hash.get(), length, 4) != 1 ||
        EVP_DigestUpdate(hash.get(), m_sessionBlob.data(), m_sessionBlob.size()) != 1)
        return verdict->Fail(Outcome::kUsage, OpenSslError("cannot set up RC2 and MD5"));

    // The plain text goes straight into *plain, decrypted where it was read.
    plain->clear();
    plain->resize(total);
    if (fseeko(m_file, static_cast<off_t>(cipherOffset()), SEEK_SET) != 0)
        return verdict->Fail(Outcome::kUsage, "cannot read the package: " + std::string(strerror(errno)));
    const uint64_t hashedBytes = total == 0 ? 0 : total - kBlockBytes;  // all but the last block
    uint64_t done = 0;
    while (done < total) {
        const size_t step = static_cast<size_t>(std::min<uint64_t>(kReadBytes, total - done));
        uint8_t* at = plain->data() + done;
        int out = 0;
        if (fread(at, 1, step, m_file) != step)
            return verdict->Fail(Outcome::kUsage, "cannot read the package: " + std::string(strerror(errno)));
        if (EVP_DecryptUpdate(cipher.get(), at, &out, at, static_cast<int>(step)) != 1 ||
            static_cast<size_t>(out) != step)
            return verdict->Fail(Outcome::kUsage, OpenSslError("RC2 decryption failed"));
        const uint64_t hashNow = std::min<uint64_t>(done + step, hashedBytes) - std::min<uint64_t>(done, hashedBytes);
        if (hashNow > 0 && EVP_DigestUpdate(hash.get(), at, static_cast<size_t>(hashNow)) != 1)
            return verdict->Fail(Outcome::kUsage, OpenSslError("MD5 failed"));
        done += step;
    }

    // The readings of the last block: whole (no padding) when the cipher
    // text is whole pieces, and padded unless it is empty.
    const uint8_t* last = plain->data() + hashedBytes;
    const size_t lastBytes = total == 0 ? 0 : kBlockBytes;
    bool good = false;
    if (total % kPieceBytes == 0) {
        if (!CheckSignature(hash.get(), last, lastBytes, &good, verdict))
            return false;
        if (good)
            return true;
    }
    const unsigned pad = total == 0 ? 0 : last[kBlockBytes - 1];
    bool padded = pad >= 1 && pad <= kBlockBytes;
    for (unsigned i = 0; padded && i < pad; ++i)
        padded = last[kBlockBytes - 1 - i] == pad;
    if (padded) {
        if (!CheckSignature(hash.get(), last, kBlockBytes - pad, &good, verdict))
            return false;
        if (good) {
            plain->resize(total - pad);
            return true;
        }
    }
    return verdict->Fail(Outcome::kBadSignature,
                         std::string("signature mismatch: the device's signature does not match the package") +
                             (padded || total % kPieceBytes == 0 ? "" : " (nor does its last block hold padding)"));
}

}  // namespace study
