#pragma once

#include <curl/curl.h>

#include <array>
#include <memory>
#include <mutex>

namespace platform_detail {

struct CurlShareRelease {
    void operator()(CURLSH* share) const { curl_share_cleanup(share); }
};

/// What is left of finished connections to one peer, so that the next one can leave out most of the TLS handshake.
/// Outlives the handles that use it.
class TlsSessions {
public:
    TlsSessions();
    TlsSessions(const TlsSessions&) = delete;
    TlsSessions& operator=(const TlsSessions&) = delete;

    CURLSH* share() const { return share_.get(); }

private:
    std::array<std::mutex, CURL_LOCK_DATA_LAST> mutexes_;
    std::unique_ptr<CURLSH, CurlShareRelease> share_;
};

}  // namespace platform_detail
