// Opening a session package of tens of MB: ezip open and ezip verify against
// the same work done with the stock tools (openssl enc -d, openssl dgst
// -verify, unzip). Best of three runs each.
//
//   bench_ezip [MB]     (default 40: the size of the package)
#include <openssl/core_names.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/tools/support/PackageEncoder.h"
#include "tests/tools/support/ToolsTestKit.h"
#include "tools/crypto/KeyBlob.h"
#include "tools/crypto/RsaKey.h"

using namespace toolstest;

namespace {

double Seconds(const std::string& command)
{
    double best = 1e9;
    for (int run = 0; run < 3; ++run) {
        const auto start = std::chrono::steady_clock::now();
        if (std::system(command.c_str()) != 0) {
            fprintf(stderr, "bench_ezip: failed: %s\n", command.c_str());
            exit(1);
        }
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    return best;
}

// Text that compresses about as well as the device's recordings do.
Bytes Readings(size_t bytes)
{
    std::string text;
    for (unsigned i = 0; text.size() < bytes; ++i)
        text += std::to_string(i * 37 % 100003) + "," + std::to_string(i % 977) + ",tap\r\n";
    text.resize(bytes);
    return Bytes(text.begin(), text.end());
}

}  // namespace

int main(int argc, char** argv)
{
    const size_t megabytes = argc > 1 ? strtoul(argv[1], nullptr, 10) : 40;
    TempDir temp;
    const std::string dir = temp.path().string();
    if (std::system((Provision() + " study " + dir + "/study >/dev/null && " + Provision() + " device " + dir +
                     "/study --id 1 --block " + dir + "/block.bin >/dev/null")
                        .c_str()) != 0)
        return 1;
    BlockKeys keys;
    if (!ReadBlockKeys(temp / "block.bin", &keys))
        return 1;

    // About half random (stored), half recordings (deflated).
    fs::create_directory(temp / "src");
    const size_t mb = 1 << 20;
    WriteBytes(temp / "src" / "audio1.wav", RandomBytes(megabytes * mb / 4));
    WriteBytes(temp / "src" / "audio2.wav", RandomBytes(megabytes * mb / 4));
    WriteBytes(temp / "src" / "taps.motr", Readings(megabytes * mb * 2));
    WriteBytes(temp / "src" / "Manifest.txt", Readings(4096));
    if (std::system(("cd " + dir + "/src && zip -q ../plain.zip *").c_str()) != 0)
        return 1;
    const Bytes zip = ReadBytes(temp / "plain.zip");
    const Bytes package = EncodePackage(keys.device.get(), keys.server.get(), zip);
    WriteBytes(temp / "session.ezip", package);

    // The stock tools' inputs: the parts of the package, the session key unwrapped.
    const size_t k = study::capi::Le32(package.data()), s = study::capi::Le32(package.data() + 4 + k);
    const size_t b = study::capi::Le32(package.data() + 8 + k + s), cipher = 12 + k + s + b;
    Bytes signature(package.begin() + 8 + k, package.begin() + 8 + k + s);
    std::reverse(signature.begin(), signature.end());
    WriteBytes(temp / "sig.bin", signature);
    WriteBytes(temp / "prefix.bin", ByteView(package.data() + 8 + k + s, 4 + b));
    WriteBytes(temp / "cipher.bin", ByteView(package.data() + cipher, package.size() - cipher));
    std::string error;
    study::WritePem(dir + "/device.pub.pem", keys.device.get(), false, &error);
    study::Pkey server = study::ReadPem(dir + "/study/server.key.pem", true, &error);
    Bytes wrapped(package.begin() + 8 + k + s + 4 + 12, package.begin() + cipher);
    std::reverse(wrapped.begin(), wrapped.end());
    study::PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, server.get(), nullptr));
    uint8_t key[512];
    size_t keyBytes = sizeof(key);
    if (EVP_PKEY_decrypt_init(ctx.get()) != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_decrypt(ctx.get(), key, &keyBytes, wrapped.data(), wrapped.size()) != 1)
        return 1;

    const double open = Seconds(Ezip() + " open " + dir + "/session.ezip --key " + dir + "/study/server.key.pem --out " +
                                dir + "/out >/dev/null && rm -r " + dir + "/out");
    const double verify =
        Seconds(Ezip() + " verify " + dir + "/session.ezip --key " + dir + "/study/server.key.pem >/dev/null");
    const double enc = Seconds("openssl enc -d -rc2-cbc -provider legacy -provider default -K " +
                               study::Hex(ByteView(key, keyBytes)) + " -iv 0000000000000000 -in " + dir +
                               "/cipher.bin -out " + dir + "/plain.out");
    const double dgst = Seconds("cat " + dir + "/prefix.bin " + dir + "/plain.out | openssl dgst -md5 -verify " + dir +
                                "/device.pub.pem -signature " + dir + "/sig.bin >/dev/null");
    const double unzip = Seconds("unzip -q -d " + dir + "/unz " + dir + "/plain.out && rm -r " + dir + "/unz");
    const double stock = enc + dgst + unzip;

    uint64_t unpacked = 0;
    for (const auto& entry : fs::directory_iterator(temp / "src"))
        unpacked += entry.file_size();
    printf("package %.1f MB (a ZIP of 4 files, %.1f MB unpacked), best of 3 runs:\n", package.size() / 1e6,
           unpacked / 1e6);
    printf("  ezip open                                 %6.2f s  %6.1f MB/s\n", open, package.size() / 1e6 / open);
    printf("  ezip verify (writes nothing)              %6.2f s  %6.1f MB/s\n", verify, package.size() / 1e6 / verify);
    printf("  openssl enc -d + dgst -verify + unzip     %6.2f s  %6.1f MB/s  (%.2f + %.2f + %.2f)\n", stock,
           package.size() / 1e6 / stock, enc, dgst, unzip);
    return 0;
}
