#pragma once

#include <platform/Logger.h>

#include <string>

namespace Tesmor::Arkwell {

/// Debug messages that end in the place that they come from: "message(Source:line)". The lines are names that log
/// readers know the messages by; they stay as they are when the code moves.
class PositionedLog {
public:
    /// @param source and `context` are borrowed.
    PositionedLog(const char* source, const char* context) : source_(source), context_(context) {}

    void debug(int level, int line, const std::string& message) const {
        if (AWLogger* const logger = enabledLogger(level)) {
            logger->debug(level, context_, message + "(" + source_ + ":" + std::to_string(line) + ")");
        }
    }

    /// The message with a number at its end.
    void debug(int level, int line, const char* message, long long number) const {
        if (enabledLogger(level) != nullptr) {
            debug(level, line, message + std::to_string(number));
        }
    }

    /// The message with a text at its end.
    void debug(int level, int line, const char* message, const std::string& text) const {
        if (enabledLogger(level) != nullptr) {
            debug(level, line, message + text);
        }
    }

private:
    static AWLogger* enabledLogger(int level) {
        AWLogger* const logger = AWLogger::defaultInstance();
        return logger != nullptr && logger->isDebugEnabled(level) ? logger : nullptr;
    }

    const char* source_;
    const char* context_;
};

}  // namespace Tesmor::Arkwell
