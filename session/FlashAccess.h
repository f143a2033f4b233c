// Access to the boot loader's configuration block in on-board flash.
//
// The block holds two regions this control cares about: a 256-byte NVRAM
// area that the control may rewrite, and a read-only area tagged "ZOLW" with
// the key blobs provisioned at the factory. Reading copies the whole block
// out; rewriting patches a copy and puts the whole block back.
//
// Where the block lives is a seam (IConfigBlockStore):
//   - the device: the flash itself, memory-mapped, rewritten with the chips'
//     erase/program command protocol (CFlashProgrammer over CMappedFlashBus);
//   - the desktop: an image of the block in "\Hard Disk\flashblock.bin" on
//     the device disk; a missing file reads as an erased block (all 0xFF);
//   - tests may install any other store, e.g. the programmer over a model of
//     the flash chips.
#pragma once

#include <windows.h>

// Configuration block layout. Words are 32-bit little-endian.
constexpr DWORD kConfigBlockBytes = 4660;             // 1165 words
constexpr DWORD kConfigBlockWords = kConfigBlockBytes / 4;
constexpr DWORD kFlashEraseBlockBytes = 0x20000;      // the block starts its 128 KB erase block
constexpr DWORD kConfigMagicWord = 11;
constexpr DWORD kConfigMagic = 0x11232000;
constexpr DWORD kNVRAMAreaOffset = 1588;
constexpr DWORD kNVRAMAreaBytes = 256;
constexpr DWORD kKeyTagOffset = 2612;                 // the letters "ZOLW"
constexpr DWORD kAuthorityPublicKeyOffset = 2624;     // each blob: 32-bit length, then its bytes
constexpr DWORD kDevicePrivateKeyOffset = 3132;
constexpr DWORD kServerPublicKeyOffset = 4152;

// Where the configuration block is kept.
struct IConfigBlockStore
{
    // Copies the whole block out.
    virtual bool ReadBlock(BYTE* block) = 0;
    // Replaces the whole block.
    virtual bool WriteBlock(const BYTE* block) = 0;

protected:
    ~IConfigBlockStore() = default;
};

// The desktop backing: the block image in a file on the device disk.
class CFileBlockStore final : public IConfigBlockStore
{
public:
    explicit CFileBlockStore(const wchar_t* path);
    bool ReadBlock(BYTE* block) override;
    bool WriteBlock(const BYTE* block) override;

private:
    const wchar_t* m_path;
};

// The file the desktop build keeps the block image in.
extern const wchar_t kFlashBlockFile[];

// The store in use: the one installed, else the build's own backing.
IConfigBlockStore* FlashStore();
// Installs store (null: the build's own backing again); returns the previous
// one. Host thread only.
IConfigBlockStore* FlashStoreInstall(IConfigBlockStore* store);

// Bytes of the NVRAM area. offset >= 0, length >= 1 and offset + length <= 256,
// else false.
bool GetNVRAM(int offset, int length, BYTE* buffer);
bool PutNVRAM(int offset, int length, const BYTE* buffer);

// The three provisioned key blobs. For each blob, an optional buffer and an
// optional in/out capacity: the capacity becomes the blob's length, and the
// bytes are copied when the buffer is given and the capacity was enough.
// False when the block has no "ZOLW" tag (or cannot be read); else true when
// any blob was asked for.
bool GetFlashKeyBlobs(BYTE* authorityPublic, DWORD* authorityPublicLength, BYTE* devicePrivate,
                      DWORD* devicePrivateLength, BYTE* serverPublic, DWORD* serverPublicLength);
