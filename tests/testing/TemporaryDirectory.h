#pragma once

#include <string>

namespace testing_support {

/// A fresh directory, removed with its contents at the end.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& path() const { return path_; }
    /// The path of `name` inside.
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

/// Replaces the file's contents; makes its folder where it is missing.
void writeFile(const std::string& path, const std::string& contents);
std::string readFile(const std::string& path);

/// Sets an environment variable (or, with null, removes it) and restores it at the end.
class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const char* value);
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    std::string name_;
    bool wasSet_;
    std::string before_;
};

/// How many file descriptors this process has open.
int openDescriptorCount();

}  // namespace testing_support
