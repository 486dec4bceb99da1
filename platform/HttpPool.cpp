#include "platform/HttpPool.h"

#include "platform/CoarseClock.h"

#include <platform/Status.h>

#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

// Connections are made and their handles initialised under the pool's mutex, and a fork waits for it: libcurl has a
// lock of its own there. They are closed after the mutex is released, because closing writes to the network.

namespace platform_detail {

namespace {

constexpr std::int64_t LONGEST_IDLE = 60'000'000'000;

}  // namespace

// Never destroyed: a request may be under way in another thread to the very end.
HttpPool& HttpPool::instance() {
    alignas(HttpPool) static unsigned char storage[sizeof(HttpPool)];
    static auto* const pool = new (storage) HttpPool;
    return *pool;
}

// Made when the library is loaded: a fork while another thread made it would leave the child waiting for that thread.
[[maybe_unused]] static const HttpPool* const MADE_AT_LOAD = &HttpPool::instance();

HttpPool::HttpPool() {
    pthread_atfork([] { instance().mutex_.lock(); }, [] { instance().mutex_.unlock(); }, [] { instance().inChild(); });
}

/// In a fork child: the parent's handles are left alone, because releasing them would say farewell to the server on the
/// parent's connections. Their sockets are closed by HttpSockets.
void HttpPool::inChild() {
    abandoned_.push_back(std::move(known_));
    known_.clear();
    lent_ = 0;
    mutex_.unlock();
}

/// Starts libcurl. Called with the mutex held.
void HttpPool::begin() {
    if (ended_) {
        throw HttpFailure{platform_status::HTTP_FAILED, "the process is ending"};
    }
    if (begun_) {
        return;
    }
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        throw HttpFailure{platform_status::HTTP_FAILED, "libcurl cannot be started"};  // GCOVR_EXCL_LINE: no memory
    }
    begun_ = true;
    // Handlers run in the reverse order of their registration: before that of OpenSSL, which libcurl has just started.
    // When this library is unloaded, its own handlers run.
    static_cast<void>(std::atexit([] { instance().end(); }));
}

void HttpPool::end() {
    {
        std::vector<Known> kept;
        TlsFilesOnDisk files;
        const std::lock_guard<std::mutex> lock(mutex_);
        ended_ = true;
        std::swap(kept, known_);
        std::swap(files, files_);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (lent_ == 0) {
        curl_global_cleanup();
    }
}

std::vector<HttpPool::Known>::iterator HttpPool::find(const HttpPeer& peer) {
    return std::find_if(known_.begin(), known_.end(), [&peer](const Known& known) { return known.peer == peer; });
}

std::size_t HttpPool::idleCount() const {
    std::size_t count = 0;
    for (const Known& known : known_) {
        count += known.idle.size();
    }
    return count;
}

/// Closes what nobody has used for long.
void HttpPool::closeUnused(Connections& closed) {
    const std::int64_t limit = coarseNow() - LONGEST_IDLE;
    for (Known& known : known_) {
        while (!known.idle.empty() && known.idle.front().since < limit) {
            closed.push_back(std::move(known.idle.front().connection));
            known.idle.erase(known.idle.begin());
        }
    }
}

void HttpPool::closeOldest(Connections& closed) {
    const auto age = [](const Known& known) { return known.idle.empty() ? INT64_MAX : known.idle.front().since; };
    const auto oldest = std::min_element(known_.begin(), known_.end(),
                                         [age](const Known& a, const Known& b) { return age(a) < age(b); });
    closed.push_back(std::move(oldest->idle.front().connection));
    oldest->idle.erase(oldest->idle.begin());
}

void HttpPool::forgetOne(Connections& closed) {
    const auto oldest = std::min_element(known_.begin(), known_.end(),
                                         [](const Known& a, const Known& b) { return a.usedAt < b.usedAt; });
    for (Idle& idle : oldest->idle) {
        closed.push_back(std::move(idle.connection));
    }
    known_.erase(oldest);
}

HttpPool::Known& HttpPool::knownOf(const HttpPeer& peer, Connections& closed) {
    const auto found = find(peer);
    if (found != known_.end()) {
        found->usedAt = coarseNow();
        return *found;
    }
    auto sessions = std::make_shared<TlsSessions>();
    if (known_.size() == MOST_PEERS) {
        forgetOne(closed);
    }
    known_.push_back({peer, std::move(sessions), {}, coarseNow()});
    return known_.back();
}

std::unique_ptr<HttpConnection> HttpPool::connectionTo(const HttpPeer& peer, Connections& closed) {
    Known& known = knownOf(peer, closed);
    if (known.idle.empty()) {
        return std::make_unique<HttpConnection>(peer, known.sessions);
    }
    std::unique_ptr<HttpConnection> connection = std::move(known.idle.back().connection);
    known.idle.pop_back();
    return connection;
}

HttpPool::Loan HttpPool::lend(const std::string& host, int port, AWCurlSessionType session, cert_type certificate,
                              const std::shared_ptr<const Settings>& settings) {
    Connections closed;
    const std::lock_guard<std::mutex> lock(mutex_);
    begin();
    closeUnused(closed);
    const HttpPeer peer{host, port, files_.current(certificate, settings)};
    std::unique_ptr<HttpConnection> connection;
    if (session == SESSION_SERVICE) {
        connection = connectionTo(peer, closed);
    } else {
        connection = std::make_unique<HttpConnection>(peer, nullptr);
    }
    ++lent_;
    return {*this, std::move(connection)};
}

/// Where there is no memory, the connection stays with the caller, who closes it without the mutex.
void HttpPool::putIdle(std::unique_ptr<HttpConnection>& connection, Connections& closed) {
    const auto known = find(connection->peer());
    if (known == known_.end()) {
        closed.push_back(std::move(connection));
        return;
    }
    if (known->idle.size() == MOST_IDLE_FOR_A_PEER) {
        closed.push_back(std::move(known->idle.front().connection));
        known->idle.erase(known->idle.begin());
    } else if (idleCount() == MOST_IDLE) {
        closeOldest(closed);
    }
    known->idle.push_back({nullptr, coarseNow()});
    known->idle.back().connection = std::move(connection);
}

void HttpPool::giveBack(std::unique_ptr<HttpConnection>& connection, bool intact) {
    Connections closed;
    const std::lock_guard<std::mutex> lock(mutex_);
    --lent_;
    if (ended_) {
        // OpenSSL may have ended already, so nothing is closed any more.
        late_.push_back(std::move(connection));
    } else if (intact && connection->isKept()) {
        putIdle(connection, closed);
    }
}

HttpPool::Loan::~Loan() {
    try {
        pool_.giveBack(connection_, intact_);
    } catch (const std::bad_alloc&) {
        connection_.reset();
    }
}

HttpResponse HttpPool::Loan::perform(const HttpRequest& request, const Settings::Http& limits) {
    intact_ = false;
    HttpResponse response = connection_->perform(request, limits);
    intact_ = true;
    return response;
}

}  // namespace platform_detail
