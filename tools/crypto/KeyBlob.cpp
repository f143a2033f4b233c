#include "tools/crypto/KeyBlob.h"

#include <openssl/core_names.h>
#include <openssl/err.h>

#include <cstdio>

#include "tools/crypto/RsaKey.h"

namespace study::capi {

namespace {

void PutHeader(uint8_t type, uint32_t alg, uint32_t magic, unsigned bits, uint32_t exponent, uint8_t* p)
{
    p[0] = type;
    p[1] = kBlobVersion;
    p[2] = p[3] = 0;
    PutLe32(p + 4, alg);
    PutLe32(p + 8, magic);
    PutLe32(p + 12, bits);
    PutLe32(p + 16, exponent);
}

// The key's size and its public exponent as a 32-bit number.
bool SizeAndExponent(EVP_PKEY* key, unsigned* bits, uint32_t* exponent, std::string* error)
{
    *bits = KeyBits(key);
    Bignum e = KeyNumber(key, OSSL_PKEY_PARAM_RSA_E);
    if (e == nullptr || BN_num_bits(e.get()) > 32 || *bits % 16 != 0) {
        *error = "the key cannot be written as a CryptoAPI blob (size " + std::to_string(*bits) +
                 " bits, or an exponent over 32 bits)";
        return false;
    }
    *exponent = static_cast<uint32_t>(BN_get_word(e.get()));
    return true;
}

bool PutNumber(EVP_PKEY* key, const char* name, size_t width, uint8_t* at, std::string* error)
{
    Bignum n = KeyNumber(key, name);
    if (n == nullptr || BN_bn2lebinpad(n.get(), at, static_cast<int>(width)) != static_cast<int>(width)) {
        *error = std::string("the key's ") + name + " is missing or does not fit its field";
        return false;
    }
    return true;
}

// The header's checks shared by both RSA blobs; the bit length on success.
bool ReadHeader(ByteView blob, uint8_t type, uint32_t alg, uint32_t magic, unsigned* bits, std::string* error)
{
    const char* what = type == kPublicKeyBlob ? "PUBLICKEYBLOB" : "PRIVATEKEYBLOB";
    const uint8_t* p = blob.data();
    if (blob.size() < kRsaHeaderBytes) {
        *error = std::string(what) + " shorter than its headers";
        return false;
    }
    char text[160];
    if (p[0] != type || p[1] != kBlobVersion || p[2] != 0 || p[3] != 0) {
        snprintf(text, sizeof(text), "not a %s: header %02x %02x %02x %02x (want %02x 02 00 00)", what, p[0], p[1], p[2],
                 p[3], type);
        *error = text;
        return false;
    }
    if (Le32(p + 4) != alg) {
        *error = std::string(what) + " for " + AlgName(Le32(p + 4)) + ", want " + AlgName(alg);
        return false;
    }
    if (Le32(p + 8) != magic) {
        snprintf(text, sizeof(text), "%s magic 0x%08x, want 0x%08x", what, Le32(p + 8), magic);
        *error = text;
        return false;
    }
    *bits = Le32(p + 12);
    const size_t want = type == kPublicKeyBlob ? PublicBlobBytes(*bits) : PrivateBlobBytes(*bits);
    if (*bits < kMinRsaBits || *bits > kMaxRsaBits || *bits % (type == kPublicKeyBlob ? 8 : 16) != 0 ||
        blob.size() != want) {
        snprintf(text, sizeof(text), "%s of %zu bytes says %u bits", what, blob.size(), *bits);
        *error = text;
        return false;
    }
    const uint32_t exponent = Le32(p + 16);
    if (exponent < 3 || exponent % 2 == 0) {
        *error = std::string(what) + " with public exponent " + std::to_string(exponent);
        return false;
    }
    return true;
}

Bignum LeNumber(const uint8_t* p, size_t width)
{
    return Bignum(BN_lebin2bn(p, static_cast<int>(width), nullptr));
}

Pkey CheckedKey(const RsaNumbers& numbers, unsigned bits, const char* what, std::string* error)
{
    if (static_cast<unsigned>(BN_num_bits(numbers.n.get())) != bits) {
        *error = std::string(what) + " says " + std::to_string(bits) + " bits, its modulus has " +
                 std::to_string(BN_num_bits(numbers.n.get()));
        return nullptr;
    }
    return KeyFromNumbers(numbers, error);
}

}  // namespace

uint32_t Le32(const uint8_t* p)
{
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void PutLe32(uint8_t* p, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(value >> (8 * i));
}

bool WritePublicBlob(EVP_PKEY* key, uint32_t alg, Bytes* blob, std::string* error)
{
    unsigned bits = 0;
    uint32_t exponent = 0;
    if (!SizeAndExponent(key, &bits, &exponent, error))
        return false;
    blob->assign(PublicBlobBytes(bits), 0);
    PutHeader(kPublicKeyBlob, alg, kMagicRsa1, bits, exponent, blob->data());
    return PutNumber(key, OSSL_PKEY_PARAM_RSA_N, bits / 8, blob->data() + kRsaHeaderBytes, error);
}

bool WritePrivateBlob(EVP_PKEY* key, uint32_t alg, Bytes* blob, std::string* error)
{
    unsigned bits = 0;
    uint32_t exponent = 0;
    if (!SizeAndExponent(key, &bits, &exponent, error))
        return false;
    blob->assign(PrivateBlobBytes(bits), 0);
    PutHeader(kPrivateKeyBlob, alg, kMagicRsa2, bits, exponent, blob->data());
    const size_t full = bits / 8, half = bits / 16;
    uint8_t* at = blob->data() + kRsaHeaderBytes;
    const struct
    {
        const char* name;
        size_t width;
    } fields[] = {
        {OSSL_PKEY_PARAM_RSA_N, full},           {OSSL_PKEY_PARAM_RSA_FACTOR1, half},
        {OSSL_PKEY_PARAM_RSA_FACTOR2, half},     {OSSL_PKEY_PARAM_RSA_EXPONENT1, half},
        {OSSL_PKEY_PARAM_RSA_EXPONENT2, half},   {OSSL_PKEY_PARAM_RSA_COEFFICIENT1, half},
        {OSSL_PKEY_PARAM_RSA_D, full},
    };
    for (const auto& field : fields) {
        if (!PutNumber(key, field.name, field.width, at, error)) {
            OPENSSL_cleanse(blob->data(), blob->size());
            return false;
        }
        at += field.width;
    }
    return true;
}

Pkey ReadPublicBlob(ByteView blob, uint32_t alg, std::string* error)
{
    unsigned bits = 0;
    if (!ReadHeader(blob, kPublicKeyBlob, alg, kMagicRsa1, &bits, error))
        return nullptr;
    RsaNumbers numbers;
    numbers.n = LeNumber(blob.data() + kRsaHeaderBytes, bits / 8);
    numbers.e = LeNumber(blob.data() + 16, 4);
    return CheckedKey(numbers, bits, "PUBLICKEYBLOB", error);
}

Pkey ReadPrivateBlob(ByteView blob, uint32_t alg, std::string* error)
{
    unsigned bits = 0;
    if (!ReadHeader(blob, kPrivateKeyBlob, alg, kMagicRsa2, &bits, error))
        return nullptr;
    const size_t full = bits / 8, half = bits / 16;
    const uint8_t* at = blob.data() + kRsaHeaderBytes;
    RsaNumbers numbers;
    numbers.e = LeNumber(blob.data() + 16, 4);
    numbers.n = LeNumber(at, full);
    at += full;
    numbers.p = LeNumber(at, half);
    numbers.q = LeNumber(at + half, half);
    numbers.dp = LeNumber(at + 2 * half, half);
    numbers.dq = LeNumber(at + 3 * half, half);
    numbers.qinv = LeNumber(at + 4 * half, half);
    numbers.d = LeNumber(at + 5 * half, full);
    Pkey key = CheckedKey(numbers, bits, "PRIVATEKEYBLOB", error);
    if (key == nullptr)
        return nullptr;
    PkeyCtx check(EVP_PKEY_CTX_new_from_pkey(nullptr, key.get(), nullptr));
    if (check == nullptr || EVP_PKEY_pairwise_check(check.get()) != 1) {
        *error = OpenSslError("PRIVATEKEYBLOB's numbers are not one RSA key pair");
        return nullptr;
    }
    return key;
}

std::string AlgName(uint32_t alg)
{
    switch (alg) {
    case kCalgRsaSign:
        return "CALG_RSA_SIGN";
    case kCalgRsaKeyx:
        return "CALG_RSA_KEYX";
    case kCalgRc2:
        return "CALG_RC2";
    default:
        char text[16];
        snprintf(text, sizeof(text), "0x%08x", alg);
        return text;
    }
}

}  // namespace study::capi
