#pragma once

#include "platform/DalLink.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

namespace Tesmor {
namespace Dal {
namespace detail {

/// The numbers that a manager is made with.
struct PoolLimits {
    unsigned initial;
    unsigned maximum;
    unsigned connectRetries;
    unsigned retryDelaySeconds;
    unsigned acquireTimeoutSeconds;
    Session::Limits session;
    int user;
    bool trace;
};

/// Connections that are open, and how many there may be.
class ConnectionPool {
public:
    explicit ConnectionPool(const PoolLimits& limits);
    ConnectionPool(const ConnectionPool&) = delete;
    ConnectionPool& operator=(const ConnectionPool&) = delete;
    ~ConnectionPool();

    /// Opens the initial connections.
    void open();
    bool connectionEstablished() const;

    /// Takes a connection out of the pool.
    ///
    /// @param link set if 0 is returned.
    int acquire(std::unique_ptr<Link>& link);
    /// Gives back what acquire() took. Null gives back the place only, for a connection that is gone.
    void release(std::unique_ptr<Link> link) noexcept;
    /// Connects in a place that acquire() took and whose connection is gone.
    int replace(std::unique_ptr<Link>& link);

    /// A connection was found lost: the idle ones, to the same server, are not worth keeping either.
    void connectionLost();
    /// Closes a connection that its user gives up.
    void close(std::unique_ptr<Link> link) const noexcept;

    const PoolLimits& limits() const { return limits_; }

private:
    /// What a child made by fork() must not touch.
    struct State {
        explicit State(unsigned long ofGeneration);

        const unsigned long generation;
        const std::shared_ptr<EnvironmentHandle> environment;
        std::atomic<bool> established{false};
        std::mutex mutex;
        std::condition_variable freed;
        std::vector<std::unique_ptr<Link>> idle;  // the last used at the end
        unsigned taken = 0;                       // places whose connection is not idle
    };
    using Settings = std::shared_ptr<const platform_detail::Settings>;

    /// One of the places that there are for connections; given back at the end unless it is kept.
    class Place {
    public:
        Place(ConnectionPool& pool, State& state) : pool_(pool), state_(state) {}
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;
        ~Place() {
            if (taken_) {
                pool_.release(nullptr);
            }
        }

        int take(std::unique_ptr<Link>& idle);
        void keep() { taken_ = false; }

    private:
        ConnectionPool& pool_;
        State& state_;
        bool taken_ = false;
    };

    State& state();
    static int usableSettings(Settings& settings);
    template <class Condition>
    void closeIdle(State& state, const Condition& condition);
    int connect(State& state, const Settings& settings, std::unique_ptr<Link>& link) const;
    int connectOnce(State& state, const Settings& settings, std::unique_ptr<Link>& link) const;

    const PoolLimits limits_;
    std::atomic<State*> state_;
};

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
