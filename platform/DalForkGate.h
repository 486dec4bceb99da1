#pragma once

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

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
