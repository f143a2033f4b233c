#include "tools/ezip/ZipArchive.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

namespace study {

namespace fs = std::filesystem;

namespace {

constexpr uint32_t kLocalSig = 0x04034b50;
constexpr uint32_t kCentralSig = 0x02014b50;
constexpr uint32_t kEndSig = 0x06054b50;
constexpr uint32_t kEnd64Sig = 0x06064b50;
constexpr uint32_t kLocator64Sig = 0x07064b50;
constexpr uint32_t kDescriptorSig = 0x08074b50;
constexpr size_t kLocalBytes = 30, kCentralBytes = 46, kEndBytes = 22, kLocatorBytes = 20, kEnd64Bytes = 56;
constexpr uint16_t kFlagEncrypted = 0x0001, kFlagDescriptor = 0x0008, kFlagStrongEncryption = 0x0040;
constexpr uint16_t kStored = 0, kDeflated = 8;
constexpr uint64_t kMaxDeflateRatio = 1032;  // deflate cannot expand data more than this

uint16_t Le16(const uint8_t* p)
{
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
uint32_t Le32(const uint8_t* p)
{
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
uint64_t Le64(const uint8_t* p)
{
    return Le32(p) | (static_cast<uint64_t>(Le32(p + 4)) << 32);
}

// The relative path a stored name stands for; false for a name that could
// land outside the folder, or that no file system takes.
bool CleanPath(const std::string& name, std::string* path, bool* directory)
{
    if (name.empty())
        return false;
    std::string text = name;
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            return false;
        if (c == '\\')
            c = '/';  // names written on Windows
    }
    *directory = text.back() == '/';
    if (*directory)
        text.pop_back();
    if (text.empty() || text.front() == '/')
        return false;
    size_t start = 0;
    while (start <= text.size()) {
        size_t slash = text.find('/', start);
        if (slash == std::string::npos)
            slash = text.size();
        const std::string part = text.substr(start, slash - start);
        if (part.empty() || part == "." || part == ".." || (start == 0 && part.size() >= 2 && part[1] == ':'))
            return false;
        start = slash + 1;
    }
    *path = text;
    return true;
}

// The ZIP64 extended information in an extra field: the values whose 32-bit
// fields are full, in their fixed order. False for a malformed extra field.
bool ReadZip64(const uint8_t* extra, size_t bytes, uint64_t* size, uint64_t* compressed, uint64_t* offset,
               bool* found)
{
    *found = false;
    size_t at = 0;
    while (at < bytes) {
        if (bytes - at < 4)
            return false;
        const uint16_t id = Le16(extra + at);
        const size_t length = Le16(extra + at + 2);
        if (bytes - at - 4 < length)
            return false;
        if (id == 0x0001) {
            const uint8_t* p = extra + at + 4;
            size_t left = length;
            for (uint64_t* value : {size, compressed, offset}) {
                if (value == nullptr || *value != 0xFFFFFFFF)
                    continue;
                if (left < 8)
                    return false;
                *value = Le64(p);
                p += 8;
                left -= 8;
            }
            *found = true;
        }
        at += 4 + length;
    }
    return true;
}

bool WriteAll(int fd, const uint8_t* data, size_t bytes)
{
    while (bytes > 0) {
        const ssize_t wrote = write(fd, data, bytes);
        if (wrote < 0 && errno == EINTR)
            continue;
        if (wrote <= 0)
            return false;
        data += wrote;
        bytes -= static_cast<size_t>(wrote);
    }
    return true;
}

// Makes the folders of path under dir. kCorrupt when a part is already a file.
ZipArchive::Result MakeFolders(const fs::path& dir, const std::string& path, std::string* error)
{
    fs::path at = dir;
    size_t start = 0;
    while (start < path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos)
            slash = path.size();
        at /= path.substr(start, slash - start);
        struct stat st;
        if (mkdir(at.c_str(), 0755) != 0) {
            if (errno != EEXIST) {
                *error = "cannot make " + at.string() + ": " + strerror(errno);
                return ZipArchive::Result::kIoError;
            }
            if (lstat(at.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
                *error = "corrupt archive: " + path + " runs through a file of the same name";
                return ZipArchive::Result::kCorrupt;
            }
        }
        start = slash + 1;
    }
    return ZipArchive::Result::kOk;
}

}  // namespace

bool ZipArchive::Parse(ByteView zip, std::string* error)
{
    m_zip = zip;
    m_entries.clear();
    uint64_t count = 0, cdOffset = 0, cdBytes = 0, cdEnd = 0;
    return ParseEnd(&count, &cdOffset, &cdBytes, &cdEnd, error) && ParseCentral(count, cdOffset, cdEnd, error);
}

bool ZipArchive::ParseEnd(uint64_t* count, uint64_t* cdOffset, uint64_t* cdBytes, uint64_t* cdEnd, std::string* error)
{
    const uint8_t* z = m_zip.data();
    const size_t size = m_zip.size();
    if (size < kEndBytes) {
        *error = "not a ZIP archive: " + std::to_string(size) + " bytes";
        return false;
    }
    // The end record is the last one whose comment runs exactly to the end.
    size_t end = size - kEndBytes + 1;
    const size_t lowest = size - kEndBytes > 0xFFFF ? size - kEndBytes - 0xFFFF : 0;
    bool found = false;
    while (!found && end-- > lowest)
        found = Le32(z + end) == kEndSig && Le16(z + end + 20) == size - end - kEndBytes;
    if (!found) {
        *error = "not a ZIP archive: no end of central directory record";
        return false;
    }
    uint32_t disk = Le16(z + end + 4), cdDisk = Le16(z + end + 6);
    uint64_t onDisk = Le16(z + end + 8);
    *count = Le16(z + end + 10);
    *cdBytes = Le32(z + end + 12);
    *cdOffset = Le32(z + end + 16);
    *cdEnd = end;
    if (onDisk == 0xFFFF || *count == 0xFFFF || *cdBytes == 0xFFFFFFFF || *cdOffset == 0xFFFFFFFF) {
        // ZIP64: a locator just before the end record points at the real one.
        const size_t locator = end - kLocatorBytes;
        if (end < kLocatorBytes || Le32(z + locator) != kLocator64Sig || Le32(z + locator + 4) != 0 ||
            Le32(z + locator + 16) != 1) {
            *error = "corrupt archive: ZIP64 end record locator missing";
            return false;
        }
        const uint64_t at = Le64(z + locator + 8);
        if (at > locator || locator - at < kEnd64Bytes || Le32(z + at) != kEnd64Sig ||
            Le64(z + at + 4) != locator - at - 12) {
            *error = "corrupt archive: bad ZIP64 end record";
            return false;
        }
        disk = Le32(z + at + 16);
        cdDisk = Le32(z + at + 20);
        onDisk = Le64(z + at + 24);
        *count = Le64(z + at + 32);
        *cdBytes = Le64(z + at + 40);
        *cdOffset = Le64(z + at + 48);
        *cdEnd = at;
    }
    if (disk != 0 || cdDisk != 0 || onDisk != *count) {
        *error = "corrupt archive: it spans several disks";
        return false;
    }
    if (*cdOffset > *cdEnd || *cdBytes != *cdEnd - *cdOffset || *count > *cdBytes / kCentralBytes) {
        *error = "corrupt archive: the central directory does not end where the end record begins";
        return false;
    }
    return true;
}

bool ZipArchive::ParseCentral(uint64_t count, uint64_t cdOffset, uint64_t cdEnd, std::string* error)
{
    const uint8_t* z = m_zip.data();
    uint64_t at = cdOffset;
    std::vector<bool> zip64(count);
    std::set<std::string> paths;
    for (uint64_t i = 0; i < count; ++i) {
        const uint8_t* p = z + at;
        if (cdEnd - at < kCentralBytes || Le32(p) != kCentralSig) {
            *error = "corrupt archive: central directory entry " + std::to_string(i + 1) + " is missing";
            return false;
        }
        const size_t nameBytes = Le16(p + 28), extraBytes = Le16(p + 30), commentBytes = Le16(p + 32);
        if (cdEnd - at - kCentralBytes < nameBytes + extraBytes + commentBytes) {
            *error = "corrupt archive: central directory entry " + std::to_string(i + 1) + " runs past its end";
            return false;
        }
        ZipEntry entry;
        entry.name.assign(reinterpret_cast<const char*>(p + kCentralBytes), nameBytes);
        entry.flags = Le16(p + 8);
        entry.method = Le16(p + 10);
        entry.crc = Le32(p + 16);
        entry.compressedBytes = Le32(p + 20);
        entry.bytes = Le32(p + 24);
        entry.headerOffset = Le32(p + 42);
        const uint16_t diskStart = Le16(p + 34);
        bool has64 = false;
        if (!ReadZip64(p + kCentralBytes + nameBytes, extraBytes, &entry.bytes, &entry.compressedBytes,
                       &entry.headerOffset, &has64)) {
            *error = "corrupt archive: bad extra field in " + entry.name;
            return false;
        }
        zip64[i] = has64;
        const std::string what = "corrupt archive: entry \"" + entry.name + "\" ";
        if (!CleanPath(entry.name, &entry.path, &entry.directory)) {
            *error = what + "has a name that is not a plain relative path";
            return false;
        }
        if (!paths.insert(entry.path).second) {
            *error = what + "comes twice";
            return false;
        }
        if (entry.flags & (kFlagEncrypted | kFlagStrongEncryption)) {
            *error = what + "is encrypted";
            return false;
        }
        if (entry.method != kStored && entry.method != kDeflated) {
            *error = what + "uses compression method " + std::to_string(entry.method);
            return false;
        }
        if (diskStart != 0) {
            *error = what + "is on another disk";
            return false;
        }
        if ((entry.method == kStored && entry.compressedBytes != entry.bytes) ||
            (entry.method == kDeflated && entry.bytes / kMaxDeflateRatio > entry.compressedBytes) ||
            (entry.directory && entry.bytes != 0)) {
            *error = what + "declares " + std::to_string(entry.bytes) + " bytes from " +
                     std::to_string(entry.compressedBytes);
            return false;
        }
        m_entries.push_back(std::move(entry));
        at += kCentralBytes + nameBytes + extraBytes + commentBytes;
    }
    if (at != cdEnd) {
        *error = "corrupt archive: the central directory holds more than its " + std::to_string(count) + " entries";
        return false;
    }
    for (size_t i = 0; i < m_entries.size(); ++i) {
        if (!CheckLocal(&m_entries[i], zip64[i], cdOffset, error))
            return false;
    }
    // No two entries may share bytes.
    std::vector<const ZipEntry*> order;
    for (const ZipEntry& entry : m_entries)
        order.push_back(&entry);
    std::sort(order.begin(), order.end(),
              [](const ZipEntry* a, const ZipEntry* b) { return a->headerOffset < b->headerOffset; });
    for (size_t i = 1; i < order.size(); ++i) {
        if (order[i - 1]->end > order[i]->headerOffset) {
            *error = "corrupt archive: entries \"" + order[i - 1]->name + "\" and \"" + order[i]->name + "\" overlap";
            return false;
        }
    }
    return true;
}

bool ZipArchive::CheckLocal(ZipEntry* entry, bool zip64, uint64_t limit, std::string* error)
{
    const uint8_t* z = m_zip.data();
    const uint64_t h = entry->headerOffset;
    const std::string what = "corrupt archive: entry \"" + entry->name + "\" ";
    if (h > limit || limit - h < kLocalBytes || Le32(z + h) != kLocalSig) {
        *error = what + "has no local header";
        return false;
    }
    const uint8_t* p = z + h;
    const size_t nameBytes = Le16(p + 26), extraBytes = Le16(p + 28);
    if (limit - h - kLocalBytes < nameBytes + extraBytes) {
        *error = what + "has a local header that runs past the entries";
        return false;
    }
    uint64_t bytes = Le32(p + 22), compressed = Le32(p + 18);
    const uint32_t crc = Le32(p + 14);
    bool local64 = false;
    if (!ReadZip64(p + kLocalBytes + nameBytes, extraBytes, &bytes, &compressed, nullptr, &local64)) {
        *error = what + "has a bad extra field in its local header";
        return false;
    }
    bool agrees = Le16(p + 6) == entry->flags && Le16(p + 8) == entry->method &&
                  std::string(reinterpret_cast<const char*>(p + kLocalBytes), nameBytes) == entry->name;
    if (entry->flags & kFlagDescriptor) {
        // Sizes and CRC follow the data; the header may leave them out.
        agrees = agrees && (crc == 0 || crc == entry->crc) &&
                 (compressed == 0 || compressed == 0xFFFFFFFF || compressed == entry->compressedBytes) &&
                 (bytes == 0 || bytes == 0xFFFFFFFF || bytes == entry->bytes);
    } else {
        agrees = agrees && crc == entry->crc && compressed == entry->compressedBytes && bytes == entry->bytes;
    }
    if (!agrees) {
        *error = what + "differs between its local header and the central directory";
        return false;
    }
    entry->dataOffset = h + kLocalBytes + nameBytes + extraBytes;
    if (limit - entry->dataOffset < entry->compressedBytes) {
        *error = what + "runs past the entries";
        return false;
    }
    entry->end = entry->dataOffset + entry->compressedBytes;
    if (entry->flags & kFlagDescriptor) {
        const bool wide = zip64 || local64;
        uint64_t d = entry->end;
        if (limit - d >= 4 && Le32(z + d) == kDescriptorSig)
            d += 4;
        const size_t sizeBytes = wide ? 8 : 4;
        if (limit - d < 4 + 2 * sizeBytes || Le32(z + d) != entry->crc ||
            (wide ? Le64(z + d + 4) : Le32(z + d + 4)) != entry->compressedBytes ||
            (wide ? Le64(z + d + 4 + sizeBytes) : Le32(z + d + 4 + sizeBytes)) != entry->bytes) {
            *error = what + "has a data descriptor that differs from the central directory";
            return false;
        }
        entry->end = d + 4 + 2 * sizeBytes;
    }
    return true;
}

ZipArchive::Result ZipArchive::Extract(const fs::path& dir, std::string* error) const
{
    std::vector<uint8_t> buffer(1 << 20);
    const fs::path* target = dir.empty() ? nullptr : &dir;
    for (const ZipEntry& entry : m_entries) {
        const Result result = ExtractOne(entry, target, buffer.data(), buffer.size(), error);
        if (result != Result::kOk)
            return result;
    }
    return Result::kOk;
}

ZipArchive::Result ZipArchive::ExtractOne(const ZipEntry& entry, const fs::path* dir, uint8_t* buffer,
                                          size_t bufferBytes, std::string* error) const
{
    const std::string what = "corrupt archive: entry \"" + entry.name + "\" ";
    int fd = -1;
    fs::path file;
    if (dir != nullptr) {
        const size_t slash = entry.path.rfind('/');
        const Result made = MakeFolders(*dir, entry.directory ? entry.path
                                                              : (slash == std::string::npos ? std::string()
                                                                                            : entry.path.substr(0, slash)),
                                        error);
        if (made != Result::kOk || entry.directory)
            return made;
        file = *dir / entry.path;
        fd = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd < 0) {
            *error = errno == EEXIST ? what + "collides with a folder of the same name"
                                     : "cannot write " + file.string() + ": " + strerror(errno);
            return errno == EEXIST ? Result::kCorrupt : Result::kIoError;
        }
    } else if (entry.directory) {
        return Result::kOk;
    }
    auto fail = [&](Result result, std::string why) {
        if (fd >= 0)
            close(fd);
        *error = std::move(why);
        return result;
    };
    auto put = [&](const uint8_t* data, size_t bytes) { return fd < 0 || WriteAll(fd, data, bytes); };
    const uint8_t* data = m_zip.data() + entry.dataOffset;
    uLong crc = crc32_z(0, nullptr, 0);
    uint64_t produced = 0;
    if (entry.method == kStored) {
        crc = crc32_z(crc, data, entry.compressedBytes);
        produced = entry.compressedBytes;
        if (!put(data, entry.compressedBytes))
            return fail(Result::kIoError, "cannot write " + file.string() + ": " + strerror(errno));
    } else {
        z_stream stream{};
        if (inflateInit2(&stream, -MAX_WBITS) != Z_OK)
            return fail(Result::kIoError, "zlib: cannot start inflating");
        uint64_t fed = 0;
        int status = Z_OK;
        while (status != Z_STREAM_END) {
            if (stream.avail_in == 0 && fed < entry.compressedBytes) {
                const uint64_t step = std::min<uint64_t>(entry.compressedBytes - fed, 1u << 30);
                stream.next_in = const_cast<Bytef*>(data + fed);
                stream.avail_in = static_cast<uInt>(step);
                fed += step;
            }
            stream.next_out = buffer;
            stream.avail_out = static_cast<uInt>(bufferBytes);
            status = inflate(&stream, Z_NO_FLUSH);
            const size_t out = bufferBytes - stream.avail_out;
            if (status != Z_OK && status != Z_STREAM_END && !(status == Z_BUF_ERROR && out > 0)) {
                inflateEnd(&stream);
                return fail(Result::kCorrupt, what + "does not inflate" +
                                                  (stream.msg != nullptr ? std::string(": ") + stream.msg : ""));
            }
            produced += out;
            if (produced > entry.bytes) {
                inflateEnd(&stream);
                return fail(Result::kCorrupt, what + "inflates to more than its " + std::to_string(entry.bytes) +
                                                  " bytes");
            }
            crc = crc32_z(crc, buffer, out);
            if (!put(buffer, out)) {
                inflateEnd(&stream);
                return fail(Result::kIoError, "cannot write " + file.string() + ": " + strerror(errno));
            }
        }
        const bool used = stream.avail_in == 0 && fed == entry.compressedBytes;
        inflateEnd(&stream);
        if (!used)
            return fail(Result::kCorrupt, what + "has bytes after its deflate stream");
    }
    if (produced != entry.bytes || crc != entry.crc)
        return fail(Result::kCorrupt, what + (produced != entry.bytes ? "is not its declared size" : "fails its CRC-32"));
    if (fd >= 0 && close(fd) != 0) {
        *error = "cannot write " + file.string() + ": " + strerror(errno);
        return Result::kIoError;
    }
    return Result::kOk;
}

}  // namespace study
