// The device's few persistent values, kept in the NVRAM area of the boot
// loader's configuration block in on-board flash.
//
// The 35-byte image (multi-byte numbers big-endian):
//   0  4  magic "QVMR"
//   4  1  format version, 2
//   5  4  device ID, unsigned
//   9  8  previous session start, a FILETIME count of local time
//  17  2  next picture index, signed
//  19 16  key blob (its hex is the device's anonymous name)
// The image is read once at Open; the setters change the copy in memory and
// only Commit writes it back, so flash is rewritten at most once a session.
#pragma once

#include <windows.h>

constexpr int kNVRAMImageBytes = 35;
constexpr int kNVRAMFormatVersion = 2;
constexpr DWORD kKeyBlobBytes = 16;
// What a blank or foreign NVRAM gets; a real device ID is provisioned.
constexpr DWORD kDefaultDeviceID = 65535;

// A stand-in for the flash image, supplied on the device's disk.
extern const wchar_t kSimNVRAMFile[];

class CNVRAMBoard
{
public:
    CNVRAMBoard();
    virtual ~CNVRAMBoard();

    CNVRAMBoard(const CNVRAMBoard&) = delete;
    CNVRAMBoard& operator=(const CNVRAMBoard&) = delete;

    bool Open();
    // Discards the copy, saved or not.
    void Close();
    // Writes the copy to flash when something changed since it was read.
    bool Commit();

    DWORD ReadDeviceID();
    void WriteDeviceID(DWORD id);
    bool NVReadPrevSessionDateTime(SYSTEMTIME* out);
    bool NVWritePrevSessionDateTime(const SYSTEMTIME* when);
    short ReadNextPictureIndex();
    void WriteNextPictureIndex(short index);
    // A null buffer asks for the size; a length below 16 gets 0 and false.
    bool GetKeyBlob(BYTE* buffer, DWORD* length);
    bool SetKeyBlob(const BYTE* buffer, DWORD length);

    // The script's view, by key name (case-insensitive): "DEVICEID",
    // "PrevSessionDateTime", "NextPictureIndex", "AnonymousName". A new[]
    // string, or null.
    wchar_t* NVParameterRead(const wchar_t* key, const wchar_t* defaultValue);
    // Only "NextPictureIndex" can be written.
    bool NVParameterWrite(const wchar_t* key, const wchar_t* value);

    bool IsDirty() const { return m_dirty; }
    // The copy in memory (null while closed), for whoever must see its bytes.
    const BYTE* Image() const { return m_pImage; }

private:
    bool Load();
    void LoadSimNVRAM();
    bool IsOpen() const;

    BYTE* m_pImage;
    bool m_dirty;
};
