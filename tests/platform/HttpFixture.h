#pragma once

#include "SettingsFixture.h"
#include "testing/Certificates.h"
#include "testing/TemporaryDirectory.h"
#include "testing/TlsServer.h"

#include <platform/HttpClient.h>

#include <memory>
#include <string>
#include <utility>

/// An authority, a host's certificate by it, and a settings file that names both; servers whose certificate is by the
/// same authority.
class HttpFixture {
public:
    using Connection = testing_support::TlsConnection;
    using Server = testing_support::TlsServer;

    HttpFixture() {
        testing_support::writeFile(caFile(), authority.certificate());
        useHostCertificate(authority.issue());
        useSettings();
    }

    std::string caFile() const { return files_ / "ca.pem"; }
    std::string certFile() const { return files_ / "host.pem"; }
    std::string keyFile() const { return files_ / "host.key"; }
    const testing_support::TemporaryDirectory& directory() const { return files_; }
    SettingsFixture& settings() { return settings_; }

    void useHostCertificate(const testing_support::Certificate& certificate) const {
        testing_support::writeFile(certFile(), certificate.certificate);
        testing_support::writeFile(keyFile(), certificate.key);
    }

    /// @param http the settings' member "http".
    /// @param others further members of the settings.
    void useSettings(const std::string& http = "{}", const std::string& others = "") {
        settings_.replace(R"({"tls": {"caFile": ")" + caFile() + R"(", "certFile": ")" + certFile() +
                          R"(", "keyFile": ")" + keyFile() + R"("}, "http": )" + http + (others.empty() ? "" : ", ") +
                          others + "}");
    }

    /// What a server needs to be trusted.
    Server::Options options() const {
        Server::Options options;
        options.certificate = authority.issue();
        return options;
    }

    static AWClientCURL client(const Server& server) {
        return {"localhost", server.port(), SESSION_SERVICE, CERT_HOST};
    }

    const testing_support::CertificateAuthority authority;

private:
    testing_support::TemporaryDirectory files_;
    SettingsFixture settings_;
};
