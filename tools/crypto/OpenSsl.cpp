#include "tools/crypto/OpenSsl.h"

#include <openssl/err.h>
#include <openssl/provider.h>

namespace study {

bool LoadProviders(std::string* error)
{
    // Loading a provider explicitly stops the default one from loading by
    // itself, so both are asked for. They stay loaded for the process.
    static OSSL_PROVIDER* legacy = nullptr;
    static OSSL_PROVIDER* base = nullptr;
    if (base == nullptr)
        base = OSSL_PROVIDER_load(nullptr, "default");
    if (legacy == nullptr)
        legacy = OSSL_PROVIDER_load(nullptr, "legacy");
    if (base == nullptr || legacy == nullptr) {
        *error = OpenSslError(base == nullptr ? "cannot load OpenSSL's default provider"
                                              : "cannot load OpenSSL's legacy provider (RC2)");
        return false;
    }
    return true;
}

Cipher FetchRc2Cbc()
{
    std::string ignored;
    LoadProviders(&ignored);
    return Cipher(EVP_CIPHER_fetch(nullptr, "RC2-CBC", nullptr));
}

std::string OpenSslError(const std::string& what)
{
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0)
        return what;
    char text[256];
    ERR_error_string_n(code, text, sizeof(text));
    return what + ": " + text;
}

std::string Hex(ByteView bytes)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (uint8_t b : bytes) {
        text += kDigits[b >> 4];
        text += kDigits[b & 15];
    }
    return text;
}

}  // namespace study
