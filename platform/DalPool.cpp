#include "platform/DalPool.h"

#include "platform/DalForkGate.h"
#include "platform/ForkGeneration.h"

#include <platform/Logger.h>
#include <platform/Status.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <thread>
#include <utility>

namespace Tesmor {
namespace Dal {
namespace detail {

namespace {

using platform_detail::currentSettings;
using platform_detail::forkGeneration;

const char* const ACQUIRE = "DbConnectionManager::acquire";
const char* const CONNECT = "DbConnectionManager::connect";
const char* const CLOSE = "DbConnectionManager::close";

std::shared_ptr<EnvironmentHandle> makeEnvironment() {
    // The last who needs it frees it, which is a call of the driver manager's, too.
    std::shared_ptr<EnvironmentHandle> environment(new EnvironmentHandle, [](EnvironmentHandle* handle) {
        const DriverCall call;
        delete handle;
    });
    const DriverCall call;
    *environment = EnvironmentHandle(SQLHANDLE{SQL_NULL_HANDLE});
    // NOLINTNEXTLINE(performance-no-int-to-ptr): how numbers are passed
    SQLSetEnvAttr(environment->get(), SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0);
    return environment;
}

/// Whether the connection was made as the settings say now.
bool isMadeBy(const Link& link, const platform_detail::Settings& settings) {
    const platform_detail::Settings& made = link.session().settings();
    return &made == &settings || (made.authDatabase.connectionString == settings.authDatabase.connectionString &&
                                  made.authDatabase.onConnect == settings.authDatabase.onConnect);
}

}  // namespace

ConnectionPool::State::State(unsigned long ofGeneration) : generation(ofGeneration), environment(makeEnvironment()) {}

ConnectionPool::ConnectionPool(const PoolLimits& limits) : limits_(limits), state_(new State(forkGeneration())) {}

ConnectionPool::~ConnectionPool() {
    State* const own = state_.load();
    if (own->generation != forkGeneration()) {
        // The parent's: closing its connections would speak to the server in its name.
        return;  // GCOVR_EXCL_LINE: in a child, which counts nothing
    }
    for (std::unique_ptr<Link>& link : own->idle) {
        close(std::move(link));
    }
    delete own;
}

/// Of this process. In a child, the parent's is left as it is: connections, threads and locks in whatever state.
ConnectionPool::State& ConnectionPool::state() {
    State* current = state_.load(std::memory_order_acquire);
    if (current->generation == forkGeneration()) {
        return *current;
    }
    // GCOVR_EXCL_START: in a child, which counts nothing
    auto own = std::make_unique<State>(forkGeneration());
    return state_.compare_exchange_strong(current, own.get()) ? *own.release() : *current;
    // GCOVR_EXCL_STOP
}

void ConnectionPool::open() {
    std::vector<std::unique_ptr<Link>> opened(std::min(limits_.initial, limits_.maximum));
    for (auto link = opened.begin(); link != opened.end() && acquire(*link) == 0; ++link) {
    }
    for (std::unique_ptr<Link>& link : opened) {
        if (link != nullptr) {
            release(std::move(link));
        }
    }
}

bool ConnectionPool::connectionEstablished() const {
    const State* const current = state_.load(std::memory_order_acquire);
    return current->generation == forkGeneration() && current->established;
}

int ConnectionPool::acquire(std::unique_ptr<Link>& link) {
    Settings settings;
    int status = usableSettings(settings);
    if (status != 0) {
        return status;
    }
    State& own = state();
    Place place(*this, own);
    std::unique_ptr<Link> taken;
    status = place.take(taken);
    if (status != 0) {
        return status;
    }
    if (taken != nullptr && !isMadeBy(*taken, *settings)) {
        close(std::move(taken));
        closeIdle(own, [&](const Link& idle) { return !isMadeBy(idle, *settings); });
    }
    status = taken != nullptr ? 0 : connect(own, settings, taken);
    if (status == 0) {
        link = std::move(taken);
        place.keep();
    }
    return status;
}

int ConnectionPool::replace(std::unique_ptr<Link>& link) {
    Settings settings;
    const int status = usableSettings(settings);
    return status != 0 ? status : connect(state(), settings, link);
}

void ConnectionPool::release(std::unique_ptr<Link> link) noexcept {
    State& own = *state_.load(std::memory_order_acquire);
    const std::lock_guard<std::mutex> lock(own.mutex);
    if (link != nullptr) {
        own.idle.push_back(std::move(link));  // its memory was reserved when the place was taken
    }
    --own.taken;
    own.freed.notify_one();
}

void ConnectionPool::connectionLost() {
    State& own = state();
    own.established = false;
    closeIdle(own, [](const Link&) { return true; });
}

void ConnectionPool::close(std::unique_ptr<Link> link) const noexcept {
    link.reset();
    if (limits_.trace) {
        logmsgf(4, CLOSE, "connection closed for user type %d", limits_.user);
    }
}

/// @param settings set if 0 is returned.
int ConnectionPool::usableSettings(Settings& settings) {
    settings = currentSettings();
    if (settings->status != 0) {
        logmsg(16, ACQUIRE, settings->error.c_str());
        return settings->status;
    }
    if (settings->authDatabase.connectionString.empty()) {
        logmsgf(16, ACQUIRE, "settings file %s has no \"authDatabase.connectionString\"", settings->path.c_str());
        return platform_status::DATABASE_NOT_CONFIGURED;
    }
    return 0;
}

/// @param idle set to an open connection if there is one.
int ConnectionPool::Place::take(std::unique_ptr<Link>& idle) {
    const unsigned seconds = pool_.limits_.acquireTimeoutSeconds;
    std::unique_lock<std::mutex> lock(state_.mutex);
    const auto isFree = [&] { return !state_.idle.empty() || state_.taken < pool_.limits_.maximum; };
    if (!isFree() && !Deadline::afterSeconds(seconds).await(state_.freed, lock, isFree)) {
        lock.unlock();
        logmsgf(16, ACQUIRE, "none of %u connections became free within %u seconds", pool_.limits_.maximum, seconds);
        return platform_status::DATABASE_BUSY;
    }
    if (state_.idle.empty()) {
        state_.idle.reserve(state_.taken + 1);
    } else {
        idle = std::move(state_.idle.back());
        state_.idle.pop_back();
    }
    ++state_.taken;
    taken_ = true;
    return 0;
}

template <class Condition>
void ConnectionPool::closeIdle(State& state, const Condition& condition) {
    std::vector<std::unique_ptr<Link>> unwanted;
    {
        const std::lock_guard<std::mutex> lock(state.mutex);
        unwanted.reserve(state.idle.size());
        for (std::unique_ptr<Link>& link : state.idle) {
            if (condition(*link)) {
                unwanted.push_back(std::move(link));
            }
        }
        state.idle.erase(std::remove(state.idle.begin(), state.idle.end(), nullptr), state.idle.end());
        state.taken += static_cast<unsigned>(unwanted.size());
    }
    // Each keeps its place until it is closed.
    for (std::unique_ptr<Link>& link : unwanted) {
        close(std::move(link));
        release(nullptr);
    }
}

int ConnectionPool::connect(State& state, const Settings& settings, std::unique_ptr<Link>& link) const {
    for (unsigned retries = limits_.connectRetries;; --retries) {
        const int status = connectOnce(state, settings, link);
        if (status == 0 || retries == 0) {
            return status;
        }
        logmsgf(8, CONNECT, "trying again in %u seconds, %u more times", limits_.retryDelaySeconds, retries);
        std::this_thread::sleep_for(std::chrono::seconds(limits_.retryDelaySeconds));
    }
}

int ConnectionPool::connectOnce(State& state, const Settings& settings, std::unique_ptr<Link>& link) const {
    Link::Attempt attempt = Link::open(state.environment, settings, limits_.session);
    state.established = attempt.status == 0;
    if (attempt.status != 0) {
        logmsg(16, CONNECT, attempt.problem.c_str());
        return attempt.status;
    }
    if (limits_.trace) {
        logmsgf(4, CONNECT, "connection opened for user type %d", limits_.user);
    }
    link = std::move(attempt.link);
    return 0;
}

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
