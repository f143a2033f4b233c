// A session package as the study's server opens it: the header fields and
// the device's key blob, the session key unwrapped with the server's key,
// the cipher text decrypted and the signature checked, then the archive
// inside parsed. The server key is the fuzz corpus's own (fuzz/keys), the
// one the seed packages were made for.
//
// Input: the package file.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include <openssl/pem.h>

#include "tools/ezip/Package.h"
#include "tools/ezip/ZipArchive.h"

namespace {

EVP_PKEY* g_server = nullptr;
int g_fd = -1;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    FILE* file = fopen(FUZZ_SERVER_KEY, "r");
    if (file == nullptr || (g_server = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr)) == nullptr) {
        fprintf(stderr, "cannot read the server key %s\n", FUZZ_SERVER_KEY);
        abort();
    }
    fclose(file);
    g_fd = memfd_create("package", 0);
    if (g_fd < 0)
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The package reader takes a path: the input goes into one memory file.
    if (ftruncate(g_fd, 0) != 0 || pwrite(g_fd, data, size, 0) != static_cast<ssize_t>(size))
        abort();
    const std::string path = "/proc/self/fd/" + std::to_string(g_fd);
    study::Package package;
    study::Verdict verdict;
    if (!package.Open(path, &verdict) || !package.Unwrap(g_server, &verdict))
        return 0;
    study::Bytes plain;
    if (!package.Decrypt(&plain, &verdict))
        return 0;
    study::ZipArchive zip;
    std::string error;
    if (zip.Parse(plain, &error))
        zip.Extract({}, &error);
    return 0;
}
