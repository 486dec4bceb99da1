#include "testing/TemporaryDirectory.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace testing_support {

TemporaryDirectory::TemporaryDirectory() {
    path_ = (std::filesystem::temp_directory_path() / "arkwell-test-XXXXXX").string();
    if (mkdtemp(path_.data()) == nullptr) {
        throw std::runtime_error("cannot make " + path_);
    }
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void writeFile(const std::string& path, const std::string& contents) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
    out.close();
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + path);
    }
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

ScopedEnvironment::ScopedEnvironment(const char* name, const char* value) : name_(name) {
    const char* before = std::getenv(name);
    wasSet_ = before != nullptr;
    before_ = wasSet_ ? before : "";
    if (value != nullptr) {
        setenv(name, value, 1);
    } else {
        unsetenv(name);
    }
}

ScopedEnvironment::~ScopedEnvironment() {
    if (wasSet_) {
        setenv(name_.c_str(), before_.c_str(), 1);
    } else {
        unsetenv(name_.c_str());
    }
}

int openDescriptorCount() {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return static_cast<int>(std::distance(begin(open), end(open))) - 1;
}

}  // namespace testing_support
