// A reference encoder of session packages, sharing no format code with the
// tools, so that a misreading of the format cannot hide on both sides.
#pragma once

#include <filesystem>

#include "tools/crypto/OpenSsl.h"

namespace toolstest {

struct BlockKeys
{
    study::Pkey authority;  // public
    study::Pkey device;     // the key pair
    study::Pkey server;     // public
};

// The three keys of a provisioned configuration block image.
bool ReadBlockKeys(const std::filesystem::path& block, BlockKeys* keys);

// Encrypts and signs plain as the device does: RC2 (16-byte key, the given
// effective key length, zero IV) in 32768-byte pieces, padded only when the
// last piece is short; the session key wrapped for server; MD5 signed with
// device.
study::Bytes EncodePackage(EVP_PKEY* device, EVP_PKEY* server, study::ByteView plain, unsigned effectiveBits = 128);

}  // namespace toolstest
