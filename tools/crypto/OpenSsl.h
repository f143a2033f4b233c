// Owners for OpenSSL's objects, the providers the study tools need, and
// OpenSSL's error queue as text.
#pragma once

#include <openssl/bn.h>
#include <openssl/evp.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace study {

using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;

template <auto Free>
struct FreeWith
{
    template <class T>
    void operator()(T* p) const
    {
        Free(p);
    }
};

using Pkey = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, FreeWith<EVP_PKEY_CTX_free>>;
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, FreeWith<EVP_CIPHER_CTX_free>>;
using Cipher = std::unique_ptr<EVP_CIPHER, FreeWith<EVP_CIPHER_free>>;
using MdCtx = std::unique_ptr<EVP_MD_CTX, FreeWith<EVP_MD_CTX_free>>;
using Md = std::unique_ptr<EVP_MD, FreeWith<EVP_MD_free>>;
using Bignum = std::unique_ptr<BIGNUM, FreeWith<BN_clear_free>>;

// Loads the "default" provider and the "legacy" one (RC2 lives there), once
// per process. False, with the reason, when either is missing.
bool LoadProviders(std::string* error);

// RC2 in CBC mode from the legacy provider (loaded if need be); null
// without it.
Cipher FetchRc2Cbc();

// "what: <OpenSSL's first queued error>"; the queue is cleared.
std::string OpenSslError(const std::string& what);

// Lower-case hex of bytes.
std::string Hex(ByteView bytes);

}  // namespace study
