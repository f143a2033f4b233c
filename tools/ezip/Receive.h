// The study server's handling of one session package: unwrap, decrypt and
// check the device's signature, make sure the study provisioned that device,
// check the archive inside, and only then unpack it.
#pragma once

#include <filesystem>
#include <string>

#include "tools/crypto/OpenSsl.h"
#include "tools/ezip/Verdict.h"

namespace study {

class Study;

struct ReceiveRequest
{
    std::string package;
    EVP_PKEY* serverKey = nullptr;  // the server's private key
    const Study* study = nullptr;
    // Where the archive's files go: a folder that does not exist yet (or is
    // empty). Empty: everything is checked and nothing is written.
    std::filesystem::path out;
};

Verdict Receive(const ReceiveRequest& request);

}  // namespace study
