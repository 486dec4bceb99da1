#pragma once

#include <boost/optional.hpp>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// How a request is answered wrongly, on purpose.
struct Fault {
    enum class Kind {
        DELAY,         ///< carried out, `argument` milliseconds later
        CLOSE,         ///< not carried out; the connection ends in order, without an answer
        REFUSE,        ///< not carried out; the connection is reset
        WRONG_STATUS,  ///< not carried out; answered with the HTTP status `argument`
        MALFORMED,     ///< not carried out; answered with 200 and half a JSON document
        HUGE_BODY,     ///< not carried out; answered with 200 and a document of `argument` bytes
        CLOSE_AFTER,   ///< carried out; the connection ends without an answer
        KILL,          ///< the service ends at once, before it carries out the request
        KILL_AFTER,    ///< the service ends at once, after it has carried out the request, without an answer
    };
    Kind kind;
    std::uint64_t argument;
};

/// Faults to be made, each for the requests whose path begins with a text. Safe from any thread.
class FaultSwitches {
public:
    /// Sets all of these or none.
    ///
    /// @param texts each [METHOD ]PATH=KIND[:ARGUMENT][@N], where KIND is delay, close, refuse, status, malformed,
    /// huge, close-after, kill or kill-after; with @N only the Nth such request from now on goes wrong, counted from 1.
    /// @throws std::invalid_argument saying what is wrong with a text.
    void set(const std::vector<std::string>& texts);
    void clear();
    /// Those that are set, each as "TEXT (N requests)": how many it has had to do with.
    std::vector<std::string> list() const;

    /// The fault to make with this request, if any. Counts it.
    boost::optional<Fault> next(const std::string& method, const std::string& path);

private:
    struct Switch {
        std::string text;
        std::string method;  // empty: any
        std::string path;
        Fault fault;
        std::uint64_t nth;  // 0: every one
        std::uint64_t seen;
    };
    static Switch parse(const std::string& text);

    mutable std::mutex mutex_;
    std::vector<Switch> switches_;
};

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
