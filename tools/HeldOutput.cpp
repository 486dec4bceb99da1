#include "tools/HeldOutput.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <string_view>
#include <system_error>

namespace Tesmor::Arkwell::Tools {

namespace {

using platform_detail::Descriptor;

[[noreturn]] void failTo(const std::string& doWhat) {
    throw std::system_error(errno, std::generic_category(), "cannot " + doWhat);
}

void writeAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(descriptor, text.data(), text.size());
        if (count >= 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            failTo("write the output");
        }
    }
}

/// A new file that goes with its descriptor.
Descriptor namelessFile() {
    const char* const chosen = std::getenv("TMPDIR");
    const std::string folder = chosen != nullptr && *chosen != '\0' ? chosen : "/tmp";
    std::string path = folder + "/rbac-cache.XXXXXX";
    Descriptor file(mkostemp(path.data(), O_CLOEXEC));
    if (!file.isOpen()) {
        failTo("make " + path);
    }
    unlink(path.c_str());
    return file;
}

void copyAll(int from, int to) {
    std::array<char, 65536> chunk{};
    for (off_t position = 0;;) {
        const ssize_t count = pread(from, chunk.data(), chunk.size(), position);
        if (count == 0) {
            return;
        }
        if (count < 0 && errno != EINTR) {
            failTo("read back the output");
        }
        if (count > 0) {
            writeAll(to, {chunk.data(), static_cast<std::size_t>(count)});
            position += count;
        }
    }
}

}  // namespace

void HeldOutput::letGo(int descriptor) {
    buffer_.copyTo(descriptor);
}

void HeldOutput::Buffer::copyTo(int descriptor) {
    if (file_) {
        copyAll(file_->get(), descriptor);
        file_.reset();
    }
    writeAll(descriptor, {pbase(), static_cast<std::size_t>(pptr() - pbase())});
    clear();
}

HeldOutput::Buffer::int_type HeldOutput::Buffer::overflow(int_type c) {
    if (!file_) {
        file_.emplace(namelessFile());
    }
    writeAll(file_->get(), {pbase(), static_cast<std::size_t>(pptr() - pbase())});
    clear();
    return traits_type::eq_int_type(c, traits_type::eof()) ? traits_type::not_eof(c)
                                                           : sputc(traits_type::to_char_type(c));
}

}  // namespace Tesmor::Arkwell::Tools
