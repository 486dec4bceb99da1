#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace Tesmor::Arkwell::Tools {

/// The text with everything escaped, as \xNN, that a terminal could take for a command: control characters, and bytes
/// that are not UTF-8.
std::string printable(std::string_view text);

/// As in "1 object" or "7 objects".
std::string counted(std::uint64_t number, const char* one, const char* many);

/// Whether people who read the output see UTF-8.
bool showsUtf8();

enum class ColorMode { AUTO, ALWAYS, NEVER };

/// Colours for the standard output, or none.
class Colors {
public:
    /// AUTO: on a terminal, unless the environment has NO_COLOR.
    explicit Colors(ColorMode mode);

    std::string good(std::string_view text) const { return in("32", text); }
    std::string bad(std::string_view text) const { return in("31", text); }
    std::string remarkable(std::string_view text) const { return in("33", text); }
    std::string name(std::string_view text) const { return in("1", text); }
    std::string faint(std::string_view text) const { return in("2", text); }

private:
    std::string in(const char* code, std::string_view text) const;

    bool on_;
};

/// Prints a line on the standard error stream, as printable() shows it.
void note(std::string_view line);

/// While it lives, says on the standard error stream how long a work has taken; only on a terminal, and only once it
/// takes long.
class Progress {
public:
    explicit Progress(std::string what);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    void run();

    std::string what_;
    std::mutex mutex_;
    std::condition_variable ended_;
    bool hasEnded_ = false;
    std::thread thread_;
};

}  // namespace Tesmor::Arkwell::Tools
