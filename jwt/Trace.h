#pragma once

#include <platform/Logger.h>

namespace Tesmor::Arkwell {

/// Messages about steps that succeeded, for debugging. Whether they are wanted is asked once, when this is made: asking
/// takes a system call, and a verification has more steps than that is worth.
class Trace {
public:
    void operator()(const char* context, const char* text) const {
        if (logger_ != nullptr) {
            logger_->debug(LEVEL, context, text);
        }
    }

private:
    static constexpr int LEVEL = 6;

    static AWLogger* enabledLogger() {
        AWLogger* const logger = AWLogger::defaultInstance();
        return logger != nullptr && logger->isDebugEnabled(LEVEL) ? logger : nullptr;
    }

    AWLogger* logger_ = enabledLogger();
};

}  // namespace Tesmor::Arkwell
