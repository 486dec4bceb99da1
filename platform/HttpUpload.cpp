#include "platform/HttpUpload.h"

#include "platform/HttpRequest.h"
#include "platform/WholeFile.h"

#include <platform/Status.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace platform_detail {

namespace {

[[noreturn]] void unreadable(const std::string& path, const std::string& reason) {
    throw HttpFailure{platform_status::HTTP_FILE_UNREADABLE, path + ": " + reason};
}

}  // namespace

HttpUpload::HttpUpload(const std::string& path) : path_(path), file_(openWithoutWaiting(path)) {
    if (path.find('\0') != std::string::npos) {
        unreadable(path, "the name holds a NUL");
    }
    struct stat opened {};
    if (!file_.isOpen() || fstat(file_.get(), &opened) != 0) {
        unreadable(path, std::generic_category().message(errno));
    }
    if (!S_ISREG(opened.st_mode)) {
        unreadable(path, "it is not a regular file");
    }
    size_ = opened.st_size;
    left_ = size_;
}

long HttpUpload::read(char* buffer, std::size_t capacity) {
    const auto wanted = static_cast<std::size_t>(std::min<long long>(left_, static_cast<long long>(capacity)));
    if (wanted == 0) {
        return 0;
    }
    ssize_t count = 0;
    do {
        count = ::read(file_.get(), buffer, wanted);
    } while (count < 0 && errno == EINTR);
    if (count <= 0) {
        error_ = path_ + ": " + (count == 0 ? "it has become shorter" : std::generic_category().message(errno));
        return -1;
    }
    left_ -= count;
    return count;
}

}  // namespace platform_detail
