#include "platform/DalForkGate.h"

#include <pthread.h>

#include <ctime>

namespace Tesmor {
namespace Dal {
namespace detail {

namespace {

constexpr long PATIENCE_NS = 50'000'000;

pthread_rwlock_t gate = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
thread_local bool closedHere = false;
pthread_mutex_t connecting = PTHREAD_MUTEX_INITIALIZER;

void closeGate() {
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_nsec += PATIENCE_NS;
    if (until.tv_nsec >= 1'000'000'000) {
        until.tv_nsec -= 1'000'000'000;
        ++until.tv_sec;
    }
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

ConnectTurn::ConnectTurn() {
    pthread_mutex_lock(&connecting);
}

ConnectTurn::~ConnectTurn() {
    pthread_mutex_unlock(&connecting);
}

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
