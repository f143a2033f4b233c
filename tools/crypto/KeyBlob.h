// CryptoAPI key blobs, as the device's "Microsoft Enhanced Cryptographic
// Provider" imports and exports them. All numbers are little-endian.
//
//   BLOBHEADER  bType (1), bVersion (1, always 2), reserved (2, zero), aiKeyAlg (4)
//   RSAPUBKEY   magic (4, "RSA1" public, "RSA2" private), bitlen (4), pubexp (4)
//   PUBLICKEYBLOB   BLOBHEADER, RSAPUBKEY, modulus (bitlen/8)
//   PRIVATEKEYBLOB  BLOBHEADER, RSAPUBKEY, modulus (bitlen/8), prime1, prime2,
//                   exponent1, exponent2, coefficient (bitlen/16 each),
//                   privateExponent (bitlen/8)
//   SIMPLEBLOB      BLOBHEADER, the wrapping key's ALG_ID (4), the session key
//                   RSA-encrypted (PKCS#1 v1.5) and stored byte-reversed
#pragma once

#include <string>

#include "tools/crypto/OpenSsl.h"

namespace study::capi {

constexpr uint8_t kSimpleBlob = 0x01;
constexpr uint8_t kPublicKeyBlob = 0x06;
constexpr uint8_t kPrivateKeyBlob = 0x07;
constexpr uint8_t kBlobVersion = 2;

constexpr uint32_t kCalgRsaSign = 0x00002400;
constexpr uint32_t kCalgRsaKeyx = 0x0000A400;
constexpr uint32_t kCalgRc2 = 0x00006602;

constexpr uint32_t kMagicRsa1 = 0x31415352;
constexpr uint32_t kMagicRsa2 = 0x32415352;

constexpr size_t kBlobHeaderBytes = 8;
constexpr size_t kRsaHeaderBytes = kBlobHeaderBytes + 12;

// The RSA sizes a blob may hold.
constexpr unsigned kMinRsaBits = 512;
constexpr unsigned kMaxRsaBits = 16384;

constexpr size_t PublicBlobBytes(unsigned bits)
{
    return kRsaHeaderBytes + bits / 8;
}
constexpr size_t PrivateBlobBytes(unsigned bits)
{
    return kRsaHeaderBytes + bits / 8 * 2 + bits / 16 * 5;
}
constexpr size_t SimpleBlobBytes(unsigned wrapBits)
{
    return kBlobHeaderBytes + 4 + wrapBits / 8;
}

uint32_t Le32(const uint8_t* p);
void PutLe32(uint8_t* p, uint32_t value);

// The blobs of an RSA key, alg naming its use (kCalgRsaSign, kCalgRsaKeyx).
bool WritePublicBlob(EVP_PKEY* key, uint32_t alg, Bytes* blob, std::string* error);
bool WritePrivateBlob(EVP_PKEY* key, uint32_t alg, Bytes* blob, std::string* error);

// Reads a blob back, checking every header field (type, version 2, reserved
// zero, alg, magic), the bit length against the blob's length and the
// modulus's own size, and an odd public exponent of at least 3. A private
// blob also has to be a consistent key pair.
Pkey ReadPublicBlob(ByteView blob, uint32_t alg, std::string* error);
Pkey ReadPrivateBlob(ByteView blob, uint32_t alg, std::string* error);

// "CALG_RSA_SIGN", ..., or the number in hex.
std::string AlgName(uint32_t alg);

}  // namespace study::capi
