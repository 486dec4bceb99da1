#pragma once

#include <sys/types.h>

#include <functional>

namespace testing_support {

/// A forked child that runs a function and exits with its result; killed at the end if it still runs.
class ChildProcess {
public:
    explicit ChildProcess(const std::function<int()>& run);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }
    /// Waits for the end. The exit status, or the negative number of the signal that ended it.
    int wait();
    void kill(int signal) const;

private:
    pid_t pid_;
};

/// A one-way signal between processes: any number of waiters, released by one notify(). Made before the fork.
class Signal {
public:
    Signal();
    ~Signal();
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    void notify();
    void wait();
    /// Whether it was given within the time.
    bool waitFor(int milliseconds);

private:
    int descriptors_[2] = {-1, -1};
};

}  // namespace testing_support
