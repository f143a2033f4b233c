#include "tests/tools/support/PackageEncoder.h"

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <algorithm>

#include "tests/tools/support/ToolsTestKit.h"
#include "tools/crypto/KeyBlob.h"
#include "tools/crypto/RsaKey.h"

namespace toolstest {

using study::Bignum;
using study::Bytes;
using study::ByteView;

namespace {

void PutLe(Bytes& b, std::initializer_list<uint32_t> values)
{
    for (uint32_t v : values)
        for (int i = 0; i < 4; ++i)
            b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

void PutField(Bytes& b, const Bytes& field)
{
    PutLe(b, {static_cast<uint32_t>(field.size())});
    b.insert(b.end(), field.begin(), field.end());
}

}  // namespace

bool ReadBlockKeys(const std::filesystem::path& path, BlockKeys* keys)
{
    const Bytes block = ReadBytes(path);
    if (block.size() != 4660 || std::string(block.begin() + 2612, block.begin() + 2616) != "ZOLW")
        return false;
    auto blob = [&](size_t at, size_t room) {
        return ByteView(block.data() + at + 4, std::min<size_t>(Le32(block.data() + at), room));
    };
    std::string error;
    keys->authority = study::capi::ReadPublicBlob(blob(2624, 504), study::capi::kCalgRsaSign, &error);
    keys->device = study::capi::ReadPrivateBlob(blob(3132, 1016), study::capi::kCalgRsaSign, &error);
    keys->server = study::capi::ReadPublicBlob(blob(4152, 504), study::capi::kCalgRsaKeyx, &error);
    EXPECT_TRUE(keys->authority && keys->device && keys->server) << error;
    return keys->authority && keys->device && keys->server;
}

Bytes EncodePackage(EVP_PKEY* device, EVP_PKEY* server, ByteView plain, unsigned effectiveBits)
{
    std::string error;
    EXPECT_TRUE(study::LoadProviders(&error)) << error;
    Bignum n = study::KeyNumber(device, OSSL_PKEY_PARAM_RSA_N);
    Bignum e = study::KeyNumber(device, OSSL_PKEY_PARAM_RSA_E);
    const size_t modulusBytes = static_cast<size_t>(BN_num_bytes(n.get()));
    Bytes publicBlob = {0x06, 0x02, 0x00, 0x00};
    PutLe(publicBlob, {0x2400, 0x31415352, static_cast<uint32_t>(modulusBytes * 8),
                       static_cast<uint32_t>(BN_get_word(e.get()))});
    publicBlob.resize(20 + modulusBytes);
    BN_bn2lebinpad(n.get(), publicBlob.data() + 20, static_cast<int>(modulusBytes));

    // A fresh RC2 key, wrapped for the server.
    uint8_t key[16];
    RAND_bytes(key, sizeof(key));
    study::PkeyCtx wrap(EVP_PKEY_CTX_new_from_pkey(nullptr, server, nullptr));
    size_t wrappedBytes = static_cast<size_t>(EVP_PKEY_get_size(server));
    Bytes wrapped(wrappedBytes);
    EXPECT_TRUE(EVP_PKEY_encrypt_init(wrap.get()) == 1 &&
                EVP_PKEY_CTX_set_rsa_padding(wrap.get(), RSA_PKCS1_PADDING) == 1 &&
                EVP_PKEY_encrypt(wrap.get(), wrapped.data(), &wrappedBytes, key, sizeof(key)) == 1);
    Bytes sessionBlob = {0x01, 0x02, 0x00, 0x00};
    PutLe(sessionBlob, {0x6602, 0xA400});
    sessionBlob.insert(sessionBlob.end(), wrapped.rbegin(), wrapped.rend());

    // MD5 over B, the blob and the plain text.
    Bytes hashed;
    PutField(hashed, sessionBlob);
    hashed.insert(hashed.end(), plain.begin(), plain.end());
    uint8_t digest[16];
    unsigned int digestBytes = 0;
    EVP_Digest(hashed.data(), hashed.size(), digest, &digestBytes, EVP_md5(), nullptr);

    // The cipher text. The device encrypts 32768-byte pieces and makes the
    // closing (padding) call only after a short one: one CBC stream, padded
    // unless its length is a whole number of pieces (none included).
    study::Cipher rc2 = study::FetchRc2Cbc();
    study::CipherCtx ctx(EVP_CIPHER_CTX_new());
    unsigned int keyBits = effectiveBits;
    const OSSL_PARAM params[] = {OSSL_PARAM_construct_uint(OSSL_CIPHER_PARAM_RC2_KEYBITS, &keyBits),
                                 OSSL_PARAM_construct_end()};
    const uint8_t iv[8] = {};
    EXPECT_TRUE(EVP_EncryptInit_ex2(ctx.get(), rc2.get(), nullptr, nullptr, nullptr) == 1 &&
                EVP_CIPHER_CTX_set_key_length(ctx.get(), 16) == 1 && EVP_CIPHER_CTX_set_params(ctx.get(), params) == 1 &&
                EVP_EncryptInit_ex2(ctx.get(), nullptr, key, iv, nullptr) == 1);
    Bytes cipher(plain.size() + 8);
    int written = 0, closing = 0;
    EVP_EncryptUpdate(ctx.get(), cipher.data(), &written, plain.data(), static_cast<int>(plain.size()));
    if (plain.size() % 32768 != 0)
        EVP_EncryptFinal_ex(ctx.get(), cipher.data() + written, &closing);
    cipher.resize(static_cast<size_t>(written + closing));

    // The signature, stored little-endian.
    study::PkeyCtx sign(EVP_PKEY_CTX_new_from_pkey(nullptr, device, nullptr));
    size_t signatureBytes = static_cast<size_t>(EVP_PKEY_get_size(device));
    Bytes signature(signatureBytes);
    EXPECT_TRUE(EVP_PKEY_sign_init(sign.get()) == 1 && EVP_PKEY_CTX_set_rsa_padding(sign.get(), RSA_PKCS1_PADDING) == 1 &&
                EVP_PKEY_CTX_set_signature_md(sign.get(), EVP_md5()) == 1 &&
                EVP_PKEY_sign(sign.get(), signature.data(), &signatureBytes, digest, digestBytes) == 1);
    std::reverse(signature.begin(), signature.end());

    Bytes package;
    PutField(package, publicBlob);
    PutField(package, signature);
    PutField(package, sessionBlob);
    package.insert(package.end(), cipher.begin(), cipher.end());
    return package;
}

}  // namespace toolstest
