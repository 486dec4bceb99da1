#pragma once

#include "platform/HostCertificate.h"
#include "platform/Settings.h"

#include <platform/HttpClient.h>

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <tuple>

namespace platform_detail {

/// What tells one state of a file from another: device, inode, size, time of modification, time of change.
using FileStamp = std::tuple<dev_t, ino_t, off_t, time_t, long, time_t, long>;

/// A certificate file in the state in which it is used; empty where none is.
struct StampedFile {
    std::string path;
    FileStamp stamp;

    friend bool operator==(const StampedFile& a, const StampedFile& b) {
        return a.stamp == b.stamp && a.path == b.path;
    }
};

/// On which terms a connection is made: equal where the files are.
struct TlsFiles {
    StampedFile issuers;
    std::string issuersText;  // what that file holds
    StampedFile certificate;
    StampedFile key;
    std::shared_ptr<const HostCertificate> hostCertificate;  // what the last two hold; null where there is none

    friend bool operator==(const TlsFiles& a, const TlsFiles& b) {
        return a.issuers == b.issuers && a.certificate == b.certificate && a.key == b.key;
    }
};

/// The certificate files in their present state. They are looked at once in every tick of the coarse clock, so an
/// exchange shows after 10 ms at the latest. In one thread's hands at a time.
class TlsFilesOnDisk {
public:
    /// Never null, and the same as before where nothing has changed.
    ///
    /// @throws HttpFailure where a setting is missing or a file cannot be used.
    std::shared_ptr<const TlsFiles> current(cert_type certificate, const std::shared_ptr<const Settings>& settings);

private:
    struct Seen {
        std::shared_ptr<const Settings> settings;
        std::shared_ptr<const TlsFiles> files;
        std::int64_t at = 0;
    };
    Seen withCertificate_;
    Seen without_;
};

/// Whom a connection is to: a connection, or a TLS session, serves only requests with an equal peer. Certificates that
/// were exchanged on disk make another peer.
struct HttpPeer {
    std::string host;
    int port;
    std::shared_ptr<const TlsFiles> files;  // never null

    friend bool operator==(const HttpPeer& a, const HttpPeer& b) {
        return a.port == b.port && a.host == b.host && (a.files == b.files || *a.files == *b.files);
    }
};

}  // namespace platform_detail
