#include "platform/DalForkGate.h"

#include <pthread.h>

#include <ctime>

namespace Tesmor {
namespace Dal {
namespace detail {

namespace {

constexpr std::chrono::milliseconds PATIENCE{250};

pthread_rwlock_t gate = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
thread_local bool closedHere = false;
pthread_mutex_t connecting = PTHREAD_MUTEX_INITIALIZER;

timespec timespecOf(std::chrono::steady_clock::time_point time) {
    const auto sinceBoot = time.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceBoot);
    return {static_cast<time_t>(seconds.count()),
            static_cast<long>(std::chrono::nanoseconds(sinceBoot - seconds).count())};
}

void closeGate() {
    const timespec until = timespecOf(std::chrono::steady_clock::now() + PATIENCE);
    closedHere = pthread_rwlock_clockwrlock(&gate, CLOCK_MONOTONIC, &until) == 0;
}

void openGate() {
    if (closedHere) {
        closedHere = false;
        pthread_rwlock_unlock(&gate);
    }
}

/// Of all threads only this one has come along, and it is in no call.
void renewGate() {
    closedHere = false;
    gate = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
    connecting = PTHREAD_MUTEX_INITIALIZER;
}

const int registered = pthread_atfork(closeGate, openGate, renewGate);

}  // namespace

DriverCall::DriverCall() {
    pthread_rwlock_rdlock(&gate);
}

DriverCall::~DriverCall() {
    pthread_rwlock_unlock(&gate);
}

ConnectTurn::ConnectTurn(std::chrono::steady_clock::time_point giveUp) {
    const timespec until = timespecOf(giveUp);
    taken_ = pthread_mutex_clocklock(&connecting, CLOCK_MONOTONIC, &until) == 0;
    // A mutex that is free is locked however late it is.
    if (taken_ && std::chrono::steady_clock::now() >= giveUp) {
        taken_ = false;
        pthread_mutex_unlock(&connecting);
    }
}

ConnectTurn::~ConnectTurn() {
    if (taken_) {
        pthread_mutex_unlock(&connecting);
    }
}

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
