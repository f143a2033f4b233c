#include "tools/crypto/RsaKey.h"

#include <fcntl.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace study {

namespace {

using Bio = std::unique_ptr<BIO, FreeWith<BIO_free_all>>;
using ParamBld = std::unique_ptr<OSSL_PARAM_BLD, FreeWith<OSSL_PARAM_BLD_free>>;
using Params = std::unique_ptr<OSSL_PARAM, FreeWith<OSSL_PARAM_free>>;

std::string BioText(BIO* bio)
{
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return std::string(data, length > 0 ? static_cast<size_t>(length) : 0);
}

}  // namespace

Pkey GenerateRsa(unsigned bits, std::string* error)
{
    EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(bits));
    if (key == nullptr)
        *error = OpenSslError("cannot generate a " + std::to_string(bits) + "-bit RSA key");
    return Pkey(key);
}

Pkey ReadPem(const std::string& path, bool wantPrivate, std::string* error)
{
    FILE* f = fopen(path.c_str(), "r");
    if (f == nullptr) {
        *error = "cannot read " + path + ": " + strerror(errno);
        return nullptr;
    }
    EVP_PKEY* key = nullptr;
    if (wantPrivate) {
        key = PEM_read_PrivateKey(f, nullptr, nullptr, nullptr);
    } else {
        key = PEM_read_PUBKEY(f, nullptr, nullptr, nullptr);
        if (key == nullptr) {
            ERR_clear_error();
            rewind(f);
            key = PEM_read_PrivateKey(f, nullptr, nullptr, nullptr);
        }
    }
    fclose(f);
    Pkey owned(key);
    if (owned == nullptr) {
        *error = OpenSslError(path + " holds no PEM " + (wantPrivate ? "private" : "public") + " key");
        return nullptr;
    }
    if (EVP_PKEY_get_base_id(owned.get()) != EVP_PKEY_RSA) {
        *error = path + " holds a key that is not RSA";
        return nullptr;
    }
    return owned;
}

bool WritePem(const std::string& path, EVP_PKEY* key, bool writePrivate, std::string* error)
{
    Bio bio(BIO_new(BIO_s_mem()));
    const int made = writePrivate ? PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr)
                                  : PEM_write_bio_PUBKEY(bio.get(), key);
    if (made != 1) {
        *error = OpenSslError("cannot encode the key for " + path);
        return false;
    }
    std::string text = BioText(bio.get());
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, writePrivate ? 0600 : 0644);
    bool ok = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int saved = errno;
    if (fd >= 0)
        ok = close(fd) == 0 && ok;
    OPENSSL_cleanse(text.data(), text.size());
    if (!ok)
        *error = "cannot write " + path + ": " + strerror(fd >= 0 ? saved : errno);
    return ok;
}

Bytes PublicDer(EVP_PKEY* key)
{
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key, &der);
    if (length <= 0)
        return {};
    Bytes bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

std::string PublicPem(EVP_PKEY* key)
{
    Bio bio(BIO_new(BIO_s_mem()));
    if (PEM_write_bio_PUBKEY(bio.get(), key) != 1)
        return {};
    return BioText(bio.get());
}

std::string Fingerprint(EVP_PKEY* key)
{
    const Bytes der = PublicDer(key);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (der.empty() || EVP_Digest(der.data(), der.size(), digest, &length, EVP_sha256(), nullptr) != 1)
        return "sha256:?";
    return "sha256:" + Hex(ByteView(digest, 8));
}

unsigned KeyBits(EVP_PKEY* key)
{
    return static_cast<unsigned>(EVP_PKEY_get_bits(key));
}

Bignum KeyNumber(EVP_PKEY* key, const char* name)
{
    BIGNUM* number = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &number) != 1) {
        ERR_clear_error();
        return nullptr;
    }
    return Bignum(number);
}

Pkey KeyFromNumbers(const RsaNumbers& numbers, std::string* error)
{
    const bool pair = numbers.d != nullptr;
    ParamBld build(OSSL_PARAM_BLD_new());
    bool ok = build != nullptr && OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_N, numbers.n.get()) &&
              OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_E, numbers.e.get());
    if (ok && pair) {
        ok = OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_D, numbers.d.get()) &&
             OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_FACTOR1, numbers.p.get()) &&
             OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_FACTOR2, numbers.q.get()) &&
             OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_EXPONENT1, numbers.dp.get()) &&
             OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_EXPONENT2, numbers.dq.get()) &&
             OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_COEFFICIENT1, numbers.qinv.get());
    }
    Params params(ok ? OSSL_PARAM_BLD_to_param(build.get()) : nullptr);
    PkeyCtx ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    EVP_PKEY* key = nullptr;
    if (params == nullptr || ctx == nullptr || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
        EVP_PKEY_fromdata(ctx.get(), &key, pair ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
        *error = OpenSslError("cannot make an RSA key of these numbers");
        return nullptr;
    }
    return Pkey(key);
}

bool SignSha256(EVP_PKEY* key, ByteView data, Bytes* signature, std::string* error)
{
    MdCtx ctx(EVP_MD_CTX_new());
    size_t length = 0;
    if (ctx == nullptr || EVP_DigestSignInit_ex(ctx.get(), nullptr, "SHA256", nullptr, nullptr, key, nullptr) != 1 ||
        EVP_DigestSign(ctx.get(), nullptr, &length, data.data(), data.size()) != 1) {
        *error = OpenSslError("cannot sign");
        return false;
    }
    signature->resize(length);
    if (EVP_DigestSign(ctx.get(), signature->data(), &length, data.data(), data.size()) != 1) {
        *error = OpenSslError("cannot sign");
        return false;
    }
    signature->resize(length);
    return true;
}

bool VerifySha256(EVP_PKEY* key, ByteView data, ByteView signature)
{
    MdCtx ctx(EVP_MD_CTX_new());
    const bool ok = ctx != nullptr &&
                    EVP_DigestVerifyInit_ex(ctx.get(), nullptr, "SHA256", nullptr, nullptr, key, nullptr) == 1 &&
                    EVP_DigestVerify(ctx.get(), signature.data(), signature.size(), data.data(), data.size()) == 1;
    ERR_clear_error();
    return ok;
}

bool ReadWholeFile(const std::string& path, Bytes* bytes, std::string* error)
{
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr) {
        *error = "cannot read " + path + ": " + strerror(errno);
        return false;
    }
    bytes->clear();
    uint8_t buffer[65536];
    size_t got;
    while ((got = fread(buffer, 1, sizeof(buffer), f)) > 0)
        bytes->insert(bytes->end(), buffer, buffer + got);
    const bool ok = ferror(f) == 0;
    fclose(f);
    if (!ok)
        *error = "cannot read " + path;
    return ok;
}

}  // namespace study
