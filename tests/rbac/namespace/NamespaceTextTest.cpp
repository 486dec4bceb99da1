#include "testing/ChildProcess.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/ObjectNamespace.h>

#include <boost/lexical_cast.hpp>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <iomanip>
#include <random>
#include <sstream>
#include <streambuf>
#include <string>

using Tesmor::Arkwell::Rbac::namespaceToString;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using testing_support::ChildProcess;
using testing_support::ScopedEnvironment;
using testing_support::TemporaryDirectory;
namespace root_namespaces = Tesmor::Arkwell::Rbac::root_namespaces;

namespace {

// The same numbers in every run.
std::mt19937 numbersFrom(unsigned seed) {
    return std::mt19937(seed);
}

ObjectNamespace parse(const std::string& text) {
    return boost::lexical_cast<ObjectNamespace>(text.c_str());
}

bool parses(const std::string& text) {
    try {
        parse(text);
        return true;
    } catch (const boost::bad_lexical_cast&) {
        return false;
    }
}

// What encode_component makes of a byte in the "C" locale, written down independently of it.
std::string encodedByte(unsigned char byte) {
    static const std::string PLAIN = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-*_.";
    if (PLAIN.find(static_cast<char>(byte)) != std::string::npos) {
        return {static_cast<char>(byte)};
    }
    if (byte == 0x20) {
        return "+";
    }
    std::ostringstream out;
    out << '%' << std::uppercase << std::hex << std::setw(2) << std::setfill('0') << static_cast<int>(byte);
    return out.str();
}

std::string randomComponent(std::mt19937& random) {
    std::string component(random() % 20, '\0');
    std::generate(component.begin(), component.end(), [&random] { return static_cast<char>(random() & 0xFF); });
    return component;
}

/// Accepts nothing.
class FullBuffer : public std::streambuf {};

void compileLatin1Locale(const std::string& path) {
    ChildProcess([&path] {
        return execlp("localedef", "localedef", "--quiet", "-c", "-i", "en_US", "-f", "ISO-8859-1", path.c_str(),
                      nullptr);
    }).wait();
}

/// Another locale for the whole program, until the end.
class ScopedLocale {
public:
    explicit ScopedLocale(const std::string& name) : set_(std::setlocale(LC_CTYPE, name.c_str()) != nullptr) {}
    ~ScopedLocale() { static_cast<void>(std::setlocale(LC_CTYPE, "C")); }
    ScopedLocale(const ScopedLocale&) = delete;
    ScopedLocale& operator=(const ScopedLocale&) = delete;

    bool set() const { return set_; }

private:
    bool set_;
};

}  // namespace

TEST(EncodeComponent, EmptyStaysEmpty) {
    EXPECT_EQ(ObjectNamespace::encode_component(""), "");
}

TEST(EncodeComponent, SpaceBecomesPlus) {
    EXPECT_EQ(ObjectNamespace::encode_component("a b"), "a+b");
}

TEST(EncodeComponent, BarPercentAndPlusAreEscaped) {
    EXPECT_EQ(ObjectNamespace::encode_component("A|B%C+D"), "A%7CB%25C%2BD");
}

TEST(EncodeComponent, TildeIsEscaped) {
    EXPECT_EQ(ObjectNamespace::encode_component("~"), "%7E");
}

TEST(EncodeComponent, HighByteIsEscaped) {
    EXPECT_EQ(ObjectNamespace::encode_component("\xE9"), "%E9");
}

TEST(EncodeComponent, MarksThatStandForThemselves) {
    EXPECT_EQ(ObjectNamespace::encode_component("x-y_z.w*"), "x-y_z.w*");
}

TEST(EncodeComponent, EveryByteIsEncodedAsItsClassSays) {
    for (int byte = 0; byte < 256; ++byte) {
        const auto value = static_cast<unsigned char>(byte);
        EXPECT_EQ(ObjectNamespace::encode_component(std::string(1, static_cast<char>(value))), encodedByte(value))
            << byte;
    }
}

TEST(EncodeComponent, LongTextIsNotCut) {
    std::string component;
    std::string encoded;
    for (int i = 0; i < 10000; ++i) {
        component += static_cast<char>(i);
        encoded += encodedByte(static_cast<unsigned char>(i));
    }
    EXPECT_EQ(ObjectNamespace::encode_component(component), encoded);
}

TEST(EncodeComponent, LettersAreThoseOfTheCurrentLocale) {
    const TemporaryDirectory directory;
    const ScopedEnvironment localePath("LOCPATH", directory.path().c_str());
    compileLatin1Locale(directory / "latin1");
    const ScopedLocale locale("latin1");
    if (!locale.set()) {
        GTEST_SKIP() << "this system cannot compile a Latin-1 locale";
    }
    EXPECT_EQ(ObjectNamespace::encode_component("\xE9|\xA7"), "\xE9%7C%A7");
}

TEST(NamespaceText, RootIsASingleBar) {
    EXPECT_EQ(ObjectNamespace().str(), "|");
}

TEST(NamespaceText, EveryComponentIsFollowedByABar) {
    EXPECT_EQ(ObjectNamespace("ARKWELL").str(), "|ARKWELL|");
    EXPECT_EQ(ObjectNamespace("OPERATIONS", "MANAGE_ACCESS").str(), "|OPERATIONS|MANAGE_ACCESS|");
}

TEST(NamespaceText, ComponentsAreEscaped) {
    EXPECT_EQ(ObjectNamespace("a b|c").str(), "|a+b%7Cc|");
}

TEST(NamespaceText, EmptyComponentIsNothingBetweenTwoBars) {
    EXPECT_EQ(ObjectNamespace("A", "").str(), "|A||");
    EXPECT_EQ(ObjectNamespace("").str(), "||");
    EXPECT_EQ(ObjectNamespace("", "").str(), "|||");
}

TEST(NamespaceText, StaysTheSameObjectOnceComputed) {
    const ObjectNamespace ns("A", "B");
    const std::string& first = ns.str();
    EXPECT_EQ(&ns.str(), &first);
    EXPECT_EQ(&ns.toLogStr(), &first);
}

TEST(NamespaceText, LogTextIsTheText) {
    EXPECT_EQ(ObjectNamespace("a b", "C").toLogStr(), "|a+b|C|");
}

TEST(NamespaceText, ConstantsHaveTheirTexts) {
    EXPECT_EQ(root_namespaces::OBJECT_TYPES.str(), "|OBJECT_TYPES|");
    EXPECT_EQ(root_namespaces::operations::DELETE_NS.str(), "|OPERATIONS|DELETE|");
}

TEST(NamespaceOutput, WritesTheText) {
    std::ostringstream out;
    out << ObjectNamespace("a b", "C");
    EXPECT_EQ(out.str(), "|a+b|C|");
    EXPECT_TRUE(out.good());
}

TEST(NamespaceOutput, ContinuesWhatWasWrittenBefore) {
    std::ostringstream out;
    out << "object " << ObjectNamespace("A") << " and " << ObjectNamespace();
    EXPECT_EQ(out.str(), "object |A| and |");
}

TEST(NamespaceOutput, IsNotPadded) {
    std::ostringstream out;
    out << std::setw(20) << std::setfill('*') << ObjectNamespace("A");
    EXPECT_EQ(out.str(), "|A|");
}

TEST(NamespaceOutput, IsNotPaddedOnTheLeftAlignedSideEither) {
    std::ostringstream out;
    out << std::left << std::setw(20) << std::setfill('*') << std::uppercase << std::hex << ObjectNamespace("a~");
    EXPECT_EQ(out.str(), "|a%7E|");
}

TEST(NamespaceOutput, UsesUpTheWidth) {
    std::ostringstream out;
    out << std::setw(20) << ObjectNamespace("A") << 5;
    EXPECT_EQ(out.str(), "|A|5");
}

TEST(NamespaceOutput, WritesNothingToAFailedStream) {
    std::ostringstream out;
    out.setstate(std::ios_base::failbit);
    out << ObjectNamespace("A");
    EXPECT_EQ(out.str(), "");
    EXPECT_TRUE(out.fail());
}

TEST(NamespaceOutput, StreamThatTakesNothingGoesBad) {
    FullBuffer buffer;
    std::ostream out(&buffer);
    out << ObjectNamespace("A");
    EXPECT_TRUE(out.bad());
}

TEST(NamespaceOutput, LexicalCastGivesTheText) {
    EXPECT_EQ(boost::lexical_cast<std::string>(ObjectNamespace("a b", "C")), "|a+b|C|");
    EXPECT_EQ(boost::lexical_cast<std::string>(ObjectNamespace()), "|");
}

TEST(NamespaceToString, GivesTheTextAndSucceeds) {
    std::string out = "before";
    EXPECT_EQ(namespaceToString(ObjectNamespace("a b", "C"), out), 0);
    EXPECT_EQ(out, "|a+b|C|");
}

TEST(NamespaceToString, GivesTheRoot) {
    std::string out = "before";
    EXPECT_EQ(namespaceToString(ObjectNamespace(), out), 0);
    EXPECT_EQ(out, "|");
}

TEST(NamespaceToString, SucceedsForComponentsOfAnyBytes) {
    std::mt19937 random = numbersFrom(6);
    for (int i = 0; i < 1000; ++i) {
        const ObjectNamespace ns(randomComponent(random), randomComponent(random));
        std::string out;
        ASSERT_EQ(namespaceToString(ns, out), 0);
        ASSERT_EQ(out, ns.str());
    }
}

TEST(NamespaceInput, BarAloneIsTheRoot) {
    EXPECT_EQ(parse("|"), ObjectNamespace());
}

TEST(NamespaceInput, ReadsComponents) {
    EXPECT_EQ(parse("|A|"), ObjectNamespace("A"));
    EXPECT_EQ(parse("|OPERATIONS|VIEW|"), ObjectNamespace("OPERATIONS", "VIEW"));
}

TEST(NamespaceInput, TwoBarsAreOneEmptyComponent) {
    EXPECT_EQ(parse("||"), ObjectNamespace(""));
    EXPECT_EQ(parse("|||"), ObjectNamespace("", ""));
    EXPECT_EQ(parse("|A||"), ObjectNamespace("A", ""));
}

TEST(NamespaceInput, DecodesComponents) {
    EXPECT_EQ(parse("|a+b%7Cc|%25|"), ObjectNamespace("a b|c", "%"));
}

TEST(NamespaceInput, TakesHexadecimalDigitsOfEitherCase) {
    EXPECT_EQ(parse("|%7c%C3%a9|"), ObjectNamespace("|\xC3\xA9"));
}

TEST(NamespaceInput, UnescapedBytesStandForThemselves) {
    EXPECT_EQ(parse("|a b~\xE9|"), ObjectNamespace("a b~\xE9"));
}

TEST(NamespaceInput, LexicalCastTakesCharacterPointers) {
    char text[] = "|A|B|";
    char* pointer = text;
    const char* constPointer = text;
    EXPECT_EQ(boost::lexical_cast<ObjectNamespace>(pointer), ObjectNamespace("A", "B"));
    EXPECT_EQ(boost::lexical_cast<ObjectNamespace>(constPointer), ObjectNamespace("A", "B"));
}

TEST(NamespaceInput, LexicalCastTakesStringsAndLiterals) {
    EXPECT_EQ(boost::lexical_cast<ObjectNamespace>(std::string("|A|B|")), ObjectNamespace("A", "B"));
    EXPECT_EQ(boost::lexical_cast<ObjectNamespace>("|A|B|"), ObjectNamespace("A", "B"));
}

TEST(NamespaceInput, EmptyTextIsNoNamespace) {
    EXPECT_FALSE(parses(""));
}

TEST(NamespaceInput, TextWithoutTheFirstBarIsNoNamespace) {
    EXPECT_FALSE(parses("A"));
    EXPECT_FALSE(parses("A|"));
    EXPECT_FALSE(parses("A|B|"));
}

TEST(NamespaceInput, TextWithoutTheLastBarIsNoNamespace) {
    EXPECT_FALSE(parses("|A"));
    EXPECT_FALSE(parses("|A|B"));
}

TEST(NamespaceInput, TrailingCharactersAreNoNamespace) {
    EXPECT_FALSE(parses("|A|\n"));
    EXPECT_FALSE(parses("|A| "));
    EXPECT_FALSE(parses("|\n"));
}

TEST(NamespaceInput, LexicalCastRefusesLeadingWhitespace) {
    EXPECT_FALSE(parses("  |A|"));
    EXPECT_FALSE(parses("\n|A|"));
}

TEST(NamespaceInput, MalformedEscapeIsNoNamespace) {
    EXPECT_FALSE(parses("|%|"));
    EXPECT_FALSE(parses("|%4|"));
    EXPECT_FALSE(parses("|%4|1|"));
    EXPECT_FALSE(parses("|A|%GG|"));
}

TEST(NamespaceInput, SuccessLeavesTheStreamGood) {
    std::istringstream in("|A|B|");
    ObjectNamespace ns;
    in >> ns;
    EXPECT_EQ(in.rdstate(), std::ios_base::goodbit);
    EXPECT_EQ(ns, ObjectNamespace("A", "B"));
}

TEST(NamespaceInput, RootLeavesTheStreamGood) {
    std::istringstream in("|");
    ObjectNamespace ns("A");
    in >> ns;
    EXPECT_EQ(in.rdstate(), std::ios_base::goodbit);
    EXPECT_TRUE(ns.is_root());
}

TEST(NamespaceInput, ConsumesTheWholeInput) {
    std::istringstream in("|A|B|");
    ObjectNamespace ns;
    in >> ns;
    EXPECT_EQ(in.get(), std::char_traits<char>::eof());
}

TEST(NamespaceInput, SkipsLeadingWhitespaceWhereTheStreamDoes) {
    std::istringstream in("  |A|");
    ObjectNamespace ns;
    in >> ns;
    EXPECT_TRUE(in.good());
    EXPECT_EQ(ns, ObjectNamespace("A"));
}

TEST(NamespaceInput, RefusesLeadingWhitespaceWhereTheStreamKeepsIt) {
    std::istringstream in("  |A|");
    ObjectNamespace ns;
    in >> std::noskipws >> ns;
    EXPECT_TRUE(in.fail());
    EXPECT_TRUE(ns.is_root());
}

TEST(NamespaceInput, WhitespaceAfterTheFirstBarBelongsToTheComponent) {
    std::istringstream in("| A \n|");
    ObjectNamespace ns;
    in >> ns;
    EXPECT_TRUE(in.good());
    EXPECT_EQ(ns, ObjectNamespace(" A \n"));
}

TEST(NamespaceInput, ZeroByteBelongsToTheComponent) {
    std::istringstream in(std::string("|A\0B|", 5));
    ObjectNamespace ns;
    in >> ns;
    EXPECT_TRUE(in.good());
    EXPECT_EQ(ns, ObjectNamespace(std::string("A\0B", 3)));
}

TEST(NamespaceInput, ReplacesComponentsAndText) {
    ObjectNamespace ns("X", "Y", "Z");
    ASSERT_EQ(ns.str(), "|X|Y|Z|");
    std::istringstream in("|A|");
    in >> ns;
    EXPECT_EQ(ns, ObjectNamespace("A"));
    EXPECT_EQ(ns.str(), "|A|");
}

TEST(NamespaceInput, FailureAtTheFirstCharacterLeavesTheRoot) {
    for (const char* text : {"", "   ", "A|", "x"}) {
        std::istringstream in(text);
        ObjectNamespace ns("X");
        ASSERT_EQ(ns.str(), "|X|");
        in >> ns;
        EXPECT_TRUE(in.fail()) << text;
        EXPECT_TRUE(ns.is_root()) << text;
        EXPECT_EQ(ns.str(), "|") << text;
    }
}

TEST(NamespaceInput, UnterminatedPieceLeavesTheComponentsBeforeIt) {
    std::istringstream in("|A|B|C");
    ObjectNamespace ns("X");
    in >> ns;
    EXPECT_TRUE(in.fail());
    EXPECT_EQ(ns, ObjectNamespace("A", "B"));
    EXPECT_EQ(ns.str(), "|A|B|");
}

TEST(NamespaceInput, TrailingNewlineFails) {
    std::istringstream in("|A|\n");
    ObjectNamespace ns;
    in >> ns;
    EXPECT_TRUE(in.fail());
    EXPECT_EQ(ns, ObjectNamespace("A"));
}

TEST(NamespaceInput, MalformedEscapeLeavesTheComponentsBeforeIt) {
    std::istringstream in("|A|B%|C|");
    ObjectNamespace ns("X");
    in >> ns;
    EXPECT_TRUE(in.fail());
    EXPECT_FALSE(in.eof());
    EXPECT_EQ(ns, ObjectNamespace("A"));
}

TEST(NamespaceInput, FailedStreamStaysFailedAndLeavesTheRoot) {
    std::istringstream in("|A|");
    in.setstate(std::ios_base::failbit);
    ObjectNamespace ns("X");
    in >> ns;
    EXPECT_TRUE(in.fail());
    EXPECT_TRUE(ns.is_root());
}

TEST(NamespaceTextProperties, EveryNamespaceReadsBackFromItsText) {
    std::mt19937 random = numbersFrom(7);
    for (int i = 0; i < 5000; ++i) {
        ObjectNamespace ns;
        for (auto left = random() % 6; left > 0; --left) {
            ns = ns | randomComponent(random);
        }
        ASSERT_EQ(parse(ns.str()), ns) << ns.str();
        ASSERT_EQ(parse(ns.str()).str(), ns.str());
    }
}

TEST(NamespaceTextProperties, EveryByteReadsBackFromItsText) {
    for (int byte = 0; byte < 256; ++byte) {
        const ObjectNamespace ns(std::string(1, static_cast<char>(byte)));
        EXPECT_EQ(parse(ns.str()), ns) << byte;
    }
}

TEST(NamespaceTextProperties, TextHoldsOnlyPrintableAsciiWithoutSpaces) {
    std::mt19937 random = numbersFrom(8);
    for (int i = 0; i < 2000; ++i) {
        const std::string text = ObjectNamespace(randomComponent(random)).str();
        ASSERT_TRUE(std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < '\x7F'; })) << text;
    }
}
