#include "session/FileEncryption.h"

#include <cstring>
#include <new>

#include "diag/DebugOut.h"
#include "session/FlashAccess.h"

namespace {

const wchar_t kKeyContainer[] = L"BrennockKeyContainer";
const wchar_t kProvider[] = L"Microsoft Enhanced Cryptographic Provider v1.0";
// The privacy key's pass phrase; hashed as UTF-16LE with its terminator.
const wchar_t kPassPhrase[] = L"w3R!p9Zt#k2Lq";

constexpr DWORD kKeyBlobBuffer = 1024;
constexpr DWORD kPublicBlobBuffer = 2048;
constexpr DWORD kSessionBlobBuffer = 1024;
constexpr DWORD kInitialSignatureSize = 1024;
constexpr DWORD kChunkBytes = 32768;
// RC2, 128 bits, exportable.
constexpr DWORD kSessionKeyFlags = 0x00800001;

// A cryptographic call failed: its error code and the step.
void CryptError(const wchar_t* step)
{
    DebugOutF(L"Error %x %ls \n", GetLastError(), step);
}

bool WriteAll(HANDLE file, const void* data, DWORD length)
{
    DWORD written = 0;
    return WriteFile(file, data, length, &written, nullptr) && written == length;
}

// The keys of one EncryptFile call.
struct Keys
{
    HCRYPTKEY authorityPublic = 0;
    HCRYPTKEY serverPublic = 0;
    HCRYPTKEY devicePrivate = 0;
    BYTE publicBlob[kPublicBlobBuffer];
    DWORD publicBlobLength = 0;
    DWORD signatureSize = 0;

    void Destroy()
    {
        if (authorityPublic != 0)
            CryptDestroyKey(authorityPublic);
        if (serverPublic != 0)
            CryptDestroyKey(serverPublic);
        if (devicePrivate != 0)
            CryptDestroyKey(devicePrivate);
        authorityPublic = serverPublic = devicePrivate = 0;
    }
};

enum class Blob { AuthorityPublic, DevicePrivate, ServerPublic };

// One provisioned key blob into a buffer of kKeyBlobBuffer bytes. A blob
// that is missing, empty or larger than the buffer does not read.
bool ReadKeyBlob(Blob which, BYTE* buffer, DWORD* length)
{
    DWORD capacity = kKeyBlobBuffer;
    bool read = false;
    switch (which) {
    case Blob::AuthorityPublic:
        read = GetFlashKeyBlobs(buffer, &capacity, nullptr, nullptr, nullptr, nullptr);
        break;
    case Blob::DevicePrivate:
        read = GetFlashKeyBlobs(nullptr, nullptr, buffer, &capacity, nullptr, nullptr);
        break;
    case Blob::ServerPublic:
        read = GetFlashKeyBlobs(nullptr, nullptr, nullptr, nullptr, buffer, &capacity);
        break;
    }
    if (!read || capacity == 0 || capacity > kKeyBlobBuffer)
        return false;
    *length = capacity;
    return true;
}

// The privacy key: an RC2 key derived from the pass phrase. Nothing uses it
// beyond this point, but its hash tells the size of the device's signature.
// Failures here are reported and do not stop the call.
void MakePrivacyKey(HCRYPTPROV provider, HCRYPTHASH* pHash, HCRYPTKEY* pKey)
{
    if (!CryptCreateHash(provider, CALG_MD5, 0, 0, pHash)) {
        CryptError(L"Creating privacy hash");
        *pHash = 0;
        return;
    }
    if (!CryptHashData(*pHash, reinterpret_cast<const BYTE*>(kPassPhrase), sizeof(kPassPhrase), 0))
        CryptError(L"from CryptHashData on privacy key");
    if (!CryptDeriveKey(provider, CALG_RC2, *pHash, 0, pKey)) {
        CryptError(L"from CryptDeriveKey");
        *pKey = 0;
    }
}

bool ImportKeys(HCRYPTPROV provider, Keys* keys)
{
    BYTE blob[kKeyBlobBuffer];
    DWORD length = 0;

    if (!ReadKeyBlob(Blob::AuthorityPublic, blob, &length)) {
        DebugOut(L"Error getting Public Signature Key Blob Body");
        return false;
    }
    if (!CryptImportKey(provider, blob, length, 0, 0, &keys->authorityPublic)) {
        CryptError(L"calling CryptImportKey on authority public signature key");
        keys->authorityPublic = 0;
        return false;
    }

    if (!ReadKeyBlob(Blob::ServerPublic, blob, &length)) {
        DebugOut(L"from GetPublicEncryptionKeyBlob");
        return false;
    }
    if (!CryptImportKey(provider, blob, length, 0, 0, &keys->serverPublic)) {
        CryptError(L"CryptImportKey for Public Encryption Key");
        keys->serverPublic = 0;
        return false;
    }

    if (!ReadKeyBlob(Blob::DevicePrivate, blob, &length)) {
        DebugOut(L"Getting Private Signature Key Blob from NVRAM");
        return false;
    }
    // Importing the private key makes it the container's signature key.
    const BOOL imported = CryptImportKey(provider, blob, length, 0, CRYPT_EXPORTABLE, &keys->devicePrivate);
    SecureZeroMemory(blob, sizeof(blob));
    if (!imported) {
        CryptError(L"in CryptImportKey for Private Signature");
        keys->devicePrivate = 0;
        return false;
    }
    keys->publicBlobLength = sizeof(keys->publicBlob);
    if (!CryptExportKey(keys->devicePrivate, 0, PUBLICKEYBLOB, 0, keys->publicBlob, &keys->publicBlobLength)) {
        CryptError(L"Exporting public part of private signature key");
        return false;
    }
    return true;
}

// The privacy key, the three provisioned keys, the device's public key blob
// and the signature size. On failure every key obtained is destroyed.
bool GetKeys(HCRYPTPROV provider, Keys* keys)
{
    HCRYPTHASH privacyHash = 0;
    HCRYPTKEY privacyKey = 0;
    MakePrivacyKey(provider, &privacyHash, &privacyKey);

    bool ok = ImportKeys(provider, keys);
    keys->signatureSize = kInitialSignatureSize;
    if (ok && privacyHash != 0 &&
        !CryptSignHashW(privacyHash, AT_SIGNATURE, nullptr, 0, nullptr, &keys->signatureSize)) {
        CryptError(L"calculating signature size with CryptSignHash");
        ok = false;
    }
    if (privacyHash != 0)
        CryptDestroyHash(privacyHash);
    if (privacyKey != 0)
        CryptDestroyKey(privacyKey);
    if (!ok)
        keys->Destroy();
    return ok;
}

// The session key record and the cipher text, hashing B, the record and the
// plain text on the way; then the signature into pSignature (S bytes).
bool EncryptAndSign(HCRYPTPROV provider, const Keys& keys, HANDLE input, HANDLE output, BYTE* pSignature)
{
    HCRYPTKEY sessionKey = 0;
    HCRYPTHASH hash = 0;
    bool ok = false;
    BYTE* chunk = nullptr;
    // B, then the blob, as they go into the file and the hash.
    BYTE record[4 + kSessionBlobBuffer];
    DWORD blobLength = kSessionBlobBuffer;

    if (!CryptGenKey(provider, CALG_RC2, kSessionKeyFlags, &sessionKey)) {
        CryptError(L"CryptGenKey for session encryption key");
        sessionKey = 0;
        goto done;
    }
    if (!CryptExportKey(sessionKey, keys.serverPublic, SIMPLEBLOB, 0, record + 4, &blobLength)) {
        CryptError(L"exporting encrypted session key");
        goto done;
    }
    if (!CryptCreateHash(provider, CALG_MD5, 0, 0, &hash)) {
        CryptError(L"creating hash of object");
        hash = 0;
        goto done;
    }
    memcpy(record, &blobLength, 4);
    if (!CryptHashData(hash, record, blobLength + 4, 0)) {
        CryptError(L"hashing session blob data");
        goto done;
    }
    if (!WriteAll(output, record, blobLength + 4)) {
        DebugOut(L"writing session blob");
        goto done;
    }

    chunk = new (std::nothrow) BYTE[kChunkBytes];
    if (chunk == nullptr)
        goto done;
    for (;;) {
        DWORD got = 0;
        if (!ReadFile(input, chunk, kChunkBytes, &got, nullptr)) {
            DebugOut(L"reading data from input file for encryption");
            goto done;
        }
        // A whole chunk is never the last: the read after it decides, and
        // when it brings nothing no padding is added at all.
        const BOOL final = got < kChunkBytes;
        if (got > 0) {
            DWORD length = got;
            if (!CryptEncrypt(sessionKey, hash, final, 0, chunk, &length, kChunkBytes)) {
                CryptError(L"CryptEncrypt");
                goto done;
            }
            if (!WriteAll(output, chunk, length)) {
                DebugOut(L"writing encrypted data");
                goto done;
            }
        }
        if (final)
            break;
    }

    {
        DWORD signatureLength = keys.signatureSize;
        if (!CryptSignHashW(hash, AT_SIGNATURE, nullptr, 0, pSignature, &signatureLength)) {
            CryptError(L"from CryptSignHash");
            goto done;
        }
        if (signatureLength != keys.signatureSize) {
            DebugOut(L"old and new signature sizes don't match");
            goto done;
        }
    }
    ok = true;

done:
    delete[] chunk;
    if (hash != 0)
        CryptDestroyHash(hash);
    if (sessionKey != 0)
        CryptDestroyKey(sessionKey);
    return ok;
}

}  // namespace

HANDLE WriteOutputHeader(const wchar_t* toFile, const BYTE* publicKeyBlob, DWORD blobLength, DWORD uiSigSize,
                         DWORD* pSignatureOffset)
{
    HANDLE file = CreateFileW(toFile, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        DebugOut(L"writing output file with header info");
        return INVALID_HANDLE_VALUE;
    }
    bool ok = WriteAll(file, &blobLength, 4) && WriteAll(file, publicKeyBlob, blobLength) &&
              WriteAll(file, &uiSigSize, 4);
    if (ok) {
        *pSignatureOffset = SetFilePointer(file, 0, nullptr, FILE_CURRENT);
        ok = *pSignatureOffset != INVALID_SET_FILE_POINTER;
    }
    if (ok) {
        BYTE* placeholder = new (std::nothrow) BYTE[uiSigSize]();
        ok = placeholder != nullptr && WriteAll(file, placeholder, uiSigSize);
        delete[] placeholder;
    }
    if (!ok) {
        DebugOut(L"writing output file with header info");
        CloseHandle(file);
        return INVALID_HANDLE_VALUE;
    }
    return file;
}

bool FinishOutputFile(HANDLE file, DWORD signatureOffset, DWORD uiSigSize, const BYTE* pbySignature)
{
    if (file == INVALID_HANDLE_VALUE || file == nullptr) {
        DebugOut(L"output file invalid in FinishOutputFile");
        return false;
    }
    bool ok = false;
    if (uiSigSize == 0 || pbySignature == nullptr) {
        DebugOut(L"uiSigSize is zero, or pbySignature is NULL in FinishOutputFile");
    } else if (SetFilePointer(file, static_cast<LONG>(signatureOffset), nullptr, FILE_BEGIN) ==
                   INVALID_SET_FILE_POINTER ||
               !WriteAll(file, pbySignature, uiSigSize)) {
        DebugOut(L"Error from WriteFile while trying to FinishOutputFile");
    } else {
        ok = true;
    }
    CloseHandle(file);
    return ok;
}

void EndCrypt(HCRYPTPROV provider)
{
    if (provider == 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        CryptError(L"in EndCrypt");
        return;
    }
    CryptReleaseContext(provider, 0);
}

int EncryptFile(const wchar_t* fromFile, const wchar_t* toFile)
{
    if (fromFile == nullptr || toFile == nullptr)
        return 0;

    HCRYPTPROV provider = 0;
    if (!CryptAcquireContextW(&provider, kKeyContainer, kProvider, PROV_RSA_FULL, 0) &&
        !CryptAcquireContextW(&provider, kKeyContainer, kProvider, PROV_RSA_FULL, CRYPT_NEWKEYSET)) {
        CryptError(L"Creating context");
        return 0;
    }

    // Only a zero handle counts as a failed open here: a file that is not
    // there shows up at the first read, after the header is written.
    HANDLE input = CreateFileW(fromFile, GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    int result = 0;
    Keys keys;
    BYTE* signature = nullptr;
    if (input == nullptr) {
        DebugOut(L"opening input file for encryption");
    } else if (GetKeys(provider, &keys)) {
        DWORD signatureOffset = 0;
        HANDLE output = WriteOutputHeader(toFile, keys.publicBlob, keys.publicBlobLength, keys.signatureSize,
                                          &signatureOffset);
        if (output != INVALID_HANDLE_VALUE) {
            signature = new (std::nothrow) BYTE[keys.signatureSize];
            if (signature != nullptr && EncryptAndSign(provider, keys, input, output, signature))
                result = FinishOutputFile(output, signatureOffset, keys.signatureSize, signature) ? 1 : 0;
            else
                CloseHandle(output);
        }
    }
    delete[] signature;
    keys.Destroy();
    if (input != nullptr && input != INVALID_HANDLE_VALUE)
        CloseHandle(input);
    EndCrypt(provider);
    return result;
}
