#include "rbac/namespace/NamespaceText.h"

#include <boost/lexical_cast.hpp>
#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>
#include <string_view>

using Tesmor::Arkwell::Rbac::NamespaceText;
using Tesmor::Arkwell::Rbac::ObjectNamespace;

namespace {

/// A text of which every part matters to a reader, more often than not between two bars.
std::string randomText(std::mt19937& random) {
    constexpr std::string_view PIECES = "||||%%77CcgA+ \n\x80";
    std::string text = random() % 8 != 0 ? "|" : "";
    for (auto left = random() % 10; left > 0; --left) {
        text += PIECES[random() % PIECES.size()];
    }
    return random() % 8 != 0 ? text + "|" : text;
}

template <class Read>
std::optional<ObjectNamespace> readBy(Read read, const std::string& text) {
    try {
        return read(text.c_str());
    } catch (const boost::bad_lexical_cast&) {
        return std::nullopt;
    }
}

}  // namespace

TEST(NamespaceTextProperties, TextsAreReadAsByLexicalCast) {
    std::mt19937 random(9);  // NOLINT(cert-msc51-cpp): the same numbers in every run
    int refused = 0;
    for (int i = 0; i < 20'000; ++i) {
        const std::string text = randomText(random);
        const auto expected = readBy([](const char* t) { return boost::lexical_cast<ObjectNamespace>(t); }, text);
        ASSERT_EQ(readBy(NamespaceText::parse, text), expected) << testing::PrintToString(text);
        refused += expected ? 0 : 1;
    }
    EXPECT_GT(refused, 2'000);
    EXPECT_LT(refused, 18'000);
}
