#include "tools/study/Study.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/crypto/RsaKey.h"

namespace study {

namespace fs = std::filesystem;

namespace {

Bytes SignedBytes(uint32_t id, EVP_PKEY* key)
{
    const std::string digits = Study::IdText(id);
    Bytes bytes(digits.begin(), digits.end());
    const Bytes der = PublicDer(key);
    bytes.insert(bytes.end(), der.begin(), der.end());
    return bytes;
}

bool WriteNewFile(const fs::path& path, ByteView bytes, std::string* error)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    bool ok = fd >= 0 && write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    const int saved = errno;
    if (fd >= 0)
        ok = close(fd) == 0 && ok;
    if (!ok)
        *error = "cannot write " + path.string() + ": " + strerror(saved);
    return ok;
}

}  // namespace

bool Study::Create(const fs::path& dir, std::string* error)
{
    std::error_code ec;
    if (fs::exists(dir, ec) && !(fs::is_directory(dir, ec) && fs::is_empty(dir, ec))) {
        *error = dir.string() + " already exists and is not an empty folder; a study is made only once";
        return false;
    }
    if (!fs::exists(dir, ec) && !fs::create_directories(dir, ec)) {
        *error = "cannot make " + dir.string() + ": " + ec.message();
        return false;
    }
    Pkey server = GenerateRsa(kServerBits, error);
    Pkey authority = server ? GenerateRsa(kAuthorityBits, error) : nullptr;
    if (authority == nullptr)
        return false;
    bool ok = WritePem(dir / "server.key.pem", server.get(), true, error) &&
              WritePem(dir / "server.pub.pem", server.get(), false, error) &&
              WritePem(dir / "authority.key.pem", authority.get(), true, error) &&
              WritePem(dir / "authority.pub.pem", authority.get(), false, error);
    if (ok && mkdir((dir / "devices").c_str(), 0755) != 0) {
        *error = "cannot make " + (dir / "devices").string() + ": " + strerror(errno);
        ok = false;
    }
    if (!ok) {
        // A half-made study would refuse to be made again: take it away.
        for (const char* name : {"server.key.pem", "server.pub.pem", "authority.key.pem", "authority.pub.pem"})
            unlink((dir / name).c_str());
    }
    return ok;
}

bool Study::Open(const fs::path& dir, std::string* error)
{
    std::error_code ec;
    if (!fs::is_directory(dir / "devices", ec)) {
        *error = dir.string() + " is not a study folder (no devices/ in it)";
        return false;
    }
    m_dir = dir;
    m_authority = ReadPem(dir / "authority.pub.pem", false, error);
    m_server = m_authority ? ReadPem(dir / "server.pub.pem", false, error) : nullptr;
    return m_server != nullptr;
}

std::string Study::IdText(uint32_t id)
{
    char text[16];
    snprintf(text, sizeof(text), "%010u", id);
    return text;
}

bool Study::ParseId(const std::string& text, uint32_t* id)
{
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const unsigned long long value = std::stoull(text);
    if (value > kMaxDeviceId)
        return false;
    *id = static_cast<uint32_t>(value);
    return true;
}

bool Study::AddDevice(uint32_t id, EVP_PKEY* deviceKey, std::string* error)
{
    Pkey authority = ReadPem(m_dir / "authority.key.pem", true, error);
    if (authority == nullptr)
        return false;
    Bytes signature;
    if (!SignSha256(authority.get(), SignedBytes(id, deviceKey), &signature, error))
        return false;
    const fs::path devices = m_dir / "devices";
    const std::string name = IdText(id);
    // The key file is made first and exclusively: it is what takes the id.
    const std::string pem = PublicPem(deviceKey);
    std::string reason;
    if (!WriteNewFile(devices / (name + ".pub.pem"), ByteView(reinterpret_cast<const uint8_t*>(pem.data()), pem.size()),
                      &reason)) {
        std::error_code ec;
        *error = fs::exists(devices / (name + ".pub.pem"), ec) ? "device " + name + " is already provisioned in " +
                                                                     m_dir.string()
                                                               : reason;
        return false;
    }
    if (!WriteNewFile(devices / (name + ".sig"), signature, error)) {
        unlink((devices / (name + ".pub.pem")).c_str());
        return false;
    }
    return true;
}

void Study::RemoveDevice(uint32_t id)
{
    const fs::path devices = m_dir / "devices";
    unlink((devices / (IdText(id) + ".sig")).c_str());
    unlink((devices / (IdText(id) + ".pub.pem")).c_str());
}

Study::Found Study::FindDevice(EVP_PKEY* key, uint32_t* id, std::string* error) const
{
    // PEM text is one function of the key, so records are compared as text
    // without parsing each one.
    const std::string pem = PublicPem(key);
    std::error_code ec;
    for (const fs::directory_entry& entry : fs::directory_iterator(m_dir / "devices", ec)) {
        const std::string file = entry.path().filename().string();
        uint32_t candidate = 0;
        if (file.size() != 18 || file.compare(10, 8, ".pub.pem") != 0 || !ParseId(file.substr(0, 10), &candidate))
            continue;
        if (entry.file_size(ec) != pem.size())
            continue;
        Bytes text;
        std::string ignored;
        if (!ReadWholeFile(entry.path(), &text, &ignored) || text.size() != pem.size() ||
            !std::equal(text.begin(), text.end(), pem.begin()))
            continue;
        Bytes signature;
        if (!ReadWholeFile(m_dir / "devices" / (file.substr(0, 10) + ".sig"), &signature, &ignored) ||
            !VerifySha256(m_authority.get(), SignedBytes(candidate, key), signature)) {
            *error = "the study's record of device " + file.substr(0, 10) + " is not signed by its authority";
            return Found::kForged;
        }
        *id = candidate;
        return Found::kDevice;
    }
    if (ec) {
        *error = "cannot read " + (m_dir / "devices").string() + ": " + ec.message();
        return Found::kUnreadable;
    }
    *error = "the device's key (" + Fingerprint(key) + ") is not one this study provisioned";
    return Found::kUnknown;
}

}  // namespace study
