// Encrypting and signing a file for the study's server.
//
// EncryptFile reads a plain file and writes a package (integers 32-bit
// little-endian, key blobs as CryptoAPI exports them):
//
//   0            4  K, the length of the device's public signature key blob
//   4            K  that PUBLICKEYBLOB, exported from the device's private key
//   4+K          4  S, the signature length
//   8+K          S  the signature, written last over a placeholder
//   8+K+S        4  B, the length of the session key blob
//   12+K+S       B  a fresh RC2-128 session key as a SIMPLEBLOB, wrapped with
//                   the server's public encryption key
//   12+K+S+B   ...  the plain file encrypted with the session key, in chunks
//                   of 32768 bytes; the last chunk is padded only when the
//                   file is not a whole number of chunks long
//
// The signature is the device's (AT_SIGNATURE) over MD5(B, the session key
// blob, the plain text). The three keys come from the provisioned key blobs
// of the configuration block; the platform's Enhanced provider does the
// cryptography in the key container "BrennockKeyContainer".
//
// Errors of the cryptographic calls are written as "Error <code> <step> \n"
// with the thread's last error; other failures as the step's bare text.
#pragma once

#include <windows.h>

#include <wincrypt.h>

// winbase.h maps EncryptFile to the file system's own encryption call; the
// name here is ours.
#ifdef EncryptFile
#undef EncryptFile
#endif

// 1 when toFile holds the signed package of fromFile; 0 on any failure, which
// may leave a partly written toFile with its placeholder signature.
int EncryptFile(const wchar_t* fromFile, const wchar_t* toFile);

// Creates toFile and writes K, the public key blob, S and S placeholder
// bytes; *pSignatureOffset gets where the signature goes. The open file, or
// INVALID_HANDLE_VALUE.
HANDLE WriteOutputHeader(const wchar_t* toFile, const BYTE* publicKeyBlob, DWORD blobLength, DWORD uiSigSize,
                         DWORD* pSignatureOffset);

// Puts the signature in its place and closes the file (in every case but an
// invalid handle).
bool FinishOutputFile(HANDLE file, DWORD signatureOffset, DWORD uiSigSize, const BYTE* pbySignature);

// Releases the cryptographic context.
void EndCrypt(HCRYPTPROV provider);
