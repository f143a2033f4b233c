// provision: a study's keys, its devices' keys and their configuration
// block images.
//
//   provision study DIR
//   provision device DIR --id N --block FILE [--replace]
//   provision show FILE [--study DIR]
//
// "study" makes the study folder once: the server's encryption key pair,
// the authority's signature key pair and an empty device registry.
// "device" makes a device's signature key pair, records the device in the
// study and writes the key region ("ZOLW") of the configuration block image
// FILE: the authority's public key, the device's private key and the
// server's public key as CryptoAPI blobs. An existing FILE keeps everything
// outside that region; a missing one is made erased, with the boot loader's
// magic. The device's private key exists only in FILE.
// "show" prints the key region of FILE, and with --study which of the
// study's keys and devices it holds.
//
// Exit codes: 0 done, 1 failed (one line on standard error), 2 usage.
#include <openssl/crypto.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "tools/crypto/KeyBlob.h"
#include "tools/crypto/RsaKey.h"
#include "tools/study/ConfigBlock.h"
#include "tools/study/Study.h"

namespace {

using namespace study;

int Usage()
{
    fprintf(stderr,
            "usage: provision study DIR\n"
            "       provision device DIR --id N --block FILE [--replace]\n"
            "       provision show FILE [--study DIR]\n");
    return 2;
}

int Fail(const std::string& message)
{
    fprintf(stderr, "provision: %s\n", message.c_str());
    return 1;
}

int MakeStudy(const std::string& dir)
{
    std::string error;
    if (!Study::Create(dir, &error))
        return Fail(error);
    printf("study %s: server and authority keys (%u-bit RSA) made, no devices yet\n", dir.c_str(), Study::kServerBits);
    return 0;
}

int ProvisionDevice(const std::string& dir, const std::string& idText, const std::string& blockPath, bool replace)
{
    uint32_t id = 0;
    if (!Study::ParseId(idText, &id))
        return Fail("bad device id \"" + idText + "\": 1 to 10 digits, at most " + std::to_string(Study::kMaxDeviceId));
    std::string error;
    Study study;
    if (!study.Open(dir, &error))
        return Fail(error);
    ConfigBlock block;
    std::error_code ec;
    if (std::filesystem::exists(blockPath, ec)) {
        if (!block.Load(blockPath, &error))
            return Fail(error);
        if (block.HasTag() && !replace)
            return Fail(blockPath + " already holds a device's keys; --replace to provision it anew");
    }

    Pkey device = GenerateRsa(Study::kDeviceBits, &error);
    if (device == nullptr)
        return Fail(error);
    Bytes authorityBlob, deviceBlob, serverBlob;
    const bool made = capi::WritePublicBlob(study.authorityPublic(), capi::kCalgRsaSign, &authorityBlob, &error) &&
                      capi::WritePrivateBlob(device.get(), capi::kCalgRsaSign, &deviceBlob, &error) &&
                      capi::WritePublicBlob(study.serverPublic(), capi::kCalgRsaKeyx, &serverBlob, &error) &&
                      block.PutKeys(authorityBlob, deviceBlob, serverBlob, &error);
    OPENSSL_cleanse(deviceBlob.data(), deviceBlob.size());
    if (!made)
        return Fail(error);
    // The registry takes the id first; a block that cannot be written gives it back.
    if (!study.AddDevice(id, device.get(), &error))
        return Fail(error);
    if (!block.Save(blockPath, &error)) {
        study.RemoveDevice(id);
        return Fail(error);
    }
    printf("device %s: key %s, recorded in %s, keys written to %s\n", Study::IdText(id).c_str(),
           Fingerprint(device.get()).c_str(), dir.c_str(), blockPath.c_str());
    return 0;
}

int Show(const std::string& blockPath, const std::string& studyDir)
{
    std::string error;
    ConfigBlock block;
    if (!block.Load(blockPath, &error))
        return Fail(error);
    Study study;
    if (!studyDir.empty() && !study.Open(studyDir, &error))
        return Fail(error);
    const bool withStudy = !studyDir.empty();

    printf("block:            %s, %zu bytes, %s\n", blockPath.c_str(), ConfigBlock::kBytes,
           block.HasMagic() ? "boot loader magic present" : "NO boot loader magic");
    uint32_t nvramId = 0;
    const bool hasNvramId = block.NVRAMDeviceId(&nvramId);
    if (hasNvramId)
        printf("NVRAM device ID:  %s\n", Study::IdText(nvramId).c_str());
    else
        printf("NVRAM device ID:  none (no NVRAM image in the block)\n");
    if (!block.HasTag()) {
        printf("key region:       no \"ZOLW\" tag at byte %zu\n", ConfigBlock::kTagOffset);
        return 1;
    }
    bool sound = true;
    for (int s = 0; s < ConfigBlock::kSlots; ++s) {
        const auto slot = ConfigBlock::Slot(s);
        const bool isPrivate = slot == ConfigBlock::kDevicePrivate;
        const uint32_t alg = slot == ConfigBlock::kServerPublic ? capi::kCalgRsaKeyx : capi::kCalgRsaSign;
        char label[32];
        snprintf(label, sizeof(label), "%s:", ConfigBlock::SlotName(slot));
        ByteView blob;
        if (!block.Blob(slot, &blob, &error)) {
            printf("%-17s %s\n", label, error.c_str());
            sound = false;
            continue;
        }
        Pkey key = isPrivate ? capi::ReadPrivateBlob(blob, alg, &error) : capi::ReadPublicBlob(blob, alg, &error);
        if (key == nullptr) {
            printf("%-17s %zu of %zu bytes at %zu, invalid: %s\n", label, blob.size(), ConfigBlock::SlotRoom(slot),
                   ConfigBlock::SlotOffset(slot) + 4, error.c_str());
            sound = false;
            continue;
        }
        std::string note;
        if (withStudy) {
            if (slot == ConfigBlock::kDevicePrivate) {
                uint32_t id = 0;
                std::string why;
                if (study.FindDevice(key.get(), &id, &why) == Study::Found::kDevice) {
                    note = ", device " + Study::IdText(id);
                    if (hasNvramId && nvramId != id)
                        note += " (the NVRAM says " + Study::IdText(nvramId) + ")";
                } else {
                    note = ", NOT a device of this study: " + why;
                    sound = false;
                }
            } else {
                EVP_PKEY* own = slot == ConfigBlock::kServerPublic ? study.serverPublic() : study.authorityPublic();
                const bool same = EVP_PKEY_eq(key.get(), own) == 1;
                note = same ? ", the study's own" : ", NOT the study's key";
                sound = sound && same;
            }
        }
        printf("%-17s %zu of %zu bytes at %zu, %s %s %u-bit, %s%s\n", label, blob.size(), ConfigBlock::SlotRoom(slot),
               ConfigBlock::SlotOffset(slot) + 4, isPrivate ? "PRIVATEKEYBLOB" : "PUBLICKEYBLOB",
               capi::AlgName(alg).c_str(), KeyBits(key.get()), Fingerprint(key.get()).c_str(), note.c_str());
    }
    return sound ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        return Usage();
    const std::string command = argv[1];
    const std::string target = argv[2];
    std::string id, block, studyDir;
    bool replace = false;
    for (int i = 3; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--id" && hasValue)
            id = argv[++i];
        else if (arg == "--block" && hasValue)
            block = argv[++i];
        else if (arg == "--study" && hasValue)
            studyDir = argv[++i];
        else if (arg == "--replace")
            replace = true;
        else
            return Usage();
    }
    if (command == "study" && id.empty() && block.empty() && studyDir.empty() && !replace)
        return MakeStudy(target);
    if (command == "device" && !id.empty() && !block.empty() && studyDir.empty())
        return ProvisionDevice(target, id, block, replace);
    if (command == "show" && id.empty() && block.empty() && !replace)
        return Show(target, studyDir);
    return Usage();
}
