#pragma once

#include "InstallationPaths.h"
#include "jwt/Tokens.h"
#include "testing/TemporaryDirectory.h"

#include <cstdio>
#include <filesystem>
#include <string>

namespace testing_support {

/// The installation's public key file, removed at the end.
class HostKeyFile {
public:
    explicit HostKeyFile(const std::string& contents = hostKey().publicPem()) { write(contents); }
    ~HostKeyFile() { remove(); }
    HostKeyFile(const HostKeyFile&) = delete;
    HostKeyFile& operator=(const HostKeyFile&) = delete;

    static std::string path() { return TARVO_ROOT "/var/global/tmsec/jwtkeys/jwtPublicKey"; }
    static void write(const std::string& contents) { writeFile(path(), contents); }
    static void remove() { std::filesystem::remove_all(path()); }
};

}  // namespace testing_support
