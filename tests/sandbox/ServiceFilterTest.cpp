#include "sandbox/FilterExpression.h"
#include "sandbox/ServiceError.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

using namespace Tesmor::Arkwell::Sandbox;

namespace {

FilterExpression parse(const std::string& text) {
    return {text, {{"name", true}, {"object", false}}};
}

std::string refusalOf(const std::string& text) {
    try {
        parse(text);
    } catch (const ServiceError& error) {
        EXPECT_EQ(error.kind().code, 5003);
        return error.details().front();
    }
    return "taken";
}

}  // namespace

TEST(ServiceFilterTest, ComparesWholeTexts) {
    const FilterExpression filter = parse("name eq 'abc'");
    EXPECT_TRUE(filter.accepts("abc"));
    EXPECT_FALSE(filter.accepts("abcd"));
    EXPECT_FALSE(filter.accepts("ab"));
}

TEST(ServiceFilterTest, ComparesBeginnings) {
    const FilterExpression filter = parse("startswith(name,'abc')");
    EXPECT_TRUE(filter.accepts("abc"));
    EXPECT_TRUE(filter.accepts("abcd"));
    EXPECT_FALSE(filter.accepts("ab"));
    EXPECT_FALSE(filter.accepts("xabc"));
}

TEST(ServiceFilterTest, LetsEverythingThroughWithoutAText) {
    EXPECT_TRUE(FilterExpression().accepts("anything"));
}

TEST(ServiceFilterTest, ReadsTwoQuotesAsOne) {
    EXPECT_EQ(parse("name eq 'o''hara'").text(), "o'hara");
    EXPECT_EQ(parse("name eq ''''").text(), "'");
    EXPECT_EQ(parse("name eq ''").text(), "");
}

TEST(ServiceFilterTest, TakesBlanksBetweenTheWords) {
    EXPECT_EQ(parse("  name   eq   ' a b '  ").text(), " a b ");
    EXPECT_EQ(parse("startswith ( name , 'a' )").text(), "a");
    EXPECT_EQ(parse("name eq'a'").text(), "a");
}

TEST(ServiceFilterTest, KnowsWhichFieldIsMeant) {
    EXPECT_EQ(parse("object eq '|A|'").field(), "object");
    EXPECT_EQ(parse("name eq '|A|'").field(), "name");
}

TEST(ServiceFilterTest, SaysWhereTheTextStopsMakingSense) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {" ", "at character 2: name or object or startswith is expected:  "},
        {"size eq '1'", "at character 1: name or object or startswith is expected: size eq '1'"},
        {"NAME eq '1'", "at character 1: name or object or startswith is expected: NAME eq '1'"},
        {"name = '1'", "at character 6: eq is expected: name = '1'"},
        {"name ne '1'", "at character 6: eq is expected: name ne '1'"},
        {"name eq 1", "at character 9: \"'\" is expected: name eq 1"},
        {"name eq '1", "at character 11: the text does not end: name eq '1"},
        {"name eq '1''", "at character 13: the text does not end: name eq '1''"},
        {"name eq '1' or name eq '2'", "at character 13: the end is expected: name eq '1' or name eq '2'"},
        {"startswith name", "at character 12: \"(\" is expected: startswith name"},
        {"startswith(object,'|')", "at character 12: name is expected: startswith(object,'|')"},
        {"startswith(name 'a')", "at character 17: \",\" is expected: startswith(name 'a')"},
        {"startswith(name,'a'", "at character 20: \")\" is expected: startswith(name,'a'"},
    };
    for (const auto& [text, refusal] : cases) {
        EXPECT_EQ(refusalOf(text), refusal);
    }
}
