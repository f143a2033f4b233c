// What the study tools' tests share.
#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tools/crypto/OpenSsl.h"

namespace toolstest {

using study::Bytes;
using study::ByteView;
namespace fs = std::filesystem;

// A new folder under the system's temporary folder, removed with its contents.
class TempDir
{
public:
    TempDir();
    ~TempDir() { std::error_code ec; fs::remove_all(m_path, ec); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const fs::path& path() const { return m_path; }
    fs::path operator/(const std::string& name) const { return m_path / name; }

private:
    fs::path m_path;
};

struct RunResult
{
    int code = -1;
    std::string output;  // standard output and standard error
};

// Runs a shell command line.
RunResult Shell(const std::string& commandLine);

// The tools' command lines.
inline std::string Provision() { return BRENNOCK_PROVISION_BIN; }
inline std::string Ezip() { return BRENNOCK_EZIP_BIN; }

Bytes ReadBytes(const fs::path& path);
inline std::string ReadText(const fs::path& path) { const Bytes b = ReadBytes(path); return {b.begin(), b.end()}; }
inline size_t LineCount(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }
uint32_t Le32(const uint8_t* p);
void WriteBytes(const fs::path& path, ByteView bytes);
inline void WriteText(const fs::path& path, const std::string& text) { WriteBytes(path, Bytes(text.begin(), text.end())); }
Bytes RandomBytes(size_t count);

// A ZIP archive of stored entries, as a minimal writer makes one.
Bytes StoredZip(const std::vector<std::pair<std::string, Bytes>>& entries);

// A study made with "provision study" and one device made with "provision
// device" into a block, made once per test program.
struct SharedStudy
{
    fs::path dir;
    fs::path block;
    std::string deviceId;  // ten digits
};
const SharedStudy& TheStudy();

}  // namespace toolstest
