#include "platform/HttpSockets.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <new>

namespace platform_detail {

// Never destroyed: a request may be under way in another thread to the very end.
HttpSockets& HttpSockets::instance() {
    alignas(HttpSockets) static unsigned char storage[sizeof(HttpSockets)];
    static auto* const sockets = new (storage) HttpSockets;
    return *sockets;
}

// Made when the library is loaded: a fork while another thread made it would leave the child waiting for that thread.
[[maybe_unused]] static const HttpSockets* const MADE_AT_LOAD = &HttpSockets::instance();

HttpSockets::HttpSockets() {
    pthread_atfork([] { instance().mutex_.lock(); }, [] { instance().mutex_.unlock(); }, [] { instance().inChild(); });
}

int HttpSockets::open(const curl_sockaddr& address) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const int descriptor = socket(address.family, address.socktype | SOCK_CLOEXEC, address.protocol);
    if (descriptor >= 0) {
        try {
            open_.insert(descriptor);
        } catch (const std::bad_alloc&) {
            ::close(descriptor);
            throw;
        }
    }
    return descriptor;
}

void HttpSockets::close(int descriptor) {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_.erase(descriptor);
    ::close(descriptor);
}

void HttpSockets::inChild() {
    for (const int descriptor : open_) {
        ::close(descriptor);
    }
    open_.clear();
    mutex_.unlock();
}

}  // namespace platform_detail
