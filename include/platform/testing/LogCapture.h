#pragma once

#include <platform/Logger.h>

#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

// For the tests of programs that use the platform library. Header-only, and of no test framework.

namespace platform_testing {

/// A message that was logged.
struct LogLine {
    int level;            ///< 16, 8, 4 or 2
    std::string tag;      ///< names the reporting function
    std::string message;  ///< as it would be logged, not escaped

    /// Whether all members are the same.
    friend bool operator==(const LogLine& a, const LogLine& b) {
        return a.level == b.level && a.tag == b.tag && a.message == b.message;
    }
    /// For the messages of tests.
    friend std::ostream& operator<<(std::ostream& out, const LogLine& line) {
        return out << line.level << " [" << line.tag << "] " << line.message;
    }
};

/// Collects what the process logs while it lives, of every level, in place of the log. The log is restored at the end.
///
///     platform_testing::LogCapture log;
///     doWhatFails();
///     log.linesAt(16);  // the errors
///
/// One at a time: it is the log sink of the process, and takes the place of any other. Every function may be called
/// from any thread; lines of one thread are in its order.
class LogCapture {
public:
    LogCapture() : LogCapture(nullptr) {}
    /// @param look is shown every line before it is kept, on the thread that logs it, and may be called by several at
    /// once. What it throws keeps that line out.
    explicit LogCapture(std::function<void(const LogLine&)> look) : look_(std::move(look)) {
        setLogSink([this](int level, const std::string& tag, const std::string& message) {
            keep({level, tag, message});
        });
    }
    ~LogCapture() { setLogSink({}); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Everything logged so far, in order.
    std::vector<LogLine> lines() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    /// The lines of one level.
    std::vector<LogLine> linesAt(int level) const {
        std::vector<LogLine> chosen;
        for (LogLine& line : lines()) {
            if (line.level == level) {
                chosen.push_back(std::move(line));
            }
        }
        return chosen;
    }
    /// Forgets what was logged so far.
    void clear() {
        const std::lock_guard<std::mutex> lock(mutex_);
        lines_.clear();
    }

private:
    void keep(LogLine line) {
        if (look_) {
            look_(line);
        }
        const std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(std::move(line));
    }

    const std::function<void(const LogLine&)> look_;
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
};

}  // namespace platform_testing
