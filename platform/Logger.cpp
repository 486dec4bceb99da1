#include "platform/Handles.h"
#include "platform/Settings.h"
#include "platform/UtcTime.h"

#include <platform/Logger.h>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/fmt/fmt.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

namespace {

using platform_detail::Descriptor;
using platform_detail::Settings;

constexpr int DEBUG_MESSAGE_LEVEL = 2;

const char* orEmpty(const char* text) {
    return text != nullptr ? text : "";
}

std::string escaped(std::string_view text) {
    static constexpr char HEX[] = "0123456789ABCDEF";
    std::string line;
    line.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7F) {
            line += c;
        } else if (c == '\n') {
            line += "\\n";
        } else if (c == '\r') {
            line += "\\r";
        } else if (c == '\t') {
            line += "\\t";
        } else {
            line += {'\\', 'x', HEX[byte >> 4], HEX[byte & 0xF]};
        }
    }
    return line;
}

/// @return whether everything was written.
bool writeAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(descriptor, text.data(), text.size());
        if (count >= 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) {
            pollfd writable{descriptor, POLLOUT, 0};
            poll(&writable, 1, -1);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

/// Appends lines to the log file. What cannot be written there, or has no file, goes to the standard error stream.
class LineSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
public:
    LineSink() : base_sink(std::make_unique<spdlog::pattern_formatter>("%v", spdlog::pattern_time_type::utc, "\n")) {}

    void setFile(const std::string& path) { path_ = path; }

private:
    void sink_it_(const spdlog::details::log_msg& message) override {
        spdlog::memory_buf_t buffer;
        formatter_->format(message, buffer);
        const std::string_view line(buffer.data(), buffer.size());
        if (path_.empty() || !append(line)) {
            writeAll(STDERR_FILENO, line);
        }
    }

    // The file is opened for every line: it may be rotated away between two, and a daemon that closes whatever is open
    // and then opens files of its own must not find log lines in them.
    bool append(std::string_view line) const {
        const Descriptor file(open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640));
        return file.isOpen() && writeAll(file.get(), line);
    }

    void flush_() override {}  // nothing is buffered

    std::string path_;
};

/// The log, one whole line at a time.
class Log {
public:
    void write(const std::string& file, int level, std::string_view tag, std::string_view message) {
        const std::string line =
            fmt::format("{} {} {}.{} [{}] {}", platform_detail::utcText(std::chrono::system_clock::now()), level,
                        getpid(), gettid(), escaped(tag), escaped(message));
        const std::lock_guard<std::mutex> lock(mutex_);
        sink_.setFile(file);
        sink_.log(spdlog::details::log_msg({}, spdlog::level::off, line));
    }

    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }

private:
    std::mutex mutex_;
    LineSink sink_;
};

struct InstalledSink {
    LogSink receive;
    unsigned running = 0;  // calls that have not returned
};

/// The sink that this thread is calling.
thread_local InstalledSink* calledHere = nullptr;

/// What setLogSink() has installed, with a count of the calls in progress.
class SinkSlot {
public:
    /// @return null where there is none, or where this thread is in one already.
    InstalledSink* enter() {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (current_ == nullptr || calledHere != nullptr) {
            return nullptr;
        }
        ++current_->running;
        return current_.get();
    }

    void leave(InstalledSink& sink) {
        const std::lock_guard<std::mutex> lock(mutex_);
        --sink.running;
        idle_.notify_all();
    }

    /// Returns when no call of the previous sink is in progress any more.
    void install(std::unique_ptr<InstalledSink> next) {
        std::unique_lock<std::mutex> lock(mutex_);
        const std::unique_ptr<InstalledSink> previous = std::exchange(current_, std::move(next));
        if (previous != nullptr) {
            idle_.wait(lock, [&] { return previous->running == 0; });
        }
        lock.unlock();
    }

    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }

    /// unlock() for a child made by fork(): of all threads only this one has come along.
    void unlockInChild() {
        new (&idle_) std::condition_variable;
        if (current_ != nullptr) {
            current_->running = calledHere == current_.get() ? 1 : 0;
        }
        mutex_.unlock();
    }

private:
    std::mutex mutex_;
    std::condition_variable idle_;
    std::unique_ptr<InstalledSink> current_;
};

struct Logger {
    SinkSlot sink;
    Log log;
};

// Never destroyed: destructors of static objects may log.
Logger& logger() {
    static Logger& instance = *new Logger;
    return instance;
}

// Handlers run before a fork in the reverse order of their registration. Who holds a lock of their own may log, and so
// may want one of these; registering ahead of everybody makes these the last locks that a fork takes.
__attribute__((constructor(101))) void registerForkHandlers() {
    logger();
    pthread_atfork(
        [] {
            logger().sink.lock();
            logger().log.lock();
        },
        [] {
            logger().log.unlock();
            logger().sink.unlock();
        },
        [] {
            logger().log.unlock();
            logger().sink.unlockInChild();
        });
}

/// One call of the installed sink, if there is one to be called.
class SinkCall {
public:
    SinkCall() : sink_(logger().sink.enter()) {
        if (sink_ != nullptr) {
            calledHere = sink_;
        }
    }
    ~SinkCall() {
        if (sink_ != nullptr) {
            calledHere = nullptr;
            logger().sink.leave(*sink_);
        }
    }
    SinkCall(const SinkCall&) = delete;
    SinkCall& operator=(const SinkCall&) = delete;

    explicit operator bool() const { return sink_ != nullptr; }
    const LogSink& receive() const { return sink_->receive; }

private:
    InstalledSink* sink_;
};

/// Reporters log before they look at errno.
class KeptErrno {
public:
    ~KeptErrno() { restore(); }
    void restore() const { errno = value_; }

private:
    int value_ = errno;
};

/// Sends a message to the sink, or to the log if `isWritten` says so of its settings. `makeText` is only called for a
/// message that goes somewhere. A message that cannot be made or written is lost, for its reporter has other worries.
template <class IsWritten, class MakeText>
void report(int level, const char* tag, IsWritten isWritten, MakeText makeText) noexcept {
    const KeptErrno keptErrno;
    try {
        if (const SinkCall call; call) {
            keptErrno.restore();
            call.receive()(level, orEmpty(tag), makeText());
            return;
        }
        const std::shared_ptr<const Settings> settings = platform_detail::currentSettings();
        if (isWritten(settings->log)) {
            keptErrno.restore();
            logger().log.write(settings->log.file, level, orEmpty(tag), makeText());
        }
    } catch (...) {
    }
}

auto isWrittenFrom(int level) {
    return [level](const Settings::Log& log) { return level >= log.level; };
}

auto isWrittenFrom(int level, int verbosity) {
    return [=](const Settings::Log& log) { return level >= log.level || verbosity <= log.debugLevel; };
}

auto copyOf(const char* text) {
    return [text] { return std::string(orEmpty(text)); };
}

std::string formatted(const char* format, va_list arguments) {
    va_list measured;
    va_copy(measured, arguments);
    const int length = vsnprintf(nullptr, 0, orEmpty(format), measured);
    va_end(measured);
    if (length < 0) {
        return orEmpty(format);
    }
    std::string text(static_cast<std::size_t>(length), '\0');
    vsnprintf(text.data(), text.size() + 1, orEmpty(format), arguments);
    return text;
}

}  // namespace

void logmsg(int level, const char* tag, const char* text) {
    report(level, tag, isWrittenFrom(level), copyOf(text));
}

void logmsgf(int level, const char* tag, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    report(level, tag, isWrittenFrom(level), [&] { return formatted(format, arguments); });
    va_end(arguments);
}

void logmsgv(int level, int verbosity, const char* tag, const char* text) {
    report(level, tag, isWrittenFrom(level, verbosity), copyOf(text));
}

void logmsgvf(int level, int verbosity, const char* tag, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    report(level, tag, isWrittenFrom(level, verbosity), [&] { return formatted(format, arguments); });
    va_end(arguments);
}

AWLogger* AWLogger::defaultInstance() {
    static AWLogger instance;
    return &instance;
}

bool AWLogger::isDebugEnabled(int level) const {
    const KeptErrno keptErrno;
    try {
        return level <= platform_detail::currentSettings()->log.debugLevel;
    } catch (...) {
        return false;
    }
}

// NOLINTNEXTLINE(readability-make-member-function-const): programs are compiled against it as it is
void AWLogger::debug(int level, const char* context, const std::string& text) {
    if (isDebugEnabled(level)) {
        report(
            DEBUG_MESSAGE_LEVEL, context, [](const Settings::Log&) { return true; }, [&] { return text; });
    }
}

void setLogSink(LogSink sink) {
    std::unique_ptr<InstalledSink> installed;
    if (sink) {
        installed.reset(new (std::nothrow) InstalledSink{std::move(sink)});
    }
    logger().sink.install(std::move(installed));
}
