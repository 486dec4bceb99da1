#pragma once

#include <chrono>

namespace Tesmor {
namespace Dal {
namespace detail {

/// While it lives, this thread may be inside the driver manager or a driver. These have locks of their own, which a
/// child made by fork() would inherit as its parent's threads held them; so a fork waits a moment for the calls in
/// progress to end. A call that takes longer waits for its server, and holds no lock that others need.
///
/// Does not nest.
class DriverCall {
public:
    DriverCall();
    ~DriverCall();
    DriverCall(const DriverCall&) = delete;
    DriverCall& operator=(const DriverCall&) = delete;
};

/// One thread of the process connects to a server at a time: the PostgreSQL driver changes the process's locale
/// meanwhile, and of two at once one reads what the other has freed.
class ConnectTurn {
public:
    /// Waits for the turn, and takes it unless it comes too late.
    explicit ConnectTurn(std::chrono::steady_clock::time_point giveUp);
    ConnectTurn(const ConnectTurn&) = delete;
    ConnectTurn& operator=(const ConnectTurn&) = delete;
    ~ConnectTurn();

    /// Whether the turn was taken.
    explicit operator bool() const { return taken_; }

private:
    bool taken_;
};

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
