#pragma once

#include <jansson.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>

// The C handles that this library holds, each with its owner.

namespace platform_detail {

struct JsonRelease {
    void operator()(json_t* value) const { json_decref(value); }
};

/// Owns one reference to a JSON value.
using JsonPointer = std::unique_ptr<json_t, JsonRelease>;

struct FileClose {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

/// Owns an open file, or nothing where opening failed.
using FilePointer = std::unique_ptr<std::FILE, FileClose>;

/// Opens a file to read it, closed on exec; what jansson, OpenSSL and libcurl open by its name is inherited by the
/// programs that other threads start.
inline FilePointer openToRead(const std::string& path) {
    return FilePointer(std::fopen(path.c_str(), "rbe"));
}

/// Owns a file descriptor, or nothing where opening failed.
class Descriptor {
public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() {
        if (isOpen()) {
            close(number_);
        }
    }
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&&) = delete;

    /// Gives the descriptor to somebody else.
    int release() { return std::exchange(number_, -1); }
    bool isOpen() const { return number_ >= 0; }
    int get() const { return number_; }

private:
    int number_;
};

}  // namespace platform_detail
