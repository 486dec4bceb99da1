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
}

const int registered = pthread_atfork(closeGate, openGate, renewGate);

}  // namespace

DriverCall::DriverCall() {
    pthread_rwlock_rdlock(&gate);
}

DriverCall::~DriverCall() {
    pthread_rwlock_unlock(&gate);
}

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
