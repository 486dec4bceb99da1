#include "platform/HttpFailures.h"

#include <platform/Status.h>

#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <cerrno>

namespace platform_detail {

namespace {

using namespace platform_status;

int unconnectedStatus(long systemError) {
    switch (systemError) {
        case ECONNREFUSED:
            return HTTP_CONNECTION_REFUSED;
        case ETIMEDOUT:
            return HTTP_CONNECT_TIMED_OUT;
        default:
            return HTTP_HOST_UNREACHABLE;
    }
}

int unverifiedStatus(long verification) {
    switch (verification) {
        // libcurl compares the names itself; OpenSSL has nothing to object to then.
        case X509_V_OK:
        case X509_V_ERR_HOSTNAME_MISMATCH:
        case X509_V_ERR_IP_ADDRESS_MISMATCH:
            return HTTP_SERVER_NAME_WRONG;
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        // An issuer of a trusted one's name, with another key.
        case X509_V_ERR_CERT_SIGNATURE_FAILURE:
            return HTTP_SERVER_ISSUER_UNKNOWN;
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return HTTP_SERVER_CERTIFICATE_EXPIRED;
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return HTTP_SERVER_CERTIFICATE_NOT_YET_VALID;
        default:
            return HTTP_SERVER_CERTIFICATE_UNUSABLE;
    }
}

bool complainsOfCertificate(int tlsAlert) {
    switch (tlsAlert) {
        case SSL_AD_BAD_CERTIFICATE:
        case SSL_AD_UNSUPPORTED_CERTIFICATE:
        case SSL_AD_CERTIFICATE_REVOKED:
        case SSL_AD_CERTIFICATE_EXPIRED:
        case SSL_AD_CERTIFICATE_UNKNOWN:
        case SSL_AD_UNKNOWN_CA:
        case SSL_AD_ACCESS_DENIED:
        case SSL_AD_CERTIFICATE_REQUIRED:
            return true;
        default:
            return false;
    }
}

/// A connection that broke while the request or the response was on it.
int brokenStatus(const HttpExchange& exchange) {
    // In TLS 1.3 the server looks at the client's certificate after the client thinks that the handshake is done.
    if (complainsOfCertificate(exchange.tlsAlert)) {
        return HTTP_CLIENT_CERTIFICATE_REFUSED;
    }
    return exchange.headerBytes > 0 ? HTTP_RESPONSE_MALFORMED : HTTP_CONNECTION_CLOSED;
}

int handshakeStatus(const HttpExchange& exchange) {
    if (exchange.verification != X509_V_OK) {
        return unverifiedStatus(exchange.verification);
    }
    return complainsOfCertificate(exchange.tlsAlert) ? HTTP_CLIENT_CERTIFICATE_REFUSED : HTTP_TLS_FAILED;
}

int statusOf(CURLcode code, long systemError, const HttpExchange& exchange) {
    switch (code) {
        case CURLE_URL_MALFORMAT:
            return HTTP_REQUEST_UNUSABLE;
        case CURLE_COULDNT_RESOLVE_HOST:
            return HTTP_NAME_NOT_RESOLVED;
        case CURLE_COULDNT_CONNECT:
            return unconnectedStatus(systemError);
        case CURLE_OPERATION_TIMEDOUT:
            return exchange.connecting && !exchange.timeIsUp ? HTTP_CONNECT_TIMED_OUT : HTTP_TIMED_OUT;
        case CURLE_SSL_CACERT_BADFILE:
            return HTTP_CA_FILE_UNUSABLE;
        case CURLE_PEER_FAILED_VERIFICATION:
            return unverifiedStatus(exchange.verification);
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CIPHER:
        case CURLE_USE_SSL_FAILED:
            return handshakeStatus(exchange);
        case CURLE_GOT_NOTHING:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
            return brokenStatus(exchange);
        case CURLE_PARTIAL_FILE:
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_UNSUPPORTED_PROTOCOL:  // an answer that does not begin as one of HTTP/1 does
        case CURLE_BAD_CONTENT_ENCODING:
            return HTTP_RESPONSE_MALFORMED;
        case CURLE_FILESIZE_EXCEEDED:
            return HTTP_RESPONSE_TOO_LARGE;
        // GCOVR_EXCL_START: memory that runs out within libcurl, and what no test has made it answer.
        case CURLE_OUT_OF_MEMORY:
            return HTTP_OUT_OF_MEMORY;
        default:
            return HTTP_FAILED;
            // GCOVR_EXCL_STOP
    }
}

}  // namespace

HttpFailure httpFailure(CURLcode code, long systemError, const HttpExchange& exchange, const std::string& detail) {
    if (exchange.outOfMemory) {
        return {HTTP_OUT_OF_MEMORY, "no memory for the connection or the response"};
    }
    if (exchange.headersTooLarge) {
        return {HTTP_RESPONSE_TOO_LARGE, "headers of more than " + std::to_string(MAX_HEADER_BYTES) + " bytes"};
    }
    // What libcurl says of a header line that is longer than it takes.
    if (code == CURLE_OUT_OF_MEMORY && !exchange.connecting) {
        return {HTTP_RESPONSE_TOO_LARGE, "a header line is too long"};
    }
    if (exchange.bodyTooLarge) {
        return {HTTP_RESPONSE_TOO_LARGE, "more than " + std::to_string(exchange.maxResponseBytes) + " bytes"};
    }
    // A file is refused to be rewound before it is refused to be sent again.
    if (exchange.resendRefused || code == CURLE_SEND_FAIL_REWIND) {
        return {HTTP_CONNECTION_CLOSED, "a kept connection broke, and the request must not be sent twice"};
    }
    if (exchange.upload != nullptr && !exchange.upload->error().empty()) {
        return {HTTP_FILE_UNREADABLE, exchange.upload->error()};
    }
    return {statusOf(code, systemError, exchange), detail.empty() ? curl_easy_strerror(code) : detail};
}

}  // namespace platform_detail
