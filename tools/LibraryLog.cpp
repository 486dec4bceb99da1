#include "tools/LibraryLog.h"

#include "tools/Terminal.h"

#include <platform/Logger.h>
#include <platform/Status.h>

#include <mutex>

namespace Tesmor::Arkwell::Tools {

namespace {

constexpr int ERROR_LEVEL = 16;

std::mutex mutex;  // guards both below
bool shown = false;
std::string error;

}  // namespace

LibraryLog::LibraryLog() {
    setLogSink([](int level, const std::string& tag, const std::string& message) {
        const std::lock_guard<std::mutex> lock(mutex);
        if (level == ERROR_LEVEL) {
            error = message;
        }
        if (shown) {
            note("[" + std::to_string(level) + "] " + tag + ": " + message);
        }
    });
}

LibraryLog::~LibraryLog() {
    setLogSink({});
}

void LibraryLog::show() {
    const std::lock_guard<std::mutex> lock(mutex);
    shown = true;
}

std::string LibraryLog::describe(int status) {
    const std::lock_guard<std::mutex> lock(mutex);
    return getECmsg(status) + " (status " + std::to_string(status) + ")" + (error.empty() ? "" : ": " + error);
}

}  // namespace Tesmor::Arkwell::Tools
