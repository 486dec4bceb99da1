#pragma once

#include "testing/TemporaryDirectory.h"

#include <cstdio>
#include <string>

/// A settings file of the test's own, which the process uses while this lives.
class SettingsFixture {
public:
    explicit SettingsFixture(const std::string& contents = "{}") { write(contents); }

    const std::string& path() const { return path_; }
    const testing_support::TemporaryDirectory& directory() const { return directory_; }

    /// Changes the file in place.
    void write(const std::string& contents) { testing_support::writeFile(path_, contents); }
    /// Puts another file in its place; whoever reads it finds either the old or the new contents.
    void replace(const std::string& contents) {
        testing_support::writeFile(path_ + ".new", contents);
        std::rename((path_ + ".new").c_str(), path_.c_str());
    }
    void remove() { std::remove(path_.c_str()); }

private:
    testing_support::TemporaryDirectory directory_;
    std::string path_ = directory_ / "platform.json";
    testing_support::ScopedEnvironment named_{"TARVO_PLATFORM_CONFIG", path_.c_str()};
};
