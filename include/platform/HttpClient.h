#pragma once

#include <platform/Export.h>

#include <string>

namespace platform_detail {
struct HttpMethod;
struct HttpBody;
}  // namespace platform_detail

/// @file
/// HTTPS requests to a server of the installation.
///
/// The settings file (docs/settings.md) names the certificates and the limits of a request; it is looked at again for
/// every request, and so are the files that it names. The server must show a certificate for the host that was asked
/// for, issued by one of "tls.caFile"; no other issuer is trusted, neither the system's. TLS is at least version 1.2.
/// Redirects are not followed, and proxies, .netrc files and cookies are not used.
///
/// Threads: a client belongs to one thread at a time; any number of clients may be used at once. A factory may be used
/// from any thread.
///
/// fork: a child may make clients and use those that it inherited; it never uses a connection of its parent. As with
/// any library with locks of its own, that holds of OpenSSL only where no other thread of the parent is inside it at
/// the moment of the fork: a program that has requests under way on other threads should follow fork() by exec.
///
/// dlclose, exit: the connections that are kept are closed when the library is unloaded or the process calls exit();
/// requests made later than that, by destructors of static objects for example, fail with HTTP_FAILED.

/// Which certificate a client shows.
enum cert_type {
    CERT_NONE = 0,  ///< none
    CERT_HOST = 1   ///< the host's own: "tls.certFile" with "tls.keyFile" (PEM, the key not encrypted)
};

/// What becomes of the connection after a request.
enum AWCurlSessionType {
    SESSION_NONE = 0,    ///< it is closed, and nothing of it is remembered
    SESSION_SERVICE = 1  ///< it is kept for a while; the next client of the process for the same server continues it
};

/// A client of one server.
///
/// Every request takes a path, with its query, below the server's root; a leading slash makes no difference. The path
/// is sent as it is, so what has a meaning of its own in it must be percent-encoded. The request returns 0 when a
/// response of any HTTP status was received whole, with `httpStatus` and `responseBody` set. Otherwise it returns a
/// status of platform_status, a different one for each kind of failure, logs it at level 16, and leaves `httpStatus` 0
/// and `responseBody` empty. No request throws.
class ARKWELL_EXPORT AWClientCURL_Base {
public:
    virtual ~AWClientCURL_Base();

    /// Sent again where a kept connection breaks: it means the same sent twice.
    virtual int Put(const std::string& url, const std::string& body) = 0;
    /// Never sent twice, so that a kept connection that breaks just then is HTTP_CONNECTION_CLOSED.
    virtual int Post(const std::string& url, const std::string& body) = 0;
    /// Post() of a file's contents, read while they are sent.
    virtual int PostFile(const std::string& url, const std::string& filePath) = 0;
    /// Never sent twice, as Post().
    virtual int Patch(const std::string& url, const std::string& body) = 0;
    /// Sent again as Put().
    virtual int Get(const std::string& url) = 0;
    /// Sent again as Put(); the answer may then be that there is nothing to delete.
    virtual int Delete(const std::string& url) = 0;

    /// Puts a version into the media type of the requests from now on: "application/vnd.arkwell+json;version=" and
    /// `version` in place of "application/json". An empty version restores that.
    ///
    /// @param version a token of RFC 9110 section 5.6.2; with anything else every request is HTTP_REQUEST_UNUSABLE.
    virtual void setApiVersion(const std::string& version) = 0;

    long httpStatus = 0;       ///< the HTTP status of the last response; 0 where there is none
    std::string responseBody;  ///< the body of the last response
};

/// Makes clients.
class ARKWELL_EXPORT AWClientCURL_BaseFactory {
public:
    virtual ~AWClientCURL_BaseFactory();

    /// @return a client of the server, which the caller deletes.
    virtual AWClientCURL_Base* create(const std::string& host, int port, AWCurlSessionType session) = 0;
};

/// The client over libcurl.
class ARKWELL_EXPORT AWClientCURL : public AWClientCURL_Base {
public:
    /// Makes no connection yet.
    ///
    /// @param host a name or an IP address (for IPv6 with or without brackets), which the server's certificate must be
    /// for.
    /// @param port of the server, 1 to 65535.
    /// @param session what becomes of the connection.
    /// @param certificate what the server is shown.
    AWClientCURL(const std::string& host, int port, AWCurlSessionType session, cert_type certificate);
    ~AWClientCURL() override;

    int Put(const std::string& url, const std::string& body) override;
    int Post(const std::string& url, const std::string& body) override;
    int PostFile(const std::string& url, const std::string& filePath) override;
    int Patch(const std::string& url, const std::string& body) override;
    int Get(const std::string& url) override;
    int Delete(const std::string& url) override;
    void setApiVersion(const std::string& version) override;

private:
    int send(const platform_detail::HttpMethod& method, const std::string& url, const platform_detail::HttpBody& body);

    std::string host_;
    int port_;
    AWCurlSessionType session_;
    cert_type certificate_;
    std::string apiVersion_;
};

/// Makes clients over libcurl, all with the same certificate.
class ARKWELL_EXPORT AWClientCURLFactory : public AWClientCURL_BaseFactory {
public:
    /// Its clients show this certificate.
    explicit AWClientCURLFactory(cert_type certificate);
    ~AWClientCURLFactory() override;

    AWClientCURL_Base* create(const std::string& host, int port, AWCurlSessionType session) override;

private:
    cert_type certificate_;
};
