#pragma once

#include <rbac/ObjectNamespace.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Tesmor::Arkwell::Rbac::detail {

/// "7C000000"
inline std::string hexOf(std::uint32_t number, int digits) {
    std::string text(static_cast<std::size_t>(digits), '0');
    for (auto digit = text.rbegin(); digit != text.rend(); ++digit, number >>= 4U) {
        *digit = "0123456789ABCDEF"[number & 15U];
    }
    return text;
}

/// How far an escape, "%" and two digits, has been read where a segment ends.
using EscapeState = std::uint8_t;
constexpr EscapeState NO_ESCAPE = 0;

/// A segment's bytes, apart from what it is filled up with.
struct SegmentBytes {
    std::array<char, 4> bytes;
    std::size_t length;
    bool closed;      // ends with "|"
    bool wellFormed;  // four bytes or closed, and nothing but zeros follow

    std::string_view text() const { return {bytes.data(), length}; }
};

inline SegmentBytes bytesOf(std::int32_t key) {
    const auto value = static_cast<std::uint32_t>(key);
    SegmentBytes segment{{static_cast<char>(value >> 24U), static_cast<char>(value >> 16U),
                          static_cast<char>(value >> 8U), static_cast<char>(value)},
                         0,
                         false,
                         false};
    while (segment.length < 4 && !segment.closed && segment.bytes[segment.length] != '\0') {
        segment.closed = segment.bytes[segment.length] == '|';
        ++segment.length;
    }
    const std::uint32_t taken =
        segment.length == 0 ? 0 : ~std::uint32_t{0} << (32 - 8 * static_cast<unsigned>(segment.length));
    segment.wellFormed = (segment.closed || segment.length == 4) && (value & ~taken) == 0;
    return segment;
}

/// What the texts of namespaces look like, as this process writes them.
class TextRules {
public:
    /// What is wrong with a segment that is well formed; nothing otherwise. `escape` is that of the segment before, and
    /// becomes this one's.
    std::optional<std::string> whatIsWrong(const SegmentBytes& segment, EscapeState& escape) {
        for (const char character : segment.text()) {
            if (std::optional<std::string> wrong = read(character, escape)) {
                escape = NO_ESCAPE;
                return wrong;
            }
        }
        return std::nullopt;
    }

private:
    // Beyond this, an escape's first digit is added.
    static constexpr EscapeState BEGUN = 1;
    static constexpr EscapeState HALF_READ = 2;
    static constexpr unsigned NO_DIGIT = 16;

    static unsigned digitOf(char character) {
        if (character >= '0' && character <= '9') {
            return static_cast<unsigned>(character - '0');
        }
        return character >= 'A' && character <= 'F' ? static_cast<unsigned>(character - 'A') + 10 : NO_DIGIT;
    }

    std::optional<std::string> read(char character, EscapeState& escape) {
        if (escape != NO_ESCAPE) {
            return readDigit(character, escape);
        }
        const auto byte = static_cast<unsigned char>(character);
        if (character == '%') {
            escape = BEGUN;
        } else if (character != '|' && character != '+' && writingOf(byte) != Writing::PLAIN) {
            return "holds the byte " + hexOf(byte, 2) + ", which no text does";
        }
        return std::nullopt;
    }

    std::optional<std::string> readDigit(char character, EscapeState& escape) {
        const unsigned digit = digitOf(character);
        if (digit == NO_DIGIT) {
            return "breaks off an escape, which is a % with two of the digits 0 to 9 and A to F";
        }
        if (escape == BEGUN) {
            escape = static_cast<EscapeState>(HALF_READ + digit);
            return std::nullopt;
        }
        const unsigned byte = (escape - HALF_READ) * 16U + digit;
        escape = NO_ESCAPE;
        if (writingOf(static_cast<unsigned char>(byte)) != Writing::ESCAPED) {
            return "escapes the byte " + hexOf(byte, 2) + ", which texts do not";
        }
        return std::nullopt;
    }

    /// How texts write a byte.
    enum class Writing : std::uint8_t { NOT_KNOWN_YET, PLAIN, ESCAPED, OTHERWISE };

    Writing writingOf(unsigned char byte) {
        Writing& writing = writings_[byte];
        if (writing == Writing::NOT_KNOWN_YET) {
            const std::string component(1, static_cast<char>(byte));
            const std::string encoded = ObjectNamespace::encode_component(component);
            writing = encoded == component ? Writing::PLAIN : encoded[0] == '%' ? Writing::ESCAPED : Writing::OTHERWISE;
        }
        return writing;
    }

    std::array<Writing, 256> writings_{};
};

}  // namespace Tesmor::Arkwell::Rbac::detail
