#pragma once

#include "platform/HttpConnection.h"
#include "platform/HttpPeer.h"
#include "platform/Settings.h"
#include "platform/TlsSessions.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace platform_detail {

/// The connections that the process keeps between requests. The one used last is lent first; those that nobody has used
/// for a minute are closed when the pool is used the next time. In a fork child the pool is empty.
class HttpPool {
public:
    static constexpr std::size_t MOST_IDLE_FOR_A_PEER = 8;
    static constexpr std::size_t MOST_IDLE = 32;
    static constexpr std::size_t MOST_PEERS = 32;

    /// A connection on loan. It goes back at the end, or is closed where a request on it failed.
    class Loan {
    public:
        Loan(HttpPool& pool, std::unique_ptr<HttpConnection> connection)
            : pool_(pool), connection_(std::move(connection)) {}
        ~Loan();
        Loan(const Loan&) = delete;
        Loan& operator=(const Loan&) = delete;

        /// @throws HttpFailure.
        HttpResponse perform(const HttpRequest& request, const Settings::Http& limits);

    private:
        HttpPool& pool_;
        std::unique_ptr<HttpConnection> connection_;
        bool intact_ = false;
    };

    static HttpPool& instance();

    /// A connection that may have served before, or, for SESSION_NONE, one for a single request, with nothing to
    /// remember it by.
    ///
    /// @throws HttpFailure where none can be made with these settings.
    Loan lend(const std::string& host, int port, AWCurlSessionType session, cert_type certificate,
              const std::shared_ptr<const Settings>& settings);

    HttpPool(const HttpPool&) = delete;
    HttpPool& operator=(const HttpPool&) = delete;

private:
    using Connections = std::vector<std::unique_ptr<HttpConnection>>;

    struct Idle {
        std::unique_ptr<HttpConnection> connection;
        std::int64_t since;
    };
    /// What is kept for one peer.
    struct Known {
        HttpPeer peer;
        std::shared_ptr<TlsSessions> sessions;
        std::vector<Idle> idle;  // the one used last is the last
        std::int64_t usedAt;
    };

    HttpPool();

    void begin();
    std::unique_ptr<HttpConnection> connectionTo(const HttpPeer& peer, Connections& closed);
    void end();
    void inChild();
    Known& knownOf(const HttpPeer& peer, Connections& closed);
    std::vector<Known>::iterator find(const HttpPeer& peer);
    void forgetOne(Connections& closed);
    void closeUnused(Connections& closed);
    void closeOldest(Connections& closed);
    std::size_t idleCount() const;
    void giveBack(std::unique_ptr<HttpConnection>& connection, bool intact);
    void putIdle(std::unique_ptr<HttpConnection>& connection, Connections& closed);

    std::mutex mutex_;
    bool begun_ = false;  // libcurl is in use
    bool ended_ = false;
    int lent_ = 0;
    TlsFilesOnDisk files_;
    std::vector<Known> known_;
    std::vector<std::vector<Known>> abandoned_;  // the parent's
    Connections late_;                           // given back after the end
};

}  // namespace platform_detail
