#include "tools/Terminal.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <utility>

namespace Tesmor::Arkwell::Tools {

namespace {

std::mutex errorStreamMutex;
bool progressShown = false;  // the last line of the error stream is one of a Progress

void clearProgress() {
    if (progressShown) {
        std::cerr << "\r\x1B[K" << std::flush;
        progressShown = false;
    }
}

bool isPlain(unsigned char byte) {
    return byte >= 0x20 && byte < 0x7F;
}

/// The length of the UTF-8 sequence of several bytes that the text begins with, if it is one (RFC 3629, section 4) and
/// not a control character; otherwise 0.
std::size_t sequenceLength(std::string_view text) {
    const auto at = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = at(0);
    if (first < 0xC2 || first > 0xF4) {
        return 0;
    }
    const std::size_t length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (text.size() < length) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((at(i) & 0xC0U) != 0x80U) {
            return 0;
        }
    }
    const unsigned char second = at(1);
    const bool overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool surrogate = first == 0xED && second > 0x9F;
    const bool tooLarge = first == 0xF4 && second > 0x8F;
    const bool control = first == 0xC2 && second < 0xA0;
    return overlong || surrogate || tooLarge || control ? 0 : length;
}

std::string environment(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool isOn(ColorMode mode) {
    if (mode != ColorMode::AUTO) {
        return mode == ColorMode::ALWAYS;
    }
    return isatty(STDOUT_FILENO) != 0 && environment("NO_COLOR").empty() && environment("TERM") != "dumb";
}

}  // namespace

std::string printable(std::string_view text) {
    static constexpr char HEX[] = "0123456789ABCDEF";
    std::string shown;
    shown.reserve(text.size());
    while (!text.empty()) {
        const auto byte = static_cast<unsigned char>(text.front());
        const std::size_t length = isPlain(byte) ? 1 : sequenceLength(text);
        if (length != 0) {
            shown += text.substr(0, length);
        } else {
            shown += {'\\', 'x', HEX[byte >> 4U], HEX[byte & 0xFU]};
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return shown;
}

std::string counted(std::uint64_t number, const char* one, const char* many) {
    return std::to_string(number) + " " + (number == 1 ? one : many);
}

bool showsUtf8() {
    std::string locale;
    for (const char* const name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        if (locale = environment(name); !locale.empty()) {
            break;
        }
    }
    std::transform(locale.begin(), locale.end(), locale.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return locale.find("UTF-8") != std::string::npos || locale.find("UTF8") != std::string::npos;
}

Colors::Colors(ColorMode mode) : on_(isOn(mode)) {}

std::string Colors::in(const char* code, std::string_view text) const {
    return on_ ? "\x1B[" + std::string(code) + "m" + std::string(text) + "\x1B[0m" : std::string(text);
}

void note(std::string_view line) {
    const std::lock_guard<std::mutex> lock(errorStreamMutex);
    clearProgress();
    std::cerr << printable(line) << "\n";
}

Progress::Progress(std::string what) : what_(std::move(what)) {
    if (isatty(STDERR_FILENO) != 0) {
        thread_ = std::thread([this] { run(); });
    }
}

Progress::~Progress() {
    if (!thread_.joinable()) {
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        hasEnded_ = true;
    }
    ended_.notify_one();
    thread_.join();
    const std::lock_guard<std::mutex> lock(errorStreamMutex);
    clearProgress();
}

void Progress::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (int seconds = 1; !ended_.wait_for(lock, std::chrono::seconds(1), [this] { return hasEnded_; }); ++seconds) {
        const std::lock_guard<std::mutex> stream(errorStreamMutex);
        std::cerr << "\r" << what_ << ": " << seconds << " s" << std::flush;
        progressShown = true;
    }
}

}  // namespace Tesmor::Arkwell::Tools
