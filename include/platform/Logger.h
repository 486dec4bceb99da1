#pragma once

#include <platform/Export.h>

#include <functional>
#include <string>

/// @file
/// The product's log. Levels: 16 errors, 8 recoverable misses, 4 progress, 2 dumps. The settings file says where the
/// log is written and from which level on (see docs/settings.md); without it, levels 8 and 16 go to the standard error
/// stream. One message is always one line: control characters are escaped.
///
/// Every function here may be called from any thread, also before main() and while the process forks, and none throws.

/// Logs `text`. `tag` names the reporting function.
ARKWELL_EXPORT void logmsg(int level, const char* tag, const char* text);

/// Logs a message formatted as printf() does; it is never cut short.
ARKWELL_EXPORT void logmsgf(int level, const char* tag, const char* format, ...) __attribute__((format(printf, 3, 4)));

/// Logs `text` if `level` is written anyway or `verbosity` is at most the settings' `log.debugLevel`.
ARKWELL_EXPORT void logmsgv(int level, int verbosity, const char* tag, const char* text);

/// logmsgv() with a message formatted as printf() does; it is never cut short.
ARKWELL_EXPORT void logmsgvf(int level, int verbosity, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// The debug log of the token and database classes.
class ARKWELL_EXPORT AWLogger {
public:
    /// The one logger of the process; never null.
    static AWLogger* defaultInstance();

    /// Whether debug messages of `level` are wanted: the settings' `log.debugLevel` is at least `level`.
    bool isDebugEnabled(int level) const;

    /// Logs `text` with `context` as the tag, if `level` is enabled.
    void debug(int level, const char* context, const std::string& text);
};

/// Receives messages in place of the log. It may be called from several threads at once.
using LogSink = std::function<void(int level, const std::string& tag, const std::string& message)>;

/// Sends every message, whatever its level and verbosity, to `sink` instead of the log; debug messages arrive with
/// level 2 when their debug level is enabled. An empty function restores the log. An exception that the sink throws is
/// dropped. What a sink itself logs goes to the log, as if there were no sink.
///
/// The sink must not call setLogSink(). After this returns, no thread calls the previous sink any more.
ARKWELL_EXPORT void setLogSink(LogSink sink);
