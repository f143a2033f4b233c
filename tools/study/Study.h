// A study's folder: the server's encryption key pair, the authority's
// signature key pair and the registry of provisioned devices.
//
//   DIR/server.key.pem      the server's private key (mode 0600)
//   DIR/server.pub.pem      its public half, provisioned into every device
//   DIR/authority.key.pem   the authority's private key (mode 0600)
//   DIR/authority.pub.pem   its public half, provisioned into every device
//   DIR/devices/NNNNNNNNNN.pub.pem   a device's public signature key
//   DIR/devices/NNNNNNNNNN.sig       the authority's signature (RSA PKCS#1
//                                    v1.5, SHA-256) over the ten digits of
//                                    the id followed by that key's DER
#pragma once

#include <filesystem>
#include <string>

#include "tools/crypto/OpenSsl.h"

namespace study {

class Study
{
public:
    // Key sizes. A device's PRIVATEKEYBLOB must fit its 1016-byte slot:
    // 1024 bits take 596 bytes, 2048 would take 1172. The authority's and
    // the server's PUBLICKEYBLOBs each have 504 bytes: 3072 bits take 404,
    // 4096 would take 532.
    static constexpr unsigned kDeviceBits = 1024;
    static constexpr unsigned kAuthorityBits = 3072;
    static constexpr unsigned kServerBits = 3072;

    static constexpr uint32_t kMaxDeviceId = 0xFFFFFFFF;  // the NVRAM keeps it in 32 bits

    // Makes a new study in dir (which must not exist, or be an empty folder).
    static bool Create(const std::filesystem::path& dir, std::string* error);

    // Takes an existing study: its public keys.
    bool Open(const std::filesystem::path& dir, std::string* error);

    const std::filesystem::path& dir() const { return m_dir; }
    EVP_PKEY* authorityPublic() const { return m_authority.get(); }
    EVP_PKEY* serverPublic() const { return m_server.get(); }
    std::filesystem::path ServerKeyPath() const { return m_dir / "server.key.pem"; }

    // "0000001234".
    static std::string IdText(uint32_t id);
    // Takes one to ten decimal digits up to kMaxDeviceId.
    static bool ParseId(const std::string& text, uint32_t* id);

    // Records a device (needs the authority's private key). False when the
    // id is taken.
    bool AddDevice(uint32_t id, EVP_PKEY* deviceKey, std::string* error);
    // Takes a device's record away again (a provisioning that failed later).
    void RemoveDevice(uint32_t id);

    enum class Found { kDevice, kUnknown, kForged, kUnreadable };
    // The recorded device with this public key. kForged: a record holds the
    // key but the authority's signature over it does not verify;
    // kUnreadable: the registry cannot be read.
    Found FindDevice(EVP_PKEY* key, uint32_t* id, std::string* error) const;

private:
    std::filesystem::path m_dir;
    Pkey m_authority;
    Pkey m_server;
};

}  // namespace study
