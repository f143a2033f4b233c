// A ZIP archive held in memory, read strictly: the end record, the central
// directory and every local header are checked against one another, names
// must stay inside the folder they are unpacked into, and every entry
// (stored or deflated) must inflate to its size and CRC-32.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "tools/crypto/OpenSsl.h"

namespace study {

struct ZipEntry
{
    std::string name;  // as stored
    std::string path;  // relative, '/' between its parts, no trailing '/'
    bool directory = false;
    uint16_t flags = 0;
    uint16_t method = 0;  // 0 stored, 8 deflated
    uint32_t crc = 0;
    uint64_t compressedBytes = 0;
    uint64_t bytes = 0;
    uint64_t headerOffset = 0;  // the local header
    uint64_t dataOffset = 0;
    uint64_t end = 0;  // past the data and its descriptor
};

class ZipArchive
{
public:
    enum class Result { kOk, kCorrupt, kIoError };

    // Reads the archive's structure. The bytes must outlive this object.
    bool Parse(ByteView zip, std::string* error);

    const std::vector<ZipEntry>& entries() const { return m_entries; }

    // Inflates every entry and checks it; with a folder, writes the entries
    // under it (an existing empty folder), making subfolders as needed.
    Result Extract(const std::filesystem::path& dir, std::string* error) const;

private:
    bool ParseEnd(uint64_t* count, uint64_t* cdOffset, uint64_t* cdBytes, uint64_t* cdEnd, std::string* error);
    bool ParseCentral(uint64_t count, uint64_t cdOffset, uint64_t cdEnd, std::string* error);
    bool CheckLocal(ZipEntry* entry, bool zip64, uint64_t limit, std::string* error);
    Result ExtractOne(const ZipEntry& entry, const std::filesystem::path* dir, uint8_t* buffer, size_t bufferBytes,
                      std::string* error) const;

    ByteView m_zip;
    std::vector<ZipEntry> m_entries;
};

}  // namespace study
