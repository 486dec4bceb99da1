#pragma once

#include <rbac/CacheVerification.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace Tesmor::Arkwell::Rbac::detail {

/// Where faults go, until whoever takes them wants no more.
class FaultReport {
public:
    explicit FaultReport(const OnCacheFault& onFault) : onFault_(onFault) {}

    bool stopped() const { return stopped_; }
    std::uint64_t count() const { return count_; }

    /// @param text of the namespace that it touches, as it stands in the file.
    void add(const std::string& file, std::uint64_t offset, std::string_view text, std::string what) {
        if (stopped_) {
            return;
        }
        ++count_;
        stopped_ = !onFault_({file, offset, shown(text), std::move(what)});
    }

private:
    static constexpr std::size_t LONGEST_TEXT = 1024;

    static std::string shown(std::string_view text) {
        static constexpr char DIGITS[] = "0123456789ABCDEF";
        std::string result;
        for (const char character : text) {
            const auto byte = static_cast<unsigned char>(character);
            const bool printable = byte >= 0x20 && byte < 0x7F;
            if (result.size() + (printable ? 1 : 4) > LONGEST_TEXT) {
                return result + "...";
            }
            if (printable) {
                result += character;
            } else {
                result += {'\\', 'x', DIGITS[byte >> 4U], DIGITS[byte & 15U]};
            }
        }
        return result;
    }

    const OnCacheFault& onFault_;
    bool stopped_ = false;
    std::uint64_t count_ = 0;
};

/// Verifies what lies in the files of records; verifyCacheBytes() with a report that may hold faults already.
CacheStatistics verifyRecords(const CacheBytes& bytes, FaultReport& faults);

}  // namespace Tesmor::Arkwell::Rbac::detail
