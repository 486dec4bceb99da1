#pragma once

#include <curl/curl.h>

#include <mutex>
#include <set>

namespace platform_detail {

/// The sockets that the process's clients have open. A fork waits while one is opened or closed, so that the child
/// knows what it inherited; it closes that, because a connection ends for the server only when its last descriptor is
/// closed.
class HttpSockets {
public:
    static HttpSockets& instance();

    /// @return the descriptor, or -1 as socket() does.
    int open(const curl_sockaddr& address);
    void close(int descriptor);

    HttpSockets(const HttpSockets&) = delete;
    HttpSockets& operator=(const HttpSockets&) = delete;

private:
    HttpSockets();
    void inChild();

    std::mutex mutex_;
    std::set<int> open_;
};

}  // namespace platform_detail
