#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace testing_support {

struct LogLine {
    int level;
    std::string tag;
    std::string message;

    friend bool operator==(const LogLine& a, const LogLine& b) {
        return a.level == b.level && a.tag == b.tag && a.message == b.message;
    }
};
void PrintTo(const LogLine& line, std::ostream* out);

/// Collects what the process logs while it lives, in place of the log. A line with a secret ends the program.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Everything logged so far, in order.
    std::vector<LogLine> lines() const;
    /// The lines of one level.
    std::vector<LogLine> linesAt(int level) const;
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
};

}  // namespace testing_support
