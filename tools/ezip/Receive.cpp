#include "tools/ezip/Receive.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/ezip/Package.h"
#include "tools/ezip/ZipArchive.h"
#include "tools/study/Study.h"

namespace study {

namespace fs = std::filesystem;

namespace {

// The output folder must not hold anything yet; its parent must exist.
bool CheckOut(const fs::path& out, Verdict* verdict)
{
    std::error_code ec;
    const fs::file_status status = fs::symlink_status(out, ec);
    if (fs::exists(status) && !(fs::is_directory(status) && fs::is_empty(out, ec)))
        return verdict->Fail(Outcome::kUsage, out.string() + " already exists and is not an empty folder");
    const fs::path parent = out.parent_path().empty() ? fs::path(".") : out.parent_path();
    if (!fs::is_directory(parent, ec))
        return verdict->Fail(Outcome::kUsage, "no folder " + parent.string() + " to make " + out.string() + " in");
    return true;
}

// Unpacks into a new folder beside out and renames it to out once every
// entry is written, so out appears whole or not at all.
bool Unpack(const ZipArchive& zip, const fs::path& out, Verdict* verdict)
{
    const fs::path parent = out.parent_path().empty() ? fs::path(".") : out.parent_path();
    std::string pattern = (parent / ("." + out.filename().string() + ".ezip-XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr)
        return verdict->Fail(Outcome::kUsage, "cannot make a folder beside " + out.string() + ": " + strerror(errno));
    const fs::path temp = pattern;
    // The folder gets the mode mkdir would have given it.
    const mode_t mask = umask(0);
    umask(mask);
    chmod(temp.c_str(), 0777 & ~mask);
    std::string why;
    const ZipArchive::Result result = zip.Extract(temp, &why);
    std::error_code ec;
    if (result != ZipArchive::Result::kOk) {
        fs::remove_all(temp, ec);
        return verdict->Fail(result == ZipArchive::Result::kCorrupt ? Outcome::kBadArchive : Outcome::kUsage, why);
    }
    if (rename(temp.c_str(), out.c_str()) != 0) {
        const int saved = errno;
        fs::remove_all(temp, ec);
        return verdict->Fail(Outcome::kUsage, "cannot rename the unpacked files to " + out.string() + ": " +
                                                  strerror(saved));
    }
    return true;
}

}  // namespace

Verdict Receive(const ReceiveRequest& request)
{
    Verdict verdict;
    if (!request.out.empty() && !CheckOut(request.out, &verdict))
        return verdict;
    Package package;
    Bytes plain;
    if (!package.Open(request.package, &verdict) || !package.Unwrap(request.serverKey, &verdict) ||
        !package.Decrypt(&plain, &verdict))
        return verdict;
    verdict.effectiveBits = package.effectiveBits();

    std::string why;
    uint32_t id = 0;
    switch (request.study->FindDevice(package.deviceKey(), &id, &why)) {
    case Study::Found::kDevice:
        verdict.deviceId = id;
        break;
    case Study::Found::kUnreadable:
        verdict.Fail(Outcome::kUsage, why);
        return verdict;
    default:
        verdict.Fail(Outcome::kUnknownDevice, "unknown device: " + why);
        return verdict;
    }

    ZipArchive zip;
    if (!zip.Parse(plain, &why)) {
        verdict.Fail(Outcome::kBadArchive, why.rfind("corrupt archive", 0) == 0 ? why : "corrupt archive: " + why);
        return verdict;
    }
    verdict.files = zip.entries().size();
    for (const ZipEntry& entry : zip.entries())
        verdict.bytes += entry.bytes;
    if (request.out.empty()) {
        const ZipArchive::Result result = zip.Extract({}, &why);
        if (result != ZipArchive::Result::kOk)
            verdict.Fail(result == ZipArchive::Result::kCorrupt ? Outcome::kBadArchive : Outcome::kUsage, why);
        return verdict;
    }
    Unpack(zip, request.out, &verdict);
    return verdict;
}

}  // namespace study
