#pragma once

#include <rbac/CacheVerification.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tesmor::Arkwell::Rbac::detail {

/// As what a record was reached.
enum class RecordUse : std::uint8_t { NONE, SEGMENT, OBJECT, ROLE_ROOT, ROLE_INNER, WORD_ROOT, WORD_INNER };

/// The records of a file of a cache that is being verified, and what is known of each. Record numbers are below
/// count(); a file whose end is in the midst of a record has that many fewer.
template <class Record>
class RecordUses {
public:
    RecordUses(const std::string& name, const std::optional<std::string_view>& bytes)
        : name_(name),
          isThere_(bytes.has_value()),
          bytes_(bytes.value_or(std::string_view())),
          uses_(std::min(count(), ADDRESSABLE)) {}

    const std::string& name() const { return name_; }
    bool isThere() const { return isThere_; }
    std::size_t size() const { return bytes_.size(); }
    std::size_t count() const { return bytes_.size() / sizeof(Record); }
    std::uint64_t reached() const { return reached_; }

    Record at(std::size_t record) const {
        Record result;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled by the next line, for every record
        std::memcpy(&result, bytes_.data() + record * sizeof(Record), sizeof result);
        return result;
    }
    bool isZero(std::size_t record) const {
        static constexpr std::array<char, sizeof(Record)> ZEROS{};
        return std::memcmp(bytes_.data() + record * sizeof(Record), ZEROS.data(), ZEROS.size()) == 0;
    }

    RecordUse use(std::size_t record) const {
        return record < uses_.size() ? static_cast<RecordUse>(uses_[record] & ~OPEN) : RecordUse::NONE;
    }
    /// Whether the walk is at this record or below it.
    bool isOpen(std::size_t record) const { return (uses_[record] & OPEN) != 0; }

    void open(std::size_t record, RecordUse use) {
        uses_[record] = static_cast<std::uint8_t>(use) | OPEN;
        ++reached_;
    }
    void close(std::size_t record) { uses_[record] &= static_cast<std::uint8_t>(~OPEN); }

private:
    static constexpr std::uint8_t OPEN = 0x80;
    // Offsets have 32 bits: nothing leads to what lies beyond.
    static constexpr std::size_t ADDRESSABLE = (std::size_t{1} << 32U) / sizeof(Record) + 1;

    const std::string& name_;
    bool isThere_;
    std::string_view bytes_;
    std::vector<std::uint8_t> uses_;
    std::uint64_t reached_ = 0;
};

}  // namespace Tesmor::Arkwell::Rbac::detail
