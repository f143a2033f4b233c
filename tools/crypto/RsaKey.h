// RSA keys as the study tools keep them: PEM files, their DER, a short
// fingerprint, and the numbers they are made of.
#pragma once

#include <string>

#include "tools/crypto/OpenSsl.h"

namespace study {

// A new key pair of bits bits with the public exponent 65537.
Pkey GenerateRsa(unsigned bits, std::string* error);

// Reads a PEM key: a private key (PKCS#8 or traditional) when wantPrivate,
// else a public key (SubjectPublicKeyInfo), or the public half of a private
// key file. Only RSA keys are taken.
Pkey ReadPem(const std::string& path, bool wantPrivate, std::string* error);

// Writes a new PEM file: the private key (unencrypted PKCS#8, mode 0600)
// when writePrivate, else the public key (mode 0644). Never replaces a file.
bool WritePem(const std::string& path, EVP_PKEY* key, bool writePrivate, std::string* error);

// The public key as DER (SubjectPublicKeyInfo) and as PEM text.
Bytes PublicDer(EVP_PKEY* key);
std::string PublicPem(EVP_PKEY* key);

// "sha256:" and the first 8 bytes of SHA-256 over the public DER, in hex.
std::string Fingerprint(EVP_PKEY* key);

unsigned KeyBits(EVP_PKEY* key);

// One of the key's numbers by its OpenSSL name ("n", "e", "d", "rsa-factor1",
// ...); null when the key has no such number.
Bignum KeyNumber(EVP_PKEY* key, const char* name);

// The RSA numbers of a key pair, each big-endian as OpenSSL holds them.
struct RsaNumbers
{
    Bignum n, e, d, p, q, dp, dq, qinv;  // d .. qinv null for a public key
};

// A key from its numbers: a key pair when d is there, else a public key.
Pkey KeyFromNumbers(const RsaNumbers& numbers, std::string* error);

// RSA PKCS#1 v1.5 signatures over SHA-256 of data.
bool SignSha256(EVP_PKEY* key, ByteView data, Bytes* signature, std::string* error);
bool VerifySha256(EVP_PKEY* key, ByteView data, ByteView signature);

// Whole files.
bool ReadWholeFile(const std::string& path, Bytes* bytes, std::string* error);

}  // namespace study
