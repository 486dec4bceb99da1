#include "platform/HttpPeer.h"

#include "platform/CoarseClock.h"
#include "platform/Handles.h"
#include "platform/HttpRequest.h"

#include <platform/Status.h>

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

namespace platform_detail {

namespace {

StampedFile stamped(const Settings& settings, const char* setting, const std::string& path, int unusableStatus) {
    if (path.empty()) {
        throw HttpFailure{platform_status::SETTING_MISSING, "Error reading settings file " + settings.path + ": \"" +
                                                                std::string(setting) + "\" is missing"};
    }
    struct stat file {};
    if (stat(path.c_str(), &file) != 0) {
        throw HttpFailure{unusableStatus, path + ": " + std::generic_category().message(errno)};
    }
    // A named pipe would hold up whoever reads it, and with it every request and fork of the process.
    if (!S_ISREG(file.st_mode)) {
        throw HttpFailure{unusableStatus, path + ": it is not a regular file"};
    }
    return {path,
            {file.st_dev, file.st_ino, file.st_size, file.st_mtim.tv_sec, file.st_mtim.tv_nsec, file.st_ctim.tv_sec,
             file.st_ctim.tv_nsec}};
}

TlsFiles stampedFiles(cert_type certificate, const Settings& settings) {
    TlsFiles files;
    files.issuers = stamped(settings, "tls.caFile", settings.tls.caFile, platform_status::HTTP_CA_FILE_UNUSABLE);
    if (certificate == CERT_HOST) {
        constexpr int UNUSABLE = platform_status::HTTP_CLIENT_CERTIFICATE_UNUSABLE;
        files.certificate = stamped(settings, "tls.certFile", settings.tls.certFile, UNUSABLE);
        files.key = stamped(settings, "tls.keyFile", settings.tls.keyFile, UNUSABLE);
    }
    return files;
}

constexpr std::size_t MOST_ISSUER_BYTES = 8'000'000;  // libcurl takes no more

std::string readIssuers(const std::string& path) {
    const FilePointer file = openToRead(path);
    std::string text;
    std::array<char, 4096> chunk{};
    for (std::size_t count = 0; file && (count = std::fread(chunk.data(), 1, chunk.size(), file.get())) > 0;) {
        text.append(chunk.data(), count);
    }
    if (!file || std::ferror(file.get()) != 0) {
        throw HttpFailure{platform_status::HTTP_CA_FILE_UNUSABLE, path + ": " + std::generic_category().message(errno)};
    }
    if (text.size() > MOST_ISSUER_BYTES) {
        throw HttpFailure{platform_status::HTTP_CA_FILE_UNUSABLE, path + ": it has more than 8000000 bytes"};
    }
    return text;
}

}  // namespace

std::shared_ptr<const TlsFiles> TlsFilesOnDisk::current(cert_type certificate,
                                                        const std::shared_ptr<const Settings>& settings) {
    Seen& seen = certificate == CERT_HOST ? withCertificate_ : without_;
    const std::int64_t now = coarseNow();
    if (seen.settings == settings && seen.at == now) {
        return seen.files;
    }
    TlsFiles files = stampedFiles(certificate, *settings);
    if (!seen.files || !(*seen.files == files)) {
        files.issuersText = readIssuers(files.issuers.path);
        if (certificate == CERT_HOST) {
            files.hostCertificate = std::make_shared<HostCertificate>(files.certificate.path, files.key.path);
        }
        seen.files = std::make_shared<const TlsFiles>(std::move(files));
    }
    seen.settings = settings;
    seen.at = now;
    return seen.files;
}

}  // namespace platform_detail
