#include "platform/TlsSessions.h"

#include <new>

namespace platform_detail {

namespace {

using Mutexes = std::array<std::mutex, CURL_LOCK_DATA_LAST>;

void lockShare(CURL* /*handle*/, curl_lock_data data, curl_lock_access /*access*/, void* mutexes) {
    static_cast<Mutexes*>(mutexes)->at(data).lock();
}

void unlockShare(CURL* /*handle*/, curl_lock_data data, void* mutexes) {
    static_cast<Mutexes*>(mutexes)->at(data).unlock();
}

}  // namespace

TlsSessions::TlsSessions() : share_(curl_share_init()) {
    if (!share_) {
        throw std::bad_alloc();  // GCOVR_EXCL_LINE: of libcurl
    }
    curl_share_setopt(share_.get(), CURLSHOPT_LOCKFUNC, lockShare);
    curl_share_setopt(share_.get(), CURLSHOPT_UNLOCKFUNC, unlockShare);
    curl_share_setopt(share_.get(), CURLSHOPT_USERDATA, &mutexes_);
    if (curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION) != CURLSHE_OK) {
        throw std::bad_alloc();  // GCOVR_EXCL_LINE: of libcurl
    }
}

}  // namespace platform_detail
