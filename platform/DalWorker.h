#pragma once

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace Tesmor {
namespace Dal {
namespace detail {

/// When somebody gives up waiting.
class Deadline {
public:
    using Clock = std::chrono::steady_clock;

    static Deadline never() { return Deadline(std::nullopt); }
    static Deadline after(Clock::duration time) { return Deadline(Clock::now() + time); }
    /// @param seconds 0 is no limit.
    static Deadline afterSeconds(unsigned seconds, Clock::duration grace = Clock::duration::zero()) {
        return seconds == 0 ? never() : after(std::chrono::seconds(seconds) + grace);
    }

    /// Waits until `condition` holds.
    ///
    /// @return whether it does.
    template <class Condition>
    bool await(std::condition_variable& changed, std::unique_lock<std::mutex>& lock, Condition condition) const {
        if (!at_) {
            changed.wait(lock, condition);
            return true;
        }
        return changed.wait_until(lock, *at_, condition);
    }

private:
    explicit Deadline(std::optional<Clock::time_point> at) : at_(at) {}

    std::optional<Clock::time_point> at_;
};

/// A thread that does work of which nobody knows when it ends, so that whoever wants it done can give up waiting.
///
/// For one thread at a time.
class Worker {
public:
    /// Starts the thread, with all signals blocked.
    ///
    /// @param kept what the work needs. The thread shares it, and is the last to let go of it.
    /// @return null where no thread can be had.
    static std::unique_ptr<Worker> start(std::shared_ptr<void> kept);

    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    /// Ends the thread. One that does not end within the patience is left to itself.
    ~Worker();

    /// Has the thread run `work`, and waits for its end. What `work` throws is thrown here.
    ///
    /// Allocates nothing if `work` is trivially copyable and not larger than two pointers.
    ///
    /// @return false when the deadline has passed. Then the thread is abandoned: it ends when `work` does, and this
    /// object is good for nothing any more. What `work` refers to has to be kept by the thread.
    bool run(std::function<void()> work, const Deadline& deadline);

private:
    struct Shared {
        std::mutex mutex;
        std::condition_variable wake;      // for the thread
        std::condition_variable progress;  // for who waits for it
        std::function<void()> work;
        bool busy = false;
        bool ending = false;
        bool ended = false;
        std::exception_ptr failure;
        std::shared_ptr<void> kept;
    };

    /// How long the destructor waits for the thread to let go of what it keeps.
    static constexpr std::chrono::seconds PATIENCE{5};

    explicit Worker(std::shared_ptr<Shared> shared) : shared_(std::move(shared)) {}
    static void loop(const std::shared_ptr<Shared>& shared);

    std::shared_ptr<Shared> shared_;
    std::thread thread_;
    bool abandoned_ = false;
};

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
