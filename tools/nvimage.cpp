// nvimage: makes and reads the device's NVRAM images for bench disks.
//
//   nvimage [--device-id N] [--prev "Mon 05 Jan 2026 09:00:00"] [--picture N]
//           [--key-blob 32HEX] [--block] FILE
//   nvimage --dump FILE
//
// Without --block FILE becomes an NVRAM simulation file (the 35-byte image,
// "\Hard Disk\simnvram.bin"), which the control takes when the flash holds
// no valid image. With --block FILE becomes a whole configuration block as
// the desktop build keeps it ("\Hard Disk\flashblock.bin"): the boot
// loader's magic, the image in the NVRAM area, everything else erased.
// --dump prints the NVRAM fields of either kind of file.
//
// Defaults: device ID 65535, previous session a year before now (so no
// session counts as done), picture index 0, the unprovisioned key blob.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <strings.h>

namespace {

constexpr size_t kImageBytes = 35;
constexpr size_t kBlockBytes = 4660;
constexpr size_t kNVRAMOffset = 1588;
constexpr size_t kMagicOffset = 11 * 4;
const unsigned char kConfigMagic[4] = {0x00, 0x20, 0x23, 0x11};  // 0x11232000, little-endian
const char kDays[7][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
const char kMonths[12][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr uint64_t kTicksPerSecond = 10000000;
constexpr int64_t kDaysFrom1601To1970 = 134774;

// Days since 1970-01-01 of a civil date.
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d)
{
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

// The FILETIME count of a local date and time.
uint64_t Count(int year, int month, int day, int hour, int minute, int second)
{
    const int64_t days = DaysFromCivil(year, month, day) + kDaysFrom1601To1970;
    return static_cast<uint64_t>(((days * 24 + hour) * 60 + minute) * 60 + second) * kTicksPerSecond;
}

bool ParseDateText(const char* text, uint64_t* count)
{
    char dayName[8], monthName[8];
    int day = 0, year = 0, hour = 0, minute = 0, second = 0;
    const int fields = sscanf(text, "%7s %d %7s %d %d:%d:%d", dayName, &day, monthName, &year, &hour,
                              &minute, &second);
    if (fields != 4 && fields != 7)
        return false;
    int month = 0;
    while (month < 12 && strcasecmp(monthName, kMonths[month]) != 0)
        ++month;
    if (month == 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 59)
        return false;
    *count = Count(year, month + 1, day, hour, minute, second);
    return true;
}

std::string DateText(uint64_t count)
{
    const int64_t seconds = static_cast<int64_t>(count / kTicksPerSecond);
    int64_t days = seconds / 86400 - kDaysFrom1601To1970;
    const int64_t rest = seconds % 86400;
    const int weekday = static_cast<int>(((days % 7) + 11) % 7);  // 1970-01-01 was a Thursday
    // Civil date from days since 1970.
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(days - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    const unsigned d = doy - (153 * mp + 2) / 5 + 1;
    const unsigned m = mp < 10 ? mp + 3 : mp - 9;
    const int64_t y = static_cast<int64_t>(yoe) + era * 400 + (m <= 2);
    char text[64];
    snprintf(text, sizeof(text), "%s %02u %s %lld %02d:%02d:%02d", kDays[weekday], d, kMonths[m - 1],
             static_cast<long long>(y), static_cast<int>(rest / 3600), static_cast<int>(rest / 60 % 60),
             static_cast<int>(rest % 60));
    return text;
}

bool ReadFile(const char* path, std::string* bytes)
{
    FILE* f = fopen(path, "rb");
    if (f == nullptr)
        return false;
    char buffer[8192];
    size_t got;
    while ((got = fread(buffer, 1, sizeof(buffer), f)) > 0)
        bytes->append(buffer, got);
    fclose(f);
    return true;
}

int Dump(const char* path)
{
    std::string bytes;
    if (!ReadFile(path, &bytes)) {
        fprintf(stderr, "nvimage: cannot read %s\n", path);
        return 1;
    }
    std::string image;
    if (bytes.size() == kBlockBytes) {
        const bool magic = memcmp(bytes.data() + kMagicOffset, kConfigMagic, 4) == 0;
        printf("configuration block: %s\n", magic ? "boot loader magic present" : "NO boot loader magic");
        image = bytes.substr(kNVRAMOffset, kImageBytes);
    } else if (bytes.size() == kImageBytes) {
        image = bytes;
    } else {
        fprintf(stderr, "nvimage: %s is neither a 35-byte image nor a %zu-byte block\n", path, kBlockBytes);
        return 1;
    }
    const auto* p = reinterpret_cast<const unsigned char*>(image.data());
    auto be = [p](size_t at, int n) {
        uint64_t v = 0;
        for (int i = 0; i < n; ++i)
            v = (v << 8) | p[at + i];
        return v;
    };
    printf("magic:               %.4s%s\n", image.c_str(), memcmp(p, "QVMR", 4) == 0 ? "" : " (not QVMR)");
    printf("format version:      %u\n", p[4]);
    printf("DEVICEID:            %010llu\n", static_cast<unsigned long long>(be(5, 4)));
    printf("PrevSessionDateTime: %s\n", DateText(be(9, 8)).c_str());
    printf("NextPictureIndex:    %d\n", static_cast<int16_t>(be(17, 2)));
    printf("AnonymousName:       ");
    for (int i = 0; i < 16; ++i)
        printf("%x", p[19 + i]);
    printf("\n");
    return 0;
}

int Usage()
{
    fprintf(stderr,
            "usage: nvimage [--device-id N] [--prev \"Mon 05 Jan 2026 09:00:00\"] [--picture N]\n"
            "               [--key-blob 32HEX] [--block] FILE\n"
            "       nvimage --dump FILE\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    unsigned long deviceId = 65535;
    long picture = 0;
    bool block = false;
    const char* out = nullptr;
    unsigned char keyBlob[16];
    memcpy(keyBlob, "Brennock default", 16);

    // A year before now, as the control's own defaults.
    const time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    int lastYear = local.tm_year + 1900 - 1;
    int day = local.tm_mday;
    if (local.tm_mon == 1 && day == 29)
        day = 28;
    uint64_t prev = Count(lastYear, local.tm_mon + 1, day, local.tm_hour, local.tm_min, local.tm_sec);

    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--dump" && hasValue)
            return Dump(argv[i + 1]);
        if (arg == "--block") {
            block = true;
        } else if (arg == "--device-id" && hasValue) {
            deviceId = strtoul(argv[++i], nullptr, 10);
        } else if (arg == "--picture" && hasValue) {
            picture = strtol(argv[++i], nullptr, 10);
        } else if (arg == "--prev" && hasValue) {
            if (!ParseDateText(argv[++i], &prev)) {
                fprintf(stderr, "nvimage: --prev wants \"Mon 05 Jan 2026 09:00:00\"\n");
                return 2;
            }
        } else if (arg == "--key-blob" && hasValue) {
            const char* hex = argv[++i];
            if (strlen(hex) != 32)
                return Usage();
            for (int b = 0; b < 16; ++b) {
                char pair[3] = {hex[2 * b], hex[2 * b + 1], 0};
                char* end = nullptr;
                keyBlob[b] = static_cast<unsigned char>(strtoul(pair, &end, 16));
                if (*end != 0)
                    return Usage();
            }
        } else if (arg[0] != '-' && out == nullptr) {
            out = argv[i];
        } else {
            return Usage();
        }
    }
    if (out == nullptr)
        return Usage();

    unsigned char image[kImageBytes];
    memcpy(image, "QVMR", 4);
    image[4] = 2;
    for (int i = 0; i < 4; ++i)
        image[5 + i] = static_cast<unsigned char>(deviceId >> (24 - 8 * i));
    for (int i = 0; i < 8; ++i)
        image[9 + i] = static_cast<unsigned char>(prev >> (56 - 8 * i));
    image[17] = static_cast<unsigned char>(static_cast<uint16_t>(picture) >> 8);
    image[18] = static_cast<unsigned char>(picture);
    memcpy(image + 19, keyBlob, 16);

    std::string bytes;
    if (block) {
        bytes.assign(kBlockBytes, '\xFF');
        bytes.replace(kMagicOffset, 4, reinterpret_cast<const char*>(kConfigMagic), 4);
        bytes.replace(kNVRAMOffset, kImageBytes, reinterpret_cast<const char*>(image), kImageBytes);
    } else {
        bytes.assign(reinterpret_cast<const char*>(image), kImageBytes);
    }
    FILE* f = fopen(out, "wb");
    if (f == nullptr || fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size() || fclose(f) != 0) {
        fprintf(stderr, "nvimage: cannot write %s\n", out);
        return 1;
    }
    return 0;
}
