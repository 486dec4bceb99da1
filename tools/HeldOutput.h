#pragma once

#include "platform/Handles.h"

#include <array>
#include <optional>
#include <ostream>
#include <streambuf>

namespace Tesmor::Arkwell::Tools {

/// Holds the output back until it is let go: in memory as long as it is little, then in a file without a name.
///
/// Whoever reads the output may take any time for it, as people do with a pager. A cache's lock must not be held for
/// that long, because the service waits for it.
class HeldOutput {
public:
    HeldOutput() { stream_.exceptions(std::ios_base::badbit); }

    /// Writing throws std::system_error where the file cannot be written.
    std::ostream& stream() { return stream_; }

    /// Writes what was held to the descriptor.
    ///
    /// @throws std::system_error
    void letGo(int descriptor);

private:
    class Buffer : public std::streambuf {
    public:
        Buffer() { clear(); }
        void copyTo(int descriptor);

    private:
        int_type overflow(int_type c) override;
        void clear() { setp(bytes_.data(), bytes_.data() + bytes_.size()); }

        std::array<char, 65536> bytes_{};
        std::optional<platform_detail::Descriptor> file_;
    };

    Buffer buffer_;
    std::ostream stream_{&buffer_};
};

}  // namespace Tesmor::Arkwell::Tools
