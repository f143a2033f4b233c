#include "tools/study/ConfigBlock.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "tools/crypto/KeyBlob.h"
#include "tools/crypto/RsaKey.h"

namespace study {

namespace {

constexpr size_t kSlotOffsets[] = {2624, 3132, 4152, ConfigBlock::kBytes};
constexpr char kTag[4] = {'Z', 'O', 'L', 'W'};

}  // namespace

size_t ConfigBlock::SlotOffset(Slot slot)
{
    return kSlotOffsets[slot];
}

size_t ConfigBlock::SlotRoom(Slot slot)
{
    return kSlotOffsets[slot + 1] - kSlotOffsets[slot] - 4;
}

const char* ConfigBlock::SlotName(Slot slot)
{
    static const char* const kNames[] = {"authority public", "device private", "server public"};
    return kNames[slot];
}

ConfigBlock::ConfigBlock() : m_bytes(kBytes, 0xFF)
{
    capi::PutLe32(m_bytes.data() + kMagicOffset, kMagic);
}

bool ConfigBlock::Load(const std::string& path, std::string* error)
{
    Bytes bytes;
    if (!ReadWholeFile(path, &bytes, error))
        return false;
    if (bytes.size() != kBytes) {
        *error = path + " is " + std::to_string(bytes.size()) + " bytes, a configuration block is " +
                 std::to_string(kBytes);
        return false;
    }
    m_bytes = std::move(bytes);
    return true;
}

bool ConfigBlock::Save(const std::string& path, std::string* error) const
{
    // The new image goes beside the old one and replaces it in one step, so
    // a failed write leaves the old block as it was.
    const std::string temp = path + ".new";
    FILE* f = fopen(temp.c_str(), "wb");
    bool ok = f != nullptr && fwrite(m_bytes.data(), 1, m_bytes.size(), f) == m_bytes.size();
    if (f != nullptr)
        ok = fflush(f) == 0 && fsync(fileno(f)) == 0 && ok;
    if (f != nullptr)
        ok = fclose(f) == 0 && ok;
    if (ok) {
        std::error_code ec;
        if (std::filesystem::exists(path, ec))
            std::filesystem::permissions(temp, std::filesystem::status(path, ec).permissions(), ec);
        ok = rename(temp.c_str(), path.c_str()) == 0;
    }
    if (!ok) {
        *error = "cannot write " + path + ": " + strerror(errno);
        unlink(temp.c_str());
    }
    return ok;
}

bool ConfigBlock::HasTag() const
{
    return memcmp(m_bytes.data() + kTagOffset, kTag, 4) == 0;
}

bool ConfigBlock::HasMagic() const
{
    return capi::Le32(m_bytes.data() + kMagicOffset) == kMagic;
}

bool ConfigBlock::PutKeys(ByteView authorityPublic, ByteView devicePrivate, ByteView serverPublic, std::string* error)
{
    const ByteView blobs[kSlots] = {authorityPublic, devicePrivate, serverPublic};
    for (int s = 0; s < kSlots; ++s) {
        if (blobs[s].size() > SlotRoom(Slot(s))) {
            *error = std::string("the ") + SlotName(Slot(s)) + " key blob is " + std::to_string(blobs[s].size()) +
                     " bytes, its slot holds " + std::to_string(SlotRoom(Slot(s)));
            return false;
        }
    }
    std::fill(m_bytes.begin() + kTagOffset, m_bytes.end(), 0xFF);
    memcpy(m_bytes.data() + kTagOffset, kTag, 4);
    for (int s = 0; s < kSlots; ++s) {
        uint8_t* at = m_bytes.data() + SlotOffset(Slot(s));
        capi::PutLe32(at, static_cast<uint32_t>(blobs[s].size()));
        memcpy(at + 4, blobs[s].data(), blobs[s].size());
    }
    return true;
}

bool ConfigBlock::Blob(Slot slot, ByteView* blob, std::string* error) const
{
    const uint8_t* at = m_bytes.data() + SlotOffset(slot);
    const uint32_t length = capi::Le32(at);
    if (length > SlotRoom(slot)) {
        *error = std::string("the ") + SlotName(slot) + " slot says " + std::to_string(length) + " bytes, it holds " +
                 std::to_string(SlotRoom(slot));
        return false;
    }
    *blob = ByteView(at + 4, length);
    return true;
}

bool ConfigBlock::NVRAMDeviceId(uint32_t* id) const
{
    const uint8_t* image = m_bytes.data() + kNVRAMOffset;
    if (memcmp(image, "QVMR", 4) != 0)
        return false;
    *id = (static_cast<uint32_t>(image[5]) << 24) | (image[6] << 16) | (image[7] << 8) | image[8];
    return true;
}

}  // namespace study
