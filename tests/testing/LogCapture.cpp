#include "testing/LogCapture.h"

#include "testing/SecretScan.h"

#include <platform/Logger.h>

#include <algorithm>
#include <iterator>
#include <ostream>

namespace testing_support {

void PrintTo(const LogLine& line, std::ostream* out) {
    *out << line.level << " [" << line.tag << "] " << line.message;
}

LogCapture::LogCapture() {
    setLogSink([this](int level, const std::string& tag, const std::string& message) {
        refuseSecrets(tag, message);
        const std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back({level, tag, message});
    });
}

LogCapture::~LogCapture() {
    setLogSink({});
}

std::vector<LogLine> LogCapture::lines() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

std::vector<LogLine> LogCapture::linesAt(int level) const {
    const std::vector<LogLine> all = lines();
    std::vector<LogLine> chosen;
    std::copy_if(all.begin(), all.end(), std::back_inserter(chosen),
                 [level](const LogLine& l) { return l.level == level; });
    return chosen;
}

void LogCapture::clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

}  // namespace testing_support
