#pragma once

#include "platform/Handles.h"

#include <cstddef>
#include <string>

namespace platform_detail {

/// A file on its way to the server: as many bytes as it had when it was opened.
class HttpUpload {
public:
    /// @throws HttpFailure where it is not a regular file that can be read.
    explicit HttpUpload(const std::string& path);

    long long size() const { return size_; }

    /// The next bytes, 0 at the end, -1 where the file cannot be read or has become shorter: then error() says why.
    long read(char* buffer, std::size_t capacity);
    const std::string& error() const { return error_; }

private:
    std::string path_;
    Descriptor file_;
    long long size_ = 0;
    long long left_ = 0;
    std::string error_;
};

}  // namespace platform_detail
