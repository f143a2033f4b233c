// What became of a session package: the outcome (which is also the ezip
// tool's exit code) and one line that says why.
#pragma once

#include <cstdint>
#include <string>

namespace study {

enum class Outcome : int
{
    kOk = 0,
    kUsage = 1,          // bad arguments, or a file or folder that cannot be read or written
    kNotPackage = 2,     // a header field no package has
    kTruncated = 3,      // the file ends before its fields do
    kWrongKey = 4,       // the session key does not unwrap with the server key given
    kBadSignature = 5,   // the device's signature does not match what the package holds
    kUnknownDevice = 6,  // signed by a key the study did not provision
    kBadArchive = 7,     // the signed plain text is not a sound ZIP archive
};

struct Verdict
{
    Outcome outcome = Outcome::kOk;
    std::string message;
    uint32_t deviceId = 0;  // the sender, once known
    size_t files = 0;       // the archive's entries, once checked
    uint64_t bytes = 0;     // their unpacked size
    unsigned effectiveBits = 128;  // RC2's effective key length in the package

    bool Fail(Outcome what, std::string why)
    {
        outcome = what;
        message = std::move(why);
        return false;
    }
};

}  // namespace study
