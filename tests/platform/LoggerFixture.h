#pragma once

#include "SettingsFixture.h"
#include "testing/SecretScan.h"

#include <algorithm>
#include <string>
#include <vector>

/// Settings with a log file of the test's own.
class LoggerFixture {
public:
    explicit LoggerFixture(int level = 8, int debugLevel = 0) { set("log", level, debugLevel); }

    /// Changes the settings.
    void set(const std::string& file, int level, int debugLevel = 0) {
        settings_.replace(R"({"primaryServer": "primary.example", "log": {"file": ")" + path(file) + R"(", "level": )" +
                          std::to_string(level) + R"(, "debugLevel": )" + std::to_string(debugLevel) + "}}");
    }

    std::string path(const std::string& file = "log") const { return settings_.directory() / file; }
    SettingsFixture& settings() { return settings_; }

    /// The log's lines, each without the end of line.
    std::vector<std::string> lines(const std::string& file = "log") const {
        const std::string text = testing_support::readFile(path(file));
        testing_support::refuseSecrets(path(file), text);
        std::vector<std::string> lines;
        for (std::size_t begin = 0; begin < text.size();) {
            const std::size_t end = std::min(text.find('\n', begin), text.size());
            lines.push_back(text.substr(begin, end - begin));
            begin = end + 1;
        }
        return lines;
    }

    /// What the lines say after the time and the thread.
    std::vector<std::string> messages(const std::string& file = "log") const {
        std::vector<std::string> messages;
        for (const std::string& line : lines(file)) {
            const std::size_t level = line.find(' ') + 1;
            const std::size_t thread = line.find(' ', level);
            messages.push_back(line.substr(level, thread - level) + line.substr(line.find(' ', thread + 1)));
        }
        return messages;
    }

private:
    SettingsFixture settings_;
};
