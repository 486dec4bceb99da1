#include "platform/DalWorker.h"

#include "platform/KeepLoaded.h"

#include <pthread.h>

#include <csignal>
#include <system_error>
#include <utility>

namespace Tesmor {
namespace Dal {
namespace detail {

namespace {

/// While it lives, threads that this thread starts have all signals blocked.
class BlockedSignals {
public:
    BlockedSignals() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t before_{};
};

}  // namespace

std::unique_ptr<Worker> Worker::start(std::shared_ptr<void> kept) {
    auto shared = std::make_shared<Shared>();
    std::unique_ptr<Worker> worker(new Worker(shared));
    const BlockedSignals blocked;
    try {
        worker->thread_ = std::thread([shared] { loop(shared); });
    } catch (const std::system_error&) {
        return nullptr;  // GCOVR_EXCL_LINE: the system has no thread left for the process
    }
    shared->kept = std::move(kept);
    return worker;
}

Worker::~Worker() {
    if (!thread_.joinable()) {
        return;
    }
    std::unique_lock<std::mutex> lock(shared_->mutex);
    shared_->ending = true;
    shared_->wake.notify_one();
    const bool ended =
        !abandoned_ && Deadline::after(PATIENCE).await(shared_->progress, lock, [&] { return shared_->ended; });
    lock.unlock();
    if (ended) {
        thread_.join();
        return;
    }
    static const char here = 0;
    platform_detail::keepLoaded(&here);  // the thread returns into this library one day
    thread_.detach();
}

bool Worker::run(std::function<void()> work, const Deadline& deadline) {
    std::unique_lock<std::mutex> lock(shared_->mutex);
    shared_->work = std::move(work);
    shared_->busy = true;
    shared_->wake.notify_one();
    if (!deadline.await(shared_->progress, lock, [&] { return !shared_->busy; })) {
        abandoned_ = true;
        return false;
    }
    if (shared_->failure) {
        std::rethrow_exception(std::exchange(shared_->failure, nullptr));
    }
    return true;
}

void Worker::loop(const std::shared_ptr<Shared>& shared) {
    std::unique_lock<std::mutex> lock(shared->mutex);
    for (;;) {
        shared->wake.wait(lock, [&] { return shared->busy || shared->ending; });
        if (!shared->busy) {
            break;
        }
        lock.unlock();
        std::exception_ptr failure;
        try {
            shared->work();
        } catch (...) {
            failure = std::current_exception();
        }
        lock.lock();
        shared->failure = std::move(failure);
        shared->busy = false;
        shared->progress.notify_one();
    }
    std::shared_ptr<void> kept = std::move(shared->kept);
    lock.unlock();
    kept.reset();
    lock.lock();
    shared->ended = true;
    shared->progress.notify_one();
}

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
