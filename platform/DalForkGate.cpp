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

/// Whose turn it is to connect.
struct Turn {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t ended = PTHREAD_COND_INITIALIZER;
    bool isTaken = false;
};
Turn turn;

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
    turn = Turn();
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
    pthread_mutex_lock(&turn.mutex);
    while (turn.isTaken && pthread_cond_clockwait(&turn.ended, &turn.mutex, CLOCK_MONOTONIC, &until) == 0) {
    }
    // One that comes late is not taken, free or not.
    taken_ = !turn.isTaken && std::chrono::steady_clock::now() < giveUp;
    turn.isTaken = turn.isTaken || taken_;
    pthread_mutex_unlock(&turn.mutex);
}

ConnectTurn::~ConnectTurn() {
    if (taken_) {
        pthread_mutex_lock(&turn.mutex);
        turn.isTaken = false;
        pthread_cond_broadcast(&turn.ended);
        pthread_mutex_unlock(&turn.mutex);
    }
}

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
