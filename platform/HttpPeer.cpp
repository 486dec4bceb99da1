#include "platform/HttpPeer.h"

#include "platform/CoarseClock.h"
#include "platform/HttpRequest.h"
#include "platform/PemText.h"
#include "platform/WholeFile.h"

#include <platform/Status.h>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <system_error>
#include <utility>

namespace platform_detail {

namespace {

constexpr off_t MOST_BYTES = 8'000'000;  // libcurl takes no more

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
    if (file.st_size > MOST_BYTES) {
        throw HttpFailure{unusableStatus, path + ": it has more than 8000000 bytes"};
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

int noteQuestion(char* /*buffer*/, int /*size*/, int /*encrypting*/, void* asked) {
    *static_cast<bool*>(asked) = true;
    return -1;
}

/// libcurl leaves OpenSSL to ask the terminal for the password of a certificate that is encrypted.
bool needsPassword(const std::string& issuers) {
    bool asked = false;
    if (const BioPointer text = readable(issuers)) {
        sk_X509_INFO_pop_free(PEM_X509_INFO_read_bio(text.get(), nullptr, noteQuestion, &asked), X509_INFO_free);
    }
    ERR_clear_error();
    return asked;
}

PemFile readPem(const StampedFile& file, int unusableStatus) {
    PemFile read{file.path, ""};
    const Descriptor opened = openWithoutWaiting(file.path);
    if (!opened.isOpen() || !readAll(opened, read.text)) {
        throw HttpFailure{unusableStatus, file.path + ": " + std::generic_category().message(errno)};
    }
    return read;
}

std::string readIssuers(const StampedFile& file) {
    constexpr int UNUSABLE = platform_status::HTTP_CA_FILE_UNUSABLE;
    std::string text = readPem(file, UNUSABLE).text;
    if (needsPassword(text)) {
        throw HttpFailure{UNUSABLE, file.path + ": a certificate in it is encrypted"};
    }
    return text;
}

std::shared_ptr<const HostCertificate> readHostCertificate(const TlsFiles& files) {
    constexpr int UNUSABLE = platform_status::HTTP_CLIENT_CERTIFICATE_UNUSABLE;
    const PemFile certificate = readPem(files.certificate, UNUSABLE);
    return std::make_shared<HostCertificate>(certificate, readPem(files.key, UNUSABLE));
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
        files.issuersText = readIssuers(files.issuers);
        if (certificate == CERT_HOST) {
            files.hostCertificate = readHostCertificate(files);
        }
        seen.files = std::make_shared<const TlsFiles>(std::move(files));
    }
    seen.settings = settings;
    seen.at = now;
    return seen.files;
}

}  // namespace platform_detail
