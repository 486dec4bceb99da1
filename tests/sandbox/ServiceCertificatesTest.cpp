#include "sandbox/CertificateAuthority.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>

using namespace Tesmor::Arkwell::Sandbox;

namespace {

struct Release {
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(X509_STORE* store) const { X509_STORE_free(store); }
    void operator()(X509_STORE_CTX* context) const { X509_STORE_CTX_free(context); }
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Certificate = std::unique_ptr<X509, Release>;

Certificate parse(const std::string& pem) {
    const std::unique_ptr<BIO, Release> text(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    return Certificate(PEM_read_bio_X509(text.get(), nullptr, nullptr, nullptr));
}

/// The verifier's answer, as in X509_V_OK.
int verify(const std::string& authority, const std::string& certificate, int purpose) {
    const Certificate root = parse(authority);
    const Certificate leaf = parse(certificate);
    const std::unique_ptr<X509_STORE, Release> store(X509_STORE_new());
    X509_STORE_add_cert(store.get(), root.get());
    const std::unique_ptr<X509_STORE_CTX, Release> context(X509_STORE_CTX_new());
    X509_STORE_CTX_init(context.get(), store.get(), leaf.get(), nullptr);
    X509_VERIFY_PARAM_set_flags(X509_STORE_CTX_get0_param(context.get()), X509_V_FLAG_X509_STRICT);
    X509_STORE_CTX_set_purpose(context.get(), purpose);
    X509_verify_cert(context.get());
    return X509_STORE_CTX_get_error(context.get());
}

}  // namespace

TEST(ServiceCertificatesTest, IssuesCertificatesThatStrictVerifiersTake) {
    const CertificateAuthority authority = CertificateAuthority::generate("test CA");
    const CertifiedKey made = authority.issue({"host.example", {"host.example"}, true, true});
    EXPECT_EQ(verify(authority.identity().certificate, made.certificate, X509_PURPOSE_SSL_SERVER), X509_V_OK);
    EXPECT_EQ(verify(authority.identity().certificate, made.certificate, X509_PURPOSE_SSL_CLIENT), X509_V_OK);
}

TEST(ServiceCertificatesTest, IssuesThemForOnePurpose) {
    const CertificateAuthority authority = CertificateAuthority::generate("test CA");
    const CertifiedKey server = authority.issue({"host.example", {"host.example"}, true, false});
    const CertifiedKey client = authority.issue({"host.example", {}, false, true});
    const std::string root = authority.identity().certificate;
    EXPECT_EQ(verify(root, server.certificate, X509_PURPOSE_SSL_CLIENT), X509_V_ERR_INVALID_PURPOSE);
    EXPECT_EQ(verify(root, client.certificate, X509_PURPOSE_SSL_SERVER), X509_V_ERR_INVALID_PURPOSE);
}

TEST(ServiceCertificatesTest, IsNotTakenForAnotherAuthorityOfTheSameName) {
    const CertificateAuthority authority = CertificateAuthority::generate("test CA");
    const CertificateAuthority other = CertificateAuthority::generate("test CA");
    const CertifiedKey made = other.issue({"host.example", {}, true, true});
    EXPECT_NE(verify(authority.identity().certificate, made.certificate, X509_PURPOSE_SSL_CLIENT), X509_V_OK);
}

TEST(ServiceCertificatesTest, NamesHostsAndAddresses) {
    const CertificateAuthority authority = CertificateAuthority::generate("test CA");
    const Certificate made =
        parse(authority.issue({"host.example", {"host.example", "127.0.0.1", "::1"}, true, false}).certificate);
    EXPECT_EQ(X509_check_host(made.get(), "host.example", 0, 0, nullptr), 1);
    EXPECT_EQ(X509_check_host(made.get(), "other.example", 0, 0, nullptr), 0);
    EXPECT_EQ(X509_check_ip_asc(made.get(), "127.0.0.1", 0), 1);
    EXPECT_EQ(X509_check_ip_asc(made.get(), "::1", 0), 1);
    EXPECT_EQ(X509_check_ip_asc(made.get(), "127.0.0.2", 0), 0);
}

TEST(ServiceCertificatesTest, TakesNamesThatAreTooLongForTheSubject) {
    const std::string name = std::string(63, 'a') + ".example";
    const Certificate made =
        parse(CertificateAuthority::generate("test CA").issue({name, {name}, true, false}).certificate);
    EXPECT_EQ(X509_check_host(made.get(), name.c_str(), 0, 0, nullptr), 1);
}

TEST(ServiceCertificatesTest, RefusesWhatIsNoHostName) {
    const CertificateAuthority authority = CertificateAuthority::generate("test CA");
    for (const char* name : {"", "a,DNS:b", "a b", "a\nb", "user@host"}) {
        try {
            authority.issue({"host.example", {name}, true, false});
            ADD_FAILURE() << name;
        } catch (const std::invalid_argument& refused) {
            EXPECT_EQ(std::string(refused.what()),
                      "neither a host name nor an IP address: \"" + std::string(name) + "\"");
        }
    }
}

TEST(ServiceCertificatesTest, IssuesTheSameWayWhenItIsReadBack) {
    const CertificateAuthority authority = CertificateAuthority::generate("test CA");
    const CertifiedKey made =
        CertificateAuthority::fromPem(authority.identity()).issue({"host.example", {}, false, true});
    EXPECT_EQ(verify(authority.identity().certificate, made.certificate, X509_PURPOSE_SSL_CLIENT), X509_V_OK);
}

TEST(ServiceCertificatesTest, RefusesAKeyThatIsNotTheCertificates) {
    const CertifiedKey one = CertificateAuthority::generate("test CA").identity();
    const CertifiedKey other = CertificateAuthority::generate("test CA").identity();
    EXPECT_THROW(CertificateAuthority::fromPem({one.certificate, other.key}), std::runtime_error);
}

TEST(ServiceCertificatesTest, IsValidForTenYears) {
    const Certificate made = parse(CertificateAuthority::generate("test CA").issue({"a", {}, true, true}).certificate);
    int days = 0;
    int seconds = 0;
    ASSERT_EQ(ASN1_TIME_diff(&days, &seconds, X509_get0_notBefore(made.get()), X509_get0_notAfter(made.get())), 1);
    EXPECT_EQ(days, 3650);
    EXPECT_EQ(seconds, 300);
    EXPECT_LT(X509_cmp_current_time(X509_get0_notBefore(made.get())), 0);
}

TEST(ServiceCertificatesTest, NumbersEachCertificateDifferently) {
    const CertificateAuthority authority = CertificateAuthority::generate("test CA");
    const Certificate one = parse(authority.issue({"a", {}, true, true}).certificate);
    const Certificate other = parse(authority.issue({"a", {}, true, true}).certificate);
    EXPECT_NE(ASN1_INTEGER_cmp(X509_get0_serialNumber(one.get()), X509_get0_serialNumber(other.get())), 0);
}
