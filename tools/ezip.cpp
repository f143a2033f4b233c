// ezip: the study server's reader of session packages (".ezip").
//
//   ezip open PACKAGE --key SERVER_KEY --out DIR [--study STUDYDIR]
//   ezip verify PACKAGE --key SERVER_KEY [--study STUDYDIR]
//   ezip info PACKAGE [--study STUDYDIR]
//
// "open" unwraps the session key with the server's private key, decrypts,
// checks the device's signature, checks that the study provisioned that
// device, checks the ZIP archive inside and unpacks it into DIR (which must
// not exist yet, or be empty); nothing appears in DIR unless all of that
// holds. "verify" does the same and writes nothing. "info" needs no key: it
// shows the package's fields. The study folder defaults to the folder the
// server key is in.
//
// Exit codes: 0 ok, 1 usage or I/O, 2 not a package, 3 truncated, 4 wrong
// server key, 5 signature mismatch, 6 unknown device, 7 corrupt archive.
#include <cstdio>
#include <filesystem>
#include <string>

#include "tools/crypto/KeyBlob.h"
#include "tools/crypto/RsaKey.h"
#include "tools/ezip/Package.h"
#include "tools/ezip/Receive.h"
#include "tools/study/Study.h"

namespace {

using namespace study;

int Usage()
{
    fprintf(stderr,
            "usage: ezip open PACKAGE --key SERVER_KEY --out DIR [--study STUDYDIR]\n"
            "       ezip verify PACKAGE --key SERVER_KEY [--study STUDYDIR]\n"
            "       ezip info PACKAGE [--study STUDYDIR]\n");
    return static_cast<int>(Outcome::kUsage);
}

int Report(const std::string& package, const Verdict& verdict)
{
    fprintf(stderr, "ezip: %s: %s\n", package.c_str(), verdict.message.c_str());
    return static_cast<int>(verdict.outcome);
}

int Info(const std::string& path, const std::string& studyDir)
{
    Package package;
    Verdict verdict;
    if (!package.Open(path, &verdict))
        return Report(path, verdict);
    EVP_PKEY* device = package.deviceKey();
    const uint64_t n = package.cipherBytes();
    std::string plain;
    if (n % Package::kBlockBytes != 0)
        plain = "not whole 8-byte blocks: truncated";
    else if (n == 0)
        plain = "0 bytes";
    else if (n % Package::kPieceBytes == 0)
        plain = std::to_string(n) + " bytes, or " + std::to_string(n - 8) + " to " + std::to_string(n - 1) +
                " if it ends in padding";
    else
        plain = std::to_string(n - 8) + " to " + std::to_string(n - 1) + " bytes";
    printf("package:     %s, %llu bytes\n", path.c_str(), static_cast<unsigned long long>(package.fileBytes()));
    printf("K:           %u, device key PUBLICKEYBLOB CALG_RSA_SIGN %u-bit, %s\n", package.K(), KeyBits(device),
           Fingerprint(device).c_str());
    printf("S:           %u, signature\n", package.S());
    printf("B:           %u, session key SIMPLEBLOB CALG_RC2 wrapped with CALG_RSA_KEYX for a %u-bit server key\n",
           package.B(), package.wrapBits());
    printf("cipher text: %llu bytes at byte %llu\n", static_cast<unsigned long long>(n),
           static_cast<unsigned long long>(package.cipherOffset()));
    printf("plain text:  %s\n", plain.c_str());
    if (!studyDir.empty()) {
        Study study;
        std::string error;
        if (!study.Open(studyDir, &error)) {
            fprintf(stderr, "ezip: %s\n", error.c_str());
            return static_cast<int>(Outcome::kUsage);
        }
        uint32_t id = 0;
        const Study::Found found = study.FindDevice(device, &id, &error);
        printf("device:      %s\n", found == Study::Found::kDevice ? Study::IdText(id).c_str() : error.c_str());
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        return Usage();
    const std::string command = argv[1];
    const std::string package = argv[2];
    std::string keyPath, out, studyDir;
    for (int i = 3; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--key" && hasValue)
            keyPath = argv[++i];
        else if (arg == "--out" && hasValue)
            out = argv[++i];
        else if (arg == "--study" && hasValue)
            studyDir = argv[++i];
        else
            return Usage();
    }
    if (command == "info" && keyPath.empty() && out.empty())
        return Info(package, studyDir);
    if (keyPath.empty() || !((command == "open" && !out.empty()) || (command == "verify" && out.empty())))
        return Usage();

    std::string error;
    if (!LoadProviders(&error)) {
        fprintf(stderr, "ezip: %s\n", error.c_str());
        return static_cast<int>(Outcome::kUsage);
    }
    if (studyDir.empty()) {
        studyDir = std::filesystem::path(keyPath).parent_path().string();
        if (studyDir.empty())
            studyDir = ".";
    }
    Pkey serverKey = ReadPem(keyPath, true, &error);
    Study study;
    if (serverKey == nullptr || !study.Open(studyDir, &error)) {
        fprintf(stderr, "ezip: %s\n", error.c_str());
        return static_cast<int>(Outcome::kUsage);
    }
    ReceiveRequest request;
    request.package = package;
    request.serverKey = serverKey.get();
    request.study = &study;
    request.out = out;
    const Verdict verdict = Receive(request);
    if (verdict.outcome != Outcome::kOk)
        return Report(package, verdict);
    printf("%s: from device %s, %zu entries, %llu bytes%s%s%s\n", package.c_str(),
           Study::IdText(verdict.deviceId).c_str(), verdict.files, static_cast<unsigned long long>(verdict.bytes),
           verdict.effectiveBits == 128 ? "" : " (RC2 with 40 effective key bits)",
           out.empty() ? ", verified" : ", unpacked into ", out.c_str());
    return 0;
}
